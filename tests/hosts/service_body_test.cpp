// The service's own thread and its handler, against a service manager and a library that the test plays.

#include "hosts/service/service_body.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hosts/common/event_log.h"
#include "hosts/common/job_record.h"
#include "hosts/common/power_calls.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/text.h"
#include "hosts/service/flash_library.h"
#include "hosts/service/identity.h"
#include "hosts/service/job_care.h"
#include "messages.h"
#include "simulator/host/kept_key.h"
#include "simulator/import_patch.h"

namespace hosts {

using testing::ElementsAre;

namespace {

constexpr DWORD kNotStoppable = SERVICE_ACCEPT_PRESHUTDOWN | SERVICE_ACCEPT_POWEREVENT;
constexpr DWORD kStoppable = SERVICE_ACCEPT_STOP | kNotStoppable;
constexpr std::chrono::seconds kLongestWait{30};

/// The service manager's side: keeps what it is told and passes controls on.
class Manager {
 public:
  void Hear(const SERVICE_STATUS& status) {
    const std::lock_guard lock(m_Mutex);
    m_Heard.push_back(status);
    m_Changed.notify_all();
  }
  void TakeHandler(LPHANDLER_FUNCTION_EX handler, void* context) {
    m_Handler = handler;
    m_Context = context;
  }

  DWORD Send(DWORD control, DWORD event = 0) const { return m_Handler(control, event, nullptr, m_Context); }

  /// Waits until it was told something that `fits`. @return false when that does not come.
  template <typename Predicate>
  bool Hears(Predicate fits) {
    std::unique_lock lock(m_Mutex);
    return m_Changed.wait_for(lock, kLongestWait, [&] { return !m_Heard.empty() && fits(m_Heard.back()); });
  }
  bool HearsState(DWORD state) {
    return Hears([=](const SERVICE_STATUS& status) { return status.dwCurrentState == state; });
  }
  bool HearsAccepted(DWORD accepted) {
    return Hears([=](const SERVICE_STATUS& status) { return status.dwControlsAccepted == accepted; });
  }
  /// Waits until it was told more than so many times.
  bool HearsMoreThan(std::size_t count) {
    std::unique_lock lock(m_Mutex);
    return m_Changed.wait_for(lock, kLongestWait, [&] { return m_Heard.size() > count; });
  }
  SERVICE_STATUS Last() {
    const std::lock_guard lock(m_Mutex);
    return m_Heard.back();
  }
  std::vector<SERVICE_STATUS> All() {
    const std::lock_guard lock(m_Mutex);
    return m_Heard;
  }

 private:
  std::mutex m_Mutex;
  std::condition_variable m_Changed;
  std::vector<SERVICE_STATUS> m_Heard;
  LPHANDLER_FUNCTION_EX m_Handler = nullptr;
  void* m_Context = nullptr;
};

Manager* g_manager = nullptr;
LoadedLibrary g_library;
/// Controls come on another thread than the service's own.
std::mutex g_eventsMutex;
std::vector<DWORD> g_events;
std::vector<std::string> g_records;
std::atomic<std::size_t> g_told{0};

/// What the event that the library waits on meets.
std::atomic<DWORD> g_requestEventError{ERROR_SUCCESS};

/// That event has a name of the single test's own here: other tests run beside this one, and a service keeps
/// it to the end of the process.
std::wstring g_requestEvent;
/// The system's own: by its name alone this program would call what the tests have put in its place.
template <typename Function>
Function* TheSystems(const char* name) {
  return reinterpret_cast<Function*>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), name)));
}
const auto g_createEvent = TheSystems<decltype(::CreateEventW)>("CreateEventW");
const auto g_waitForMultipleObjects =
    TheSystems<decltype(::WaitForMultipleObjects)>("WaitForMultipleObjects");
HANDLE WINAPI CreateEventOfOneself(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL state, LPCWSTR name) {
  if (name == nullptr) return g_createEvent(security, manual, state, nullptr);
  if (g_requestEventError != ERROR_SUCCESS) {
    ::SetLastError(g_requestEventError);
    return nullptr;
  }
  return g_createEvent(security, manual, state, g_requestEvent.c_str());
}

/// Requests to keep the PC awake: a handle each, for what it was set.
struct PlayedPower {
  DWORD error = ERROR_SUCCESS;
  std::vector<HANDLE> requests;
  std::vector<POWER_REQUEST_TYPE> types;
};
PlayedPower g_power;

