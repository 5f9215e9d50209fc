// A command line beside a flash service: both would drive one modem.

#include "hosts/common/who_flashes.h"

#include <winsvc.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "hosts/common/owners.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/text.h"
#include "simulator/import_patch.h"
#include "support/temporary_folder.h"
#include "tests/hosts/cmdline_test.h"

namespace hosts {

using testing::AllOf;
using testing::Each;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

void ShowJob(const simulator::KeptKey& key) {
  key.Write(L"Flash_OnGoing", 1);
  key.Write(L"Flash_Result", 1);
}

// --- The look itself, at a service manager that the test plays -------------------------------------------

/// What the manager knows, and what it is asked for.
struct PlayedManager {
  DWORD openError = ERROR_SUCCESS;
  DWORD serviceError = ERROR_SUCCESS;
  DWORD statusError = ERROR_SUCCESS;
  DWORD state = SERVICE_RUNNING;
  DWORD processId = ::GetCurrentProcessId();
  std::wstring command;
  DWORD managerAccess = 0;
  DWORD serviceAccess = 0;
  std::wstring name;
};
PlayedManager g_manager;
const SC_HANDLE kHandle = reinterpret_cast<SC_HANDLE>(&g_manager);

SC_HANDLE Opened(DWORD error) {
  ::SetLastError(error);
  return error == ERROR_SUCCESS ? kHandle : nullptr;
}

SC_HANDLE WINAPI OpenManager(LPCWSTR, LPCWSTR, DWORD access) {
  g_manager.managerAccess = access;
  return Opened(g_manager.openError);
}

SC_HANDLE WINAPI OpenPlayedService(SC_HANDLE, LPCWSTR name, DWORD access) {
  g_manager.name = name;
  g_manager.serviceAccess = access;
  return Opened(g_manager.serviceError);
}

BOOL WINAPI CloseHandleOfManager(SC_HANDLE) {
  return TRUE;
}

BOOL WINAPI QueryStatus(SC_HANDLE, SC_STATUS_TYPE, LPBYTE buffer, DWORD, LPDWORD) {
  auto& status = *reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer);
  status.dwCurrentState = g_manager.state;
  status.dwProcessId = g_manager.processId;
  ::SetLastError(g_manager.statusError);
  return g_manager.statusError == ERROR_SUCCESS;
}

