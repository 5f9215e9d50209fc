#pragma once

#include "common/tstring.h"

namespace corvel {

/// The folder of the host's executable with its trailing separator. Empty, and logged, when the system
/// does not tell it; lack of memory throws std::bad_alloc, so that it never passes for that: a path made from
/// an empty folder would be looked for elsewhere.
CTString ProgramFolder();

/// The same for callers that throw nothing.
/// @return false, with an empty folder, for lack of memory; true otherwise, even with an empty folder.
bool TakeProgramFolder(CTString& folder) noexcept;

}  // namespace corvel
