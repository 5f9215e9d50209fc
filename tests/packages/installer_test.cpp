// The installer as those who deploy it meet it: installations of this PC, without a word, one after the
// other.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msi.h>
#include <winsvc.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "hosts/common/facts.h"
#include "hosts/common/owners.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/text.h"
#include "simulator/host/kept_key.h"
#include "support/temporary_folder.h"
#include "support/wine.h"
#include "tests/hosts/child_process.h"
#include "tests/hosts/host_workspace.h"

namespace hosts {

using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr wchar_t kOwnKey[] = L"SOFTWARE\\Corvel\\Toolkit";
constexpr int kLongestInstallationSeconds = 300;
/// What is refused by the installed program, when its files are there.
constexpr wchar_t kRefusedKey[] = L"REGISTRYKEY=HKXX\\Corvel";
/// What an installation ends with that failed; Wine has another code for it.
const int kFailure = RunsUnderWine() ? ERROR_FUNCTION_FAILED : ERROR_INSTALL_FAILURE;

OwnedService OpenService(DWORD access) {
  const OwnedService manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  return OwnedService(::OpenServiceW(manager.get(), kServiceName, access));
}

bool ServiceExists() {
  return OpenService(SERVICE_QUERY_STATUS) != nullptr;
}

DWORD ServiceState() {
  const OwnedService service = OpenService(SERVICE_QUERY_STATUS);
  SERVICE_STATUS status{};
  ::QueryServiceStatus(service.get(), &status);
  return status.dwCurrentState;
}

struct ServiceEntry {
  std::wstring command;
  DWORD startType = 0;
};

ServiceEntry Entry() {
  const OwnedService service = OpenService(SERVICE_QUERY_CONFIG);
  alignas(QUERY_SERVICE_CONFIGW) std::array<BYTE, 8192> memory{};
  auto* const entry = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(memory.data());
  DWORD needed = 0;
  if (!::QueryServiceConfigW(service.get(), entry, static_cast<DWORD>(memory.size()), &needed)) return {};
  return {entry->lpBinaryPathName, entry->dwStartType};
}

bool OwnKeyExists() {
  HKEY key = nullptr;
  const bool exists = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kOwnKey, 0, KEY_READ, &key) == ERROR_SUCCESS;
  const OwnedKey owner(key);
  return exists;
}

/// What the installer remembers; empty: nothing.
std::wstring Remembered(const wchar_t* name) {
  std::array<wchar_t, 512> text{};
  auto size = static_cast<DWORD>(sizeof text);
  ::RegGetValueW(HKEY_LOCAL_MACHINE, kOwnKey, name, RRF_RT_REG_SZ, nullptr, text.data(), &size);
  return text.data();
}

std::string TextOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void WriteText(const fs::path& file, const std::string& text) {
  std::ofstream(file, std::ios::binary) << text;
}

/// A package that the build has made, and what the installer calls it.
struct Package {
  explicit Package(const std::wstring& name)
      : file(fs::path(ProgramFolder()) / L"packages" / (name + L".msi")),
        code(ToWide(TextOf(file.parent_path() / (name + L".code")))) {}

  fs::path file;
  std::wstring code;
};

/// The installer takes a PC of Wine's for one that is too old, unless it is told otherwise.
void TellInstallerOfSystem() {
  if (!RunsUnderWine()) return;
  constexpr wchar_t kVersion[] = L"win10";
  constexpr wchar_t kBuild[] = L"19045";
  ::RegSetKeyValueW(HKEY_CURRENT_USER, L"Software\\Wine\\AppDefaults\\msiexec.exe", L"Version", REG_SZ,
                    kVersion, sizeof kVersion);
  ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion",
                    L"CurrentBuildNumber", REG_SZ, kBuild, sizeof kBuild);
}

class InstallerTest : public testing::Test {
 protected:
  void SetUp() override {
    TellInstallerOfSystem();
    RemoveAll();
    ASSERT_FALSE(ServiceExists());
  }
  void TearDown() override { RemoveAll(); }

