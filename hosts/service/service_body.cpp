#include "hosts/service/service_body.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <string>

#include "hosts/common/event_log.h"
#include "hosts/common/facts.h"
#include "hosts/common/interruption.h"
#include "hosts/common/job_record.h"
#include "hosts/common/owners.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/text.h"
#include "hosts/service/flash_library.h"
#include "hosts/service/identity.h"
#include "hosts/service/job_care.h"
#include "hosts/service/service_report.h"
#include "messages.h"

namespace hosts {

namespace {

constexpr DWORD kCheckPointPeriodMs = 1000;
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
  explicit Service(WhenStuck whenStuck) : m_WhenStuck(whenStuck) {}

  void Run();

 private:
  static DWORD WINAPI OnControl(DWORD control, DWORD event, void*, void* service);

  void Serve();
  void BeginToServe(const HandshakeKey& key);
  void WaitForStop();
  bool WaitForAttemptToEnd();

  void LookForEndOfJob(const Handshake& values);
  void CareForJob(const Handshake& values);
  void TellOfResume();

  Handshake TellOfChange();
  void TellAnew(bool mayBeInterrupted);
  void BeginToStop(bool mayBeInterrupted);
  bool GoesOnStopping();
  void Fail(const LibraryFailure& failure);

  OwnedHandle m_Stop;
  HandshakeKey m_Key;
  // For the service's own thread alone.
  JobCare m_Care;
  JobWatch m_Jobs;
  const WhenStuck m_WhenStuck;

