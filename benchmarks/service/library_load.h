#pragma once

#include <filesystem>

namespace benchmarks {

/// Loads a library that starts a supervisor, or does the same at least, once per process.
/// @return the nanoseconds from there until it waits for a change of its key. Throws when it does not get
/// there.
double TimeUntilItWaits(const std::filesystem::path& library);

}  // namespace benchmarks
