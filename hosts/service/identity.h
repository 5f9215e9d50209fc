#pragma once

/// How the service is known to the system.
inline constexpr wchar_t kServiceName[] = L"CorvelFlashService";
inline constexpr wchar_t kDisplayName[] = L"Corvel Modem Flash Service";
inline constexpr wchar_t kDescription[] =
    L"Updates the firmware of the built-in cellular modem when asked to.";

/// A control of the service's own: stop, even while a flash is running.
inline constexpr unsigned long kControlForcedStop = 128;

/// Why the service ended by itself, as its service-specific exit code.
inline constexpr unsigned long kFailedNoLibrary = 1;
inline constexpr unsigned long kFailedNoConfiguration = 2;

/// How long a stop may wait for a running attempt: 130 s of download, 23 s for the modem's return, and some.
/// More than any limit that the system gives a service by itself.
inline constexpr unsigned long kLongestStopMs = 200000;