  /// @return the exit code of Windows Installer.
  static int Installer(const std::wstring& what, const std::wstring& package,
                       std::vector<std::wstring> properties = {}) {
    std::vector<std::wstring> words{what, package, L"/qn", L"/norestart"};
    words.insert(words.end(), properties.begin(), properties.end());
    std::array<wchar_t, MAX_PATH> system{};
    ::GetSystemDirectoryW(system.data(), static_cast<UINT>(system.size()));
    ChildProcess installer(fs::path(system.data()) / L"msiexec.exe", words);
    return installer.WaitForEnd(std::chrono::seconds(kLongestInstallationSeconds)).value_or(-1);
  }
  int Install(const Package& package, const std::wstring& start,
              const std::wstring& options = L"none") const {
    return InstallHere(package,
                       {L"IMAGEFOLDER=" + Images().wstring(), L"REGISTRYKEY=" + ToWide(key.Location().Text()),
                        L"BUS=pcie", L"STARTTYPE=" + start, L"SERVICEOPTIONS=" + options});
  }
  int InstallHere(const Package& package, std::vector<std::wstring> properties = {}) const {
    properties.push_back(L"INSTALLFOLDER=" + Folder().wstring());
    return Installer(L"/i", package.file.wstring(), std::move(properties));
  }
  /// Over whatever is installed, which tells all that this one is not told.
  static int Upgrade(const Package& package, std::vector<std::wstring> properties = {}) {
    return Installer(L"/i", package.file.wstring(), std::move(properties));
  }
  static int Repair(const Package& package, std::vector<std::wstring> properties = {}) {
    properties.insert(properties.end(), {L"REINSTALL=ALL", L"REINSTALLMODE=amus"});
    return Installer(L"/i", package.code, std::move(properties));
  }
  static int Remove(const Package& package, std::vector<std::wstring> properties = {}) {
    return Installer(L"/x", package.code, std::move(properties));
  }

  fs::path Place() const { return m_Place.Path(); }
  fs::path Folder() const { return m_Place.Path() / L"program files"; }
  fs::path Programs() const { return Folder() / L"bin"; }
  fs::path Images() const { return m_Place.Path() / L"images"; }
  fs::path Configuration() const { return Programs() / kConfigurationName; }
  int Service(const std::vector<std::wstring>& words) const {
    return RunToEnd(Programs() / L"corvel_service.exe", words).exitCode.value_or(-1);
  }

  /// What somebody makes who has no installer: programs, configuration and service, used once.
  void DeployByHand(const fs::path& programs, const std::vector<std::wstring>& options) const {
    fs::create_directories(programs);
    fs::create_directories(Images());
    for (const wchar_t* name : {L"corvel_service.exe", L"corvel_cmdline.exe", L"CorvelToolKit.dll"}) {
      fs::copy_file(fs::path(ProgramFolder()) / name, programs / name);
    }
    std::vector<std::wstring> words{L"install"};
    words.insert(words.end(), options.begin(), options.end());
    const fs::path service = programs / L"corvel_service.exe";
    ASSERT_EQ(RunToEnd(service, {L"configure", L"--registry-key", ToWide(key.Location().Text()), L"--bus",
                                 L"pcie", L"--images", Images().wstring()})
                  .exitCode,
              0);
    ASSERT_EQ(RunToEnd(service, words).exitCode, 0);
    WriteText(programs / kHistoryName, "a history");
    WriteText(programs / kServiceLogName, "a log");
  }
  /// Whether the installer remembers what the configuration says: that of Install, and of DeployByHand.
  void ExpectConfigurationIsRemembered() const {
    EXPECT_EQ(Remembered(L"RegistryKey"), ToWide(key.Location().Text()));
    EXPECT_EQ(Remembered(L"Bus"), L"pcie");
    // Windows Installer writes a separator behind a folder.
    EXPECT_EQ(fs::path(Remembered(L"ImageFolder")) / L"", Images() / L"");
  }
  /// Whether what somebody has made and collected is as it was.
  static void ExpectIsLeft(const fs::path& programs, const std::string& configuration) {
    EXPECT_EQ(TextOf(programs / kConfigurationName), configuration);
    EXPECT_EQ(TextOf(programs / kHistoryName), "a history");
    EXPECT_EQ(TextOf(programs / kServiceLogName), "a log");
  }