BOOL WINAPI QueryConfiguration(SC_HANDLE, LPQUERY_SERVICE_CONFIGW configuration, DWORD size, LPDWORD needed) {
  *needed = sizeof *configuration;
  if (size < *needed) {
    ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  configuration->lpBinaryPathName = g_manager.command.data();
  return TRUE;
}

/// A service of a key of its own runs in this process, from a folder with a blank in its name.
class ServiceInTheWayTest : public testing::Test {
 protected:
  void SetUp() override {
    g_manager = {};
    g_manager.command = L"\"" + Program() + L"\"";
    std::ofstream(std::filesystem::path(Program())) << "a program";
    Configure(key.Location().Text());
    m_Patch.Replace("OpenSCManagerW", &OpenManager);
    m_Patch.Replace("OpenServiceW", &OpenPlayedService);
    m_Patch.Replace("CloseServiceHandle", &CloseHandleOfManager);
    m_Patch.Replace("QueryServiceStatusEx", &QueryStatus);
    m_Patch.Replace("QueryServiceConfigW", &QueryConfiguration);
  }

  std::wstring Program() const { return m_Folder.Path().wstring() + L"\\corvel_service.exe"; }
  void Configure(const std::string& location) const {
    std::ofstream(m_Folder.Path() / L"CorvelConfig.ini") << "Title\n[RegistryLocation]=" << location << "\n";
  }
  /// The service takes its images from a folder.
  void ConfigureImages(const std::wstring& folder) const {
    std::ofstream(m_Folder.Path() / L"CorvelConfig.ini")
        << "Title\n[RegistryLocation]=" << key.Location().Text()
        << "\n[ModemAndNVMFirmwareFolder]=" << ToUtf8(folder) << "\n";
  }
  /// What is found of a service that uses a folder.
  static std::string FoundFor(const std::wstring& folder) {
    const auto obstacle = FindServiceThatUses(folder);
    return obstacle ? obstacle->code : "";
  }
  void RemoveConfiguration() const { std::filesystem::remove(m_Folder.Path() / L"CorvelConfig.ini"); }

  /// The code of what is found; empty when there is nothing.
  static std::string Found() {
    const auto obstacle = FindServiceInTheWay(simulator::KeyOfCommandLine());
    return obstacle ? obstacle->code : "";
  }

  simulator::KeptKey key{
      {.path = L"SOFTWARE\\Corvel\\Test\\WhoFlashes-" + std::to_wstring(::GetCurrentProcessId())}};

 private:
  TemporaryFolder m_Folder{L" with blank"};
  simulator::ImportPatch m_Patch{::GetModuleHandleW(nullptr)};
};

TEST_F(ServiceInTheWayTest, IsNoneThatRunsWithoutAJobUnderAKeyOfItsOwn) {
  EXPECT_EQ(Found(), "");
  EXPECT_EQ(g_manager.name, L"CorvelFlashService");
  // What every user may ask for.
  EXPECT_EQ(g_manager.managerAccess, static_cast<DWORD>(SC_MANAGER_CONNECT));
  EXPECT_EQ(g_manager.serviceAccess, static_cast<DWORD>(SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG));
}

TEST_F(ServiceInTheWayTest, IsOneWhoseKeyShowsAJob) {
  ShowJob(key);
  const auto obstacle = FindServiceInTheWay(simulator::KeyOfCommandLine());
  ASSERT_TRUE(obstacle);
  EXPECT_STREQ(obstacle->code, "service_flashing");
  EXPECT_EQ(obstacle->message, "The flash service (process " + std::to_string(g_manager.processId) +
                                   ") is flashing; its key is " + key.Location().Text());
}

TEST_F(ServiceInTheWayTest, IsOneThatIsAskedForAFlash) {
  key.Write(L"Fls_Ready", 1);
  EXPECT_EQ(Found(), "service_flashing");
}

TEST_F(ServiceInTheWayTest, IsOneThatStopsAndStillWaitsForItsFlash) {
  ShowJob(key);
  g_manager.state = SERVICE_STOP_PENDING;
  EXPECT_EQ(Found(), "service_flashing");
}

TEST_F(ServiceInTheWayTest, IsFoundByAnUnquotedPathWithABlankAndByOneWithWordsBehindIt) {
  ShowJob(key);
  g_manager.command = Program();
  EXPECT_EQ(Found(), "service_flashing");
  g_manager.command = Program() + L" run --quietly";
  EXPECT_EQ(Found(), "service_flashing");
  g_manager.command = L"\"" + Program() + L"\" run";
  EXPECT_EQ(Found(), "service_flashing");
}

/// What stands behind the program may look like a path, too.
TEST_F(ServiceInTheWayTest, IsFoundByACommandWithAPathBehindIt) {
  ShowJob(key);
  g_manager.command = Program() + L" C:\\another\\path";
  EXPECT_EQ(Found(), "service_flashing");
  g_manager.command = L"\"" + Program() + L"\" C:\\another\\path";
  EXPECT_EQ(Found(), "service_flashing");
}

TEST_F(ServiceInTheWayTest, IsNotTakenForAFolderOfTheNameBeforeTheBlank) {
  ShowJob(key);
  const std::filesystem::path folder = Program().substr(0, Program().find(L' '));
  std::filesystem::create_directory(folder);
  g_manager.command = Program();
  EXPECT_EQ(Found(), "service_flashing");
  std::filesystem::remove(folder);
}

TEST_F(ServiceInTheWayTest, IsNoneThatIsStoppedOrNotInstalled) {
  ShowJob(key);
  g_manager.state = SERVICE_STOPPED;
  EXPECT_EQ(Found(), "");
  g_manager.state = SERVICE_RUNNING;
  g_manager.serviceError = ERROR_SERVICE_DOES_NOT_EXIST;
  EXPECT_EQ(Found(), "");
}

TEST_F(ServiceInTheWayTest, IsNoneWhoseProcessHasDiedBeforeTheManagerNoticed) {
  ShowJob(key);
  g_manager.processId = 0xFFFFFFF0;
  EXPECT_EQ(Found(), "");
}

/// Only one that starts has none yet.
TEST_F(ServiceInTheWayTest, IsNoneThatTheManagerCallsRunningWithoutAProcess) {
  ShowJob(key);
  g_manager.processId = 0;
  EXPECT_EQ(Found(), "");
}

TEST_F(ServiceInTheWayTest, UsesItsFolderAlsoWhileItHasNothingToDo) {
  const TemporaryFolder images;
  const TemporaryFolder others;
  ConfigureImages(images.Path().wstring());
  EXPECT_EQ(FoundFor(images.Path().wstring()), "service_uses_folder");
  EXPECT_EQ(FoundFor(images.Path().wstring() + L"\\."), "service_uses_folder");
  EXPECT_EQ(FoundFor(others.Path().wstring()), "");
  EXPECT_EQ(FindServiceThatUses(images.Path().wstring())->message,
            "The flash service (process " + std::to_string(g_manager.processId) +
                ") runs and takes its images from " + ToUtf8(images.Path().wstring()));
}

TEST_F(ServiceInTheWayTest, UsesNoFolderWhenItDoesNotRun) {
  const TemporaryFolder images;
  ConfigureImages(images.Path().wstring());
  g_manager.state = SERVICE_STOPPED;
  EXPECT_EQ(FoundFor(images.Path().wstring()), "");
}

TEST_F(ServiceInTheWayTest, MayUseAnyFolderWhileNobodyKnows) {
  const TemporaryFolder images;
  ConfigureImages(images.Path().wstring());
  g_manager.state = SERVICE_START_PENDING;
  EXPECT_EQ(FoundFor(images.Path().wstring()), "service_starting");
  g_manager.state = SERVICE_RUNNING;
  RemoveConfiguration();
  EXPECT_EQ(FoundFor(images.Path().wstring()), "service_unknown");
  g_manager.openError = ERROR_ACCESS_DENIED;
  EXPECT_EQ(FoundFor(images.Path().wstring()), "service_unknown");
}

HANDLE WINAPI DenyProcess(DWORD, BOOL, DWORD) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return nullptr;
}

