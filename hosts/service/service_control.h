#pragma once

#include <windows.h>

#include <string>

namespace hosts {

/// What managing the service comes to, for a message and an exit status.
struct ControlResult {
  DWORD error = ERROR_SUCCESS;
  /// What the failing call was meant to do.
  const char* step = "";
  /// What the service goes without although the call succeeded; empty: nothing.
  const char* missing = "";
  /// With ERROR_SERVICE_SPECIFIC_ERROR: the code that the service ended with.
  DWORD serviceCode = 0;
};

struct ServiceState {
  bool installed = false;
  DWORD state = SERVICE_STOPPED;
  DWORD processId = 0;
  DWORD win32ExitCode = 0;
  DWORD serviceExitCode = 0;

  /// Whether it ended by itself, and in failure. A service that was never started says so in the same place.
  bool HasFailed() const {
    return installed && state == SERVICE_STOPPED && win32ExitCode != NO_ERROR &&
           win32ExitCode != ERROR_SERVICE_NEVER_STARTED;
  }
};

/// How the service is to be.
struct InstallOptions {
  bool automatic = false;
  bool restartsWhenStuck = false;
  /// Only the privileges that it needs, and an identity of its own that permissions can be given to.
  bool restricted = false;
};

/// Waits for a while for a deleted service of the same name to go.
ControlResult InstallService(const InstallOptions& options);
/// Whether the service is installed already with the same program, options for it, and start, and not
/// restricted unless it is to be. One that is to be may be restricted later.
bool IsInstalledLikeThis(const InstallOptions& options);
/// Takes from the installed service what InstallOptions::restricted says.
ControlResult RestrictInstalledService();
/// Stops the service if necessary and removes all that installing made.
ControlResult UninstallService();
/// Starts the service and waits until it runs; ERROR_SERVICE_ALREADY_RUNNING when it did before.
ControlResult StartFlashService();
/// Stops the service and waits until it has stopped. A running flash is interrupted only when `forced`.
ControlResult StopFlashService(bool forced);
ControlResult QueryFlashService(ServiceState& state);
const char* NameOfState(DWORD state);
/// In words, why the service ended with one of its own codes.
std::string MeaningOfServiceCode(DWORD code);

}  // namespace hosts