  /// The same service, linked with a virtual PC.
  void PutSimulatedHost(const std::string& speed) const {
    const fs::path products = ProgramFolder();
    ASSERT_EQ(Service({L"stop"}), 0);
    for (const wchar_t* name : {L"virtual_pc_host.dll", L"Firmwareflashdownload.dll"}) {
      fs::copy_file(products / name, Programs() / name, fs::copy_options::overwrite_existing);
    }
    fs::copy_file(products / L"simulated" / L"corvel_service.exe", Programs() / L"corvel_service.exe",
                  fs::copy_options::overwrite_existing);
    WriteText(Programs() / L"VirtualPc.ini", "speed=" + speed + "\n");
    ASSERT_EQ(Service({L"start"}), 0);
  }
  void RequestFlash() const {
    const HostWorkspace workspace;
    fs::copy_file(workspace.ModemImage(), Images() / L"modem.fls", fs::copy_options::overwrite_existing);
    fs::copy_file(workspace.NvmImage(), Images() / L"nvm.fls", fs::copy_options::overwrite_existing);
    key.Write(kReadyValue, 1);
  }
  /// Waits until the handshake's values are as expected; bounded by the longest job.
  template <typename Expected>
  bool Becomes(Expected expected) const {
    const auto end = std::chrono::steady_clock::now() + 240s;
    while (!expected(key.Read()) && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(50ms);
    return expected(key.Read());
  }
  bool IsFlashing() const {
    return Becomes([](const Handshake& values) { return values.IsJobRunning() && values.progress > 0u; });
  }
  bool FlashEndsWith(std::uint32_t result) const {
    return Becomes([&](const Handshake& values) { return values.ready == 0u && values.result == result; });
  }

  /// Whether the file there is the one that the packages hold.
  bool IsOfPackage(const wchar_t* name) const {
    return fs::exists(Programs() / name) &&
           TextOf(Programs() / name) == TextOf(fs::path(ProgramFolder()) / name);
  }
  static bool IsInstalled(const Package& package) {
    return ::MsiQueryProductStateW(package.code.c_str()) == INSTALLSTATE_DEFAULT;
  }

  Package old{L"old"};
  Package fresh{L"new"};
  simulator::KeptKey key{
      {.path = L"SOFTWARE\\Corvel\\Test\\Installer-" + std::to_wstring(::GetCurrentProcessId())}};
  simulator::KeptKey commandLineKey{simulator::KeyOfCommandLine()};

 private:
  void RemoveAll() const {
    if (ServiceExists() && fs::exists(Programs() / L"corvel_service.exe")) Service({L"stop", L"--force"});
    Remove(fresh);
    Remove(old);
    DeleteServiceThatIsLeft();
  }
  /// Of an installation that Wine has lost sight of.
  static void DeleteServiceThatIsLeft() {
    const OwnedService service = OpenService(SERVICE_STOP | DELETE);
    SERVICE_STATUS status{};
    if (service == nullptr) return;
    ::ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
    ::DeleteService(service.get());
  }

  TemporaryFolder m_Place;
};

TEST_F(InstallerTest, InstallsWhatItIsToldFlashesAndLeavesNothing) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  const ServiceEntry entry = Entry();
  EXPECT_EQ(entry.command, L"\"" + (Programs() / L"corvel_service.exe").wstring() + L"\"");
  EXPECT_EQ(entry.startType, static_cast<DWORD>(SERVICE_DEMAND_START));
  EXPECT_EQ(ServiceState(), static_cast<DWORD>(SERVICE_STOPPED));
  const std::string configuration = TextOf(Configuration());
  EXPECT_THAT(configuration, HasSubstr("[RegistryLocation]=" + key.Location().Text() + "\r\n"));
  EXPECT_THAT(configuration, HasSubstr("[IPCTYPE]=PCIE\r\n"));
  EXPECT_THAT(configuration, HasSubstr("[ModemAndNVMFirmwareFolder]=" + ToUtf8(Images().wstring()) + "\r\n"));

