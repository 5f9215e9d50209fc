#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <winsvc.h>

#include <cwchar>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "hosts/common/event_log.h"
#include "hosts/common/flash_history.h"
#include "hosts/common/job_record.h"
#include "hosts/common/owners.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "hosts/service/service_control.h"
#include "messages.h"
#include "simulator/host/kept_key.h"
#include "simulator/import_patch.h"
#include "tests/hosts/child_process.h"
#include "tests/hosts/host_workspace.h"

namespace hosts {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr wchar_t kName[] = L"CorvelFlashService";
constexpr wchar_t kEventSource[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\CorvelFlashService";
constexpr wchar_t kServiceEntry[] = L"SYSTEM\\CurrentControlSet\\Services\\CorvelFlashService";
constexpr DWORD kSystemsStopLimitMs = 180000;
constexpr DWORD kOneAttemptMs = 153000;
constexpr DWORD kLongestFlashMs = 60000;
constexpr UINT kEndedByTest = 254;
constexpr DWORD kLongestProcessEndMs = 30000;

struct ServiceHandleCloser {
  using pointer = SC_HANDLE;
  void operator()(SC_HANDLE handle) const noexcept { ::CloseServiceHandle(handle); }
};
using ServiceHandle = std::unique_ptr<SC_HANDLE__, ServiceHandleCloser>;

bool KeyExists(const wchar_t* path) {
  HKEY opened = nullptr;
  const bool exists = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &opened) == ERROR_SUCCESS;
  const OwnedKey owner(opened);
  return exists;
}

std::wstring TextValue(const wchar_t* path, const wchar_t* name) {
  wchar_t text[1024]{};
  DWORD size = sizeof text;
  ::RegGetValueW(HKEY_LOCAL_MACHINE, path, name, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr,
                 text, &size);
  return text;
}

/// Waits until the service has deleted the images, the last that it does for a job.
bool ImagesGo(const std::filesystem::path& folder) {
  const HANDLE change = ::FindFirstChangeNotificationW(folder.c_str(), FALSE, FILE_NOTIFY_CHANGE_FILE_NAME);
  while (!std::filesystem::is_empty(folder) &&
         ::WaitForSingleObject(change, kLongestFlashMs) == WAIT_OBJECT_0) {
    ::FindNextChangeNotification(change);
  }
  ::FindCloseChangeNotification(change);
  return std::filesystem::is_empty(folder);
}

/// The system's own view of the service.
class ManagedService {
 public:
  ManagedService()
      : m_Manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)),
        m_Service(::OpenServiceW(m_Manager.get(), kName, SERVICE_ALL_ACCESS)) {}

  bool Exists() const { return m_Service != nullptr; }

  SERVICE_STATUS_PROCESS Status() const {
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    ::QueryServiceStatusEx(m_Service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                           sizeof status, &needed);
    return status;
  }

  /// Ends what the service's own verbs could not end.
  void DeleteByForce() const {
    if (!Exists()) return;
    const DWORD id = Status().dwProcessId;
    const OwnedHandle process(id == 0 ? nullptr : ::OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id));
    if (process != nullptr && ::TerminateProcess(process.get(), kEndedByTest)) {
      ::WaitForSingleObject(process.get(), kLongestProcessEndMs);
    }
    ::DeleteService(m_Service.get());
  }

  const QUERY_SERVICE_CONFIGW& Configuration() {
    DWORD needed = 0;
    m_Configuration.resize(8192);
    ::QueryServiceConfigW(m_Service.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(m_Configuration.data()),
                          static_cast<DWORD>(m_Configuration.size()), &needed);
    return *reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(m_Configuration.data());
  }

  bool SetCommand(const std::wstring& command) const {
    return ::ChangeServiceConfigW(m_Service.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                  command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr,
                                  nullptr) != FALSE;
  }

  template <typename Info>
  const Info* Query(DWORD level) {
    DWORD needed = 0;
    m_Info.resize(8192);
    if (!::QueryServiceConfig2W(m_Service.get(), level, m_Info.data(), static_cast<DWORD>(m_Info.size()),
                                &needed)) {
      return nullptr;
    }
    return reinterpret_cast<const Info*>(m_Info.data());
  }

 private:
  ServiceHandle m_Manager;
  ServiceHandle m_Service;
  std::vector<BYTE> m_Configuration;
  std::vector<BYTE> m_Info;
};

/// Begins and ends without the service: what one test left there is no other's to stumble over.
class WithoutServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    RemoveService();
    ASSERT_FALSE(ManagedService().Exists()) << "another service of this name cannot be removed";
  }
  void TearDown() override { RemoveService(); }

 private:
  static void RemoveService() {
    if (!ManagedService().Exists()) return;
    StopFlashService(true);
    UninstallService();
    ManagedService().DeleteByForce();
  }
};

class ServiceTest : public WithoutServiceTest {
 protected:
  ServiceTest() { workspace.SetServiceKey(ToWide(key.Location().Text())); }

  RunResult Service(const std::vector<std::wstring>& arguments) const {
    return RunToEnd(workspace.Service(), arguments);
  }
  void InstallAndStart() const {
    ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
    ASSERT_EQ(Service({L"start"}).exitCode, 0);
  }
  std::filesystem::path Controller() const { return ProgramFolder() + L"controller_example.exe"; }
  std::vector<std::wstring> ControllerArguments(const std::wstring& seconds = L"60") const {
    return {ToWide(key.Location().Text()), seconds};
  }
  nlohmann::json Status() const {
    return nlohmann::json::parse(Service({L"status", L"--json"}).output, nullptr, false);
  }

  HostWorkspace workspace;
  simulator::KeptKey key{
      {.path = L"SOFTWARE\\Corvel\\Test\\Service-" + std::to_wstring(::GetCurrentProcessId())}};
};

// --- What is asked of the manager ----------------------------------------------------------------------

/// What InstallService asked for beyond the service's entry. Not every manager keeps it.
struct AskedFor {
  DWORD resetSeconds = 0;
  std::vector<SC_ACTION> actions;
  bool forErrorsToo = false;
  std::wstring description;
  std::vector<std::wstring> privileges;
  DWORD identity = SERVICE_SID_TYPE_NONE;
};
AskedFor g_askedFor;