/// The service is the system's, the look a user's without rights.
TEST_F(ServiceInTheWayTest, IsOneWhoseProcessMayNotBeOpened) {
  ShowJob(key);
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("OpenProcess", &DenyProcess);
  EXPECT_EQ(Found(), "service_flashing");
}

HANDLE WINAPI OpenEndedProcess(DWORD, BOOL, DWORD) {
  return ::CreateEventW(nullptr, TRUE, TRUE, nullptr);
}

/// Somebody may still have it open.
TEST_F(ServiceInTheWayTest, IsNoneWhoseProcessHasEnded) {
  ShowJob(key);
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("OpenProcess", &OpenEndedProcess);
  EXPECT_EQ(Found(), "");
}

TEST_F(ServiceInTheWayTest, IsCalledFlashingWhenItFlashesWithTheKeyOfTheCommandLine) {
  const simulator::KeptKey shared(simulator::KeyOfCommandLine());
  Configure(shared.Location().Text());
  ShowJob(shared);
  EXPECT_EQ(Found(), "service_flashing");
}

TEST_F(ServiceInTheWayTest, IsOneThatMerelyRunsWithTheKeyOfTheCommandLine) {
  for (const char* location : {"HKLM\\SOFTWARE\\WOW6432Node\\Quenta\\FlashService",
                               "HKLM\\Software\\Wow6432Node\\quenta\\\\FLASHSERVICE\\"}) {
    Configure(location);
    EXPECT_EQ(Found(), "service_shares_key") << location;
  }
  Configure("HKLM\\SOFTWARE\\WOW6432Node\\Quenta\\FlashService2");
  EXPECT_EQ(Found(), "");
}

int g_openedFiles = 0;

std::FILE* __cdecl CountFile(const wchar_t*, const wchar_t*, int) {
  ++g_openedFiles;
  return nullptr;
}

/// The library finds no configuration while somebody else has it open.
TEST_F(ServiceInTheWayTest, IsOneThatStartsWhoseConfigurationIsLeftAlone) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("_wfsopen", &CountFile);
  g_manager.state = SERVICE_START_PENDING;
  EXPECT_EQ(Found(), "service_starting");
  EXPECT_EQ(g_openedFiles, 0);
}

TEST_F(ServiceInTheWayTest, IsOneThatStartsUnlessItsProcessIsGone) {
  RemoveConfiguration();
  g_manager.state = SERVICE_START_PENDING;
  EXPECT_EQ(Found(), "service_starting");
  g_manager.processId = 0;
  EXPECT_EQ(Found(), "service_starting");
  // A start that has failed.
  g_manager.processId = 0xFFFFFFF0;
  EXPECT_EQ(Found(), "");
}

