#pragma once

#include <windows.h>

namespace corvel {

/// The exit code of a process that this library has ended because it could not go on without memory: the
/// customer bit of a status code, and ERROR_NOT_ENOUGH_MEMORY.
inline constexpr DWORD kLackOfMemoryExitCode = 0xE0000008u;

/// For std::set_terminate. What comes here could not be reported in any other way: ends the process, so that
/// whoever watches over it restarts it.
[[noreturn]] inline void EndProcessForLackOfMemory() noexcept {
  ::TerminateProcess(::GetCurrentProcess(), kLackOfMemoryExitCode);
  // Not reached: ending the own process does not return.
  for (;;) ::Sleep(INFINITE);
}

}  // namespace corvel
