#pragma once

namespace hosts {

/// Hands this process to the service manager and runs until the service is stopped.
/// @return 0; the Win32 error when the manager did not start this process.
unsigned long RunAsService();

/// Runs the same in a terminal until Ctrl+C. @return the exit status of the program.
int RunInConsole();

}  // namespace hosts
