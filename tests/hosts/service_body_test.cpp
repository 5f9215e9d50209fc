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
#include <utility>
#include <vector>

#include "hosts/common/event_log.h"
#include "hosts/common/job_record.h"
#include "hosts/common/serving_notice.h"
#include "hosts/service/flash_library.h"
#include "hosts/service/identity.h"
#include "messages.h"
#include "simulator/host/kept_key.h"
#include "simulator/import_patch.h"

namespace hosts {

using testing::ElementsAre;

namespace {

constexpr DWORD kStoppable = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PRESHUTDOWN;
constexpr DWORD kNotStoppable = SERVICE_ACCEPT_PRESHUTDOWN;
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

  DWORD Send(DWORD control) const { return m_Handler(control, 0, nullptr, m_Context); }

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
std::vector<DWORD> g_events;
std::vector<std::string> g_records;

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
  g_events.push_back(message);
}

std::string LeaveRecord(const std::string& host, const FinishedJob& job) {
  g_records.push_back(host + ": " + std::to_string(job.result));
  return {};
}

namespace {

class ServiceBodyTest : public testing::Test {
 protected:
  ServiceBodyTest() {
    g_manager = &manager;
    g_library = {.failure = std::nullopt, .key = key.Location()};
    g_events.clear();
    g_records.clear();
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
  void StartsAndFails() const { RunAsService(); }
  void AwaitEnd() { m_Service.join(); }

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
       .path = L"Software\\Corvel\\Test\\" + std::to_wstring(::GetCurrentProcessId()) + L"\\ServiceBody"}};
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
