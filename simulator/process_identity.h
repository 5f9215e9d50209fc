#pragma once

#include <windows.h>

#include <cstdint>

namespace simulator {

/// Which process, for good: its id alone is given to another one once it has died. Plain data, for memory
/// that processes share.
struct ProcessIdentity {
  DWORD id = 0;  ///< 0 for none
  std::uint64_t begun = 0;

  bool IsAny() const { return id != 0; }
  bool operator==(const ProcessIdentity&) const = default;
};

/// Of a process that the caller has in its hands.
ProcessIdentity IdentityOf(HANDLE process);
ProcessIdentity ThisProcess();

/// Whether that process has begun and not died. One that may not be looked at lives.
bool Lives(const ProcessIdentity& identity);

}  // namespace simulator