HANDLE WINAPI MakePowerRequest(REASON_CONTEXT*) {
  ::SetLastError(g_power.error);
  if (g_power.error != ERROR_SUCCESS) return INVALID_HANDLE_VALUE;
  g_power.requests.push_back(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  return g_power.requests.back();
}

BOOL WINAPI SetPowerRequest(HANDLE, POWER_REQUEST_TYPE type) {
  g_power.types.push_back(type);
  return TRUE;
}

bool IsOpen(HANDLE handle) {
  DWORD flags = 0;
  return ::GetHandleInformation(handle, &flags) != FALSE;
}

// One thread: the service's main function runs where the real dispatcher would wait for it.
BOOL WINAPI Dispatch(const SERVICE_TABLE_ENTRYW* table) {
  table->lpServiceProc(0, nullptr);
  return TRUE;
}

SERVICE_STATUS_HANDLE WINAPI TakeHandler(LPCWSTR, LPHANDLER_FUNCTION_EX handler, LPVOID context) {
  g_manager->TakeHandler(handler, context);
  return reinterpret_cast<SERVICE_STATUS_HANDLE>(g_manager);
}

BOOL WINAPI Hear(SERVICE_STATUS_HANDLE, SERVICE_STATUS* status) {
  g_manager->Hear(*status);
  return TRUE;
}

}  // namespace

LoadedLibrary LoadFlashLibrary() {
  return g_library;
}

void WriteEvent(DWORD message, const std::wstring&) {
  const std::lock_guard lock(g_eventsMutex);
  g_events.push_back(message);
  ++g_told;
}

std::string LeaveRecord(const std::string& host, const FinishedJob& job) {
  g_records.push_back(host + ": " + std::to_string(job.result));
  return {};
}

namespace {

std::wstring NameOfTest() {
  return ToWide(testing::UnitTest::GetInstance()->current_test_info()->name());
}

class ServiceBodyTest : public testing::Test {
 protected:
  ServiceBodyTest() {
    g_manager = &manager;
    g_library = {.failure = std::nullopt, .key = key.Location()};
    g_events.clear();
    g_told = 0;
    g_records.clear();
    g_requestEventError = ERROR_SUCCESS;
    g_requestEvent = L"RegistryNotify " + std::to_wstring(::GetCurrentProcessId()) + L" " + NameOfTest();
    g_power = {};
    m_Patch.Replace("CreateEventW", &CreateEventOfOneself);
    m_Patch.Replace("PowerCreateRequest", &MakePowerRequest);
    m_Patch.Replace("PowerSetRequest", &SetPowerRequest);
    m_Patch.Replace("StartServiceCtrlDispatcherW", &Dispatch);
    m_Patch.Replace("RegisterServiceCtrlHandlerExW", &TakeHandler);
    m_Patch.Replace("SetServiceStatus", &Hear);
  }
  ~ServiceBodyTest() override {
    if (!m_Service.joinable()) return;
    EndJob();
    manager.Send(SERVICE_CONTROL_STOP);
    m_Service.join();
  }

  void Start() {
    m_Service = std::thread([] { RunAsService(); });
    ASSERT_TRUE(manager.HearsState(SERVICE_RUNNING));
  }
  /// Starts one that is not to come to its end.
  void StartAndLeave(WhenStuck whenStuck) const {
    std::thread([whenStuck] { RunAsService(whenStuck); }).detach();
  }
  void StartsAndFails() const { RunAsService(); }
  void AwaitEnd() { m_Service.join(); }

  /// Waits until the event log has so many entries.
  static bool HasTold(std::size_t count) {
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    while (g_told < count && std::chrono::steady_clock::now() < end) ::Sleep(1);
    return g_told == count;
  }

  /// Waits until the service says so, or says so no longer.
  bool BecomesHindered(bool hindered) const {
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    while (IsServiceHindered(key.Location()) != hindered && std::chrono::steady_clock::now() < end)
      ::Sleep(1);
    return IsServiceHindered(key.Location()) == hindered;
  }

  void BeginJob() const {
    key.Write(L"Fls_Ready", 1);
    key.Write(L"Flash_OnGoing", 1);
    key.Write(L"Flash_Result", 1);
  }
  void EndJob() const {
    key.Write(L"Flash_OnGoing", 0);
    key.Write(L"Flash_Result", 4);
    key.Write(L"Fls_Ready", 0);
  }

