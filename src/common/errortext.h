#pragma once

namespace corvel {

/// The system's message for a Win32 error as "Error code N: message". The last error survives.
/// @return one process-wide buffer of 128 characters that each call overwrites; not for two threads at once.
const char* Win32ErrorText(unsigned long error);

}  // namespace corvel
