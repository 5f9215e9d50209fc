#include "hosts/service/service_report.h"

namespace hosts {

void ServiceReport::Begin(SERVICE_STATUS_HANDLE manager, DWORD hintMs) {
  m_manager = manager;
  Pending(SERVICE_START_PENDING, hintMs);
}

void ServiceReport::Running(bool acceptsStop) {
  if (m_status.dwCurrentState != SERVICE_START_PENDING && !IsRunning()) return;
  Settled(SERVICE_RUNNING, SERVICE_ACCEPT_PRESHUTDOWN | (acceptsStop ? SERVICE_ACCEPT_STOP : 0u));
}

void ServiceReport::Stopping(DWORD hintMs) {
  if (m_status.dwCurrentState == SERVICE_STOPPED) return;
  Pending(SERVICE_STOP_PENDING, hintMs);
}

void ServiceReport::Stopped() {
  if (m_status.dwCurrentState == SERVICE_STOPPED) return;
  Settled(SERVICE_STOPPED, 0);
}

void ServiceReport::Failed(DWORD serviceCode) {
  m_status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
  m_status.dwServiceSpecificExitCode = serviceCode;
  Stopped();
}

/// A pending state counts its check points from 1; the manager takes a count that stands still for a hang.
void ServiceReport::Pending(DWORD state, DWORD hintMs) {
  m_status.dwCheckPoint = m_status.dwCurrentState == state ? m_status.dwCheckPoint + 1 : 1;
  m_status.dwCurrentState = state;
  m_status.dwControlsAccepted = 0;
  m_status.dwWaitHint = hintMs;
  ::SetServiceStatus(m_manager, &m_status);
}

void ServiceReport::Settled(DWORD state, DWORD accepted) {
  m_status.dwCurrentState = state;
  m_status.dwControlsAccepted = accepted;
  m_status.dwCheckPoint = 0;
  m_status.dwWaitHint = 0;
  ::SetServiceStatus(m_manager, &m_status);
}

}  // namespace hosts
