#pragma once

namespace hosts {

/// What a host does when a flash stands still, beside telling of it.
enum class WhenStuck { GoOn, EndProcess };

/// Hands this process to the service manager and runs until the service is stopped.
/// @return 0; the Win32 error when the manager did not start this process.
unsigned long RunAsService(WhenStuck whenStuck = WhenStuck::GoOn);

/// Runs the same in a terminal until Ctrl+C. @return the exit status of the program.
int RunInConsole(WhenStuck whenStuck = WhenStuck::GoOn);

}  // namespace hosts