  PutSimulatedHost("60");
  RequestFlash();
  EXPECT_TRUE(FlashEndsWith(4));
  // As the first flash by the command line leaves it.
  for (const wchar_t* name : {kReadyValue, kOnGoingValue, kProgressValue, kResultValue}) {
    commandLineKey.Write(name, 0);
  }

  EXPECT_EQ(Remove(old), 0);
  EXPECT_FALSE(ServiceExists());
  EXPECT_FALSE(OwnKeyExists());
  EXPECT_FALSE(key.Exists());
  EXPECT_FALSE(commandLineKey.Exists());
  for (const wchar_t* name : {L"corvel_service.exe", L"corvel_cmdline.exe", L"CorvelToolKit.dll",
                              kConfigurationName, kHistoryName}) {
    EXPECT_FALSE(fs::exists(Programs() / name)) << ToUtf8(name);
  }
  EXPECT_FALSE(fs::exists(Folder() / L"docs"));
  // Wine knows no patterns of names.
  EXPECT_EQ(fs::exists(Programs() / kServiceLogName), RunsUnderWine());
}

TEST_F(InstallerTest, UpgradesAndKeepsConfigurationAndWhatItWasTold) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  const std::string configuration = TextOf(Configuration()) + "[ERASEMODE]=1\r\n";
  WriteText(Configuration(), configuration);
  WriteText(Programs() / kServiceLogName, "a log");
  WriteText(Programs() / L"corvel_service.exe", "of the old version");

  EXPECT_EQ(Upgrade(fresh), 0);

  EXPECT_TRUE(IsInstalled(fresh));
  EXPECT_FALSE(IsInstalled(old));
  EXPECT_TRUE(IsOfPackage(L"corvel_service.exe"));
  // Wine does not tell the old version that it goes because of a newer one, and so it takes its configuration
  // along.
  if (!RunsUnderWine()) {
    EXPECT_EQ(TextOf(Configuration()), configuration);
  }
  EXPECT_EQ(TextOf(Programs() / kServiceLogName), "a log");
  EXPECT_EQ(Entry().startType, static_cast<DWORD>(SERVICE_DEMAND_START));
  EXPECT_EQ(Service({L"start"}), 0);
}

// Wine does not say so itself when an upgrade removes the old version.
TEST_F(InstallerTest, LeavesWhatIsUsedToANewerVersionThatTakesItsPlace) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  const std::string configuration = TextOf(Configuration()) + "[ERASEMODE]=1\r\n";
  WriteText(Configuration(), configuration);
  WriteText(Programs() / kHistoryName, "a history");
  WriteText(Programs() / kServiceLogName, "a log");

  EXPECT_EQ(Remove(old, {L"UPGRADINGPRODUCTCODE=" + fresh.code}), 0);

  EXPECT_FALSE(IsInstalled(old));
  EXPECT_FALSE(ServiceExists());
  EXPECT_FALSE(fs::exists(Programs() / L"corvel_service.exe"));
  ExpectIsLeft(Programs(), configuration);
}

TEST_F(InstallerTest, UpgradesIntoNoOtherFolder) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  const std::string configuration = TextOf(Configuration());

  EXPECT_NE(Upgrade(fresh, {L"INSTALLFOLDER=" + (Place() / L"elsewhere").wstring()}), 0);

  EXPECT_TRUE(IsInstalled(old));
  EXPECT_FALSE(fs::exists(Place() / L"elsewhere"));
  EXPECT_EQ(TextOf(Configuration()), configuration);
  EXPECT_TRUE(ServiceExists());
}

TEST_F(InstallerTest, TakesNoWordsThatItDoesNotKnow) {
  ASSERT_NO_FATAL_FAILURE(DeployByHand(Programs(), {L"--start", L"demand"}));
  WriteText(Programs() / L"corvel_cmdline.exe", "of before");
  for (const wchar_t* property : {L"BUS=by-magic", L"STARTTYPE=never", L"SERVICEOPTIONS=--force"}) {
    EXPECT_NE(InstallHere(old, {property}), 0) << ToUtf8(property);
    EXPECT_EQ(TextOf(Programs() / L"corvel_cmdline.exe"), "of before");
    EXPECT_TRUE(ServiceExists());
  }
}

