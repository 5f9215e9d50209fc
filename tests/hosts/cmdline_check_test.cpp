#include <algorithm>
#include <fstream>

#include "cmdline_test.h"
#include "text.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

/// What "check --json" found.
class Findings {
 public:
  explicit Findings(RunResult result)
      : m_result(std::move(result)), m_document(nlohmann::json::parse(m_result.output, nullptr, false)) {}

  std::optional<int> ExitCode() const { return m_result.exitCode; }
  bool Ready() const { return m_document.is_object() && m_document.value("ready", false); }
  std::string Verdict(const std::string& subject) const { return Field(subject, "verdict"); }
  std::string Code(const std::string& subject) const { return Field(subject, "code"); }
  std::string Message(const std::string& subject) const { return Field(subject, "message"); }
  std::string WhatToDo(const std::string& subject) const { return Field(subject, "what_to_do"); }
  /// Code of the error object that says in one what is wrong; empty when there is none.
  std::string ErrorCode() const {
    return m_document.contains("error") ? m_document["error"].value("code", "") : "";
  }

 private:
  std::string Field(const std::string& subject, const char* field) const {
    if (!m_document.is_object()) return "no document: " + m_result.output;
    for (const auto& finding : m_document["findings"]) {
      if (finding["subject"] == subject) return finding[field];
    }
    return "no such finding";
  }

  RunResult m_result;
  nlohmann::json m_document;
};

class CheckTest : public CommandLineTest {
 protected:
  Findings Check() const { return Findings(RunHost({L"check", L"--json"})); }

  void ExpectError(const std::string& subject, const std::string& code, int exitCode) const {
    const Findings findings = Check();
    EXPECT_EQ(findings.ExitCode(), exitCode);
    EXPECT_FALSE(findings.Ready());
    EXPECT_EQ(findings.Verdict(subject), "error");
    EXPECT_EQ(findings.Code(subject), code);
    EXPECT_EQ(findings.ErrorCode(), code);
    EXPECT_THAT(findings.WhatToDo(subject), Not(IsEmpty()));
  }
  void ExpectWarning(const std::string& subject, const std::string& message) const {
    const Findings findings = Check();
    EXPECT_EQ(findings.ExitCode(), 0);
    EXPECT_TRUE(findings.Ready());
    EXPECT_EQ(findings.Verdict(subject), "warning");
    EXPECT_THAT(findings.Message(subject), HasSubstr(message));
    EXPECT_THAT(findings.WhatToDo(subject), Not(IsEmpty()));
  }
};

TEST_F(CheckTest, FindsASoundInstallationWithItsModemReady) {
  workspace.MakeVirtualPc();
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_TRUE(findings.Ready());
  EXPECT_THAT(findings.ErrorCode(), IsEmpty());
  for (const char* subject : {"configuration", "folder", "modem image", "NVM image", "flashing library",
                              "registry", "reset driver", "modem"}) {
    EXPECT_EQ(findings.Verdict(subject), "ok") << subject;
  }
  EXPECT_THAT(findings.Message("modem image"), HasSubstr("modem.fls"));
  EXPECT_THAT(findings.Message("NVM image"), HasSubstr("nvm.fls"));
}

