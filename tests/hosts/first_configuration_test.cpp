// What "corvel_service configure" makes, and what "uninstall" takes away or leaves when it is told more.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "hosts/common/facts.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "simulator/host/kept_key.h"
#include "support/temporary_folder.h"
#include "tests/hosts/child_process.h"
#include "tests/hosts/host_workspace.h"

namespace hosts {

using testing::HasSubstr;
using testing::StrEq;

namespace {

class FirstConfigurationTest : public testing::Test {
 protected:
  FirstConfigurationTest() { workspace.Remove(kConfigurationName); }

  RunResult Service(const std::vector<std::wstring>& words) const {
    return RunToEnd(workspace.Service(), words);
  }
  std::wstring Setting(const wchar_t* key) const {
    return LibraryConfiguration::Read(workspace.File(kConfigurationName).wstring()).value().Get(key);
  }
  void Write(const wchar_t* name) const { std::ofstream(workspace.File(name)) << "text"; }

  HostWorkspace workspace;
};

TEST_F(FirstConfigurationTest, IsTheSampleWhenNothingElseIsSaid) {
  EXPECT_EQ(Service({L"configure"}).exitCode, 0);
  EXPECT_EQ(Setting(kRegistryLocationKey), L"HKLM\\SOFTWARE\\Quenta\\FlashService");
  EXPECT_EQ(Setting(kIpcTypeKey), L"USB");
  EXPECT_EQ(Setting(kFirmwareFolderKey), L"C:\\ProgramData\\Quenta\\Firmware");
}

TEST_F(FirstConfigurationTest, HoldsWhatIsSaid) {
  EXPECT_EQ(Service({L"configure", L"--registry-key", L"HKU\\X\\Y", L"--bus", L"pcie", L"--images",
                     L"C:\\\u00DCbung"})
                .exitCode,
            0);
  EXPECT_EQ(Setting(kRegistryLocationKey), L"HKU\\X\\Y");
  EXPECT_EQ(Setting(kIpcTypeKey), L"PCIE");
  EXPECT_EQ(Setting(kFirmwareFolderKey), L"C:\\\u00DCbung");
}

// As an installer gives it, whose folders end in a separator that would quote the quotation mark behind it.
TEST_F(FirstConfigurationTest, TakesAFolderThatEndsInADot) {
  EXPECT_EQ(Service({L"configure", L"--images", L"C:\\a b\\."}).exitCode, 0);
  EXPECT_EQ(Setting(kFirmwareFolderKey), L"C:\\a b");
}

TEST_F(FirstConfigurationTest, LeavesOneThatIsThere) {
  Write(kConfigurationName);
  const RunResult result = Service({L"configure", L"--bus", L"pcie"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("configured already"));
  EXPECT_THAT(workspace.Content(kConfigurationName), StrEq("text"));
}

struct RefusedCase {
  const char* name;
  std::vector<std::wstring> words;
};

class RefusedConfigurationTest : public FirstConfigurationTest,
                                 public testing::WithParamInterface<RefusedCase> {};

TEST_P(RefusedConfigurationTest, EndsWithWrongUsageAndWritesNothing) {
  std::vector<std::wstring> words{L"configure"};
  words.insert(words.end(), GetParam().words.begin(), GetParam().words.end());
  EXPECT_EQ(Service(words).exitCode, 2);
  EXPECT_FALSE(workspace.Holds(kConfigurationName));
}

INSTANTIATE_TEST_SUITE_P(
    OneOfMany, RefusedConfigurationTest,
    testing::Values(RefusedCase{"AnUnknownRoot", {L"--registry-key", L"HKXX\\A"}},
                    RefusedCase{"ARootWithoutAKey", {L"--registry-key", L"HKLM\\"}},
                    RefusedCase{"AnotherBus", {L"--bus", L"PCI"}},
                    RefusedCase{"AFolderThatIsNotWhole", {L"--images", L"firmware"}},
                    RefusedCase{"ACharacterThatTheFileCannotHold", {L"--images", L"C:\\\u03A9"}},
                    RefusedCase{"ALineEnd", {L"--registry-key", L"HKLM\\A\n[IPCTYPE]=PCIE"}},
                    RefusedCase{"AKeyTooLong", {L"--registry-key", L"HKLM\\" + std::wstring(507, L'k')}}),
    [](const auto& tested) { return tested.param.name; });

// --- What an installer is to remember ----------------------------------------------------------------------

constexpr wchar_t kInstallerKey[] = L"SOFTWARE\\Corvel\\Toolkit";
constexpr wchar_t kTold[] = L"told";

class RememberedConfigurationTest : public FirstConfigurationTest {
 protected:
  RememberedConfigurationTest() {
    for (const wchar_t* name : {L"RegistryKey", L"Bus", L"ImageFolder"}) {
      ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kInstallerKey, name, REG_SZ, kTold, sizeof kTold);
    }
  }
  ~RememberedConfigurationTest() override { ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kInstallerKey); }
  RememberedConfigurationTest(const RememberedConfigurationTest&) = delete;
  RememberedConfigurationTest& operator=(const RememberedConfigurationTest&) = delete;

