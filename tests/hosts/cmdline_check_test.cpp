#include <fstream>

#include "hosts/common/file_digest.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "tests/hosts/cmdline_test.h"
#include "tests/hosts/names_beyond_code_page.h"

namespace hosts {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr wchar_t kParentOfKey[] = L"SOFTWARE\\WOW6432Node\\Quenta";

bool ParentOfKeyExists() {
  HKEY opened = nullptr;
  const LSTATUS status = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kParentOfKey, 0, KEY_READ, &opened);
  const OwnedKey owner(opened);
  return status == ERROR_SUCCESS;
}

/// An image as a sound one is spoken of.
std::string SizeOf(const std::filesystem::path& image) {
  return ToUtf8(image.wstring()) + ", " + std::to_string(std::filesystem::file_size(image)) + " bytes";
}

/// Writes over the last place in a library where a name stands.
void Rename(const std::filesystem::path& library, const std::string& name, const std::string& other) {
  std::fstream file(library, std::ios::in | std::ios::out | std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const std::size_t place = bytes.rfind(name);
  ASSERT_NE(place, std::string::npos);
  file.seekp(static_cast<std::streamoff>(place));
  file << other;
}

/// Takes the underscores from the names that a flashing library exports. They stay in their order.
void ExportWithoutUnderscores(const std::filesystem::path& library) {
  std::string bytes;
  {
    std::ifstream file(library, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  const std::string begin(1, '\0');
  for (std::size_t at = bytes.find(begin + "_ZEMO_"); at != std::string::npos;
       at = bytes.find(begin + "_ZEMO_", at + 1)) {
    const std::size_t end = bytes.find('\0', at + 1);
    bytes.erase(at + 1, 1).insert(end - 1, 1, '\0');
  }
  std::ofstream(library, std::ios::binary) << bytes;
}

/// What "check --json" found.
class Findings {
 public:
  explicit Findings(RunResult result)
      : m_Result(std::move(result)), m_Document(nlohmann::json::parse(m_Result.output, nullptr, false)) {}

  std::optional<int> ExitCode() const { return m_Result.exitCode; }
  bool Ready() const { return m_Document.is_object() && m_Document.value("ready", false); }
  std::string Verdict(const std::string& subject) const { return Field("subject", subject, "verdict"); }
  std::string Code(const std::string& subject) const { return Field("subject", subject, "code"); }
  std::string Message(const std::string& subject) const { return Field("subject", subject, "message"); }
  std::string WhatToDo(const std::string& subject) const { return Field("subject", subject, "what_to_do"); }
  std::string VerdictOfCode(const std::string& code) const { return Field("code", code, "verdict"); }
  std::size_t Count() const { return m_Document.is_object() ? m_Document["findings"].size() : 0; }
  /// Of the error object that says in one what is wrong; empty when there is none.
  std::string Error(const char* field) const {
    return m_Document.contains("error") ? m_Document["error"].value(field, "") : "";
  }
  /// A field of the first finding that has that value in another one.
  std::string Field(const char* of, const std::string& value, const char* field) const {
    if (!m_Document.is_object()) return "no document: " + m_Result.output;
    for (const auto& finding : m_Document["findings"]) {
      if (finding[of] == value) return finding[field];
    }
    return "no such finding";
  }

 private:
  RunResult m_Result;
  nlohmann::json m_Document;
};

class CheckTest : public CommandLineTest {
 protected:
  Findings Check() const { return Findings(RunHost({L"check", L"--json"})); }

  void ExpectError(const std::string& subject, const std::string& code, int exitCode,
                   const std::string& message, const std::string& whatToDo) const {
    const Findings findings = Check();
    EXPECT_EQ(findings.ExitCode(), exitCode);
    EXPECT_FALSE(findings.Ready());
    EXPECT_EQ(findings.Verdict(subject), "error");
    EXPECT_EQ(findings.Code(subject), code);
    EXPECT_EQ(findings.Message(subject), message);
    EXPECT_EQ(findings.WhatToDo(subject), whatToDo);
    EXPECT_EQ(findings.Error("code"), code);
    EXPECT_EQ(findings.Error("message"), "Not ready, " + subject + ": " + message + ".");
    EXPECT_EQ(findings.Error("what_to_do"), whatToDo);
  }
  void ExpectWarning(const std::string& subject, const std::string& code, const std::string& message,
                     const std::string& whatToDo) const {
    const Findings findings = Check();
    EXPECT_EQ(findings.ExitCode(), 0);
    EXPECT_TRUE(findings.Ready());
    EXPECT_EQ(findings.VerdictOfCode(code), "warning");
    EXPECT_EQ(findings.Field("code", code, "subject"), subject);
    EXPECT_EQ(findings.Field("code", code, "message"), message);
    EXPECT_EQ(findings.Field("code", code, "what_to_do"), whatToDo);
    EXPECT_THAT(findings.Error("code"), IsEmpty());
  }

  std::string PathOf(const std::wstring& name) const { return ToUtf8(workspace.File(name).wstring()); }
};

TEST_F(CheckTest, FindsASoundInstallationWithItsModemReady) {
  workspace.MakeVirtualPc();
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_TRUE(findings.Ready());
  EXPECT_THAT(findings.Error("code"), IsEmpty());
  const std::vector<std::pair<std::string, std::string>> all{
      {"command line", "not in the way"},
      {"flash service", "not in the way"},
      {"configuration", PathOf(L"CorvelConfig.ini")},
      {"folder", PathOf(L"firmware")},
      {"modem image", SizeOf(workspace.ModemImage())},
      {"NVM image", SizeOf(workspace.NvmImage())},
      {"flashing library", PathOf(L"Firmwareflashdownload.dll")},
      {"registry", "HKLM\\SOFTWARE\\WOW6432Node\\Quenta\\FlashService"},
      {"shared names", "at the library's disposal"},
      {"reset driver", "its flash interface is present"},
      {"modem", "MBIM (normal)"}};
  EXPECT_EQ(findings.Count(), all.size());
  for (const auto& [subject, message] : all) {
    EXPECT_EQ(findings.Verdict(subject), "ok") << subject;
    EXPECT_EQ(findings.Message(subject), message);
    EXPECT_EQ(findings.Code(subject), "") << subject;
    EXPECT_EQ(findings.WhatToDo(subject), "") << subject;
  }
}

TEST_F(CheckTest, PrintsALinePerFindingWithWhatToDo) {
  const RunResult result = RunHost({L"check"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_EQ(result.output,
            "ok       command line      not in the way\r\n"
            "ok       flash service     not in the way\r\n"
            "ok       configuration     " +
                PathOf(L"CorvelConfig.ini") +
                "\r\n"
                "ok       folder            " +
                PathOf(L"firmware") +
                "\r\n"
                "ok       modem image       " +
                SizeOf(workspace.ModemImage()) +
                "\r\n"
                "ok       NVM image         " +
                SizeOf(workspace.NvmImage()) +
                "\r\n"
                "ok       flashing library  " +
                PathOf(L"Firmwareflashdownload.dll") +
                "\r\n"
                "ok       registry          HKLM\\SOFTWARE\\WOW6432Node\\Quenta\\FlashService\r\n"
                "ok       shared names      at the library's disposal\r\n"
                "warning  reset driver      its flash interface is absent\r\n"
                "                           Install the modem's USB driver: without it a modem that hangs "
                "cannot be reset.\r\n"
                "warning  modem             absent\r\n"
                "                           Look at the device manager; a flash tries a baseband reset "
                "first.\r\n"
                "Ready: a flash can begin, with 2 warnings.\r\n");
}

TEST_F(CheckTest, WatchesUntilAFlashCouldBegin) {
  workspace.Remove(L"firmware");
  ChildProcess watcher(workspace.CommandLineHost(), {L"check", L"--watch"});
  ASSERT_TRUE(watcher.Says("Not ready: 1 error, 2 warnings. Begin with what is said of \"folder\".\r\n"));
  workspace.PutImages();
  EXPECT_EQ(watcher.WaitForEnd(), 0);
  EXPECT_THAT(watcher.Output(), testing::EndsWith("Ready: a flash can begin, with 2 warnings.\r\n"));
}

TEST_F(CheckTest, WatchesInLinesOfJsonUntilItIsInterrupted) {
  workspace.Remove(L"firmware");
  ChildProcess watcher(workspace.CommandLineHost(), {L"check", L"--watch", L"--json"});
  ASSERT_TRUE(watcher.Says("\"no_folder\""));
  ASSERT_TRUE(watcher.Interrupt());
  EXPECT_EQ(watcher.WaitForEnd(), 5);
  EXPECT_FALSE(Document(watcher.Output())["ready"]);
}

TEST_F(CheckTest, PrintsAnErrorOnStandardOutputToo) {
  workspace.Remove(L"firmware");
  const RunResult result = RunHost({L"check"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(result.output, HasSubstr("error    folder            \""));
}

TEST_F(CheckTest, LeavesNoFileBehind) {
  RunHost({L"check"});
  EXPECT_THAT(workspace.FilesBesideTheInstallation(), IsEmpty());
}

TEST_F(CheckTest, LeavesNoKeyBehindNorOneAboveIt) {
  ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kParentOfKey);
  ASSERT_FALSE(ParentOfKeyExists());
  const Findings findings = Check();
  EXPECT_EQ(findings.Verdict("registry"), "ok");
  EXPECT_FALSE(key.Exists());
  EXPECT_FALSE(ParentOfKeyExists());
}

TEST_F(CheckTest, FindsAKeyThatIsThereAndLeavesItsValues) {
  key.Write(L"Flash_Result", 4);
  const Findings findings = Check();
  EXPECT_EQ(findings.Verdict("registry"), "ok");
  EXPECT_EQ(key.Read().result, 4u);
}

TEST_F(CheckTest, MissingConfiguration) {
  workspace.Remove(L"CorvelConfig.ini");
  ExpectError("configuration", "no_configuration", 4, PathOf(L"CorvelConfig.ini") + " is missing",
              "Put CorvelConfig.ini beside this program.");
}

TEST_F(CheckTest, ConfigurationThatSomebodyReads) {
  const std::ifstream reader(workspace.File(L"CorvelConfig.ini"));
  ExpectError("configuration", "no_configuration", 4,
              PathOf(L"CorvelConfig.ini") + " is open in another program",
              "Close the program that has it open.");
}

TEST_F(CheckTest, ConfigurationThatIsAFolder) {
  workspace.Remove(L"CorvelConfig.ini");
  std::filesystem::create_directory(workspace.File(L"CorvelConfig.ini"));
  ExpectError("configuration", "no_configuration", 4,
              PathOf(L"CorvelConfig.ini") + " cannot be opened: " + SystemErrorText(ERROR_ACCESS_DENIED),
              "Give this program the right to read it.");
}

TEST_F(CheckTest, ConfigurationWithoutFolder) {
  workspace.RemoveLine("[ModemAndNVMFirmwareFolder]=");
  ExpectError("configuration", "no_folder_configured", 4, "[ModemAndNVMFirmwareFolder] is not set",
              "Name the folder of the images in CorvelConfig.ini. The first line of the file is always "
              "skipped.");
}

TEST_F(CheckTest, RegistryLocationBelowAnUnknownRoot) {
  workspace.WriteConfiguration("[RegistryLocation]=", L"HKCC\\Software\\Corvel");
  ExpectWarning("configuration", "unknown_root",
                "[RegistryLocation] names no key below HKLM, HKU, HKCU, HKCR or HCC: the service takes "
                "HKLM\\Software\\Corvel",
                "Correct it for the service; the command line uses a key of its own.");
}

TEST_F(CheckTest, EraseModeThatTheFlashingLibraryDoesNotKnow) {
  workspace.WriteConfiguration("[ERASEMODE]=", L"7");
  ExpectWarning("configuration", "value_read_otherwise", "line 7: [ERASEMODE]=7 is read as 0",
                "Write 0, 1, 2 or 3.");
}

TEST_F(CheckTest, ErrorOfTheConfigurationComesBeforeItsWarnings) {
  workspace.RemoveLine("[ModemAndNVMFirmwareFolder]=");
  workspace.WriteConfiguration("[ModemAndNVMFirmwarefolder]=", L"C:\\");
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 4);
  EXPECT_EQ(findings.Code("configuration"), "no_folder_configured");
  EXPECT_EQ(findings.VerdictOfCode("inexact_key"), "warning");
}

TEST_F(CheckTest, MissingFolder) {
  workspace.Remove(L"firmware");
  ExpectError("folder", "no_folder", 3, "\"" + PathOf(L"firmware") + "\" is no folder",
              "Make the folder and put the images there, or correct [ModemAndNVMFirmwareFolder].");
}

TEST_F(CheckTest, FolderWithoutImages) {
  workspace.Remove(L"firmware\\modem.fls");
  workspace.Remove(L"firmware\\nvm.fls");
  ExpectError("folder", "no_images", 3, "there is no firmware image (*.fls) in " + PathOf(L"firmware"),
              "Copy the modem image and the NVM image there.");
}

TEST_F(CheckTest, ModemImageAlone) {
  workspace.Remove(L"firmware\\nvm.fls");
  ExpectWarning("NVM image", "image_missing", "no image below 10 MiB",
                "A flash goes on with the other image alone.");
}

TEST_F(CheckTest, NvmImageAlone) {
  workspace.Remove(L"firmware\\modem.fls");
  ExpectWarning("modem image", "image_missing", "no image of 10 MiB or more",
                "A flash goes on with the other image alone.");
}

TEST_F(CheckTest, ImageThatSomebodyHolds) {
  const OwnedHandle holder(::CreateFileW(workspace.ModemImage().c_str(), GENERIC_READ, FILE_SHARE_READ,
                                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  ExpectError("modem image", "image_unreadable", 4,
              PathOf(L"firmware\\modem.fls") + ": " + SystemErrorText(ERROR_SHARING_VIOLATION),
              "Close the program that holds the image open, and give this one the right to read it.");
}

/// Whoever flashes opens them with nobody else beside it.
TEST_F(CheckTest, OpensNoImageWhileSomebodyFlashes) {
  const CommandLineClaim flash;
  const OwnedHandle holder(::CreateFileW(workspace.ModemImage().c_str(), GENERIC_READ, 0, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  const Findings findings = Check();
  EXPECT_EQ(findings.Code("command line"), "already_running");
  EXPECT_EQ(findings.Verdict("modem image"), "ok");
  EXPECT_EQ(findings.Message("modem image"), SizeOf(workspace.ModemImage()));
}

/// The service finds none while somebody else has it open.
TEST_F(CheckTest, OpensNoConfigurationWhileAServiceStarts) {
  workspace.MakeVirtualPc({"service-starts=1"});
  const OwnedHandle holder(::CreateFileW(workspace.File(L"CorvelConfig.ini").c_str(), GENERIC_READ, 0,
                                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 4);
  EXPECT_EQ(findings.Error("code"), "service_starting");
  EXPECT_EQ(findings.Code("configuration"), "not_looked_at");
  EXPECT_EQ(findings.Verdict("configuration"), "warning");
  EXPECT_EQ(findings.Verdict("modem image"), "no such finding");
}

TEST_F(CheckTest, FolderThatCannotBeReadToItsEnd) {
  workspace.MakeVirtualPc({"fault=folder-breaks-off"});
  ExpectError("folder", "folder_unreadable", 4,
              PathOf(L"firmware") + " could not be read to its end, so no image is taken",
              "Run this check again; if that stays, look after the drive and this program's rights.");
}

TEST_F(CheckTest, EmptyImage) {
  std::ofstream(workspace.NvmImage(), std::ios::trunc).flush();
  ExpectError("NVM image", "image_empty", 4, PathOf(L"firmware\\nvm.fls") + " is empty",
              "Copy the image anew.");
}

TEST_F(CheckTest, SeveralNvmImages) {
  std::ofstream(workspace.File(L"firmware\\another.fls")) << "an image";
  std::ofstream(workspace.File(L"firmware\\empty.fls")).flush();
  std::filesystem::create_directory(workspace.File(L"firmware\\folder.fls"));
  ExpectWarning(
      "NVM image", "several_images",
      "3 of its kind: " + PathOf(L"firmware\\nvm.fls") + " is taken, not another.fls, empty.fls (empty)",
      "Leave one image of each kind in the folder.");
}

TEST_F(CheckTest, SeveralModemImagesOfWhichTheSmallestHas10MiB) {
  std::ofstream(workspace.File(L"firmware\\another.fls")).flush();
  std::filesystem::resize_file(workspace.File(L"firmware\\another.fls"), 10ULL * 1024 * 1024);
  ExpectWarning("modem image", "several_images",
                "2 of its kind: " + PathOf(L"firmware\\modem.fls") + " is taken, not another.fls",
                "Leave one image of each kind in the folder.");
}

TEST_F(CheckTest, SmallImagesAndNoModemImageIsNotSeveralOfThat) {
  workspace.Remove(L"firmware\\modem.fls");
  std::ofstream(workspace.File(L"firmware\\another.fls")).flush();
  std::filesystem::resize_file(workspace.File(L"firmware\\another.fls"), 10 * 1024 * 1024 - 1);
  const Findings findings = Check();
  EXPECT_EQ(findings.Code("modem image"), "image_missing");
  EXPECT_EQ(findings.Field("code", "several_images", "subject"), "NVM image");
}

/// A list of digests beside the programs.
class CheckOfExpectedImagesTest : public CheckTest {
 protected:
  void Expect(const std::string& lines) const { std::ofstream(File(), std::ios::binary) << lines; }
  std::string LineOf(const std::filesystem::path& image) const {
    return DigestOf(image.wstring()).sha256 + "  " + ToUtf8(image.filename().wstring()) + "\n";
  }
  std::filesystem::path File() const { return workspace.File(L"SHA256SUMS"); }
  Findings Check() const { return Findings(RunHost({L"check", L"--json", L"--expect", File().wstring()})); }
};

TEST_F(CheckOfExpectedImagesTest, FindsThemAsExpected) {
  Expect(LineOf(workspace.ModemImage()) + LineOf(workspace.NvmImage()));
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_EQ(findings.Message("modem image"), SizeOf(workspace.ModemImage()) + ", SHA-256 as expected");
  EXPECT_EQ(findings.Message("NVM image"), SizeOf(workspace.NvmImage()) + ", SHA-256 as expected");
}

TEST_F(CheckOfExpectedImagesTest, FindsOneThatDiffers) {
  const std::string other(64, 'a');
  Expect(LineOf(workspace.NvmImage()) + other + "  modem.fls\n");
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 4);
  EXPECT_EQ(findings.Code("modem image"), "image_differs");
  EXPECT_EQ(findings.Message("modem image"), ToUtf8(workspace.ModemImage().wstring()) + " has the SHA-256 " +
                                                 DigestOf(workspace.ModemImage().wstring()).sha256 +
                                                 ", not " + other + " as " + ToUtf8(File().wstring()) +
                                                 " says");
  EXPECT_EQ(findings.Verdict("NVM image"), "ok");
}

TEST_F(CheckOfExpectedImagesTest, FindsOneThatIsNotInTheList) {
  Expect(LineOf(workspace.ModemImage()));
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 4);
  EXPECT_EQ(findings.Code("NVM image"), "image_not_expected");
}

TEST_F(CheckOfExpectedImagesTest, FindsAListThatIsNone) {
  EXPECT_EQ(Check().Code("digests"), "no_digests");
  Expect("modem.fls");
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 4);
  EXPECT_EQ(findings.Message("digests"),
            ToUtf8(File().wstring()) + ", line 1: no line as sha256sum writes it");
}

/// Whoever flashes opens the images with nobody else beside it.
TEST_F(CheckOfExpectedImagesTest, ComparesNothingWhileSomebodyFlashes) {
  Expect(std::string(64, 'a') + "  modem.fls\n");
  const CommandLineClaim flash;
  const Findings findings = Check();
  EXPECT_EQ(findings.Error("code"), "already_running");
  EXPECT_EQ(findings.Message("modem image"), SizeOf(workspace.ModemImage()));
}

TEST_F(CheckTest, PcOnItsBatteryIsAWarning) {
  const std::string whatToDo =
      "Connect the PC to the mains: one that goes off during a flash leaves the modem in flash mode.";
  workspace.MakeVirtualPc({"battery=40"});
  ExpectWarning("power", "on_battery", "the PC runs on its battery, 40 % charged", whatToDo);
  workspace.MakeVirtualPc({"battery=unknown"});
  ExpectWarning("power", "on_battery", "the PC runs on its battery, whose charge is unknown", whatToDo);
}

TEST_F(CheckTest, MissingFlashingLibrary) {
  workspace.Remove(L"Firmwareflashdownload.dll");
  ExpectError("flashing library", "no_flashing_library", 4,
              PathOf(L"Firmwareflashdownload.dll") + ": " + SystemErrorText(ERROR_MOD_NOT_FOUND),
              "Put the 64-bit flashing library beside this program.");
}

TEST_F(CheckTest, FlashingLibraryThatIsNoLibrary) {
  workspace.Remove(L"Firmwareflashdownload.dll");
  std::ofstream(workspace.File(L"Firmwareflashdownload.dll")) << "no library";
  ExpectError("flashing library", "no_flashing_library", 4,
              PathOf(L"Firmwareflashdownload.dll") + ": " + SystemErrorText(ERROR_BAD_EXE_FORMAT),
              "Replace it by the 64-bit flashing library.");
}

TEST_F(CheckTest, FlashingLibraryThatNeedsAnotherThatIsMissing) {
  Rename(workspace.File(L"Firmwareflashdownload.dll"), "KERNEL32.dll", "MISSING7.dll");
  ExpectError("flashing library", "no_flashing_library", 4,
              PathOf(L"Firmwareflashdownload.dll") + ": " + SystemErrorText(ERROR_MOD_NOT_FOUND),
              "The library is there, but another one that it needs is not: install that beside it.");
}

/// In the place of the flashing library lies one that needs another; it has none of the exports, when it can
/// be loaded.
class CheckOfANeedyLibraryTest : public CheckTest {
 protected:
  void SetUp() override { workspace.PutProduct(L"needy_library.dll", L"Firmwareflashdownload.dll"); }
  std::string CodeInCurrentFolder() const {
    return Findings(RunToEnd(workspace.CommandLineHost(), {L"check", L"--json"}, current.Path()))
        .Code("flashing library");
  }

  TemporaryFolder current;
};

TEST_F(CheckOfANeedyLibraryTest, IsNotServedFromTheCurrentFolder) {
  std::filesystem::copy_file(ProgramFolder() + L"planted_library.dll",
                             current.Path() / L"planted_library.dll");
  EXPECT_EQ(CodeInCurrentFolder(), "no_flashing_library");
}

TEST_F(CheckOfANeedyLibraryTest, IsServedFromTheFolderOfTheProgram) {
  workspace.PutProduct(L"planted_library.dll", L"planted_library.dll");
  EXPECT_EQ(CodeInCurrentFolder(), "flashing_library_incomplete");
}

TEST_F(CheckTest, FlashingLibraryWithoutItsExports) {
  workspace.PutProduct(L"virtual_pc_host.dll", L"Firmwareflashdownload.dll");
  ExpectError("flashing library", "flashing_library_incomplete", 4,
              PathOf(L"Firmwareflashdownload.dll") +
                  " lacks _ZEMO_DL_boot_target, _ZEMO_DL_close_comm_port, _ZEMO_DL_download_cust_file, "
                  "_ZEMO_DL_download_dffs_file, _ZEMO_DL_download_fls_file, _ZEMO_DL_force_target_reset, "
                  "_ZEMO_DL_get_sys_version, _ZEMO_get_next_free_channel, "
                  "_ZEMO_DL_dll_get_nof_progressbars, _ZEMO_DL_init_callback, _ZEMO_DL_open_comm_port, "
                  "_ZEMO_DL_set_dll_parameter, _ZEMO_DL_TOC_get_flash_technogy, "
                  "_ZEMO_DL_TOC_get_memory_class, _ZEMO_DL_TOC_get_nof_items",
              "Install the version that belongs to this program.");
}

TEST_F(CheckTest, FlashingLibraryWhoseExportsHaveNoUnderscore) {
  ExportWithoutUnderscores(workspace.File(L"Firmwareflashdownload.dll"));
  const OwnedModule library(
      ::LoadLibraryExW(workspace.File(L"Firmwareflashdownload.dll").c_str(), nullptr, 0));
  ASSERT_NE(library, nullptr);
  ASSERT_EQ(::GetProcAddress(library.get(), "_ZEMO_DL_boot_target"), nullptr);
  EXPECT_EQ(Check().Verdict("flashing library"), "ok");
}

/// The library takes one without it; one that lacks another export it takes as well, but cannot flash with
/// it.
TEST_F(CheckTest, FlashingLibraryWithoutTheOneExportThatItMayLack) {
  const std::filesystem::path library = workspace.File(L"Firmwareflashdownload.dll");
  // The names are sorted, and stay so.
  Rename(library, "_ZEMO_DL_out_of_session_comm", "_ZEMO_DL_out_of_session_comn");
  EXPECT_EQ(Check().Verdict("flashing library"), "ok");
  Rename(library, "_ZEMO_DL_get_sys_version", "_ZEMO_DL_get_sys_versiom");
  EXPECT_EQ(Check().Message("flashing library"),
            PathOf(L"Firmwareflashdownload.dll") + " lacks _ZEMO_DL_get_sys_version");
}

TEST_F(CheckTest, RegistryKeyThatCannotBeMade) {
  const UnwritableKey parent;
  ExpectError("registry", "no_registry_access", 4,
              "HKLM\\SOFTWARE\\WOW6432Node\\Quenta\\FlashService: " + SystemErrorText(ERROR_ACCESS_DENIED),
              "Run this program as an administrator.");
}

TEST_F(CheckTest, NamesOfTheLibraryThatAnotherProgramHas) {
  const std::string whatToDo =
      "End that program; a tool that searches handles by name tells which one it is. Or start the PC anew.";
  workspace.MakeVirtualPc({"name-taken=RegistryNotify"});
  ExpectError("shared names", "name_taken", 4,
              "another program has the name \"RegistryNotify\" for an object of another kind, so the library "
              "cannot hear of a request",
              whatToDo);
  workspace.MakeVirtualPc({"name-taken=CFirmwareDownloader"});
  ExpectError("shared names", "name_taken", 4,
              "another program has the name \"CFirmwareDownloader\" for an object of another kind, so the "
              "library cannot hear of the modem's flash port",
              whatToDo);
}

TEST_F(CheckTest, WhatOthersMayWriteIsAWarning) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;;FA;;;WD)", SDDL_REVISION_1, &descriptor,
                                                         nullptr);
  const LocalMemory owner(descriptor);
  for (const std::filesystem::path& file : {workspace.File(L"CorvelToolKit.dll"), workspace.NvmImage()}) {
    ASSERT_TRUE(::SetFileSecurityW(file.c_str(), DACL_SECURITY_INFORMATION, descriptor));
  }
  const Findings findings = Check();
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_EQ(findings.Verdict("permissions"), "warning");
  EXPECT_EQ(findings.Code("permissions"), "writable_by_users");
  EXPECT_THAT(findings.Message("permissions"),
              AllOf(testing::StartsWith(PathOf(L"CorvelToolKit.dll") + " may be written by "),
                    HasSubstr("; " + PathOf(L"firmware\\nvm.fls") + " may be written by ")));
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
  ExpectWarning("modem", "modem_absent", "absent",
                "Look at the device manager; a flash tries a baseband reset first.");
}

TEST_F(CheckTest, MissingResetDriverIsAWarning) {
  ExpectWarning("reset driver", "no_reset_driver", "its flash interface is absent",
                "Install the modem's USB driver: without it a modem that hangs cannot be reset.");
}

TEST_F(CheckTest, StrictLetsAWarningCountAsAnError) {
  workspace.MakeVirtualPc();
  workspace.WriteConfiguration("[IPCTYPE]=", L"pcie");
  const Findings findings(RunHost({L"check", L"--strict", L"--json"}));
  EXPECT_EQ(findings.ExitCode(), 4);
  EXPECT_FALSE(findings.Ready());
  EXPECT_EQ(findings.Verdict("configuration"), "warning");
  EXPECT_EQ(findings.Error("code"), "value_read_otherwise");
  EXPECT_EQ(findings.Error("message"), "Not ready, configuration: line 7: [IPCTYPE]=pcie is read as USB.");
}

TEST_F(CheckTest, StrictIsContentWithoutWarnings) {
  workspace.MakeVirtualPc();
  const Findings findings(RunHost({L"check", L"--strict", L"--json"}));
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_TRUE(findings.Ready());
}

TEST_F(CheckTest, StrictEndsWithTheErrorWhenThereAreBoth) {
  workspace.Remove(L"firmware");
  workspace.WriteConfiguration("[IPCTYPE]=", L"pcie");
  const Findings findings(RunHost({L"check", L"--strict", L"--json"}));
  EXPECT_EQ(findings.ExitCode(), 3);
  EXPECT_EQ(findings.Error("code"), "no_folder");
}

TEST(CheckInAFolderNotInAsciiTest, KeepsPathsInUtf8) {
  const HostWorkspace workspace(L"-\u00E4\u00DF");
  const simulator::KeptKey key(simulator::KeyOfCommandLine());
  const Findings findings(RunToEnd(workspace.CommandLineHost(), {L"check", L"--json"}));
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_EQ(findings.Message("folder"), ToUtf8(workspace.ImageFolder().wstring()));
}

/// An installation in a folder whose name the system's code page does not hold.
class CheckBeyondTheCodePageTest : public testing::Test {
 protected:
  void SetUp() override {
    if (name.empty()) GTEST_SKIP() << "the system's code page holds every name";
    // The configuration cannot name such a folder either.
    workspace.WriteConfiguration("[ModemAndNVMFirmwareFolder]=", images.Path().wstring());
    for (const wchar_t* image : {L"modem.fls", L"nvm.fls"}) {
      std::filesystem::copy_file(workspace.ImageFolder() / image, images.Path() / image);
    }
  }

  std::wstring name = NameBeyondTheCodePage();
  HostWorkspace workspace{name};
  TemporaryFolder images;
  simulator::KeptKey key{simulator::KeyOfCommandLine()};
};

TEST_F(CheckBeyondTheCodePageTest, TellsByWhatNameTheLogIsWritten) {
  const Findings findings(RunToEnd(workspace.CommandLineHost(), {L"check", L"--json"}));
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_EQ(findings.Verdict("configuration"), "ok");
  EXPECT_EQ(findings.Verdict("debug log"), "ok");
  const std::wstring log = workspace.File(L"FlashCommandLineLogger_DLL.log").wstring();
  const std::wstring folder = workspace.File(L"").wstring();
  EXPECT_EQ(findings.Message("debug log"),
            ToUtf8(log) + ", written by its short name " +
                ToUtf8(FromAnsi(AnsiPath(folder, L"FlashCommandLineLogger_DLL.log"))));
}

TEST_F(CheckBeyondTheCodePageTest, WarnsThatThereIsNoLogOnAVolumeWithoutShortNames) {
  workspace.MakeVirtualPc({"no-short-names"});
  const Findings findings(RunToEnd(workspace.CommandLineHost(), {L"check", L"--json"}));
  EXPECT_EQ(findings.ExitCode(), 0);
  EXPECT_EQ(findings.Verdict("debug log"), "warning");
  EXPECT_THAT(findings.Message("debug log"), HasSubstr(ToUtf8(workspace.File(L"").wstring())));
}

TEST_F(CheckBeyondTheCodePageTest, FlashThereSucceedsAndHasItsLog) {
  workspace.MakeVirtualPc({"speed=60"});
  const RunResult result = RunToEnd(workspace.CommandLineHost(), {L"flash", L"--json"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(workspace.Content(L"FlashCommandLineLogger_DLL.log"), HasSubstr("VERSION: "));
}

}  // namespace

}  // namespace hosts