BOOL WINAPI RecordConfiguration(SC_HANDLE, DWORD level, void* info) {
  if (level == SERVICE_CONFIG_FAILURE_ACTIONS) {
    const auto* asked = static_cast<const SERVICE_FAILURE_ACTIONSW*>(info);
    g_askedFor.resetSeconds = asked->dwResetPeriod;
    g_askedFor.actions.assign(asked->lpsaActions, asked->lpsaActions + asked->cActions);
  }
  if (level == SERVICE_CONFIG_DESCRIPTION) {
    g_askedFor.description = static_cast<const SERVICE_DESCRIPTIONW*>(info)->lpDescription;
  }
  if (level == SERVICE_CONFIG_REQUIRED_PRIVILEGES_INFO) {
    const wchar_t* each = static_cast<const SERVICE_REQUIRED_PRIVILEGES_INFOW*>(info)->pmszRequiredPrivileges;
    for (; *each != L'\0'; each += std::wcslen(each) + 1) g_askedFor.privileges.emplace_back(each);
  }
  if (level == SERVICE_CONFIG_SERVICE_SID_INFO) {
    g_askedFor.identity = static_cast<const SERVICE_SID_INFO*>(info)->dwServiceSidType;
  }
  if (level == SERVICE_CONFIG_FAILURE_ACTIONS_FLAG) {
    g_askedFor.forErrorsToo =
        static_cast<const SERVICE_FAILURE_ACTIONS_FLAG*>(info)->fFailureActionsOnNonCrashFailures != FALSE;
  }
  return TRUE;
}

using InstallServiceTest = WithoutServiceTest;

TEST_F(InstallServiceTest, AsksTheManagerForRestartsWithGrowingDelays) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("ChangeServiceConfig2W", &RecordConfiguration);
  EXPECT_EQ(InstallService({}).error, static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_EQ(UninstallService().error, static_cast<DWORD>(ERROR_SUCCESS));
  std::vector<DWORD> delays;
  for (const SC_ACTION& action : g_askedFor.actions) {
    EXPECT_EQ(action.Type, SC_ACTION_RESTART);
    delays.push_back(action.Delay);
  }
  EXPECT_THAT(delays, ElementsAre(5000u, 30000u, 60000u));
  EXPECT_EQ(g_askedFor.resetSeconds, 24u * 60 * 60);
  EXPECT_TRUE(g_askedFor.forErrorsToo);
  EXPECT_EQ(g_askedFor.description, L"Updates the firmware of the built-in cellular modem when asked to.");
}

TEST_F(InstallServiceTest, LeavesTheServiceOnlyWhatItNeedsWhenAskedTo) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("ChangeServiceConfig2W", &RecordConfiguration);
  g_askedFor = {};
  ASSERT_EQ(InstallService({}).error, static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_THAT(g_askedFor.privileges, IsEmpty());
  EXPECT_EQ(g_askedFor.identity, static_cast<DWORD>(SERVICE_SID_TYPE_NONE));
  // Of one that is there already, too.
  ASSERT_EQ(RestrictInstalledService().error, static_cast<DWORD>(ERROR_SUCCESS));
  const std::vector<std::wstring> needed{L"SeChangeNotifyPrivilege", L"SeLoadDriverPrivilege",
                                         L"SeImpersonatePrivilege", L"SeCreateGlobalPrivilege"};
  EXPECT_EQ(g_askedFor.privileges, needed);
  EXPECT_EQ(g_askedFor.identity, static_cast<DWORD>(SERVICE_SID_TYPE_UNRESTRICTED));
  ASSERT_EQ(UninstallService().error, static_cast<DWORD>(ERROR_SUCCESS));
  g_askedFor = {};
  ASSERT_EQ(InstallService({.restricted = true}).error, static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_EQ(g_askedFor.privileges, needed);
}

TEST_F(InstallServiceTest, HasTheManagerStartItSoThatItEndsWhenStuck) {
  ASSERT_EQ(InstallService({.restartsWhenStuck = true}).error, static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_EQ(std::wstring(ManagedService().Configuration().lpBinaryPathName),
            L"\"" + ProgramPath() + L"\" --restart-when-stuck");
  EXPECT_TRUE(IsInstalledLikeThis({.restartsWhenStuck = true}));
  EXPECT_FALSE(IsInstalledLikeThis({}));
}

/// What of a service's settings the manager refuses, and with which error.
struct Refusal {
  DWORD level = 0;
  DWORD error = ERROR_SUCCESS;
};
Refusal g_refusal;

BOOL WINAPI RefuseConfiguration(SC_HANDLE, DWORD level, void*) {
  if (level != g_refusal.level) return TRUE;
  ::SetLastError(g_refusal.error);
  return FALSE;
}

TEST_F(InstallServiceTest, LeavesNoServiceThatLacksWhatItNeeds) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("ChangeServiceConfig2W", &RefuseConfiguration);
  const std::pair<DWORD, const char*> settings[] = {
      {SERVICE_CONFIG_DESCRIPTION, "describe the service"},
      {SERVICE_CONFIG_PRESHUTDOWN_INFO, "set the time limit of a shutdown"},
      {SERVICE_CONFIG_REQUIRED_PRIVILEGES_INFO, "limit the privileges of the service"},
      {SERVICE_CONFIG_SERVICE_SID_INFO, "give the service an identity of its own"},
      {SERVICE_CONFIG_FAILURE_ACTIONS, "set the failure actions"}};
  for (const auto& [level, step] : settings) {
    g_refusal = {.level = level, .error = ERROR_ACCESS_DENIED};
    const ControlResult result = InstallService({.restricted = true});
    EXPECT_EQ(result.error, static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_STREQ(result.step, step);
    EXPECT_FALSE(ManagedService().Exists()) << step;
  }
}

TEST_F(InstallServiceTest, GoesWithoutARestartWhereTheManagerKnowsNone) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("ChangeServiceConfig2W", &RefuseConfiguration);
  g_refusal = {.level = SERVICE_CONFIG_FAILURE_ACTIONS, .error = ERROR_INVALID_LEVEL};
  const ControlResult result = InstallService({});
  EXPECT_EQ(result.error, static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_STREQ(result.missing, "a restart after a failure");
  EXPECT_TRUE(ManagedService().Exists());
}

BOOL WINAPI TellRestricted(SC_HANDLE, DWORD level, BYTE* buffer, DWORD, DWORD*) {
  if (level != SERVICE_CONFIG_SERVICE_SID_INFO) return FALSE;
  reinterpret_cast<SERVICE_SID_INFO*>(buffer)->dwServiceSidType = SERVICE_SID_TYPE_UNRESTRICTED;
  return TRUE;
}

TEST_F(InstallServiceTest, TakesARestrictedServiceForNoUnrestrictedOne) {
  ASSERT_EQ(InstallService({}).error, static_cast<DWORD>(ERROR_SUCCESS));
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("QueryServiceConfig2W", &TellRestricted);
  EXPECT_FALSE(IsInstalledLikeThis({}));
  EXPECT_TRUE(IsInstalledLikeThis({.restricted = true}));
}

/// How often the manager still has a deleted service of the name, and how long it was waited for.
struct DeletedService {
  int refusals = 0;
  DWORD waitedMs = 0;
};
DeletedService g_deleted;

SC_HANDLE WINAPI CreateBehindADeletedOne(SC_HANDLE, LPCWSTR, LPCWSTR, DWORD, DWORD, DWORD, DWORD, LPCWSTR,
                                         LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR, LPCWSTR) {
  // With another error at last, so that nothing has to be made.
  ::SetLastError(g_deleted.refusals-- > 0 ? ERROR_SERVICE_MARKED_FOR_DELETE : ERROR_ACCESS_DENIED);
  return nullptr;
}

void WINAPI CountSleep(DWORD ms) {
  g_deleted.waitedMs += ms;
}

TEST_F(InstallServiceTest, WaitsForADeletedServiceThatSomebodyLooksAt) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("CreateServiceW", &CreateBehindADeletedOne);
  patch.Replace("Sleep", &CountSleep);
  g_deleted = {.refusals = 20};
  EXPECT_EQ(InstallService({}).error, static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_GT(g_deleted.waitedMs, 1000u);
  g_deleted = {.refusals = 1000000};
  EXPECT_EQ(InstallService({}).error, static_cast<DWORD>(ERROR_SERVICE_MARKED_FOR_DELETE));
  EXPECT_EQ(g_deleted.waitedMs, 30000u);
}

TEST_F(InstallServiceTest, KnowsItsProgramInAnySpelling) {
  ASSERT_EQ(InstallService({}).error, static_cast<DWORD>(ERROR_SUCCESS));
  std::wstring command = ManagedService().Configuration().lpBinaryPathName;
  ::CharUpperW(command.data());
  ASSERT_TRUE(ManagedService().SetCommand(command));
  EXPECT_TRUE(IsInstalledLikeThis({}));
  EXPECT_FALSE(IsInstalledLikeThis({.automatic = true}));
}

// --- A manager that the test plays -----------------------------------------------------------------------

/// What it answers to a start, to a control and to each question for the state; the last answer stays.
struct PlayedManager {
  DWORD startError = ERROR_SUCCESS;
  DWORD controlError = ERROR_SUCCESS;
  std::vector<DWORD> states;
  DWORD serviceCode = 0;
};
PlayedManager g_played;

SC_HANDLE WINAPI OpenPlayedManager(LPCWSTR, LPCWSTR, DWORD) {
  return reinterpret_cast<SC_HANDLE>(&g_played);
}

SC_HANDLE WINAPI OpenPlayedService(SC_HANDLE, LPCWSTR, DWORD) {
  return reinterpret_cast<SC_HANDLE>(&g_played);
}

BOOL WINAPI ClosePlayedHandle(SC_HANDLE) {
  return TRUE;
}

BOOL WINAPI StartPlayedService(SC_HANDLE, DWORD, LPCWSTR*) {
  ::SetLastError(g_played.startError);
  return g_played.startError == ERROR_SUCCESS;
}

BOOL WINAPI ControlPlayedService(SC_HANDLE, DWORD, SERVICE_STATUS*) {
  ::SetLastError(g_played.controlError);
  return g_played.controlError == ERROR_SUCCESS;
}

BOOL WINAPI TellState(SC_HANDLE, SC_STATUS_TYPE, LPBYTE buffer, DWORD, LPDWORD) {
  auto& status = *reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer);
  status = {};
  status.dwCurrentState = g_played.states.front();
  status.dwWin32ExitCode = g_played.serviceCode == 0 ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR;
  status.dwServiceSpecificExitCode = g_played.serviceCode;
  if (g_played.states.size() > 1) g_played.states.erase(g_played.states.begin());
  return TRUE;
}

class PlayedManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    g_played = {};
    m_Patch.Replace("OpenSCManagerW", &OpenPlayedManager);
    m_Patch.Replace("OpenServiceW", &OpenPlayedService);
    m_Patch.Replace("CloseServiceHandle", &ClosePlayedHandle);
    m_Patch.Replace("StartServiceW", &StartPlayedService);
    m_Patch.Replace("ControlService", &ControlPlayedService);
    m_Patch.Replace("QueryServiceStatusEx", &TellState);
  }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(nullptr)};
};