  void Configuration(const std::string& text) const {
    std::ofstream(workspace.File(kConfigurationName), std::ios::binary) << "Title\r\n" << text;
  }
  int Remember() const {
    return Service({L"configure", L"--remember", L"--bus", L"usb"}).exitCode.value_or(-1);
  }
  /// Nothing where there is no such value.
  static std::optional<std::wstring> Remembered(const wchar_t* name) {
    std::array<wchar_t, 512> text{};
    auto size = static_cast<DWORD>(sizeof text);
    const LSTATUS read =
        ::RegGetValueW(HKEY_LOCAL_MACHINE, kInstallerKey, name, RRF_RT_REG_SZ, nullptr, text.data(), &size);
    return read == ERROR_SUCCESS ? std::optional<std::wstring>(text.data()) : std::nullopt;
  }
};

TEST_F(RememberedConfigurationTest, IsTheOneThatIsThere) {
  Configuration(
      "[RegistryLocation]=HKLM\\SOFTWARE\\Mine\r\n[IPCTYPE]=PCIE\r\n"
      "[ModemAndNVMFirmwareFolder]=C:\\My images\\\r\n");
  EXPECT_EQ(Remember(), 0);
  EXPECT_EQ(Remembered(L"RegistryKey"), L"HKLM\\SOFTWARE\\Mine");
  EXPECT_EQ(Remembered(L"Bus"), L"pcie");
  EXPECT_EQ(Remembered(L"ImageFolder"), L"C:\\My images");
}

// Any bus but PCIE is USB to the library, and a location without a root that it knows lies below HKLM.
TEST_F(RememberedConfigurationTest, IsInTheInstallersWordsWhatTheLibraryReads) {
  Configuration("[RegistryLocation]=XX\\Mine\r\n[IPCTYPE]=pcie\r\n[ModemAndNVMFirmwareFolder]=C:\\i\r\n");
  EXPECT_EQ(Remember(), 0);
  EXPECT_EQ(Remembered(L"RegistryKey"), L"HKLM\\Mine");
  EXPECT_EQ(Remembered(L"Bus"), L"usb");
}

// It would refuse them at each repair, and at the removal.
TEST_F(RememberedConfigurationTest, IsForgottenWhereTheInstallerTakesNoSuchWords) {
  for (const char* const text :
       {"", "[RegistryLocation]=HKLM\\a\"b\r\n[ModemAndNVMFirmwareFolder]=images\r\n",
        "[ModemAndNVMFirmwareFolder]=C:\\a|b\r\n"}) {
    Configuration(text);
    EXPECT_EQ(Remember(), 0);
    EXPECT_EQ(Remembered(L"RegistryKey"), std::nullopt) << text;
    EXPECT_EQ(Remembered(L"ImageFolder"), std::nullopt) << text;
  }
}

TEST_F(RememberedConfigurationTest, IsWhatItWasToldWhereThereWasNone) {
  EXPECT_EQ(Remember(), 0);
  EXPECT_EQ(Remembered(L"Bus"), L"told");
}

// --- What is taken away ------------------------------------------------------------------------------------

constexpr wchar_t kParentOfCommandLineKey[] = L"SOFTWARE\\WOW6432Node\\Quenta";

class CommandLineKeyTest : public FirstConfigurationTest {
 protected:
  CommandLineKeyTest() {
    workspace.WriteConfiguration("[RegistryLocation]=", L"HKLM\\SOFTWARE\\Corvel\\Test\\Uninstall");
    Write(kHistoryName);
    key.Write(kResultValue, 4);
  }

  int Uninstall(const wchar_t* option) const { return Service({L"uninstall", option}).exitCode.value_or(-1); }
  static bool ParentExists() {
    HKEY opened = nullptr;
    ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kParentOfCommandLineKey, 0, KEY_READ, &opened);
    return OwnedKey(opened) != nullptr;
  }

  simulator::KeptKey key{simulator::KeyOfCommandLine()};
};

