#pragma once

#include <windows.h>

namespace hosts {

/// What the service manager is told about the service's state. Not locked. A service that is stopping does
/// not run again, and one that has stopped says no more.
class ServiceReport {
 public:
  /// Takes the manager's handle and reports the start as pending.
  void Begin(SERVICE_STATUS_HANDLE manager, DWORD hintMs);
  void Running(bool acceptsStop);
  /// Again and again while a stop takes its time, more often than each `hintMs`.
  void Stopping(DWORD hintMs);
  void Stopped();
  void Failed(DWORD serviceCode);

  bool IsRunning() const { return m_Status.dwCurrentState == SERVICE_RUNNING; }

 private:
  void Pending(DWORD state, DWORD hintMs);
  void Settled(DWORD state, DWORD accepted);

  SERVICE_STATUS_HANDLE m_Manager = nullptr;
  SERVICE_STATUS m_Status{.dwServiceType = SERVICE_WIN32_OWN_PROCESS,
                          .dwCurrentState = SERVICE_STOPPED,
                          .dwControlsAccepted = 0,
                          .dwWin32ExitCode = NO_ERROR,
                          .dwServiceSpecificExitCode = 0,
                          .dwCheckPoint = 0,
                          .dwWaitHint = 0};
};

}  // namespace hosts