TEST_F(PlayedManagerTest, StartSaysThatTheServiceIsStopping) {
  g_played = {.startError = ERROR_SERVICE_ALREADY_RUNNING, .states = {SERVICE_STOP_PENDING}};
  EXPECT_EQ(StartFlashService().error, static_cast<DWORD>(ERROR_SERVICE_CANNOT_ACCEPT_CTRL));
}

TEST_F(PlayedManagerTest, StartSaysThatTheServiceEndedAtOnce) {
  g_played.states = {SERVICE_START_PENDING, SERVICE_STOPPED};
  EXPECT_EQ(StartFlashService().error, static_cast<DWORD>(ERROR_SERVICE_NOT_ACTIVE));
}

TEST_F(PlayedManagerTest, StartSaysWhyAServiceEndedThatWasGoneBeforeItAnswered) {
  g_played = {.startError = ERROR_SERVICE_REQUEST_TIMEOUT, .states = {SERVICE_STOPPED}, .serviceCode = 1};
  EXPECT_EQ(StartFlashService().serviceCode, 1u);
  g_played = {.startError = ERROR_SERVICE_REQUEST_TIMEOUT, .states = {SERVICE_STOPPED}};
  EXPECT_EQ(StartFlashService().error, static_cast<DWORD>(ERROR_SERVICE_REQUEST_TIMEOUT));
  g_played = {.startError = ERROR_ACCESS_DENIED, .states = {SERVICE_STOPPED}, .serviceCode = 1};
  EXPECT_EQ(StartFlashService().error, static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST_F(PlayedManagerTest, StopWaitsForOneThatIsUnderWay) {
  g_played = {.controlError = ERROR_SERVICE_CANNOT_ACCEPT_CTRL,
              .states = {SERVICE_STOP_PENDING, SERVICE_STOP_PENDING, SERVICE_STOP_PENDING, SERVICE_STOPPED}};
  EXPECT_EQ(StopFlashService(false).error, static_cast<DWORD>(ERROR_SUCCESS));
}

TEST(NameOfStateTest, IsGivenToEachState) {
  EXPECT_STREQ(NameOfState(SERVICE_STOPPED), "stopped");
  EXPECT_STREQ(NameOfState(SERVICE_START_PENDING), "starting");
  EXPECT_STREQ(NameOfState(SERVICE_STOP_PENDING), "stopping");
  EXPECT_STREQ(NameOfState(SERVICE_RUNNING), "running");
  EXPECT_STREQ(NameOfState(SERVICE_PAUSED), "in another state");
}

// --- Installing ------------------------------------------------------------------------------------------

TEST_F(ServiceTest, InstallsItselfWithAQuotedPath) {
  const RunResult result = Service({L"install"});
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  ManagedService service;
  ASSERT_TRUE(service.Exists());
  const QUERY_SERVICE_CONFIGW& configuration = service.Configuration();
  EXPECT_EQ(std::wstring(configuration.lpBinaryPathName), L"\"" + workspace.Service().wstring() + L"\"");
  EXPECT_EQ(configuration.dwStartType, static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_EQ(configuration.dwServiceType, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
}

TEST_F(ServiceTest, StartsOnDemandWhenInstalledSo) {
  ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
  EXPECT_EQ(ManagedService().Configuration().dwStartType, static_cast<DWORD>(SERVICE_DEMAND_START));
}

TEST_F(ServiceTest, HasTimeAtAShutdownForARunningAttempt) {
  ASSERT_EQ(Service({L"install"}).exitCode, 0);
  ManagedService service;
  const auto* limit = service.Query<SERVICE_PRESHUTDOWN_INFO>(SERVICE_CONFIG_PRESHUTDOWN_INFO);
  ASSERT_NE(limit, nullptr);
  EXPECT_GT(limit->dwPreshutdownTimeout, kSystemsStopLimitMs);
  EXPECT_GT(limit->dwPreshutdownTimeout, kOneAttemptMs);
}

TEST_F(ServiceTest, RegistersItsMessagesAsAnEventSource) {
  ASSERT_EQ(Service({L"install"}).exitCode, 0);
  const std::wstring file = TextValue(kEventSource, L"EventMessageFile");
  EXPECT_EQ(file, workspace.Service().wstring());
  DWORD type = REG_NONE;
  DWORD size = 0;
  ::RegGetValueW(HKEY_LOCAL_MACHINE, kEventSource, L"EventMessageFile", RRF_RT_ANY | RRF_NOEXPAND, &type,
                 nullptr, nullptr);
  EXPECT_EQ(type, static_cast<DWORD>(REG_EXPAND_SZ));
  DWORD types = 0;
  size = sizeof types;
  ::RegGetValueW(HKEY_LOCAL_MACHINE, kEventSource, L"TypesSupported", RRF_RT_REG_DWORD, nullptr, &types,
                 &size);
  EXPECT_EQ(types,
            static_cast<DWORD>(EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE));
}

TEST_F(ServiceTest, IsNotInstalledTwice) {
  ASSERT_EQ(Service({L"install"}).exitCode, 0);
  const RunResult second = Service({L"install"});
  EXPECT_EQ(second.exitCode, 0);
  EXPECT_EQ(second.output, "It is installed already.\r\n");
  EXPECT_TRUE(ManagedService().Exists());
}

TEST_F(ServiceTest, SaysThatAnotherServiceOfItsNameIsInstalled) {
  ASSERT_EQ(Service({L"install"}).exitCode, 0);
  const RunResult otherStart = Service({L"install", L"--start", L"demand"});
  EXPECT_EQ(otherStart.exitCode, 1);
  EXPECT_THAT(otherStart.errors, HasSubstr("for another program or with another --start"));
  const HostWorkspace other(L"-other");
  const RunResult otherProgram = RunToEnd(other.Service(), {L"install"});
  EXPECT_EQ(otherProgram.exitCode, 1);
  EXPECT_THAT(otherProgram.errors, HasSubstr("for another program or with another --start"));
}

/// The installer asks so before it touches a file.
TEST_F(ServiceTest, IsNotRemovedForAnInstallerWhileOneInATerminalFlashes) {
  const ServingNotice inTerminal(Server::Service, key.Location());
  EXPECT_EQ(Service({L"uninstall", L"--unless-flashing"}).exitCode, 0);
  key.Write(L"Fls_Ready", 1);
  const RunResult refused = Service({L"uninstall", L"--unless-flashing"});
  EXPECT_EQ(refused.exitCode, 3);
  EXPECT_EQ(refused.errors, "corvel_service: A flash service is flashing; its key is " +
                                key.Location().Text() + ". Wait for its end.\r\n");
  // As the installer does, from a folder of its own.
  const HostWorkspace other(L"-other");
  const std::wstring programs = workspace.Service().parent_path().wstring();
  EXPECT_EQ(RunToEnd(other.Service(), {L"uninstall", L"--unless-flashing", L"--programs", programs}).exitCode,
            3);
}

TEST_F(ServiceTest, DeletesTheKeyThatItMadeAndNoOther) {
  for (const wchar_t* const option : {L"--release-key", L"--purge"}) {
    ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
    ASSERT_TRUE(key.Exists());
    key.Write(L"Retry_Times", 2);
    ASSERT_EQ(Service({L"uninstall"}).exitCode, 0);
    EXPECT_TRUE(key.Exists());
    ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
    EXPECT_EQ(Service({L"uninstall", option}).exitCode, 0);
    EXPECT_FALSE(key.Exists());
    workspace.WriteConfiguration("[TraceLevel]=", L"1");
  }
  key.Write(L"Retry_Times", 2);
  ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
  EXPECT_EQ(Service({L"uninstall", L"--release-key"}).exitCode, 0);
  EXPECT_TRUE(key.Exists());
}

TEST_F(ServiceTest, LeavesNothingBehindWhenItIsUninstalled) {
  ASSERT_EQ(Service({L"install"}).exitCode, 0);
  ASSERT_EQ(Service({L"uninstall"}).exitCode, 0);
  EXPECT_FALSE(ManagedService().Exists());
  EXPECT_FALSE(KeyExists(kServiceEntry));
  EXPECT_FALSE(KeyExists(kEventSource));
  EXPECT_EQ(Status()["state"], "not installed");
}

TEST_F(ServiceTest, SaysThatItIsNotInstalled) {
  const RunResult start = Service({L"start"});
  EXPECT_EQ(start.exitCode, 1);
  EXPECT_THAT(start.errors, HasSubstr("Install it first"));
  // These two find all as it is to be.
  for (const wchar_t* verb : {L"stop", L"uninstall"}) {
    const RunResult result = Service({verb});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "It is not installed.\r\n");
  }
}

TEST_F(ServiceTest, IsDoneWhenItRunsOrHasStoppedAlready) {
  InstallAndStart();
  const RunResult start = Service({L"start"});
  EXPECT_EQ(start.exitCode, 0);
  EXPECT_EQ(start.output, "It is running already.\r\n");
  ASSERT_EQ(Service({L"stop"}).exitCode, 0);
  const RunResult stop = Service({L"stop"});
  EXPECT_EQ(stop.exitCode, 0);
  EXPECT_EQ(stop.output, "It is not running.\r\n");
}

/// The message table is a resource of the program that ships.
TEST_F(ServiceTest, HoldsItsMessages) {
  const OwnedModule program(::LoadLibraryExW(workspace.Service().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
  ASSERT_NE(program, nullptr);
  wchar_t text[512]{};
  const std::wstring reason = L"a reason";
  DWORD_PTR insertions[] = {reinterpret_cast<DWORD_PTR>(reason.c_str())};
  ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, program.get(),
                   MSG_SERVICE_FAILED, 0, text, static_cast<DWORD>(std::size(text)),
                   reinterpret_cast<va_list*>(insertions));
  EXPECT_EQ(std::wstring(text), L"The modem flash service cannot run: a reason\r\n");
}

/// The event log itself: what is written there, as the system is asked to.
struct WrittenEvent {
  std::wstring source;
  WORD type = 0;
  DWORD id = 0;
  std::wstring insertion;
  int releases = 0;
};
WrittenEvent g_written;

HANDLE WINAPI RecordSource(LPCWSTR, LPCWSTR source) {
  g_written.source = source;
  return &g_written;
}

HANDLE WINAPI RefuseSource(LPCWSTR, LPCWSTR) {
  return nullptr;
}

BOOL WINAPI RecordEvent(HANDLE, WORD type, WORD, DWORD id, PSID, WORD count, DWORD, LPCWSTR* texts, LPVOID) {
  g_written.type = type;
  g_written.id = id;
  g_written.insertion = count == 1 ? texts[0] : L"";
  return TRUE;
}

BOOL WINAPI ReleaseSource(HANDLE) {
  ++g_written.releases;
  return TRUE;
}

class EventLogTest : public testing::Test {
 protected:
  EventLogTest() {
    g_written = {};
    m_Patch.Replace("RegisterEventSourceW", &RecordSource);
    m_Patch.Replace("ReportEventW", &RecordEvent);
    m_Patch.Replace("DeregisterEventSource", &ReleaseSource);
  }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(nullptr)};
};

TEST_F(EventLogTest, WritesAFailureAsAnErrorOfTheRegisteredSource) {
  WriteEvent(MSG_SERVICE_FAILED, L"a reason");
  EXPECT_EQ(g_written.source, kName);
  EXPECT_EQ(g_written.type, EVENTLOG_ERROR_TYPE);
  EXPECT_EQ(g_written.id, static_cast<DWORD>(MSG_SERVICE_FAILED));
  EXPECT_EQ(g_written.insertion, L"a reason");
  EXPECT_EQ(g_written.releases, 1);
}

TEST_F(EventLogTest, WritesNothingWhereThereIsNoLog) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("RegisterEventSourceW", &RefuseSource);
  WriteEvent(MSG_SERVICE_FAILED, L"a reason");
  EXPECT_EQ(g_written.id, 0u);
  EXPECT_EQ(g_written.releases, 0);
}

TEST_F(EventLogTest, WritesStartAndStopAsInformation) {
  WriteEvent(MSG_SERVICE_STARTED, L"a key");
  EXPECT_EQ(g_written.type, EVENTLOG_INFORMATION_TYPE);
  WriteEvent(MSG_SERVICE_STOPPED);
  EXPECT_EQ(g_written.type, EVENTLOG_INFORMATION_TYPE);
}

TEST_F(EventLogTest, WritesAFinishedFlashAsWhatItIs) {
  WriteEvent(MSG_FLASH_SUCCEEDED, L"how");
  EXPECT_EQ(g_written.type, EVENTLOG_INFORMATION_TYPE);
  EXPECT_EQ(g_written.insertion, L"how");
  WriteEvent(MSG_FLASH_FAILED, L"how");
  EXPECT_EQ(g_written.type, EVENTLOG_ERROR_TYPE);
  WriteEvent(MSG_EVIDENCE_NOT_KEPT, L"why");
  EXPECT_EQ(g_written.type, EVENTLOG_WARNING_TYPE);
}

/// With the history where this test's own program would have it.
TEST_F(EventLogTest, HoldsOneEntryForAJobAndTheHistoryOneLine) {
  const FlashHistory history;
  std::filesystem::remove(history.Path());
  EXPECT_EQ(LeaveRecord("service", {.flashed = false, .result = 3, .progress = 40, .seconds = 131}), "");
  EXPECT_EQ(g_written.id, static_cast<DWORD>(MSG_FLASH_FAILED));
  EXPECT_EQ(g_written.insertion, L"Flash_Result 3 (failed) after 131 s, 40 % of the images written.");
  EXPECT_EQ(history.Read().entries.size(), 1u);
  EXPECT_EQ(LeaveRecord("service", {.flashed = true, .result = 4, .progress = 100, .seconds = 57}), "");
  EXPECT_EQ(g_written.id, static_cast<DWORD>(MSG_FLASH_SUCCEEDED));
  EXPECT_EQ(history.Read().entries.size(), 2u);
  std::filesystem::remove(history.Path());
}

TEST_F(EventLogTest, TellsOfAHistoryThatCannotBeWritten) {
  const FlashHistory history;
  std::filesystem::remove(history.Path());
  std::filesystem::create_directory(history.Path());
  const std::string problem = LeaveRecord("service", {.flashed = true, .result = 4});
  std::filesystem::remove(history.Path());
  EXPECT_THAT(problem, HasSubstr("The flash is not in the history"));
  EXPECT_EQ(g_written.id, static_cast<DWORD>(MSG_EVIDENCE_NOT_KEPT));
  EXPECT_EQ(ToUtf8(g_written.insertion), problem);
}

TEST_F(EventLogTest, WritesAnInterruptedFlashAsAWarning) {
  WriteEvent(MSG_SERVICE_STOPPED_WHILE_FLASHING);
  EXPECT_EQ(g_written.type, EVENTLOG_WARNING_TYPE);
}

// --- Usage -----------------------------------------------------------------------------------------------

TEST_F(ServiceTest, SaysThatItWasNotStartedByTheManagerAndShowsItsHelp) {
  const RunResult result = Service({});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("was not started by the service manager"), HasSubstr("install"),
                                   HasSubstr("uninstall"), HasSubstr("run")));
}

