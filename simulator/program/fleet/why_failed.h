#pragma once

#include <string>
#include <string_view>

namespace simulator {

/// Why the last flash of a debug log failed, as whoever looks into such logs is told: by what ended it. The
/// same words for the same reason, so that they can be counted.
/// @param folder of the PC, which files are named without.
std::string WhyFailed(std::string_view log, std::string_view folder = {});

}  // namespace simulator