TEST_F(CheckTest, PrintsALinePerFindingWithWhatToDo) {
  const RunResult result = RunHost({L"check"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output,
              AllOf(HasSubstr("ok       configuration     "), HasSubstr("ok       NVM image         "),
                    HasSubstr("warning  modem             absent"), HasSubstr("Look at the device manager")));
}

TEST_F(CheckTest, LeavesNoKeyAndNoLogBehind) {
  RunHost({L"check"});
  EXPECT_FALSE(key.Exists());
  EXPECT_FALSE(workspace.Holds(L"FlashServiceDebugLogger_DLL.log"));
  EXPECT_FALSE(workspace.Holds(L"FlashCommandLineLogger_DLL.log"));
}

TEST_F(CheckTest, MissingConfiguration) {
  workspace.Remove(L"CorvelConfig.ini");
  ExpectError("configuration", "no_configuration", 4);
}

TEST_F(CheckTest, ConfigurationThatSomebodyReads) {
  const std::ifstream reader(workspace.File(L"CorvelConfig.ini"));
  ExpectError("configuration", "no_configuration", 4);
}

TEST_F(CheckTest, ConfigurationWithoutFolder) {
  workspace.RemoveLine("[ModemAndNVMFirmwareFolder]=");
  ExpectError("configuration", "no_folder_configured", 4);
}

TEST_F(CheckTest, RegistryLocationBelowAnUnknownRoot) {
  workspace.WriteConfiguration("[RegistryLocation]=", L"HKCC\\Software\\Corvel");
  ExpectWarning("configuration", "[RegistryLocation]");
}

TEST_F(CheckTest, EraseModeThatTheFlashingLibraryDoesNotKnow) {
  workspace.WriteConfiguration("[ERASEMODE]=", L"7");
  ExpectWarning("configuration", "[ERASEMODE]");
}

TEST_F(CheckTest, MissingFolder) {
  workspace.Remove(L"firmware");
  ExpectError("folder", "no_folder", 3);
}

TEST_F(CheckTest, FolderWithoutImages) {
  workspace.Remove(L"firmware\\modem.fls");
  workspace.Remove(L"firmware\\nvm.fls");
  ExpectError("folder", "no_images", 3);
}

TEST_F(CheckTest, ModemImageAlone) {
  workspace.Remove(L"firmware\\nvm.fls");
  ExpectWarning("NVM image", "no image below 10 MiB");
}

TEST_F(CheckTest, NvmImageAlone) {
  workspace.Remove(L"firmware\\modem.fls");
  ExpectWarning("modem image", "no image of 10 MiB or more");
}

TEST_F(CheckTest, ImageThatSomebodyHolds) {
  const OwnedHandle holder(::CreateFileW(workspace.ModemImage().c_str(), GENERIC_READ, FILE_SHARE_READ,
                                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  ExpectError("modem image", "image_unreadable", 4);
}

TEST_F(CheckTest, EmptyImage) {
  std::ofstream(workspace.NvmImage(), std::ios::trunc).flush();
  ExpectError("NVM image", "image_empty", 4);
}

TEST_F(CheckTest, MissingFlashingLibrary) {
  workspace.Remove(L"Firmwareflashdownload.dll");
  ExpectError("flashing library", "no_flashing_library", 4);
}

TEST_F(CheckTest, FlashingLibraryThatIsNoLibrary) {
  workspace.Remove(L"Firmwareflashdownload.dll");
  std::ofstream(workspace.File(L"Firmwareflashdownload.dll")) << "no library";
  ExpectError("flashing library", "no_flashing_library", 4);
}

TEST_F(CheckTest, FlashingLibraryWithoutItsExports) {
  workspace.PutProduct(L"virtual_pc_host.dll", L"Firmwareflashdownload.dll");
  ExpectError("flashing library", "flashing_library_incomplete", 4);
  EXPECT_THAT(Check().Message("flashing library"), HasSubstr("_ZEMO_DL_boot_target"));
}

TEST_F(CheckTest, RegistryKeyThatCannotBeMade) {
  const UnwritableKey parent;
  ExpectError("registry", "no_registry_access", 4);
}

TEST_F(CheckTest, ModemInFlashModeIsReady) {
  workspace.MakeVirtualPc({"state=flash port"});
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_EQ(findings.Verdict("modem"), "ok");
  EXPECT_EQ(findings.Message("modem"), "flash port (boot loader)");
}

TEST_F(CheckTest, ModemThatIsAwayIsAWarning) {
  workspace.MakeVirtualPc({"state=restarting"});
  ExpectWarning("modem", "absent");
}

TEST_F(CheckTest, MissingResetDriverIsAWarning) {
  ExpectWarning("reset driver", "absent");
}

TEST(CheckInAFolderNotInAsciiTest, KeepsPathsInUtf8) {
  const HostWorkspace workspace(L"-\u00E4\u00DF");
  const KeptKey key(KeyOfCommandLine());
  const Findings findings(RunToEnd(workspace.CommandLineHost(), {L"check", L"--json"}));
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_EQ(findings.Message("folder"), ToUtf8(workspace.ImageFolder().wstring()));
}

}  // namespace
