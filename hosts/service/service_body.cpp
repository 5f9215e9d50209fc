#include "service_body.h"

#include <windows.h>

#include <atomic>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "event_log.h"
#include "flash_library.h"
#include "identity.h"
#include "messages.h"
#include "text.h"

namespace {

constexpr DWORD kStartHintMs = 10000;
constexpr DWORD kPollWhileStoppingMs = 500;
constexpr DWORD kStopHintMs = 5000;

struct HandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const noexcept { ::CloseHandle(handle); }
};
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

UniqueHandle NewEvent() {
  return UniqueHandle(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

/// The service between start and stop. Controls come on the dispatcher's thread, the rest runs on the
/// service's own.
class Service {
 public:
  Service() : m_stop(NewEvent()), m_force(NewEvent()) {}

  void Run();

 private:
  static DWORD WINAPI OnControl(DWORD control, DWORD, void*, void* service);

  void Report(DWORD state, DWORD hintMs = 0);
  void ReportFailure(const LibraryFailure& failure);
  void WaitForStop();
  bool WaitForFlashToEnd();

  SERVICE_STATUS_HANDLE m_status = nullptr;
  UniqueHandle m_stop;
  UniqueHandle m_force;
  std::atomic<DWORD> m_state{SERVICE_START_PENDING};
  std::atomic<bool> m_flashing{false};
  DWORD m_checkPoint = 0;
};

DWORD WINAPI Service::OnControl(DWORD control, DWORD, void*, void* context) {
  Service& service = *static_cast<Service*>(context);
  switch (control) {
    case kControlForcedStop:
      ::SetEvent(service.m_force.get());
      [[fallthrough]];
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_PRESHUTDOWN:
      ::SetEvent(service.m_stop.get());
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

void Service::Report(DWORD state, DWORD hintMs) {
  m_state = state;
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
  HandshakeWatch watch(FlashServiceKey());
  const HANDLE signals[] = {m_stop.get(), watch.Event()};
  do {
    watch.Arm();
    const bool flashing = IsFlashing();
    if (m_flashing.exchange(flashing) != flashing) Report(SERVICE_RUNNING);
  } while (::WaitForMultipleObjects(2, signals, FALSE, INFINITE) != WAIT_OBJECT_0);
}

/// @return false when the flash had to be left running.
bool Service::WaitForFlashToEnd() {
  for (DWORD waited = 0; IsFlashing(); waited += kPollWhileStoppingMs) {
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
  if (const auto failure = LoadFlashLibrary()) {
    ReportFailure(*failure);
    return;
  }
  Report(SERVICE_RUNNING);
  WriteEvent(MSG_SERVICE_STARTED, ToWide(FlashServiceKey().Text()));

  WaitForStop();
  Report(SERVICE_STOP_PENDING, kStopHintMs);
  const bool complete = WaitForFlashToEnd();
  WriteEvent(complete ? MSG_SERVICE_STOPPED : MSG_SERVICE_STOPPED_WHILE_FLASHING);
  Report(SERVICE_STOPPED);
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
  // Controls may come until the process ends, so the service outlives this function.
  static Service service;
  service.Run();
}

HANDLE g_interrupted = nullptr;

BOOL WINAPI OnConsoleControl(DWORD) {
  ::SetEvent(g_interrupted);
  return TRUE;
}

void Print(const Handshake& values) {
  std::cout << "Fls_Ready " << values.ready.value_or(0) << ", Flash_Result " << values.result.value_or(0)
            << " (" << MeaningOfResult(values.result) << "), " << values.progress.value_or(0) << " %"
            << std::endl;
}

}  // namespace

unsigned long RunAsService() {
  std::wstring name = kServiceName;
  const SERVICE_TABLE_ENTRYW table[] = {{name.data(), ServiceMain}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherW(table) ? ERROR_SUCCESS : ::GetLastError();
}

int RunInConsole() {
  const UniqueHandle interrupted = NewEvent();
  g_interrupted = interrupted.get();
  ::SetConsoleCtrlHandler(OnConsoleControl, TRUE);
  if (const auto failure = LoadFlashLibrary()) {
    std::cerr << "corvel_service: " << ToUtf8(failure->reason) << "\nMend it and start again." << std::endl;
    return 1;
  }
  const HandshakeKey key = FlashServiceKey();
  std::cout << "Waiting for Fls_Ready under " << key.Text() << "; Ctrl+C ends." << std::endl;
  HandshakeWatch watch(key);
  const HANDLE signals[] = {interrupted.get(), watch.Event()};
  do {
    watch.Arm();
    Print(ReadHandshake(key));
  } while (::WaitForMultipleObjects(2, signals, FALSE, INFINITE) != WAIT_OBJECT_0);
  if (IsFlashing()) {
    std::cerr
        << "corvel_service: stopped while a flash was running. The modem may be left in flash mode; the next "
           "flash recovers it."
        << std::endl;
  }
  return 0;
}
