#pragma once

#include <windows.h>

namespace corvel {

/// How long the engine waits for the flash port, which it tells the flashing library too, and the time
/// limit that the library is told as well.
inline constexpr DWORD kFlashPortWaitMs = 15000;
inline constexpr DWORD kLibraryTimeLimitMs = 60000;

}  // namespace corvel