  simulator::KeptKey key{
      {.root = HKEY_CURRENT_USER,
       .rootName = L"HKCU",
       // A service that was left running by another test goes on giving notice of its own key.
       .path =
           L"Software\\Corvel\\Test\\" + std::to_wstring(::GetCurrentProcessId()) + L"\\" + NameOfTest()}};
  Manager manager;

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(nullptr)};
  std::thread m_Service;
};

// --- Start -----------------------------------------------------------------------------------------------

TEST_F(ServiceBodyTest, ReportsAPendingStartWithAHintBeforeItRuns) {
  Start();
  const std::vector<SERVICE_STATUS> heard = manager.All();
  ASSERT_GE(heard.size(), 2u);
  EXPECT_EQ(heard[0].dwCurrentState, static_cast<DWORD>(SERVICE_START_PENDING));
  EXPECT_EQ(heard[0].dwControlsAccepted, 0u);
  EXPECT_EQ(heard[0].dwCheckPoint, 1u);
  EXPECT_EQ(heard[0].dwWaitHint, kLongestStartMs);
  EXPECT_EQ(heard[1].dwCurrentState, static_cast<DWORD>(SERVICE_RUNNING));
  EXPECT_EQ(heard[1].dwServiceType, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
  EXPECT_EQ(heard[1].dwControlsAccepted, kStoppable);
  EXPECT_EQ(heard[1].dwCheckPoint, 0u);
  EXPECT_EQ(heard[1].dwWaitHint, 0u);
}

TEST_F(ServiceBodyTest, EndsWithTheLibrarysFailureAsItsOwnCode) {
  g_library.failure = LibraryFailure{kFailedNoConfiguration, L"no configuration"};
  StartsAndFails();
  EXPECT_EQ(manager.Last().dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
  EXPECT_EQ(manager.Last().dwWin32ExitCode, static_cast<DWORD>(ERROR_SERVICE_SPECIFIC_ERROR));
  EXPECT_EQ(manager.Last().dwServiceSpecificExitCode, kFailedNoConfiguration);
  EXPECT_THAT(g_events, ElementsAre(static_cast<DWORD>(MSG_SERVICE_FAILED)));
}

DWORD WINAPI FailToWait(DWORD, const HANDLE*, BOOL, DWORD) {
  ::SetLastError(ERROR_NO_SYSTEM_RESOURCES);
  return WAIT_FAILED;
}

TEST_F(ServiceBodyTest, EndsWithItsOwnCodeWhenItCannotWait) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("WaitForMultipleObjects", &FailToWait);
  StartsAndFails();
  EXPECT_EQ(manager.Last().dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
  EXPECT_EQ(manager.Last().dwServiceSpecificExitCode, kFailedNoResources);
  EXPECT_THAT(g_events,
              ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED), static_cast<DWORD>(MSG_SERVICE_FAILED)));
}

TEST_F(ServiceBodyTest, GivesNoticeWhileItServes) {
  Start();
  EXPECT_TRUE(IsServedBy(Server::Service, key.Location()));
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_FALSE(IsServedBy(Server::Service, key.Location()));
}

TEST_F(ServiceBodyTest, TellsOfALogThatCouldNotBeKeptAndServesAllTheSame) {
  g_library.warning = "the log of the last run is not kept";
  Start();
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_THAT(g_events,
              ElementsAre(static_cast<DWORD>(MSG_EVIDENCE_NOT_KEPT), static_cast<DWORD>(MSG_SERVICE_STARTED),
                          static_cast<DWORD>(MSG_SERVICE_STOPPED)));
}

// --- What it leaves of a job -----------------------------------------------------------------------------

TEST_F(ServiceBodyTest, LeavesOneRecordOfEachJob) {
  Start();
  for (int i = 0; i < 2; ++i) {
    key.Write(L"Flash_Result", 0);
    BeginJob();
    ASSERT_TRUE(manager.HearsAccepted(kNotStoppable));
    EndJob();
    ASSERT_TRUE(manager.HearsAccepted(kStoppable));
  }
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_THAT(g_records, ElementsAre("service: 4", "service: 4"));
}