TEST_F(ServiceInTheWayTest, MayBeOneWhoseConfigurationCannotBeRead) {
  RemoveConfiguration();
  EXPECT_EQ(Found(), "service_unknown");
}

/// What this user has under that root is not what the service's account has.
TEST_F(ServiceInTheWayTest, MayBeOneWithAKeyOfItsOwnUser) {
  Configure("HKCU\\SOFTWARE\\WOW6432Node\\Quenta\\FlashService");
  EXPECT_EQ(Found(), "service_unknown");
}

LSTATUS WINAPI DenyValue(HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID, LPDWORD) {
  return ERROR_ACCESS_DENIED;
}

TEST_F(ServiceInTheWayTest, MayBeOneWhoseKeyCannotBeRead) {
  ShowJob(key);
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("RegGetValueW", &DenyValue);
  const auto obstacle = FindServiceInTheWay(simulator::KeyOfCommandLine());
  ASSERT_TRUE(obstacle);
  EXPECT_STREQ(obstacle->code, "service_unknown");
  EXPECT_THAT(obstacle->message, HasSubstr(key.Location().Text() + " cannot be read: "));
}

TEST_F(ServiceInTheWayTest, HasNoJobWhereAValueIsNoNumber) {
  ::RegSetKeyValueW(key.Location().root, key.Location().path.c_str(), L"Flash_Result", REG_SZ, L"1",
                    sizeof L"1");
  EXPECT_EQ(Found(), "");
}

TEST_F(ServiceInTheWayTest, MayBeOneThatCannotBeAskedFor) {
  g_manager.openError = ERROR_ACCESS_DENIED;
  EXPECT_EQ(Found(), "service_unknown");
  g_manager.openError = ERROR_SUCCESS;
  g_manager.serviceError = ERROR_ACCESS_DENIED;
  EXPECT_EQ(Found(), "service_unknown");
  g_manager.serviceError = ERROR_SUCCESS;
  g_manager.statusError = ERROR_GEN_FAILURE;
  EXPECT_EQ(Found(), "service_unknown");
}

/// As one that runs in a terminal does, which no manager knows.
TEST_F(ServiceInTheWayTest, IsOneThatOnlyItsNoticeTellsOf) {
  g_manager.serviceError = ERROR_SERVICE_DOES_NOT_EXIST;
  {
    const ServingNotice notice(Server::Service, simulator::KeyOfCommandLine());
    EXPECT_EQ(Found(), "service_shares_key");
  }
  const ServingNotice notice(Server::CommandLine, simulator::KeyOfCommandLine());
  EXPECT_EQ(Found(), "");
}

// --- Notices ---------------------------------------------------------------------------------------------

TEST(ServingNoticeTest, LastsAsLongAsItsOwnerAndKnowsItsKeyInAnySpelling) {
  const HandshakeKey key{.path = L"SOFTWARE\\Corvel\\Test\\Notice"};
  EXPECT_EQ(WriterOf(key), Writer::Gone);
  {
    const ServingNotice notice(Server::Service, key);
    EXPECT_EQ(WriterOf(key), Writer::Lives);
    EXPECT_EQ(WriterOf({.path = L"software\\corvel\\\\TEST\\notice\\"}), Writer::Lives);
    EXPECT_EQ(WriterOf({.path = L"SOFTWARE\\Corvel\\Test\\Notice2"}), Writer::Gone);
    EXPECT_EQ(WriterOf({.root = HKEY_CURRENT_USER, .path = key.path}), Writer::Gone);
    EXPECT_TRUE(IsServedBy(Server::Service, key));
    EXPECT_FALSE(IsServedBy(Server::CommandLine, key));
  }
  const ServingNotice notice(Server::CommandLine, key);
  EXPECT_EQ(WriterOf(key), Writer::Lives);
  EXPECT_FALSE(IsServedBy(Server::Service, key));
}

TEST(ServingNoticeTest, KnowsWhetherItHasAPredecessor) {
  const HandshakeKey key{.path = L"SOFTWARE\\Corvel\\Test\\Notice"};
  const ServingNotice first(Server::Service, key);
  EXPECT_FALSE(first.HasPredecessor());
  EXPECT_TRUE(ServingNotice(Server::Service, key).HasPredecessor());
  EXPECT_FALSE(ServingNotice(Server::CommandLine, key).HasPredecessor());
}