TEST_F(ServiceTest, TellsItsVersionAndHelp) {
  for (const wchar_t* word : {L"--version", L"-V"}) {
    EXPECT_EQ(Service({word}).output, "corvel_service " CORVEL_VERSION "\r\n");
    EXPECT_EQ(Service({word}).exitCode, 0);
  }
  const RunResult help = Service({L"help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_EQ(help.output, Service({L"--help"}).output);
  EXPECT_THAT(Service({L"help", L"install"}).output, HasSubstr("--start"));
  EXPECT_EQ(Service({L"help", L"install", L"uninstall"}).output, Service({L"help", L"install"}).output);
  EXPECT_THAT(Service({L"install", L"--help"}).output, HasSubstr("--start"));
  EXPECT_EQ(Service({L"install", L"--help"}).exitCode, 0);
}

TEST_F(ServiceTest, RefusesWrongUsageInSentences) {
  const RunResult wrongStart = Service({L"install", L"--start", L"never"});
  EXPECT_EQ(wrongStart.exitCode, 2);
  EXPECT_EQ(wrongStart.errors, "corvel_service: --start cannot be \"never\".\r\nGive auto or demand.\r\n");
  const RunResult noConsole = Service({L"run"});
  EXPECT_EQ(noConsole.exitCode, 2);
  EXPECT_EQ(noConsole.errors,
            "corvel_service: --console is missing.\r\nSee \"corvel_service help run\".\r\n");
}

TEST_F(ServiceTest, GivesExamplesOfEachVerb) {
  for (const wchar_t* verb : {L"install", L"configure", L"status"}) {
    const RunResult help = Service({L"help", verb});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_THAT(help.output, HasSubstr("Examples:\r\n  corvel_service " + ToUtf8(verb) + " ")) << help.output;
  }
}

TEST_F(ServiceTest, NamesTheVerbThatAMistypedOneIsNearTo) {
  const RunResult result = Service({L"statsu"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.errors,
              AllOf(HasSubstr("\"statsu\" is no verb."), HasSubstr("Did you mean \"status\"?")));
  EXPECT_THAT(Service({L"bogus"}).errors,
              AllOf(HasSubstr("\"bogus\" is no verb."), Not(HasSubstr("Did you"))));
}

TEST_F(ServiceTest, RefusesWrongUsageInJsonToo) {
  for (const std::vector<std::wstring>& words :
       {std::vector<std::wstring>{L"statsu", L"--json"}, {L"status", L"--json", L"--bogus"}}) {
    const RunResult result = Service(words);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_EQ(nlohmann::json::parse(result.output, nullptr, false)["error"]["code"], "wrong_usage");
  }
}

// --- Status ----------------------------------------------------------------------------------------------

TEST_F(ServiceTest, HasAStatusOfZeroWhileNothingIsWrong) {
  EXPECT_EQ(Service({L"status"}).exitCode, 0);
  ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
  EXPECT_EQ(Service({L"status"}).exitCode, 0);
  ASSERT_EQ(Service({L"start"}).exitCode, 0);
  EXPECT_EQ(Service({L"status", L"--json"}).exitCode, 0);
  EXPECT_FALSE(Status().contains("error"));
}

TEST_F(ServiceTest, SaysInItsStatusThatTheConfigurationCannotBeRead) {
  workspace.Remove(L"CorvelConfig.ini");
  const RunResult result = Service({L"status"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_THAT(result.output, HasSubstr("Last flash: unknown"));
  EXPECT_THAT(result.errors, HasSubstr("CorvelConfig.ini cannot be read."));
  EXPECT_EQ(Service({L"status", L"--json"}).exitCode, 4);
  EXPECT_EQ(Status()["error"]["code"], "no_configuration");
  EXPECT_EQ(Status()["state"], "not installed");
}

/// What a service that died in the middle of a flash leaves behind says the same as while it flashed.
TEST_F(ServiceTest, SaysInItsStatusThatAFlashWasCutShort) {
  key.Write(L"Flash_Result", 1);
  key.Write(L"Flash_OnGoing", 1);
  EXPECT_EQ(Status()["flash_result"], "cut short while flashing: no host runs");
  const ServingNotice notice(Server::Service, key.Location());
  EXPECT_EQ(Status()["flash_result"], "flashing");
}

TEST_F(ServiceTest, SaysInItsStatusThatAnotherProgramHasANameOfTheLibrarys) {
  const std::vector<std::wstring> ofService{L"status", L"--service", L"--json"};
  const auto hindrances = [&] {
    return nlohmann::json::parse(RunToEnd(workspace.CommandLineHost(), ofService).output, nullptr,
                                 false)["hindrances"];
  };
  EXPECT_TRUE(hindrances().empty());
  const HinderedNotice notice(key.Location());
  EXPECT_EQ(Service({L"status"}).exitCode, 4);
  EXPECT_EQ(Status()["error"]["code"], "name_taken");
  ASSERT_EQ(hindrances().size(), 1u);
  EXPECT_THAT(hindrances()[0].get<std::string>(),
              HasSubstr("the flash service says that another program has"));
}

TEST_F(ServiceTest, ShowsHowTheLastFlashesEnded) {
  EXPECT_THAT(Service({L"status", L"--history"}).output, HasSubstr("No flash has come to its end here yet."));
  std::ofstream(workspace.File(L"CorvelFlashHistory.txt"), std::ios::binary)
      << "2026-11-15 23:04:11\tservice\t3\t40\t131\tfailed\r\n"
         "2026-11-15 23:09:00\tcmdline\t4\t100\t57\tsucceeded\r\n";
  const RunResult result = Service({L"status", L"--history"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(
      result.output,
      "2026-11-15 23:04:11  service  failed: Flash_Result 3 (failed) after 131 s, 40 % of the images "
      "written.\r\n"
      "2026-11-15 23:09:00  cmdline  succeeded: Flash_Result 4 (succeeded) after 57 s, 100 % of the images "
      "written.\r\n");
  const auto shown =
      nlohmann::json::parse(Service({L"status", L"--history", L"--json"}).output, nullptr, false);
  ASSERT_EQ(shown["history"].size(), 2u);
  EXPECT_EQ(shown["history"][0], (nlohmann::json{{"time", "2026-11-15 23:04:11"},
                                                 {"host", "service"},
                                                 {"flashed", false},
                                                 {"result", 3},
                                                 {"meaning", "failed"},
                                                 {"progress", 40},
                                                 {"seconds", 131}}));
  EXPECT_EQ(RunToEnd(workspace.CommandLineHost(), {L"status", L"--history"}).output, result.output);
}

TEST_F(ServiceTest, SaysThatTheHistoryCannotBeRead) {
  std::filesystem::create_directory(workspace.File(L"CorvelFlashHistory.txt"));
  const RunResult result = Service({L"status", L"--history", L"--json"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(nlohmann::json::parse(result.output, nullptr, false)["error"]["code"], "no_history");
}

// --- Running ---------------------------------------------------------------------------------------------

TEST_F(ServiceTest, RunsUntilItIsStopped) {
  InstallAndStart();
  EXPECT_EQ(ManagedService().Status().dwCurrentState, static_cast<DWORD>(SERVICE_RUNNING));
  EXPECT_EQ(Status()["state"], "running");
  EXPECT_EQ(ManagedService().Status().dwControlsAccepted,
            static_cast<DWORD>(SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PRESHUTDOWN | SERVICE_ACCEPT_POWEREVENT));
  EXPECT_EQ(Service({L"stop"}).exitCode, 0);
  EXPECT_EQ(ManagedService().Status().dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
  EXPECT_EQ(ManagedService().Status().dwWin32ExitCode, static_cast<DWORD>(NO_ERROR));
}

TEST_F(ServiceTest, HasLetGoOfItsFilesWhenItIsStopped) {
  InstallAndStart();
  ASSERT_EQ(Service({L"stop"}).exitCode, 0);
  EXPECT_TRUE(std::filesystem::remove(workspace.File(L"CorvelToolKit.dll")));
  EXPECT_FALSE(workspace.Holds(L"CorvelToolKit.dll"));
}

TEST_F(ServiceTest, EndsWithItsOwnCodeWhenTheConfigurationIsMissing) {
  workspace.Remove(L"CorvelConfig.ini");
  ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
  const RunResult result = Service({L"start"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("the configuration cannot be loaded (2)"),
                                   HasSubstr("is CorvelConfig.ini beside this program?")));
  const SERVICE_STATUS_PROCESS status = ManagedService().Status();
  EXPECT_EQ(status.dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
  EXPECT_EQ(status.dwWin32ExitCode, static_cast<DWORD>(ERROR_SERVICE_SPECIFIC_ERROR));
  EXPECT_EQ(status.dwServiceSpecificExitCode, 2u);
}

TEST_F(ServiceTest, EndsWithItsOwnCodeWhenTheLibraryIsMissing) {
  workspace.Remove(L"CorvelToolKit.dll");
  ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
  const RunResult result = Service({L"start"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("the flash library cannot be loaded (1)"),
                                   HasSubstr("is CorvelToolKit.dll beside this program"),
                                   Not(HasSubstr("CorvelConfig.ini"))));
  EXPECT_EQ(ManagedService().Status().dwServiceSpecificExitCode, 1u);
  const RunResult status = Service({L"status"});
  EXPECT_EQ(status.exitCode, 4);
  EXPECT_THAT(status.errors, HasSubstr("The service ended: the flash library cannot be loaded (1)."));
  EXPECT_EQ(Status()["error"]["code"], "service_failed");
  EXPECT_EQ(Status()["service_exit_code"], 1);
}

TEST_F(ServiceTest, PutsItsOwnExitCodesIntoWords) {
  EXPECT_EQ(MeaningOfServiceCode(1), "the flash library cannot be loaded");
  EXPECT_EQ(MeaningOfServiceCode(2), "the configuration cannot be loaded");
  EXPECT_EQ(MeaningOfServiceCode(3), "the system refused a resource");
  EXPECT_EQ(MeaningOfServiceCode(4), "a flash stood still");
}

TEST_F(ServiceTest, FlashesForAControllingProgram) {
  workspace.MakeVirtualPc({"speed=60"});
  InstallAndStart();
  const RunResult controller = RunToEnd(Controller(), ControllerArguments());
  EXPECT_EQ(controller.exitCode, 0);
  EXPECT_THAT(controller.output, HasSubstr("Flash_Result 4: flashed"));
  const simulator::MemoryComparison comparison = workspace.CompareModemMemory();
  EXPECT_TRUE(comparison.equal) << comparison.difference;
  EXPECT_EQ(key.Read().ready, 0u);
  EXPECT_EQ(Service({L"stop"}).exitCode, 0);
}

TEST_F(ServiceTest, LeavesNothingBehindAfterALifeWithAFlash) {
  workspace.MakeVirtualPc({"speed=60"});
  InstallAndStart();
  ASSERT_EQ(RunToEnd(Controller(), ControllerArguments()).exitCode, 0);
  EXPECT_TRUE(ImagesGo(workspace.ImageFolder()));
  ASSERT_EQ(Service({L"stop"}).exitCode, 0);
  ASSERT_EQ(Service({L"uninstall"}).exitCode, 0);
  EXPECT_FALSE(ManagedService().Exists());
  EXPECT_FALSE(KeyExists(kServiceEntry));
  EXPECT_FALSE(KeyExists(kEventSource));
  // The images are used up; the evidence is all that was made.
  EXPECT_THAT(workspace.FilesBesideTheInstallation(),
              testing::UnorderedElementsAre(L"FlashServiceDebugLogger_DLL.log", L"CorvelFlashHistory.txt"));
  EXPECT_THAT(workspace.Content(L"CorvelFlashHistory.txt"), HasSubstr("\tservice\t4\t100\t"));
}

TEST_F(ServiceTest, KeepsTheLogOfTheRunBefore) {
  const std::string evidence = "Monitor flash ready flag to be ready, and what a failed flash has written";
  std::ofstream(workspace.File(L"FlashServiceDebugLogger_DLL.log"), std::ios::binary) << evidence;
  InstallAndStart();
  ASSERT_EQ(Service({L"stop"}).exitCode, 0);
  const std::vector<std::wstring> files = workspace.FilesBesideTheInstallation();
  ASSERT_EQ(files.size(), 2u);
  const bool first = files[0] == L"FlashServiceDebugLogger_DLL.log";
  EXPECT_EQ(workspace.Content(files[first ? 1 : 0]), evidence);
  EXPECT_THAT(workspace.Content(L"FlashServiceDebugLogger_DLL.log"), HasSubstr("Monitor flash ready flag"));
}

TEST_F(ServiceTest, TellsTheControllingProgramOfAFailure) {
  workspace.MakeVirtualPc({"speed=60", "fault=download-refused"});
  InstallAndStart();
  const RunResult controller = RunToEnd(Controller(), ControllerArguments());
  EXPECT_EQ(controller.exitCode, 1);
  EXPECT_THAT(controller.output, HasSubstr("Flash_Result 3: failed"));
}

TEST_F(ServiceTest, ControllingProgramTakesItsRequestBackWhenNobodyListens) {
  const RunResult controller = RunToEnd(Controller(), ControllerArguments(L"1"));
  EXPECT_EQ(controller.exitCode, 3);
  EXPECT_EQ(key.Read().ready, 0u);
}

TEST_F(ServiceTest, IsNotStoppedWhileItFlashes) {
  workspace.MakeVirtualPc({"speed=10"});
  InstallAndStart();
  ChildProcess controller(Controller(), ControllerArguments());
  ASSERT_TRUE(controller.Says("Flash_Result 1"));
  const RunResult stop = Service({L"stop"});
  EXPECT_EQ(stop.exitCode, 3);
  EXPECT_THAT(stop.errors, HasSubstr("A flash is running."));
  const RunResult uninstall = Service({L"uninstall"});
  EXPECT_EQ(uninstall.exitCode, 3);
  EXPECT_EQ(controller.WaitForEnd(), 0);
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
  EXPECT_EQ(Service({L"stop"}).exitCode, 0);
}

/// By calls, not by programs: nothing is to lie between the end of the flash and the stop.
TEST_F(ServiceTest, IsStoppedRightBehindTheEndOfAFlash) {
  workspace.MakeVirtualPc({"speed=60"});
  InstallAndStart();
  HandshakeWatch watch(key.Location());
  key.Write(L"Fls_Ready", 1);
  do {
    ASSERT_EQ(watch.Arm(), static_cast<DWORD>(ERROR_SUCCESS));
  } while (key.Read().ready != 0u && ::WaitForSingleObject(watch.Event(), kLongestFlashMs) == WAIT_OBJECT_0);
  ASSERT_EQ(key.Read().result, 4u);
  EXPECT_EQ(StopFlashService(false).error, static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_EQ(ManagedService().Status().dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
}

/// The same at its start.
TEST_F(ServiceTest, IsNotStoppedRightBehindTheRequest) {
  workspace.MakeVirtualPc({"speed=10"});
  InstallAndStart();
  key.Write(L"Fls_Ready", 1);
  EXPECT_EQ(StopFlashService(false).error, static_cast<DWORD>(ERROR_INVALID_SERVICE_CONTROL));
  EXPECT_EQ(ManagedService().Status().dwCurrentState, static_cast<DWORD>(SERVICE_RUNNING));
}

TEST_F(ServiceTest, IsStoppedByForceWhileItFlashes) {
  workspace.MakeVirtualPc({"speed=1"});
  InstallAndStart();
  ChildProcess controller(Controller(), ControllerArguments());
  ASSERT_TRUE(controller.Says("Flash_Result 1"));
  EXPECT_EQ(Service({L"stop", L"--force"}).exitCode, 0);
  EXPECT_EQ(ManagedService().Status().dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
  EXPECT_FALSE(workspace.CompareModemMemory().equal);
}

TEST_F(ServiceTest, RecoversTheModemAfterAForcedStop) {
  workspace.MakeVirtualPc({"speed=1"});
  InstallAndStart();
  ChildProcess controller(Controller(), ControllerArguments());
  ASSERT_TRUE(controller.Says("Flash_Result 1"));
  ASSERT_EQ(Service({L"stop", L"--force"}).exitCode, 0);
  // The modem waits in flash mode, and the request still stands.
  workspace.MakeVirtualPc({"speed=60", "state=flash port"});
  ASSERT_EQ(Service({L"start"}).exitCode, 0);
  EXPECT_EQ(controller.WaitForEnd(), 0);
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

TEST_F(ServiceTest, RunsInATerminalUntilItIsInterrupted) {
  workspace.MakeVirtualPc({"speed=60"});
  ChildProcess host(workspace.Service(), {L"run", L"--console"});
  ASSERT_TRUE(host.Says("Waiting for Fls_Ready under " + key.Location().Text()));
  EXPECT_EQ(RunToEnd(Controller(), ControllerArguments()).exitCode, 0);
  ASSERT_TRUE(host.Says("Flash_Result 4 (succeeded), 100 %"));
  ASSERT_TRUE(host.Interrupt());
  EXPECT_EQ(host.WaitForEnd(), 0);
  EXPECT_THAT(workspace.Content(L"CorvelFlashHistory.txt"), HasSubstr("\tconsole\t4\t100\t"));
}

TEST_F(ServiceTest, WarnsInATerminalBeforeItLetsAFlashBeInterrupted) {
  workspace.MakeVirtualPc({"speed=1"});
  ChildProcess host(workspace.Service(), {L"run", L"--console"});
  ASSERT_TRUE(host.Says("Waiting for Fls_Ready"));
  key.Write(L"Fls_Ready", 1);
  ASSERT_TRUE(host.Says("Flash_Result 1 (flashing)"));
  ASSERT_TRUE(host.Interrupt());
  ASSERT_TRUE(host.Says("Press Ctrl+C once more"));
  // It goes on: each change is still shown.
  key.Write(L"Flash_Progress", 77);
  ASSERT_TRUE(host.Says("77 %"));
  ASSERT_TRUE(host.Interrupt());
  EXPECT_EQ(host.WaitForEnd(), 0);
}

TEST_F(ServiceTest, DoesNotRunInATerminalBesideTheService) {
  InstallAndStart();
  const RunResult result = Service({L"run", L"--console"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, HasSubstr("The service is running. Stop it first"));
}

TEST_F(ServiceTest, RunsInOneTerminalOnlyForOneKey) {
  ChildProcess first(workspace.Service(), {L"run", L"--console"});
  ASSERT_TRUE(first.Says("Waiting for Fls_Ready"));
  HostWorkspace other(L"-other");
  other.SetServiceKey(ToWide(key.Location().Text()));
  const RunResult second = RunToEnd(other.Service(), {L"run", L"--console"});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_EQ(second.errors, "corvel_service: Another flash service serves " + key.Location().Text() +
                               " already: both would take each request.\r\n");
  ASSERT_EQ(RunToEnd(other.Service(), {L"install", L"--start", L"demand"}).exitCode, 0);
  EXPECT_EQ(RunToEnd(other.Service(), {L"start"}).errors, second.errors);
}

TEST_F(ServiceTest, NeitherStartsNorRunsInATerminalWhileACommandLineFlashes) {
  ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
  const CommandLineClaim flash;
  for (const std::vector<std::wstring>& words :
       {std::vector<std::wstring>{L"start"}, {L"run", L"--console"}}) {
    const RunResult result = Service(words);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "corvel_service: A corvel_cmdline is flashing already. Wait for its end.\r\n");
  }
  EXPECT_EQ(Status()["state"], "stopped");
}

TEST_F(ServiceTest, DoesNotRunInATerminalWithoutConfiguration) {
  workspace.Remove(L"CorvelConfig.ini");
  const RunResult result = Service({L"run", L"--console"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, HasSubstr("CorvelConfig.ini is missing"));
}

TEST_F(ServiceTest, SaysInATerminalWhyItCannotRun) {
  {
    const std::ifstream reader(workspace.File(L"CorvelConfig.ini"));
    EXPECT_THAT(Service({L"run", L"--console"}).errors,
                HasSubstr("CorvelConfig.ini cannot be read: another program has it open"));
  }
  workspace.PutProduct(L"virtual_pc_host.dll", L"CorvelToolKit.dll");
  const RunResult result = Service({L"run", L"--console"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, HasSubstr("CorvelToolKit.dll is of another version"));
}

TEST_F(ServiceTest, TakesNothingThatItsLibraryNeedsFromTheCurrentFolder) {
  workspace.PutProduct(L"needy_library.dll", L"CorvelToolKit.dll");
  const TemporaryFolder current;
  std::filesystem::copy_file(ProgramFolder() + L"planted_library.dll",
                             current.Path() / L"planted_library.dll");
  const RunResult planted = RunToEnd(workspace.Service(), {L"run", L"--console"}, current.Path());
  EXPECT_THAT(planted.errors, HasSubstr("CorvelToolKit.dll: " + SystemErrorText(ERROR_MOD_NOT_FOUND)));
  workspace.PutProduct(L"planted_library.dll", L"planted_library.dll");
  const RunResult installed = RunToEnd(workspace.Service(), {L"run", L"--console"}, current.Path());
  EXPECT_THAT(installed.errors, HasSubstr("CorvelToolKit.dll is of another version"));
}

TEST_F(ServiceTest, KeepsTheLogsOfStartsInVainInOnePlace) {
  workspace.Remove(L"CorvelConfig.ini");
  for (int i = 0; i < 3; ++i) ASSERT_EQ(Service({L"run", L"--console"}).exitCode, 1);
  EXPECT_THAT(workspace.FilesBesideTheInstallation(),
              testing::UnorderedElementsAre(L"FlashServiceDebugLogger_DLL.log",
                                            L"FlashServiceDebugLogger_DLL_failed_start.log"));
  EXPECT_THAT(workspace.Content(L"FlashServiceDebugLogger_DLL_failed_start.log"),
              HasSubstr("Load Config failed, Initialize --"));
}

}  // namespace

}  // namespace hosts