/// While there is no key, changes are not announced, and the job is over before the service looks again.
TEST_F(ServiceBodyTest, LeavesARecordOfAJobThatWasOverBeforeItLookedAgain) {
  ASSERT_FALSE(key.Exists());
  Start();
  EndJob();
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_THAT(g_records, ElementsAre("service: 4"));
}

TEST_F(ServiceBodyTest, LeavesNoRecordOfAJobThatEndedBeforeItsLife) {
  EndJob();
  Start();
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_TRUE(g_records.empty());
}

TEST_F(ServiceBodyTest, LeavesARecordOfAJobThatEndsWhileAStopWaitsForIt) {
  Start();
  BeginJob();
  ASSERT_TRUE(manager.HearsAccepted(kNotStoppable));
  manager.Send(SERVICE_CONTROL_PRESHUTDOWN);
  ASSERT_TRUE(manager.HearsState(SERVICE_STOP_PENDING));
  EndJob();
  AwaitEnd();
  EXPECT_THAT(g_records, ElementsAre("service: 4"));
}

TEST_F(ServiceBodyTest, LeavesNoRecordOfAnInterruptedJob) {
  Start();
  BeginJob();
  ASSERT_TRUE(manager.HearsAccepted(kNotStoppable));
  manager.Send(kControlAllowInterruption);
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_TRUE(g_records.empty());
}

// --- Names that the library shares with everybody --------------------------------------------------------

TEST_F(ServiceBodyTest, KeepsTheEventOfTheLibraryFromOthersWhileItServes) {
  EXPECT_EQ(OwnedHandle(::OpenEventW(SYNCHRONIZE, FALSE, g_requestEvent.c_str())), nullptr);
  Start();
  EXPECT_NE(OwnedHandle(::OpenEventW(SYNCHRONIZE, FALSE, g_requestEvent.c_str())), nullptr);
}

TEST_F(ServiceBodyTest, TellsOnceOfANameThatAnotherProgramHasAndOfItsEnd) {
  key.Write(L"Fls_Ready", 0);
  g_requestEventError = ERROR_INVALID_HANDLE;
  Start();
  EXPECT_TRUE(BecomesHindered(true));
  key.Write(L"Fls_Ready", 1);
  ASSERT_TRUE(manager.HearsAccepted(kNotStoppable));
  g_requestEventError = ERROR_SUCCESS;
  key.Write(L"Fls_Ready", 0);
  EXPECT_TRUE(BecomesHindered(false));
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_THAT(g_events,
              ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED), static_cast<DWORD>(MSG_NAME_TAKEN),
                          static_cast<DWORD>(MSG_NAMES_FREE), static_cast<DWORD>(MSG_SERVICE_STOPPED)));
}

/// A wait with a limit is over at once.
DWORD WINAPI WaitBriefly(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
  return g_waitForMultipleObjects(count, handles, all, milliseconds == INFINITE ? INFINITE : 1);
}

TEST_F(ServiceBodyTest, LooksAgainByItselfWhileANameIsTaken) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("WaitForMultipleObjects", &WaitBriefly);
  key.Write(L"Fls_Ready", 0);
  g_requestEventError = ERROR_ACCESS_DENIED;
  Start();
  EXPECT_TRUE(BecomesHindered(true));
  g_requestEventError = ERROR_SUCCESS;
  EXPECT_TRUE(BecomesHindered(false));
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
}

// --- Power -----------------------------------------------------------------------------------------------

TEST_F(ServiceBodyTest, KeepsThePcAwakeWhileAJobIsOpenAndNoLonger) {
  key.Write(L"Fls_Ready", 0);
  Start();
  EXPECT_THAT(g_power.requests, testing::IsEmpty());
  const std::size_t said = manager.All().size();
  BeginJob();
  ASSERT_TRUE(manager.HearsMoreThan(said));
  EndJob();
  ASSERT_TRUE(manager.HearsAccepted(kStoppable));
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  ASSERT_EQ(g_power.requests.size(), 1u);
  EXPECT_FALSE(IsOpen(g_power.requests[0]));
  EXPECT_THAT(g_power.types, ElementsAre(PowerRequestSystemRequired, kExecutionRequired));
}