TEST(ServingNoticeTest, IsMadeForAKeyOfAnyLength) {
  const HandshakeKey key{.path = L"SOFTWARE\\" + std::wstring(500, L'x')};
  const ServingNotice notice(Server::Service, key);
  EXPECT_EQ(WriterOf(key), Writer::Lives);
}

/// So much of a key as a name holds tells two of them apart.
TEST(ServingNoticeTest, GoesByTheFirst200CharactersOfItsKey) {
  const HandshakeKey root{.path = L""};
  const std::size_t beginOfPath = root.Identity().size() + 1;
  const HandshakeKey key{.path = std::wstring(201 - beginOfPath, L'X')};
  HandshakeKey another = key;
  another.path.back() = L'Y';
  const ServingNotice notice(Server::Service, key);
  EXPECT_EQ(WriterOf(another), Writer::Lives);
  another.path[another.path.size() - 2] = L'Y';
  EXPECT_EQ(WriterOf(another), Writer::Gone);
}

std::vector<std::wstring> g_names;

HANDLE WINAPI RecordMutex(LPSECURITY_ATTRIBUTES, BOOL, LPCWSTR name) {
  g_names.emplace_back(name);
  ::SetLastError(ERROR_SUCCESS);
  return nullptr;
}

/// The service has a session of its own.
TEST(ServingNoticeTest, IsForAllSessionsAsTheClaimIs) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("CreateMutexW", &RecordMutex);
  const HandshakeKey key{.path = L"SOFTWARE\\Corvel\\Test\\Notice"};
  const ServingNotice service(Server::Service, key);
  const ServingNotice commandLine(Server::CommandLine, key);
  const CommandLineClaim claim;
  EXPECT_THAT(g_names, AllOf(SizeIs(3), Each(StartsWith(L"Global\\"))));
}

// --- The claim of a command line -------------------------------------------------------------------------

TEST(CommandLineClaimTest, GoesWithWhoeverHoldsIt) {
  auto holder = std::make_unique<CommandLineClaim>();
  EXPECT_FALSE(holder->WhoHoldsIt());
  const CommandLineClaim another;
  ASSERT_TRUE(another.WhoHoldsIt());
  EXPECT_STREQ(another.WhoHoldsIt()->code, "already_running");
  EXPECT_TRUE(FindFlashingCommandLine());
  holder.reset();
  EXPECT_FALSE(FindFlashingCommandLine());
}

HANDLE WINAPI MakeMutexAndSayNothing(LPSECURITY_ATTRIBUTES, BOOL, LPCWSTR) {
  const DWORD before = ::GetLastError();
  const HANDLE made = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ::SetLastError(before);
  return made;
}

TEST(CommandLineClaimTest, IsHeldWhateverFailedBefore) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("CreateMutexW", &MakeMutexAndSayNothing);
  ::SetLastError(ERROR_GEN_FAILURE);
  EXPECT_FALSE(CommandLineClaim().WhoHoldsIt());
}

HANDLE WINAPI DenyMutex(DWORD, BOOL, LPCWSTR) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return nullptr;
}

/// The host is a service's, the look a user's without rights.
TEST(ServingNoticeTest, IsSeenByAUserWhoMayNotOpenIt) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("OpenMutexW", &DenyMutex);
  EXPECT_EQ(WriterOf({.path = L"SOFTWARE\\Corvel\\Test\\Notice"}), Writer::Lives);
  ASSERT_TRUE(FindFlashingCommandLine());
  EXPECT_STREQ(FindFlashingCommandLine()->code, "already_running");
}

// --- The programs ----------------------------------------------------------------------------------------

class BesideTheServiceTest : public CommandLineTest {
 protected:
  BesideTheServiceTest() { serviceFolder.SetServiceKey(ToWide(serviceKey.Location().Text())); }
  void SetUp() override { RemoveService(); }
  void TearDown() override { RemoveService(); }