TEST_F(InstallerTest, IsNotInstalledOnAnOlderWindows) {
  if (!RunsUnderWine()) GTEST_SKIP() << "the system's own number stays as it is";
  constexpr wchar_t kOfWindows81[] = L"9600";
  ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion",
                    L"CurrentBuildNumber", REG_SZ, kOfWindows81, sizeof kOfWindows81);
  EXPECT_NE(InstallHere(old), 0);
  EXPECT_FALSE(ServiceExists());
}

TEST_F(InstallerTest, MakesALostConfigurationAnewAsItWasTold) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  const std::string configuration = TextOf(Configuration());
  fs::remove(Configuration());

  EXPECT_EQ(Repair(old), 0);

  EXPECT_EQ(TextOf(Configuration()), configuration);
}

TEST_F(InstallerTest, TakesKeyBusAndImagesForAFirstConfigurationAlone) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  const std::string configuration = TextOf(Configuration());
  const fs::path others = Place() / L"other images";

  EXPECT_EQ(Repair(old, {L"BUS=usb", L"REGISTRYKEY=HKLM\\SOFTWARE\\Corvel\\Test\\Other",
                         L"IMAGEFOLDER=" + others.wstring()}),
            0);

  EXPECT_EQ(TextOf(Configuration()), configuration);
  ExpectConfigurationIsRemembered();
  EXPECT_FALSE(fs::exists(others));
}

TEST_F(InstallerTest, DoesNotUpgradeWhileAServiceInATerminalFlashes) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  const ServingNotice inTerminal(Server::Service, key.Location());
  key.Write(kReadyValue, 1);

  EXPECT_EQ(Upgrade(fresh), kFailure);

  EXPECT_FALSE(IsInstalled(fresh));
  EXPECT_TRUE(ServiceExists());
}

TEST_F(InstallerTest, NeitherRepairsNorRemovesWhileAModemIsFlashed) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  PutSimulatedHost("1");
  const std::string configuration = TextOf(Configuration());
  RequestFlash();
  ASSERT_TRUE(IsFlashing());

  EXPECT_EQ(Repair(old), kFailure);
  EXPECT_TRUE(IsFlashing());
  EXPECT_EQ(Remove(old), kFailure);
  EXPECT_TRUE(IsFlashing());

  EXPECT_TRUE(FlashEndsWith(4));
  EXPECT_TRUE(IsInstalled(old));
  EXPECT_TRUE(ServiceExists());
  EXPECT_EQ(TextOf(Configuration()), configuration);
}

TEST_F(InstallerTest, DoesNotUpgradeWhileAModemIsFlashed) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  PutSimulatedHost("1");
  RequestFlash();
  ASSERT_TRUE(IsFlashing());

  EXPECT_EQ(Upgrade(fresh), kFailure);
  EXPECT_FALSE(IsInstalled(fresh));
  EXPECT_TRUE(IsFlashing());
  EXPECT_TRUE(FlashEndsWith(4));
  EXPECT_TRUE(IsInstalled(old));
  EXPECT_EQ(ServiceState(), static_cast<DWORD>(SERVICE_RUNNING));
  EXPECT_EQ(Upgrade(fresh), 0);
  EXPECT_TRUE(IsInstalled(fresh));
}

TEST_F(InstallerTest, RepairsWhatIsDamagedAndKeepsTheConfiguration) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  const std::string configuration = TextOf(Configuration()) + "[ERASEMODE]=1\r\n";
  WriteText(Configuration(), configuration);
  fs::remove(Programs() / L"corvel_cmdline.exe");
  WriteText(Programs() / L"CorvelToolKit.dll", "damaged");
  ASSERT_EQ(Service({L"uninstall"}), 0);

  EXPECT_EQ(Repair(old), 0);

  EXPECT_TRUE(IsOfPackage(L"corvel_cmdline.exe"));
  EXPECT_TRUE(IsOfPackage(L"CorvelToolKit.dll"));
  EXPECT_EQ(TextOf(Configuration()), configuration);
  EXPECT_EQ(Entry().startType, static_cast<DWORD>(SERVICE_DEMAND_START));
}