TEST_F(ServiceBodyTest, KeepsThePcAwakeForAJobThatItFindsOpenAndWhileAStopWaitsForIt) {
  BeginJob();
  Start();
  manager.Send(SERVICE_CONTROL_PRESHUTDOWN);
  ASSERT_TRUE(manager.Hears([](const SERVICE_STATUS& status) { return status.dwCheckPoint >= 2; }));
  ASSERT_EQ(g_power.requests.size(), 1u);
  EXPECT_TRUE(IsOpen(g_power.requests[0]));
  EndJob();
}

TEST_F(ServiceBodyTest, TellsOnceOfEachJobThatThePcMayFallAsleep) {
  g_power.error = ERROR_NOT_SUPPORTED;
  BeginJob();
  Start();
  // Of its start and of the refusal: a job that is over before the service has looked keeps no PC awake.
  ASSERT_TRUE(HasTold(2));
  key.Write(L"Flash_Progress", 10);
  key.Write(L"Flash_Progress", 20);
  EndJob();
  ASSERT_TRUE(manager.HearsAccepted(kStoppable));
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_THAT(g_events,
              ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED), static_cast<DWORD>(MSG_NOT_KEPT_AWAKE),
                          static_cast<DWORD>(MSG_SERVICE_STOPPED)));
}

TEST_F(ServiceBodyTest, TellsOfASleepDuringAJobOnceAtTheResume) {
  BeginJob();
  Start();
  EXPECT_EQ(manager.Send(SERVICE_CONTROL_POWEREVENT, PBT_APMSUSPEND), static_cast<DWORD>(NO_ERROR));
  EXPECT_EQ(manager.Send(SERVICE_CONTROL_POWEREVENT, PBT_APMRESUMEAUTOMATIC), static_cast<DWORD>(NO_ERROR));
  EXPECT_EQ(manager.Send(SERVICE_CONTROL_POWEREVENT, PBT_APMRESUMESUSPEND), static_cast<DWORD>(NO_ERROR));
  EndJob();
  ASSERT_TRUE(manager.HearsAccepted(kStoppable));
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_THAT(g_events, testing::UnorderedElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED),
                                                      static_cast<DWORD>(MSG_RESUMED_DURING_FLASH),
                                                      static_cast<DWORD>(MSG_SERVICE_STOPPED)));
}

TEST_F(ServiceBodyTest, TellsOfNoSleepWithoutAJob) {
  Start();
  manager.Send(SERVICE_CONTROL_POWEREVENT, PBT_APMRESUMEAUTOMATIC);
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_THAT(g_events,
              ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED), static_cast<DWORD>(MSG_SERVICE_STOPPED)));
}

TEST_F(ServiceBodyTest, WaitsForAJobWhoseTimeOutIsTheLongestThatThereIs) {
  Handshake job;
  job.ready = 1;
  job.timeOut = 0xFFFFFFFF;
  JobCare care;
  care.Look(key.Location(), job);
  EXPECT_EQ(care.PeriodMs(), INFINITE);
}

// --- A job that stands still ------------------------------------------------------------------------------

std::atomic<ULONGLONG> g_awakeTicks{0};
constexpr ULONGLONG kTicksPerSecond = 10'000'000;

/// Once for each look at the job.
std::atomic<std::size_t> g_timesAsked{0};

BOOL WINAPI TellAwakeTicks(ULONGLONG* ticks) {
  ++g_timesAsked;
  *ticks = g_awakeTicks;
  return TRUE;
}

std::atomic<UINT> g_exitStatus{0};

/// The process of a test is not ended; the thread that asked for it goes no further.
BOOL WINAPI EndNothing(HANDLE, UINT status) {
  g_exitStatus = status;
  ::Sleep(INFINITE);
  return TRUE;
}

class StuckServiceTest : public ServiceBodyTest {
 protected:
  StuckServiceTest() {
    g_awakeTicks = 0;
    g_exitStatus = 0;
    m_Patch.Replace("QueryUnbiasedInterruptTime", &TellAwakeTicks);
    m_Patch.Replace("TerminateProcess", &EndNothing);
    m_Patch.Replace("WaitForMultipleObjects", &WaitBriefly);
  }
  /// Waits until the service has looked at a job that has stood still for so many seconds more, and told
  /// nothing.
  void StandStillFor(ULONGLONG seconds) const {
    AwaitLooks();
    g_awakeTicks += seconds * kTicksPerSecond;
    AwaitLooks();
  }
  /// Time counts from the first look at the job. One that has begun is over when the next one begins.
  static void AwaitLooks() {
    const std::size_t asked = g_timesAsked;
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    while (g_timesAsked < asked + 2 && std::chrono::steady_clock::now() < end) ::Sleep(1);
  }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(nullptr)};
};

