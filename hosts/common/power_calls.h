#pragma once

#include <windows.h>

// Functions of the system's that not every set of Windows headers declares, as Microsoft's do. Declared once
// more they do no harm.

extern "C" {
WINBASEAPI HANDLE WINAPI PowerCreateRequest(REASON_CONTEXT* context);
WINBASEAPI BOOL WINAPI PowerSetRequest(HANDLE request, POWER_REQUEST_TYPE type);
WINBASEAPI BOOL WINAPI QueryUnbiasedInterruptTime(ULONGLONG* time);
}

namespace hosts {

/// PowerRequestExecutionRequired.
inline constexpr auto kExecutionRequired = static_cast<POWER_REQUEST_TYPE>(3);

}  // namespace hosts
