#include "service_body.h"

#include <windows.h>

#include <iostream>
#include <optional>
#include <string>

#include "event_log.h"
#include "flash_library.h"
#include "identity.h"
#include "interruption.h"
#include "messages.h"
#include "owners.h"
#include "text.h"

namespace {

constexpr DWORD kStartHintMs = 10000;
constexpr DWORD kPollWhileStoppingMs = 500;
constexpr DWORD kStopHintMs = 5000;

/// How often the handshake is looked at while its key announces no changes.
constexpr DWORD kPollWithoutNoticeMs = 1000;

DWORD PeriodOf(HandshakeWatch& watch) {
  return watch.Arm() == ERROR_SUCCESS ? INFINITE : kPollWithoutNoticeMs;
}

/// The service between start and stop. Controls come on the dispatcher's thread, the rest runs on the
/// service's own.
class Service {
 public:
  void Run();

 private:
  static DWORD WINAPI OnControl(DWORD control, DWORD, void*, void* service);

  void Report(DWORD state, DWORD hintMs = 0);
  void ReportFailure(const LibraryFailure& failure);
  void WaitForStop();
  bool WaitForAttemptToEnd();

  SERVICE_STATUS_HANDLE m_status = nullptr;
  OwnedHandle m_stop = NewEvent();
  OwnedHandle m_force = NewEvent();
  HandshakeKey m_key;
  bool m_flashing = false;
  DWORD m_checkPoint = 0;
};

DWORD WINAPI Service::OnControl(DWORD control, DWORD, void*, void* context) {
  Service& service = *static_cast<Service*>(context);
  switch (control) {
    case kControlForcedStop:
      ::SetEvent(service.m_force.get());
      [[fallthrough]];
    case SERVICE_CONTROL_PRESHUTDOWN:
      ::SetEvent(service.m_stop.get());
      return NO_ERROR;
    case SERVICE_CONTROL_STOP:
      // The manager may not have heard yet that no stop is accepted.
      if (ReadHandshake(service.m_key).IsJobRunning()) return ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
      ::SetEvent(service.m_stop.get());
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

void Service::Report(DWORD state, DWORD hintMs) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  // A stop is refused while the modem is being written; shutting the PC down waits for the flash instead.
  if (state == SERVICE_RUNNING) {
    status.dwControlsAccepted = SERVICE_ACCEPT_PRESHUTDOWN | (m_flashing ? 0 : SERVICE_ACCEPT_STOP);
  }
  const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
  m_checkPoint = pending ? m_checkPoint + 1 : 0;
  status.dwCheckPoint = m_checkPoint;
  status.dwWaitHint = hintMs;
  ::SetServiceStatus(m_status, &status);
}

void Service::ReportFailure(const LibraryFailure& failure) {
  WriteEvent(MSG_SERVICE_FAILED, failure.reason);
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = SERVICE_STOPPED;
  status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
  status.dwServiceSpecificExitCode = failure.serviceCode;
  ::SetServiceStatus(m_status, &status);
}

void Service::WaitForStop() {
  HandshakeWatch watch(m_key);
  const HANDLE signals[] = {m_stop.get(), watch.Event()};
  DWORD period = INFINITE;
  do {
    // Armed before the look, so that no change falls between the look and the wait.
    period = PeriodOf(watch);
    const bool flashing = ReadHandshake(m_key).IsJobRunning();
    if (flashing == m_flashing) continue;
    m_flashing = flashing;
    Report(SERVICE_RUNNING);
  } while (::WaitForMultipleObjects(2, signals, FALSE, period) != WAIT_OBJECT_0);
}

/// Between two attempts a stop does no harm: the job begins anew when the service is started next.
/// @return false when the attempt had to be left running.
bool Service::WaitForAttemptToEnd() {
  for (DWORD waited = 0; ReadHandshake(m_key).IsAttemptRunning(); waited += kPollWhileStoppingMs) {
    if (waited >= kLongestStopMs) return false;
    Report(SERVICE_STOP_PENDING, kStopHintMs);
    if (::WaitForSingleObject(m_force.get(), kPollWhileStoppingMs) == WAIT_OBJECT_0) return false;
  }
  return true;
}

void Service::Run() {
  m_status = ::RegisterServiceCtrlHandlerExW(kServiceName, OnControl, this);
  if (m_status == nullptr) return;
  Report(SERVICE_START_PENDING, kStartHintMs);
  const FlashLibrary library = LoadFlashLibrary();
  if (library.failure) return ReportFailure(*library.failure);
  m_key = library.key;
  Report(SERVICE_RUNNING);
  WriteEvent(MSG_SERVICE_STARTED, ToWide(m_key.Text()));

  WaitForStop();
  Report(SERVICE_STOP_PENDING, kStopHintMs);
  const bool complete = WaitForAttemptToEnd();
  WriteEvent(complete ? MSG_SERVICE_STOPPED : MSG_SERVICE_STOPPED_WHILE_FLASHING);
  Report(SERVICE_STOPPED);
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
  // Controls may come until the process ends, so the service outlives this function.
  static Service service;
  service.Run();
}

void Print(const Handshake& values) {
  std::cout << "Fls_Ready " << values.ready.value_or(0) << ", Flash_Result " << values.result.value_or(0)
            << " (" << MeaningOfResult(values.result) << "), " << values.progress.value_or(0) << " %"
            << std::endl;
}

/// Shows every change until it is interrupted, while a flash is running twice.
void ShowUntilInterrupted(const HandshakeKey& key, const Interruption& interruption) {
  HandshakeWatch watch(key);
  const HANDLE signals[] = {interruption.Event(), watch.Event()};
  for (bool warned = false;;) {
    const DWORD period = PeriodOf(watch);
    Print(ReadHandshake(key));
    if (::WaitForMultipleObjects(2, signals, FALSE, period) != WAIT_OBJECT_0) continue;
    if (warned || interruption.IsFinal() || !ReadHandshake(key).IsJobRunning()) return;
    std::cerr
        << "corvel_service: A flash is running. Stopping now may leave the modem in flash mode; the next "
           "flash recovers it.\nPress Ctrl+C once more to stop all the same."
        << std::endl;
    warned = true;
    ::ResetEvent(interruption.Event());
  }
}

}  // namespace

unsigned long RunAsService() {
  std::wstring name = kServiceName;
  const SERVICE_TABLE_ENTRYW table[] = {{name.data(), ServiceMain}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherW(table) ? ERROR_SUCCESS : ::GetLastError();
}

int RunInConsole() {
  const Interruption interruption;
  const FlashLibrary library = LoadFlashLibrary();
  if (library.failure) {
    std::cerr << "corvel_service: " << ToUtf8(library.failure->reason) << "\nMend it and start again."
              << std::endl;
    return 1;
  }
  std::cout << "Waiting for Fls_Ready under " << library.key.Text() << "; Ctrl+C ends." << std::endl;
  ShowUntilInterrupted(library.key, interruption);
  return 0;
}