TEST_F(StuckServiceTest, TellsOnceOfAJobInWhichNothingChangesForLongerThanItsTimeOut) {
  key.Write(L"Time_Out", 153000);
  BeginJob();
  Start();
  StandStillFor(152);
  EXPECT_EQ(g_told.load(), 1u);
  g_awakeTicks += 2 * kTicksPerSecond;
  EXPECT_TRUE(HasTold(2));
  g_awakeTicks += 400 * kTicksPerSecond;
  key.Write(L"Other", 1);
  EndJob();
  ASSERT_TRUE(manager.HearsAccepted(kStoppable));
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  EXPECT_THAT(g_events,
              ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED), static_cast<DWORD>(MSG_JOB_STANDS_STILL),
                          static_cast<DWORD>(MSG_SERVICE_STOPPED)));
  EXPECT_EQ(g_exitStatus.load(), 0u);
}

TEST_F(StuckServiceTest, EndsItsProcessWithAStatusOfItsOwnWhenAskedTo) {
  BeginJob();
  StartAndLeave(WhenStuck::EndProcess);
  ASSERT_TRUE(manager.HearsState(SERVICE_RUNNING));
  AwaitLooks();
  g_awakeTicks += 154 * kTicksPerSecond;
  ASSERT_TRUE(manager.HearsState(SERVICE_STOPPED));
  EXPECT_EQ(manager.Last().dwWin32ExitCode, static_cast<DWORD>(ERROR_SERVICE_SPECIFIC_ERROR));
  EXPECT_EQ(manager.Last().dwServiceSpecificExitCode, kEndedBecauseStuck);
  const auto end = std::chrono::steady_clock::now() + kLongestWait;
  while (g_exitStatus == 0 && std::chrono::steady_clock::now() < end) ::Sleep(1);
  EXPECT_EQ(g_exitStatus.load(), kStuckExitStatus);
  EXPECT_THAT(g_events,
              ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED), static_cast<DWORD>(MSG_JOB_STANDS_STILL),
                          static_cast<DWORD>(MSG_ENDED_BECAUSE_STUCK)));
}

/// No restart gives a request to a library that cannot hear: the service would end itself again and again.
TEST_F(StuckServiceTest, DoesNotEndForARequestThatCannotBeHeardUntilItCan) {
  g_requestEventError = ERROR_INVALID_HANDLE;
  key.Write(L"Fls_Ready", 1);
  StartAndLeave(WhenStuck::EndProcess);
  ASSERT_TRUE(manager.HearsState(SERVICE_RUNNING));
  ASSERT_TRUE(HasTold(2));
  g_awakeTicks += 400 * kTicksPerSecond;
  g_requestEventError = ERROR_SUCCESS;
  // The names are free again.
  ASSERT_TRUE(HasTold(3));
  StandStillFor(152);
  EXPECT_EQ(g_told.load(), 3u);
  g_awakeTicks += 2 * kTicksPerSecond;
  ASSERT_TRUE(manager.HearsState(SERVICE_STOPPED));
  EXPECT_THAT(g_events,
              ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED), static_cast<DWORD>(MSG_NAME_TAKEN),
                          static_cast<DWORD>(MSG_NAMES_FREE), static_cast<DWORD>(MSG_JOB_STANDS_STILL),
                          static_cast<DWORD>(MSG_ENDED_BECAUSE_STUCK)));
}

// --- What it accepts -------------------------------------------------------------------------------------

TEST_F(ServiceBodyTest, AcceptsNoStopFromARequestToItsEnd) {
  Start();
  key.Write(L"Fls_Ready", 1);
  EXPECT_TRUE(manager.HearsAccepted(kNotStoppable));
  BeginJob();
  EndJob();
  EXPECT_TRUE(manager.HearsAccepted(kStoppable));
}

TEST_F(ServiceBodyTest, TellsWhoeverAsksOfAFlashThatHasJustBegun) {
  Start();
  BeginJob();
  EXPECT_EQ(manager.Send(SERVICE_CONTROL_INTERROGATE), static_cast<DWORD>(NO_ERROR));
  EXPECT_EQ(manager.Last().dwControlsAccepted, kNotStoppable);
}

