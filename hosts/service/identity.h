#pragma once

#include "hosts/common/facts.h"

namespace hosts {

/// How the service is known to people.
inline constexpr wchar_t kDisplayName[] = L"Corvel Modem Flash Service";
inline constexpr wchar_t kDescription[] =
    L"Updates the firmware of the built-in cellular modem when asked to.";

/// A control of the service's own: the next stop may interrupt a running flash. By itself it stops nothing:
/// the system lets any user send it, but keeps the stop for administrators.
inline constexpr unsigned long kControlAllowInterruption = 128;

/// Why the service ended by itself, as its service-specific exit code.
inline constexpr unsigned long kFailedNoLibrary = 1;
inline constexpr unsigned long kFailedNoConfiguration = 2;
inline constexpr unsigned long kFailedNoResources = 3;
inline constexpr unsigned long kEndedBecauseStuck = 4;

/// Exit status of a process that ended itself because a flash stood still. No verb ends so.
inline constexpr unsigned int kStuckExitStatus = 5;
/// Asks for that, on the command line that the service manager starts the program by too.
inline constexpr char kRestartWhenStuckOption[] = "--restart-when-stuck";

/// How long the library may take to come up on a PC that is busy starting.
inline constexpr unsigned long kLongestStartMs = 30000;
/// How long a stop waits for a running attempt: 130 s of download, 23 s for the modem's return, and some.
inline constexpr unsigned long kLongestAttemptMs = 180000;
/// What the system is asked to grant at a shutdown: more than the wait, and more than it grants by itself.
inline constexpr unsigned long kShutdownLimitMs = 200000;

}  // namespace hosts
