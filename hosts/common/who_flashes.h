#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "hosts/common/handshake.h"
#include "hosts/common/owners.h"

namespace hosts {

// Two hosts that drive one modem at the same time spoil each other's flash, and the one that ends first
// deletes the images of the other. So a command line that is about to flash looks who else does.

/// Who keeps a command line from flashing, in words for scripts and people; the message without its full
/// stop.
struct Obstacle {
  const char* code;
  std::string message;
  std::string whatToDo;
};

/// The code of an obstacle that is a service which starts.
inline constexpr char kServiceStarts[] = "service_starting";

/// This process's claim to be the only command line that flashes.
class CommandLineClaim {
 public:
  CommandLineClaim();

  /// Nothing when the claim is held.
  std::optional<Obstacle> WhoHoldsIt() const;

 private:
  OwnedHandle m_Mutex;
  DWORD m_Error = ERROR_SUCCESS;
};

/// Another command line that flashes, for a program that makes no claim of its own; empty when there is
/// none.
std::optional<Obstacle> FindFlashingCommandLine();

/// A flash service that is flashing, or that would take the request of the command line as well, because it
/// runs and has the same key. What a service that does not run any more left in its key is no obstacle.
std::optional<Obstacle> FindServiceInTheWay(const HandshakeKey& commandLineKey);

/// A flash service that runs and takes its images from that folder, flashing or not: it may begin at any
/// time, and deletes what it finds there in the end.
std::optional<Obstacle> FindServiceThatUses(const std::wstring& folder);

/// Whether the installed flash service starts. It reads its configuration then, and finds none while somebody
/// else has the file open.
bool IsServiceStarting();

}  // namespace hosts