TEST_F(ServiceBodyTest, TellsWhoeverAsksOfAFlashThatHasJustEnded) {
  BeginJob();
  Start();
  EXPECT_EQ(manager.Last().dwControlsAccepted, kNotStoppable);
  EndJob();
  manager.Send(SERVICE_CONTROL_INTERROGATE);
  EXPECT_EQ(manager.Last().dwControlsAccepted, kStoppable);
}

TEST_F(ServiceBodyTest, DoesNotKnowOtherControls) {
  Start();
  EXPECT_EQ(manager.Send(SERVICE_CONTROL_PAUSE), static_cast<DWORD>(ERROR_CALL_NOT_IMPLEMENTED));
  EXPECT_EQ(manager.Send(kControlAllowInterruption + 1), static_cast<DWORD>(ERROR_CALL_NOT_IMPLEMENTED));
}

// --- Stop ------------------------------------------------------------------------------------------------

TEST_F(ServiceBodyTest, IsStoppingWhenTheControlReturns) {
  Start();
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  const std::vector<SERVICE_STATUS> heard = manager.All();
  ASSERT_EQ(heard.size(), 4u);
  EXPECT_EQ(heard[2].dwCurrentState, static_cast<DWORD>(SERVICE_STOP_PENDING));
  EXPECT_EQ(heard[2].dwCheckPoint, 1u);
  EXPECT_GT(heard[2].dwWaitHint, 0u);
  EXPECT_EQ(heard[3].dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
  EXPECT_EQ(heard[3].dwWin32ExitCode, static_cast<DWORD>(NO_ERROR));
  EXPECT_EQ(heard[3].dwCheckPoint, 0u);
  EXPECT_THAT(g_events,
              ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED), static_cast<DWORD>(MSG_SERVICE_STOPPED)));
}

/// The manager passes such a stop on when a flash has begun of which it has not yet heard.
TEST_F(ServiceBodyTest, AStopThatComesWithTheFlashWaitsForTheAttempt) {
  Start();
  BeginJob();
  manager.Send(SERVICE_CONTROL_STOP);
  EXPECT_EQ(manager.Last().dwCurrentState, static_cast<DWORD>(SERVICE_STOP_PENDING));
  EXPECT_TRUE(manager.Hears([](const SERVICE_STATUS& status) { return status.dwCheckPoint >= 3; }));
  EXPECT_EQ(manager.Last().dwCurrentState, static_cast<DWORD>(SERVICE_STOP_PENDING));
  EndJob();
  EXPECT_TRUE(manager.HearsState(SERVICE_STOPPED));
}

TEST_F(ServiceBodyTest, AShutdownWaitsForTheAttemptWithCheckPoints) {
  Start();
  BeginJob();
  ASSERT_TRUE(manager.HearsAccepted(kNotStoppable));
  manager.Send(SERVICE_CONTROL_PRESHUTDOWN);
  EXPECT_TRUE(manager.Hears([](const SERVICE_STATUS& status) { return status.dwCheckPoint >= 3; }));
  EndJob();
  EXPECT_TRUE(manager.HearsState(SERVICE_STOPPED));
}

TEST_F(ServiceBodyTest, AShutdownDoesNotWaitBetweenTwoAttempts) {
  Start();
  BeginJob();
  key.Write(L"Flash_Result", 2);
  manager.Send(SERVICE_CONTROL_PRESHUTDOWN);
  EXPECT_TRUE(manager.HearsState(SERVICE_STOPPED));
}

TEST_F(ServiceBodyTest, AStopWaitsUntilTheResultIsWrittenAndTheFlagTakenBack) {
  Start();
  BeginJob();
  key.Write(L"Flash_OnGoing", 0);
  manager.Send(SERVICE_CONTROL_STOP);
  EXPECT_TRUE(manager.Hears([](const SERVICE_STATUS& status) { return status.dwCheckPoint >= 3; }));
  key.Write(L"Flash_Result", 4);
  EXPECT_TRUE(manager.Hears([](const SERVICE_STATUS& status) { return status.dwCheckPoint >= 5; }));
  key.Write(L"Fls_Ready", 0);
  EXPECT_TRUE(manager.HearsState(SERVICE_STOPPED));
}

