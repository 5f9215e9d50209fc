#include "hosts/service/service_report.h"

namespace hosts {

void ServiceReport::Begin(SERVICE_STATUS_HANDLE manager, DWORD hintMs) {
  m_Manager = manager;
  Pending(SERVICE_START_PENDING, hintMs);
}

void ServiceReport::Running(bool acceptsStop) {
  if (m_Status.dwCurrentState != SERVICE_START_PENDING && !IsRunning()) return;
  Settled(SERVICE_RUNNING,
          SERVICE_ACCEPT_PRESHUTDOWN | SERVICE_ACCEPT_POWEREVENT | (acceptsStop ? SERVICE_ACCEPT_STOP : 0u));
}

void ServiceReport::Stopping(DWORD hintMs) {
  if (m_Status.dwCurrentState == SERVICE_STOPPED) return;
  Pending(SERVICE_STOP_PENDING, hintMs);
}

void ServiceReport::Stopped() {
  if (m_Status.dwCurrentState == SERVICE_STOPPED) return;
  Settled(SERVICE_STOPPED, 0);
}

void ServiceReport::Failed(DWORD serviceCode) {
  m_Status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
  m_Status.dwServiceSpecificExitCode = serviceCode;
  Stopped();
}

/// A pending state counts its check points from 1; the manager takes a count that stands still for a hang.
void ServiceReport::Pending(DWORD state, DWORD hintMs) {
  m_Status.dwCheckPoint = m_Status.dwCurrentState == state ? m_Status.dwCheckPoint + 1 : 1;
  m_Status.dwCurrentState = state;
  m_Status.dwControlsAccepted = 0;
  m_Status.dwWaitHint = hintMs;
  ::SetServiceStatus(m_Manager, &m_Status);
}

void ServiceReport::Settled(DWORD state, DWORD accepted) {
  m_Status.dwCurrentState = state;
  m_Status.dwControlsAccepted = accepted;
  m_Status.dwCheckPoint = 0;
  m_Status.dwWaitHint = 0;
  ::SetServiceStatus(m_Manager, &m_Status);
}

}  // namespace hosts