TEST_F(CommandLineKeyTest, GoesWithTheEmptyKeyAbove) {
  for (const wchar_t* const option : {L"--release-key", L"--purge"}) {
    key.Write(kResultValue, 4);
    EXPECT_EQ(Uninstall(option), 0);
    EXPECT_FALSE(key.Exists());
    EXPECT_FALSE(ParentExists());
    workspace.WriteConfiguration("[TraceLevel]=", L"1");
    Write(kHistoryName);
  }
}

TEST_F(CommandLineKeyTest, StaysWithoutTheOption) {
  EXPECT_EQ(Service({L"uninstall"}).exitCode, 0);
  EXPECT_TRUE(key.Exists());
}

// A fleet sets its values before there are programs.
TEST_F(CommandLineKeyTest, StaysWhereNobodyHasFlashed) {
  workspace.Remove(kHistoryName);
  EXPECT_EQ(Uninstall(L"--purge"), 0);
  EXPECT_TRUE(key.Exists());
}

TEST_F(CommandLineKeyTest, StaysWithAKeyOfOthersBelow) {
  const simulator::KeptKey below{{.path = key.Location().path + L"\\Theirs"}};
  below.Write(L"Value", 1);
  EXPECT_EQ(Uninstall(L"--release-key"), 0);
  EXPECT_TRUE(key.Exists());
}

TEST_F(CommandLineKeyTest, LeavesAKeyAboveThatHoldsMore) {
  const simulator::KeptKey above{{.path = kParentOfCommandLineKey}};
  above.Write(L"Theirs", 1);
  key.Write(kResultValue, 4);
  EXPECT_EQ(Uninstall(L"--release-key"), 0);
  EXPECT_FALSE(key.Exists());
  EXPECT_TRUE(above.Exists());
}

TEST_F(CommandLineKeyTest, StaysWhileACommandLineFlashes) {
  const CommandLineClaim commandLine;
  const RunResult result = Service({L"uninstall", L"--release-key"});
  EXPECT_THAT(result.errors, HasSubstr("The key " + key.Location().Text() +
                                       " stays as it is: A corvel_cmdline is flashing already. "));
  EXPECT_TRUE(key.Exists());
}

TEST_F(CommandLineKeyTest, StaysWhenItIsTheServicesThatWasThereBefore) {
  workspace.SetServiceKey(ToWide(key.Location().Text()));
  EXPECT_EQ(Uninstall(L"--release-key"), 0);
  EXPECT_TRUE(key.Exists());
}

TEST_F(FirstConfigurationTest, IsDeletedByAPurgeWithAllThatHostsLeaveAndNothingElse) {
  for (const wchar_t* name : {kConfigurationName, kHistoryName, kServiceLogName, kCommandLineLogName,
                              L"FlashServiceDebugLogger_DLL_2026-11-15_23-04-11.log", L"other.log"}) {
    Write(name);
  }
  EXPECT_EQ(Service({L"uninstall", L"--purge"}).exitCode, 0);
  EXPECT_THAT(workspace.FilesBesideTheInstallation(), testing::ElementsAre(L"other.log"));
  EXPECT_FALSE(workspace.Holds(kConfigurationName));
}

// As an installer runs it, from a copy of its own.
TEST_F(FirstConfigurationTest, IsDeletedInTheFolderThatIsNamedAndNowhereElse) {
  const TemporaryFolder place;
  Write(kConfigurationName);
  std::ofstream(place.Path() / kConfigurationName) << "text";
  std::ofstream(place.Path() / kServiceLogName) << "text";
  EXPECT_EQ(Service({L"uninstall", L"--purge", L"--programs", place.Path().wstring() + L"\\."}).exitCode, 0);
  EXPECT_TRUE(std::filesystem::is_empty(place.Path()));
  EXPECT_TRUE(workspace.Holds(kConfigurationName));
}

TEST_F(FirstConfigurationTest, StaysWhenTheServiceIsRemovedWithoutAPurge) {
  Write(kConfigurationName);
  EXPECT_EQ(Service({L"uninstall"}).exitCode, 0);
  EXPECT_TRUE(workspace.Holds(kConfigurationName));
}

TEST_F(FirstConfigurationTest, SurvivesAPurgeThatIsRefusedWhileACommandLineFlashes) {
  Write(kConfigurationName);
  const CommandLineClaim commandLine;
  EXPECT_EQ(Service({L"uninstall", L"--unless-flashing", L"--purge"}).exitCode, 3);
  EXPECT_TRUE(workspace.Holds(kConfigurationName));
}

}  // namespace

}  // namespace hosts