std::atomic<ULONGLONG> g_ticks{1000};

ULONGLONG WINAPI TellTicks() {
  return g_ticks;
}

TEST_F(ServiceBodyTest, AStopWaitsForAnAttemptThatDoesNotEndNoLongerThanItsLimit) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("GetTickCount64", &TellTicks);
  Start();
  BeginJob();
  ASSERT_TRUE(manager.HearsAccepted(kNotStoppable));
  manager.Send(SERVICE_CONTROL_PRESHUTDOWN);
  ASSERT_TRUE(manager.Hears([](const SERVICE_STATUS& status) { return status.dwCheckPoint >= 2; }));
  g_ticks += kLongestAttemptMs - 1;
  EXPECT_TRUE(manager.Hears([](const SERVICE_STATUS& status) { return status.dwCheckPoint >= 4; }));
  g_ticks += 1;
  EXPECT_TRUE(manager.HearsState(SERVICE_STOPPED));
  AwaitEnd();
  EXPECT_THAT(g_events, ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED),
                                    static_cast<DWORD>(MSG_SERVICE_STOPPED_WHILE_FLASHING)));
}

TEST_F(ServiceBodyTest, SaysNoMoreOnceItHasStopped) {
  Start();
  manager.Send(SERVICE_CONTROL_STOP);
  AwaitEnd();
  const std::size_t said = manager.All().size();
  manager.Send(SERVICE_CONTROL_INTERROGATE);
  manager.Send(SERVICE_CONTROL_STOP);
  EXPECT_EQ(manager.All().size(), said);
}

// --- Stop by force ---------------------------------------------------------------------------------------

TEST_F(ServiceBodyTest, IsInterruptedByAStopThatFollowsThePermission) {
  Start();
  BeginJob();
  manager.Send(kControlAllowInterruption);
  EXPECT_EQ(manager.Last().dwControlsAccepted, kStoppable);
  manager.Send(SERVICE_CONTROL_STOP);
  EXPECT_TRUE(manager.HearsState(SERVICE_STOPPED));
  AwaitEnd();
  EXPECT_THAT(g_events, ElementsAre(static_cast<DWORD>(MSG_SERVICE_STARTED),
                                    static_cast<DWORD>(MSG_SERVICE_STOPPED_WHILE_FLASHING)));
}

/// Any user may send the permission; it must not be kept until an administrator stops the service.
TEST_F(ServiceBodyTest, ForgetsThePermissionWhenTheNextStopAsksFirst) {
  Start();
  BeginJob();
  manager.Send(kControlAllowInterruption);
  manager.Send(SERVICE_CONTROL_INTERROGATE);
  EXPECT_EQ(manager.Last().dwControlsAccepted, kNotStoppable);
}

TEST_F(ServiceBodyTest, KeepsNoPermissionForALaterFlash) {
  Start();
  manager.Send(kControlAllowInterruption);
  BeginJob();
  ASSERT_TRUE(manager.HearsAccepted(kNotStoppable));
}

TEST_F(ServiceBodyTest, KeepsNoPermissionOfOneFlashForTheNext) {
  Start();
  BeginJob();
  ASSERT_TRUE(manager.HearsAccepted(kNotStoppable));
  manager.Send(kControlAllowInterruption);
  const std::size_t said = manager.All().size();
  EndJob();
  ASSERT_TRUE(manager.HearsMoreThan(said));
  BeginJob();
  ASSERT_TRUE(manager.HearsAccepted(kNotStoppable));
  manager.Send(SERVICE_CONTROL_STOP);
  EXPECT_TRUE(manager.Hears([](const SERVICE_STATUS& status) {
    return status.dwCheckPoint >= 3 || status.dwCurrentState == SERVICE_STOPPED;
  }));
  EXPECT_EQ(manager.Last().dwCurrentState, static_cast<DWORD>(SERVICE_STOP_PENDING));
}

TEST_F(ServiceBodyTest, AShutdownIsNotInterruptedByThePermission) {
  Start();
  BeginJob();
  manager.Send(kControlAllowInterruption);
  manager.Send(SERVICE_CONTROL_PRESHUTDOWN);
  EXPECT_TRUE(manager.Hears([](const SERVICE_STATUS& status) { return status.dwCheckPoint >= 3; }));
}

}  // namespace

}  // namespace hosts