  void RemoveService() const {
    Service({L"stop", L"--force"});
    // A manager may take a killed service for a running one, which is not uninstalled.
    if (Service({L"uninstall"}).exitCode != 0) DeleteByForce();
  }
  static void DeleteByForce() {
    const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (const SC_HANDLE service = ::OpenServiceW(manager, L"CorvelFlashService", DELETE)) {
      ::DeleteService(service);
      ::CloseServiceHandle(service);
    }
    ::CloseServiceHandle(manager);
  }

  RunResult Service(const Arguments& arguments) const { return RunToEnd(serviceFolder.Service(), arguments); }
  void InstallAndStart() const {
    ASSERT_EQ(Service({L"install", L"--start", L"demand"}).exitCode, 0);
    ASSERT_EQ(Service({L"start"}).exitCode, 0);
    AwaitWaiting(serviceFolder);
  }
  /// Until then the service writes the values of its beginning, over whatever a test has put there.
  static void AwaitWaiting(const HostWorkspace& folder) {
    constexpr std::chrono::seconds kPatience{60};
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (folder.Content(L"FlashServiceDebugLogger_DLL.log").find("Monitor flash ready flag") ==
           std::string::npos) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "the service does not wait";
      ::Sleep(20);
    }
  }
  DWORD ProcessOfService() const {
    return nlohmann::json::parse(Service({L"status", L"--json"}).output)["process_id"];
  }
  void KillService() const {
    const OwnedHandle process(::OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, ProcessOfService()));
    ASSERT_TRUE(::TerminateProcess(process.get(), 1));
    ASSERT_EQ(::WaitForSingleObject(process.get(), 30000), static_cast<DWORD>(WAIT_OBJECT_0));
  }
  bool ImagesAreThere() const {
    return std::filesystem::exists(workspace.ModemImage()) && std::filesystem::exists(workspace.NvmImage());
  }

  HostWorkspace serviceFolder{L" of the service"};
  simulator::KeptKey serviceKey{
      {.path = L"SOFTWARE\\Corvel\\Test\\Beside-" + std::to_wstring(::GetCurrentProcessId())}};
};

TEST_F(BesideTheServiceTest, NothingIsFlashedOrWrittenWhileTheServiceFlashes) {
  workspace.MakeVirtualPc({"speed=60"});
  InstallAndStart();
  ShowJob(serviceKey);
  const RunResult flash = RunHost({L"flash", L"--json", L"--quiet"});
  EXPECT_EQ(flash.exitCode, 4);
  EXPECT_EQ(ErrorCode(flash.output), "service_flashing");
  EXPECT_THAT(flash.output, HasSubstr("(process " + std::to_string(ProcessOfService()) + ")"));
  EXPECT_TRUE(ImagesAreThere());
  EXPECT_FALSE(key.Exists());
  EXPECT_FALSE(workspace.Holds(L"FlashCommandLineLogger_DLL.log"));
  EXPECT_EQ(RunHost({L"flash", L"--wait-for-controller"}).exitCode, 4);
}

TEST_F(BesideTheServiceTest, CheckSaysWhoFlashes) {
  workspace.MakeVirtualPc();
  InstallAndStart();
  EXPECT_EQ(RunHost({L"check"}).exitCode, 0);
  ShowJob(serviceKey);
  const RunResult check = RunHost({L"check", L"--json"});
  EXPECT_EQ(check.exitCode, 4);
  EXPECT_EQ(ErrorCode(check.output), "service_flashing");
  EXPECT_EQ(Document(check.output)["ready"], false);
  EXPECT_THAT(RunHost({L"check"}).output,
              HasSubstr("error    flash service     The flash service (process "));
}

TEST_F(BesideTheServiceTest, AFlashGoesOnBesideAServiceThatWaits) {
  workspace.MakeVirtualPc({"speed=60"});
  InstallAndStart();
  EXPECT_EQ(RunHost({L"flash"}).exitCode, 0);
}

TEST_F(BesideTheServiceTest, AServiceWithTheSameKeyIsInTheWayAlways) {
  serviceFolder.SetServiceKey(ToWide(simulator::KeyOfCommandLine().Text()));
  workspace.MakeVirtualPc({"speed=60"});
  InstallAndStart();
  const RunResult flash = RunHost({L"flash", L"--json", L"--quiet"});
  EXPECT_EQ(flash.exitCode, 4);
  EXPECT_EQ(ErrorCode(flash.output), "service_shares_key");
  EXPECT_TRUE(ImagesAreThere());
  EXPECT_EQ(RunHost({L"flash", L"--wait-for-controller"}).exitCode, 4);
  EXPECT_EQ(ErrorCode(RunHost({L"check", L"--json"}).output), "service_shares_key");
}