  /// Guards what follows: both threads tell the manager what they know.
  std::mutex m_Mutex;
  ServiceReport m_Report;
  bool m_Flashing = false;
  bool m_MayBeInterrupted = false;
};

DWORD WINAPI Service::OnControl(DWORD control, DWORD event, void*, void* context) {
  Service& service = *static_cast<Service*>(context);
  switch (control) {
    case SERVICE_CONTROL_INTERROGATE:
      service.TellAnew(false);
      return NO_ERROR;
    case kControlAllowInterruption:
      service.TellAnew(true);
      return NO_ERROR;
    case SERVICE_CONTROL_STOP:
      service.BeginToStop(true);
      return NO_ERROR;
    case SERVICE_CONTROL_PRESHUTDOWN:
      service.BeginToStop(false);
      return NO_ERROR;
    case SERVICE_CONTROL_POWEREVENT:
      // The one of its kind that comes at every resume.
      if (event == PBT_APMRESUMEAUTOMATIC) service.TellOfResume();
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

/// A stop is refused, in the way that the system provides, by not accepting it while a flash is running.
/// @return what it went by.
Handshake Service::TellOfChange() {
  const std::lock_guard lock(m_Mutex);
  Handshake values = ReadHandshake(m_Key);
  if (!m_Report.IsRunning() || values.IsJobOpen() == m_Flashing) return values;
  m_Flashing = values.IsJobOpen();
  m_MayBeInterrupted = false;
  m_Report.Running(!m_Flashing);
  return values;
}

/// What the manager was told may be a moment old; whoever asks gets the truth of now.
void Service::TellAnew(bool mayBeInterrupted) {
  const std::lock_guard lock(m_Mutex);
  if (!m_Report.IsRunning()) return;
  m_Flashing = ReadHandshake(m_Key).IsJobOpen();
  m_MayBeInterrupted = m_Flashing && mayBeInterrupted;
  m_Report.Running(!m_Flashing || m_MayBeInterrupted);
}

/// The attempt's own limits decide what comes of it.
void Service::TellOfResume() {
  {
    const std::lock_guard lock(m_Mutex);
    if (!ReadHandshake(m_Key).IsJobOpen()) return;
  }
  WriteEvent(MSG_RESUMED_DURING_FLASH);
}

/// A stop that was asked for before the manager heard of a new flash waits for the attempt, as a shutdown
/// does: a service that accepts stops cannot turn one down.
void Service::BeginToStop(bool mayBeInterrupted) {
  const std::lock_guard lock(m_Mutex);
  m_MayBeInterrupted = m_MayBeInterrupted && mayBeInterrupted;
  m_Report.Stopping(kStopHintMs);
  ::SetEvent(m_Stop.get());
}

/// One more check point, unless the attempt may be interrupted.
bool Service::GoesOnStopping() {
  const std::lock_guard lock(m_Mutex);
  if (m_MayBeInterrupted) return false;
  m_Report.Stopping(kStopHintMs);
  return true;
}

void Service::Fail(const LibraryFailure& failure) {
  WriteEvent(MSG_SERVICE_FAILED, failure.reason);
  const std::lock_guard lock(m_Mutex);
  m_Report.Failed(failure.serviceCode);
}

void Service::BeginToServe(const HandshakeKey& key) {
  const std::lock_guard lock(m_Mutex);
  m_Key = key;
  const Handshake values = ReadHandshake(m_Key);
  // Before anybody is told that the service runs: what is found there is no job of this service's life.
  m_Jobs.Look(values);
  m_Flashing = values.IsJobOpen();
  m_Report.Running(!m_Flashing);
}

/// Without the lock: a control must not wait for a file.
void Service::LookForEndOfJob(const Handshake& values) {
  if (const auto job = m_Jobs.Look(values)) LeaveRecord("service", *job);
}

[[noreturn]] void EndStuckProcess() {
  // Not by leaving: that would wait for the threads that do not go on.
  ::TerminateProcess(::GetCurrentProcess(), kStuckExitStatus);
  std::abort();
}

void Service::CareForJob(const Handshake& values) {
  if (!m_Care.Look(m_Key, values).standsStill || m_WhenStuck == WhenStuck::GoOn) return;
  WriteEvent(MSG_ENDED_BECAUSE_STUCK);
  {
    const std::lock_guard lock(m_Mutex);
    m_Report.Failed(kEndedBecauseStuck);
  }
  EndStuckProcess();
}

void Service::WaitForStop() {
  HandshakeWatch watch(m_Key);
  const HANDLE signals[] = {m_Stop.get(), watch.Event()};
  DWORD ended = WAIT_TIMEOUT;
  while (ended != WAIT_OBJECT_0) {
    // Armed before the look, so that no change falls between the look and the wait.
    const DWORD period = PeriodOf(watch);
    const Handshake values = TellOfChange();
    LookForEndOfJob(values);
    CareForJob(values);
    ended = ::WaitForMultipleObjects(2, signals, FALSE, std::min(period, m_Care.PeriodMs()));
    if (ended == WAIT_FAILED) ThrowLastError("The wait for a stop failed");
  }
}

/// Between two attempts a stop does no harm: the job begins again when the service is started next.
/// @return false when the attempt had to be left running.
bool Service::WaitForAttemptToEnd() {
  HandshakeWatch watch(m_Key);
  const ULONGLONG begin = ::GetTickCount64();
  for (;;) {
    watch.Arm();
    const Handshake values = ReadHandshake(m_Key);
    LookForEndOfJob(values);
    if (!values.IsAttemptRunning()) return true;
    if (::GetTickCount64() - begin >= kLongestAttemptMs || !GoesOnStopping()) return false;
    ::WaitForSingleObject(watch.Event(), kCheckPointPeriodMs);
  }
}

void Service::Serve() {
  m_Stop = NewEvent();
  const LoadedLibrary library = LoadFlashLibrary();
  if (!library.warning.empty()) WriteEvent(MSG_EVIDENCE_NOT_KEPT, ToWide(library.warning));
  if (library.failure) return Fail(*library.failure);
  const ServingNotice notice(Server::Service, library.key);
  BeginToServe(library.key);
  WriteEvent(MSG_SERVICE_STARTED, ToWide(library.key.Text()));

  WaitForStop();
  const bool complete = WaitForAttemptToEnd();
  WriteEvent(complete ? MSG_SERVICE_STOPPED : MSG_SERVICE_STOPPED_WHILE_FLASHING);
  const std::lock_guard lock(m_Mutex);
  m_Report.Stopped();
}

void Service::Run() try {
  const SERVICE_STATUS_HANDLE manager = ::RegisterServiceCtrlHandlerExW(kServiceName, OnControl, this);
  if (manager == nullptr) return;
  m_Report.Begin(manager, kLongestStartMs);
  Serve();
} catch (const std::exception& error) {
  Fail({kFailedNoResources, ToWide(error.what())});
}

/// For the service's main function, which the manager calls.
WhenStuck g_whenStuck = WhenStuck::GoOn;

void WINAPI ServiceMain(DWORD, wchar_t**) {
  // Never destroyed: controls may come until the process ends, and once the manager has heard that the
  // service has stopped, the process may end before this thread does.
  Service& service = *new Service(g_whenStuck);
  service.Run();
}

void Warn(const std::string& text) {
  if (!text.empty()) std::cerr << "corvel_service: " << text << std::endl;
}

void Print(const Handshake& values) {
  std::cout << ToUtf8(kReadyValue) << " " << values.ready.value_or(0) << ", " << ToUtf8(kResultValue) << " "
            << values.result.value_or(0) << " (" << MeaningOfResult(values.result) << "), "
            << values.progress.value_or(0) << " %" << std::endl;
}

/// Shows every change until it is interrupted, while a flash is running twice.
void ShowUntilInterrupted(const HandshakeKey& key, const Interruption& interruption, JobCare& care,
                          WhenStuck whenStuck) {
  HandshakeWatch watch(key);
  const HANDLE signals[] = {interruption.Event(), watch.Event()};
  JobWatch jobs;
  for (bool warned = false;;) {
    const DWORD period = PeriodOf(watch);
    const Handshake values = ReadHandshake(key);
    Print(values);
    const JobCare::News news = care.Look(key, values);
    for (const std::string& text : news.texts) Warn(text);
    if (news.standsStill && whenStuck == WhenStuck::EndProcess) EndStuckProcess();
    if (const auto job = jobs.Look(values)) Warn(LeaveRecord("console", *job));
    const DWORD limit = std::min(period, care.PeriodMs());
    if (::WaitForMultipleObjects(2, signals, FALSE, limit) != WAIT_OBJECT_0) continue;
    if (warned || interruption.IsFinal() || !ReadHandshake(key).IsJobRunning()) return;
    std::cerr << "corvel_service: A flash is running. Stopping now may leave the modem in flash\n"
                 "mode; the next flash recovers it. Press Ctrl+C once more to stop all the same."
              << std::endl;
    warned = true;
    ::ResetEvent(interruption.Event());
  }
}

}  // namespace

unsigned long RunAsService(WhenStuck whenStuck) {
  g_whenStuck = whenStuck;
  std::wstring name = kServiceName;
  const SERVICE_TABLE_ENTRYW table[] = {{name.data(), ServiceMain}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherW(table) ? ERROR_SUCCESS : ::GetLastError();
}

int RunInConsole(WhenStuck whenStuck) {
  const Interruption interruption;
  // Before the library, which makes the event at once.
  JobCare care;
  const LoadedLibrary library = LoadFlashLibrary();
  Warn(library.warning);
  if (library.failure) {
    std::cerr << "corvel_service: " << ToUtf8(library.failure->reason) << "\nMend it and start again."
              << std::endl;
    return 1;
  }
  const ServingNotice notice(Server::Service, library.key);
  std::cout << "Waiting for " << ToUtf8(kReadyValue) << " under " << library.key.Text() << "; Ctrl+C ends."
            << std::endl;
  ShowUntilInterrupted(library.key, interruption, care, whenStuck);
  return 0;
}

}  // namespace hosts