TEST_F(InstallerTest, TakesAFailedInstallationBack) {
  EXPECT_EQ(InstallHere(old, {kRefusedKey}), kFailure);

  EXPECT_FALSE(IsInstalled(old));
  EXPECT_FALSE(ServiceExists());
  EXPECT_FALSE(OwnKeyExists());
  EXPECT_FALSE(fs::exists(Programs()));
}

TEST_F(InstallerTest, TakesBackAServiceThatDoesNotStart) {
  // Another one serves its key.
  const ServingNotice other(Server::Service, key.Location());

  EXPECT_EQ(Install(old, L"auto"), kFailure);

  EXPECT_FALSE(IsInstalled(old));
  EXPECT_FALSE(ServiceExists());
  EXPECT_FALSE(OwnKeyExists());
  // Wine takes back in the order of the installation: the folder was not empty when it was to go.
  EXPECT_TRUE(!fs::exists(Programs()) || (RunsUnderWine() && fs::is_empty(Programs())));
}

TEST_F(InstallerTest, TakesOverADeploymentByHand) {
  ASSERT_NO_FATAL_FAILURE(DeployByHand(Programs(), {L"--start", L"demand", L"--restart-when-stuck"}));
  ASSERT_EQ(Service({L"start"}), 0);
  const std::string configuration = TextOf(Configuration());
  const ServiceEntry before = Entry();

  EXPECT_EQ(InstallHere(old), 0);

  EXPECT_TRUE(IsInstalled(old));
  EXPECT_EQ(TextOf(Configuration()), configuration);
  EXPECT_EQ(TextOf(Programs() / kHistoryName), "a history");
  EXPECT_EQ(Entry().startType, before.startType);
  // Wine's installer reads of a quoted path and its arguments the path alone.
  if (!RunsUnderWine()) {
    EXPECT_EQ(Entry().command, before.command);
  }
  EXPECT_EQ(Service({L"start"}), 0);
  ExpectConfigurationIsRemembered();
}

TEST_F(InstallerTest, MakesALostConfigurationAnewThatWasMadeByHand) {
  ASSERT_NO_FATAL_FAILURE(DeployByHand(Programs(), {L"--start", L"demand"}));
  const std::string configuration = TextOf(Configuration());
  ASSERT_EQ(InstallHere(old), 0);
  fs::remove(Configuration());

  EXPECT_EQ(Repair(old), 0);

  EXPECT_EQ(TextOf(Configuration()), configuration);
}

TEST_F(InstallerTest, AFailedInstallationLeavesADeploymentByHandAlone) {
  ASSERT_NO_FATAL_FAILURE(DeployByHand(Programs(), {L"--start", L"demand", L"--restart-when-stuck"}));
  const std::string configuration = TextOf(Configuration());
  const ServiceEntry before = Entry();

  EXPECT_EQ(InstallHere(old, {kRefusedKey}), kFailure);

  EXPECT_FALSE(IsInstalled(old));
  ExpectIsLeft(Programs(), configuration);
  // Wine takes back in the order of the installation, and deletes a file that it has replaced.
  if (RunsUnderWine()) return;
  EXPECT_TRUE(IsOfPackage(L"corvel_service.exe"));
  EXPECT_EQ(Entry().command, before.command);
  EXPECT_EQ(Entry().startType, before.startType);
}

// As somebody has it who flashes by the command line alone.
TEST_F(InstallerTest, AFailedInstallationLeavesAConfigurationWithoutAServiceAlone) {
  ASSERT_NO_FATAL_FAILURE(DeployByHand(Programs(), {L"--start", L"demand"}));
  ASSERT_EQ(Service({L"uninstall"}), 0);
  const std::string configuration = TextOf(Configuration());

  EXPECT_EQ(InstallHere(old, {kRefusedKey}), kFailure);

  EXPECT_FALSE(ServiceExists());
  ExpectIsLeft(Programs(), configuration);
}