TEST_F(BesideTheServiceTest, AServiceThatWasKilledInItsFlashIsNotInTheWay) {
  workspace.MakeVirtualPc({"speed=60"});
  InstallAndStart();
  ShowJob(serviceKey);
  ASSERT_EQ(RunHost({L"flash"}).exitCode, 4);
  KillService();
  EXPECT_EQ(RunHost({L"flash"}).exitCode, 0);
  EXPECT_EQ(serviceKey.Read().result, 1u);
}

TEST_F(BesideTheServiceTest, AServiceInATerminalIsInTheWayWhileItFlashes) {
  workspace.SetServiceKey(ToWide(serviceKey.Location().Text()));
  {
    ChildProcess service(workspace.Service(), {L"run", L"--console"});
    ASSERT_TRUE(service.Says("Waiting for Fls_Ready"));
    AwaitWaiting(workspace);
    ASSERT_EQ(RunHost({L"check"}).exitCode, 0);
    ShowJob(serviceKey);
    const RunResult check = RunHost({L"check", L"--json"});
    EXPECT_EQ(check.exitCode, 4);
    EXPECT_EQ(ErrorCode(check.output), "service_flashing");
    service.Kill();
  }
  EXPECT_EQ(RunHost({L"check"}).exitCode, 0);
}

/// It would take the copies with its next request, or delete them with its next end.
TEST_F(BesideTheServiceTest, ChosenImagesAreNotCopiedIntoTheFolderOfAServiceThatRuns) {
  const TemporaryFolder originals;
  for (const auto& image : {workspace.ModemImage(), workspace.NvmImage()}) {
    std::filesystem::rename(image, originals.Path() / image.filename());
  }
  workspace.SetServiceKey(ToWide(serviceKey.Location().Text()));
  ChildProcess service(workspace.Service(), {L"run", L"--console"});
  ASSERT_TRUE(service.Says("Waiting for Fls_Ready"));
  const RunResult result = RunHost({L"flash", L"--json", L"--images", originals.Path().wstring()});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "service_uses_folder");
  EXPECT_TRUE(std::filesystem::is_empty(workspace.ImageFolder()));
}

TEST_F(BesideTheServiceTest, StatusShowsTheStageOfAJobOfTheServices) {
  workspace.MakeVirtualPc({"speed=1"});
  workspace.SetServiceKey(ToWide(serviceKey.Location().Text()));
  ChildProcess service(workspace.Service(), {L"run", L"--console"});
  ASSERT_TRUE(service.Says("Waiting for Fls_Ready"));
  AwaitWaiting(workspace);
  serviceKey.Write(L"Fls_Ready", 1);
  ChildProcess watcher(workspace.CommandLineHost(), {L"status", L"--watch", L"--service", L"--json"});
  // It hangs on the PC how early it is seen.
  EXPECT_TRUE(watcher.Says("\"job\":{\"stage\":\"")) << watcher.Output();
  EXPECT_TRUE(watcher.Says("\"attempt_times\":{\"since\":\"")) << watcher.Output();
  EXPECT_THAT(watcher.Output(), HasSubstr("\"attempt\":1,\"most_attempts\":4,"));
  const RunResult status = RunHost({L"status", L"--service"});
  EXPECT_THAT(status.output, HasSubstr("attempt 1 of 4 since "));
}

TEST_F(BesideTheServiceTest, StatusTellsAFlashOfTheServiceFromOneThatWasCutShort) {
  workspace.SetServiceKey(ToWide(serviceKey.Location().Text()));
  InstallAndStart();
  ShowJob(serviceKey);
  EXPECT_THAT(RunHost({L"status", L"--service"}).output,
              AllOf(HasSubstr("Flash_Result    1          flashing\r\n"),
                    HasSubstr("Host:        running\r\n"), Not(HasSubstr("cut short"))));
  KillService();
  EXPECT_THAT(RunHost({L"status", L"--service"}).output,
              AllOf(HasSubstr("Flash_Result    1          cut short while flashing: no host runs\r\n"),
                    HasSubstr("Host:        none running\r\n"), HasSubstr("The flash was cut short.")));
}

}  // namespace

}  // namespace hosts
