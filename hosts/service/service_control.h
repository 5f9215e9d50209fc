#pragma once

#include <windows.h>

/// What managing the service comes to, for a message and an exit status.
struct ControlResult {
  DWORD error = ERROR_SUCCESS;
  /// What the failing call was meant to do.
  const char* step = "";
  /// What the service goes without although the call succeeded; empty: nothing.
  const char* missing = "";
};

struct ServiceState {
  bool installed = false;
  DWORD state = SERVICE_STOPPED;
  DWORD processId = 0;
  DWORD win32ExitCode = 0;
  DWORD serviceExitCode = 0;
};

ControlResult InstallService(bool automatic);
/// Stops the service if need be and removes all that installing made.
ControlResult UninstallService();
/// Starts the service and waits until it runs.
ControlResult StartFlashService();
/// Stops the service and waits until it has stopped. A running flash is interrupted only when `forced`.
ControlResult StopFlashService(bool forced);
ControlResult QueryFlashService(ServiceState& state);
const char* NameOfState(DWORD state);