TEST_F(InstallerTest, TakesNoDeploymentByHandOverThatFlashes) {
  ASSERT_NO_FATAL_FAILURE(DeployByHand(Programs(), {L"--start", L"demand"}));
  const std::string configuration = TextOf(Configuration());
  WriteText(Programs() / L"corvel_cmdline.exe", "of before");
  PutSimulatedHost("1");
  RequestFlash();
  ASSERT_TRUE(IsFlashing());

  EXPECT_EQ(InstallHere(old), kFailure);

  EXPECT_EQ(TextOf(Programs() / L"corvel_cmdline.exe"), "of before");
  EXPECT_TRUE(IsFlashing());
  EXPECT_TRUE(FlashEndsWith(4));
  EXPECT_TRUE(ServiceExists());
  EXPECT_EQ(TextOf(Configuration()), configuration);
}

TEST_F(InstallerTest, LeavesAServiceOfAnotherFolderAlone) {
  const fs::path byHand = Place() / L"by hand";
  ASSERT_NO_FATAL_FAILURE(DeployByHand(byHand, {L"--start", L"demand"}));
  const std::string configuration = TextOf(byHand / kConfigurationName);
  const ServiceEntry before = Entry();

  EXPECT_NE(InstallHere(old), 0);

  EXPECT_FALSE(IsInstalled(old));
  EXPECT_EQ(Entry().command, before.command);
  EXPECT_FALSE(fs::exists(Programs()));
  ExpectIsLeft(byHand, configuration);
}

TEST_F(InstallerTest, GivesTheServiceTheOptionsThatItIsToldAndKeepsThem) {
  const auto restarts = [] { return Entry().command.find(L"\" --restart-when-stuck") != std::wstring::npos; };
  ASSERT_EQ(Install(old, L"demand", L"--restart-when-stuck"), 0);
  EXPECT_TRUE(restarts());
  EXPECT_EQ(Upgrade(fresh), 0);
  EXPECT_TRUE(restarts());
  ASSERT_EQ(Service({L"uninstall"}), 0);
  EXPECT_EQ(Repair(fresh), 0);
  EXPECT_TRUE(restarts());
  EXPECT_EQ(Repair(fresh, {L"SERVICEOPTIONS=none"}), 0);
  EXPECT_TRUE(ServiceExists());
  EXPECT_FALSE(restarts());
}

TEST_F(InstallerTest, TakesAFailedUpgradeBack) {
  ASSERT_EQ(Install(old, L"demand"), 0);
  const std::string configuration = TextOf(Configuration());

  EXPECT_EQ(Upgrade(fresh, {kRefusedKey}), kFailure);

  EXPECT_FALSE(IsInstalled(fresh));
  // Wine removes the old version in a transaction of its own, which it does not take back.
  if (RunsUnderWine()) return;
  EXPECT_TRUE(IsInstalled(old));
  EXPECT_TRUE(ServiceExists());
  EXPECT_TRUE(IsOfPackage(L"corvel_service.exe"));
  EXPECT_EQ(TextOf(Configuration()), configuration);
}

TEST_F(InstallerTest, RefusesAnOlderVersionOverANewerOne) {
  ASSERT_EQ(Install(fresh, L"demand"), 0);

  EXPECT_NE(Install(old, L"demand"), 0);

  EXPECT_TRUE(IsInstalled(fresh));
  EXPECT_FALSE(IsInstalled(old));
  EXPECT_TRUE(ServiceExists());
}

TEST_F(InstallerTest, StartsAServiceThatStartsByItself) {
  ASSERT_EQ(Install(old, L"auto"), 0);
  EXPECT_EQ(Entry().startType, static_cast<DWORD>(SERVICE_AUTO_START));
  EXPECT_EQ(ServiceState(), static_cast<DWORD>(SERVICE_RUNNING));
}

}  // namespace

}  // namespace hosts
