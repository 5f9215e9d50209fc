#include "hosts/cmdline/configuration_advice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "hosts/common/facts.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "simulator/import_patch.h"
#include "support/temporary_folder.h"

namespace hosts {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kTitle[] = "Corvel flash service\r\n";
constexpr char kLocation[] = "[RegistryLocation]=HKLM\\SOFTWARE\\Quenta\\FlashService\r\n";

LibraryConfiguration FileOf(const std::string& bytes) {
  const TemporaryFolder folder;
  return LibraryConfiguration::Read(folder.Write(std::wstring(L"CorvelConfig.ini"), bytes)).value();
}

std::vector<Finding> AdviceOn(const std::string& bytes) {
  return AdviseOnConfiguration(FileOf(bytes));
}

/// Of a file that is sound but for what follows, from its third line on.
std::vector<Finding> AdviceOnLines(const std::string& lines) {
  return AdviceOn(kTitle + std::string(kLocation) + lines);
}

std::vector<std::string> CodesOf(const std::vector<Finding>& findings) {
  std::vector<std::string> codes;
  codes.reserve(findings.size());
  for (const Finding& finding : findings) codes.emplace_back(finding.code);
  return codes;
}

void ExpectOneWarning(const std::vector<Finding>& findings, const std::string& code,
                      const std::string& message, const std::string& whatToDo) {
  ASSERT_THAT(CodesOf(findings), ElementsAre(code));
  EXPECT_STREQ(findings[0].subject, "configuration");
  EXPECT_EQ(findings[0].verdict, Verdict::Warning);
  EXPECT_EQ(findings[0].message, message);
  EXPECT_EQ(findings[0].whatToDo, whatToDo);
}

struct SoundCase {
  const char* name;
  const char* lines;
};
struct WarningCase {
  const char* name;
  std::string lines;
  const char* code;
  std::string message;
  const char* whatToDo;
};
template <typename Param>
std::string NameOf(const testing::TestParamInfo<Param>& each) {
  return each.param.name;
}

class SoundLinesTest : public testing::TestWithParam<SoundCase> {};

TEST_P(SoundLinesTest, NeedNoAdvice) {
  EXPECT_THAT(CodesOf(AdviceOnLines(GetParam().lines)), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, SoundLinesTest,
    testing::Values(SoundCase{"None", ""}, SoundCase{"Blank", "\r\n"},
                    SoundCase{"WithoutEquals", "the settings of the laboratory\r\n"},
                    SoundCase{"CommentBehindASemicolon", "; [TraceLevel]=1\r\n"},
                    SoundCase{"CommentBehindAHash", " # x=y\r\n"},
                    SoundCase{"Folder", "[ModemAndNVMFirmwareFolder]=C:\\Pro gram=Data\r\n"},
                    SoundCase{"Pcie", "[IPCTYPE]=PCIE\r\n"}, SoundCase{"Usb", "[IPCTYPE]=USB\r\n"},
                    SoundCase{"UsbInSmallLetters", "[IPCTYPE]=usb\r\n"},
                    SoundCase{"NoIpcType", "[IPCTYPE]=\r\n"}, SoundCase{"TraceOff", "[TraceLevel]=0\r\n"},
                    SoundCase{"TraceAboveOne", "[TraceLevel]=2\r\n"},
                    SoundCase{"RebootByAtCommand", "[REBOOTTYPE]=1\r\n"},
                    SoundCase{"RebootByMobileBroadband", "[REBOOTTYPE]=0\r\n"},
                    SoundCase{"SmallestEraseMode", "[ERASEMODE]=0\r\n"},
                    SoundCase{"LargestEraseMode", "[ERASEMODE]=3\r\n"},
                    SoundCase{"LastLineWithoutItsEnd", "[ERASEMODE]=3"},
                    SoundCase{"LastLineWithHalfAnEnd", "[ERASEMODE]=3\r"}),
    NameOf<SoundCase>);

class WarningTest : public testing::TestWithParam<WarningCase> {};

TEST_P(WarningTest, SaysWhatIsReadAndWhatToDo) {
  ExpectOneWarning(AdviceOnLines(GetParam().lines), GetParam().code, GetParam().message, GetParam().whatToDo);
}

constexpr char kWriteTraceKey[] =
    "Write [TraceLevel]=, in these letters, with the brackets and without blanks.";

INSTANTIATE_TEST_SUITE_P(
    Keys, WarningTest,
    testing::Values(
        WarningCase{"MistypedKey", "[TraceLevl]=1\r\n", "unknown_key",
                    "line 3: \"[TraceLevl]\" is no key: the line does not count",
                    "Write [TraceLevel]= if that is meant, or remove the line."},
        WarningCase{"KeyLikeNone", "Colour=blue\r\n", "unknown_key",
                    "line 3: \"Colour\" is no key: the line does not count",
                    "Remove the line, or begin it with \";\" if it is a comment."},
        WarningCase{"KeyOfNoLetters", "=1\r\n", "unknown_key",
                    "line 3: \"\" is no key: the line does not count",
                    "Remove the line, or begin it with \";\" if it is a comment."},
        WarningCase{"KeyWithWhatNoTerminalShouldBeSent", "Colour\x7F\x9F\xA0=blue\r\n", "unknown_key",
                    "line 3: \"Colour\\x7F\\x9F\xC2\xA0\" is no key: the line does not count",
                    "Remove the line, or begin it with \";\" if it is a comment."},
        WarningCase{"SmallLetters", "[tracelevel]=1\r\n", "inexact_key",
                    "line 3: \"[tracelevel]\" is not exactly [TraceLevel]: the line does not count",
                    kWriteTraceKey},
        WarningCase{"NoBrackets", "TraceLevel=1\r\n", "inexact_key",
                    "line 3: \"TraceLevel\" is not exactly [TraceLevel]: the line does not count",
                    kWriteTraceKey},
        WarningCase{"BlankBeforeTheEquals", "[TraceLevel] =1\r\n", "inexact_key",
                    "line 3: \"[TraceLevel] \" is not exactly [TraceLevel]: the line does not count",
                    kWriteTraceKey},
        WarningCase{"BlankAtTheBeginning", "\t[TraceLevel]=1\r\n", "inexact_key",
                    "line 3: \"\\x09[TraceLevel]\" is not exactly [TraceLevel]: the line does not count",
                    kWriteTraceKey},
        WarningCase{"Twice", "[ERASEMODE]=1\r\n[TraceLevel]=1\r\n[ERASEMODE]=2\r\n", "repeated_key",
                    "line 3: [ERASEMODE]=1 does not count: line 5 sets [ERASEMODE] again",
                    "Keep one of the two lines."}),
    NameOf<WarningCase>);

constexpr char kWriteItAlone[] = "Write the value right behind the \"=\", and nothing behind it.";

INSTANTIATE_TEST_SUITE_P(
    Blanks, WarningTest,
    testing::Values(
        WarningCase{"BeforeAText", "[IPCTYPE]= PCIE\r\n", "blanks_around_value",
                    "line 3: blanks around the value of [IPCTYPE]", kWriteItAlone},
        WarningCase{"BehindAText", "[ModemAndNVMFirmwareFolder]=C:\\A \r\n", "blanks_around_value",
                    "line 3: blanks around the value of [ModemAndNVMFirmwareFolder], which is read as "
                    "\"C:\\A \"",
                    kWriteItAlone},
        WarningCase{"TabBeforeAText", "[ModemAndNVMFirmwareFolder]=\tC:\\A\r\n", "blanks_around_value",
                    "line 3: blanks around the value of [ModemAndNVMFirmwareFolder], which is read as "
                    "\"\\x09C:\\A\"",
                    kWriteItAlone},
        WarningCase{"BeforeANumber", "[REBOOTTYPE]= 1\r\n", "blanks_around_value",
                    "line 3: blanks around the value of [REBOOTTYPE]", kWriteItAlone},
        WarningCase{"BehindANumber", "[REBOOTTYPE]=1 \r\n", "blanks_around_value",
                    "line 3: blanks around the value of [REBOOTTYPE]", kWriteItAlone},
        WarningCase{"SecondCarriageReturn", "[REBOOTTYPE]=1\r\r\n", "blanks_around_value",
                    "line 3: blanks around the value of [REBOOTTYPE]", kWriteItAlone}),
    NameOf<WarningCase>);

constexpr char kPcieOrUsb[] = "Write PCIE exactly so for that bus, else USB.";
constexpr char kAtOrBroadband[] = "Write 1 for the AT command, 0 for the Mobile Broadband command.";
constexpr char kLogOrNone[] = "Write 1 for a debug log, 0 for none.";
constexpr char kFourModes[] = "Write 0, 1, 2 or 3.";

INSTANTIATE_TEST_SUITE_P(
    Values, WarningTest,
    testing::Values(
        WarningCase{"PcieInSmallLetters", "[IPCTYPE]=pcie\r\n", "value_read_otherwise",
                    "line 3: [IPCTYPE]=pcie is read as USB", kPcieOrUsb},
        WarningCase{"UnknownBus", "[IPCTYPE]=ISA\r\n", "value_read_otherwise",
                    "line 3: [IPCTYPE]=ISA is read as USB", kPcieOrUsb},
        WarningCase{"RebootTypeAboveOne", "[REBOOTTYPE]=7\r\n", "value_read_otherwise",
                    "line 3: [REBOOTTYPE]=7 is read as 0", kAtOrBroadband},
        WarningCase{"RebootTypeOfTwo", "[REBOOTTYPE]=2\r\n", "value_read_otherwise",
                    "line 3: [REBOOTTYPE]=2 is read as 0", kAtOrBroadband},
        WarningCase{"RebootTypeWithMoreBehindIt", "[REBOOTTYPE]=1;AT\r\n", "value_read_otherwise",
                    "line 3: [REBOOTTYPE]=1;AT is read as 1", kAtOrBroadband},
        WarningCase{"TraceOfLetters", "[TraceLevel]=abc\r\n", "value_read_otherwise",
                    "line 3: [TraceLevel]=abc is read as 0", kLogOrNone},
        WarningCase{"TraceOfNothing", "[TraceLevel]=\r\n", "value_read_otherwise",
                    "line 3: [TraceLevel]= is read as 0", kLogOrNone},
        WarningCase{"TraceBelowZero", "[TraceLevel]=-1\r\n", "value_read_otherwise",
                    "line 3: [TraceLevel]=-1 is read as 0", kLogOrNone},
        WarningCase{"TraceTooLarge", "[TraceLevel]=99999999999\r\n", "value_read_otherwise",
                    "line 3: [TraceLevel]=99999999999 is read as 2147483647", kLogOrNone},
        WarningCase{"EraseModeAboveThree", "[ERASEMODE]=9\r\n", "value_read_otherwise",
                    "line 3: [ERASEMODE]=9 is read as 0", kFourModes},
        WarningCase{"EraseModeOfFour", "[ERASEMODE]=4\r\n", "value_read_otherwise",
                    "line 3: [ERASEMODE]=4 is read as 0", kFourModes},
        WarningCase{"EraseModeBelowZero", "[ERASEMODE]=-1\r\n", "value_read_otherwise",
                    "line 3: [ERASEMODE]=-1 is read as 0", kFourModes},
        WarningCase{"FolderInUtf8", "[ModemAndNVMFirmwareFolder]=C:\\\xC3\xBC\r\n", "bytes_beyond_ascii",
                    "line 3: [ModemAndNVMFirmwareFolder] holds bytes beyond ASCII and is read as "
                    "\"C:\\\xC3\x83\xC2\xBC\"",
                    "If that is not what is meant, save the file as ANSI (Latin-1) text or choose a name in "
                    "ASCII."},
        WarningCase{"FolderWithAByteThatIsNoLetter", "[ModemAndNVMFirmwareFolder]=C:\\\x80\r\n",
                    "bytes_beyond_ascii",
                    "line 3: [ModemAndNVMFirmwareFolder] holds bytes beyond ASCII and is read as "
                    "\"C:\\\\x80\"",
                    "If that is not what is meant, save the file as ANSI (Latin-1) text or choose a name in "
                    "ASCII."}),
    NameOf<WarningCase>);

class LocationTest : public testing::TestWithParam<WarningCase> {};

TEST_P(LocationTest, SaysWhatTheServiceTakes) {
  ExpectOneWarning(AdviceOn(kTitle + GetParam().lines), GetParam().code, GetParam().message,
                   GetParam().whatToDo);
}

constexpr char kCorrectIt[] = "Correct it for the service; the command line uses a key of its own.";
constexpr char kNoKnownRoot[] = "[RegistryLocation] names no key below HKLM, HKU, HKCU, HKCR or HCC";

INSTANTIATE_TEST_SUITE_P(
    All, LocationTest,
    testing::Values(
        WarningCase{"None", "", "unknown_root", kNoKnownRoot + std::string(": the service takes HKLM\\"),
                    kCorrectIt},
        WarningCase{"UnknownRoot", "[RegistryLocation]=HKCC\\Software\\A\r\n", "unknown_root",
                    kNoKnownRoot + std::string(": the service takes HKLM\\Software\\A"), kCorrectIt},
        WarningCase{"RootInSmallLetters", "[RegistryLocation]=hkcu\\Software\\A\r\n", "unknown_root",
                    kNoKnownRoot + std::string(": the service takes HKLM\\Software\\A"), kCorrectIt},
        WarningCase{"RootAlone", "[RegistryLocation]=HKCU\r\n", "location_without_key",
                    "[RegistryLocation]=HKCU is a root without a key: the service takes HKCU\\HKCU",
                    kCorrectIt},
        WarningCase{"RootAndSeparator", "[RegistryLocation]=HKCU\\\r\n", "location_without_key",
                    "[RegistryLocation]=HKCU\\ is a root without a key: the service takes HKCU\\",
                    kCorrectIt}),
    NameOf<WarningCase>);

TEST(ConfigurationAdviceTest, LooksAtTheLineThatCountsAlone) {
  EXPECT_THAT(CodesOf(AdviceOnLines("[ERASEMODE]=9\r\n[ERASEMODE]=2\r\n")), ElementsAre("repeated_key"));
  EXPECT_THAT(CodesOf(AdviceOnLines("[ERASEMODE]=2\r\n[ERASEMODE]=9\r\n")),
              ElementsAre("repeated_key", "value_read_otherwise"));
}

TEST(ConfigurationAdviceTest, TellsInTheOrderOfTheFileWhatDoesNotCount) {
  EXPECT_THAT(CodesOf(AdviceOn(std::string("[ERASEMODE]=1\r\n") + kLocation + "A=1\r\n[erasemode]=2\r\n")),
              ElementsAre("setting_on_first_line", "unknown_key", "inexact_key"));
}

TEST(ConfigurationAdviceTest, SettingOnTheFirstLine) {
  ExpectOneWarning(AdviceOn(std::string("[TraceLevel]=1\r\n") + kLocation), "setting_on_first_line",
                   "line 1: [TraceLevel] does not count: the first line is a title and always skipped",
                   "Put a title there and the setting below it.");
}

TEST(ConfigurationAdviceTest, FirstLineThatIsNoSettingIsATitle) {
  EXPECT_THAT(CodesOf(AdviceOn(std::string("version=7\r\n") + kLocation)), IsEmpty());
  EXPECT_THAT(CodesOf(AdviceOn(std::string("; [TraceLevel]=1\r\n") + kLocation)), IsEmpty());
}

TEST(ConfigurationAdviceTest, LineOfMoreThan512Bytes) {
  const std::string key = "[ModemAndNVMFirmwareFolder]=";
  EXPECT_THAT(CodesOf(AdviceOnLines(key + std::string(512 - key.size(), 'x') + "\r\n")), IsEmpty());
  ExpectOneWarning(AdviceOnLines(key + std::string(513 - key.size(), 'x') + "\r\n"), "long_line",
                   "line 3: 513 bytes; of a key and of a value 511 are read, the rest is cut off",
                   "Keep lines at 512 bytes or fewer.");
}

TEST(ConfigurationAdviceTest, ByteOrderMarkOfUtf8) {
  ExpectOneWarning(
      AdviceOn(std::string("\xEF\xBB\xBF") + kTitle + kLocation), "byte_order_mark",
      "the file begins with the byte-order mark of UTF-8, but each of its bytes is read as one character",
      "Save it as ANSI text, without a mark.");
}

TEST(ConfigurationAdviceTest, SettingBehindAByteOrderMarkIsOnTheFirstLineAllTheSame) {
  EXPECT_THAT(CodesOf(AdviceOn(std::string("\xEF\xBB\xBF[TraceLevel]=1\r\n") + kLocation)),
              ElementsAre("byte_order_mark", "setting_on_first_line"));
}

class Utf16Test : public testing::TestWithParam<std::string> {};

TEST_P(Utf16Test, IsAllThatIsSaid) {
  ExpectOneWarning(AdviceOn(GetParam()), "utf16",
                   "the file holds bytes of zero, as UTF-16 does, and its settings cannot be found",
                   "Save it as ANSI text, one byte for each character.");
}

using namespace std::string_literals;
INSTANTIATE_TEST_SUITE_P(All, Utf16Test,
                         testing::Values("\xFF\xFET\0\r\0\n\0[\0I\0]\0=\x001\0"s,
                                         "\xFE\xFF\0T\0\r\0\n\0[\0I\0]\0=\0001"s,
                                         "T\0\r\0\n\0[\0I\0]\0=\x001\0"s, "\xFF\xFE"s, "\xFE\xFF"s));

TEST(ConfigurationAdviceTest, EmptyFileLacksALocationAlone) {
  EXPECT_THAT(CodesOf(AdviceOn("")), ElementsAre("unknown_root"));
}

TEST(LibraryConfigurationTest, SkipsTheFirstLineAndTakesTheLaterOfTwo) {
  const LibraryConfiguration file = FileOf("[A]=0\r\n[A]=1\r\n[A]=2\r\n");
  EXPECT_EQ(file.Get(L"[A]"), L"2");
  EXPECT_EQ(file.Find(L"[A]")->line, 3u);
  EXPECT_EQ(file.Lines().size(), 3u);
  EXPECT_EQ(file.Settings().size(), 2u);
}

TEST(LibraryConfigurationTest, TakesKeysAsTheyStandAndLeavesBlanksBeforeAValueOut) {
  const LibraryConfiguration file = FileOf("T\r\n[A] =1\r\n[B]=  x = y \r\n[C]=\t1\r\n");
  EXPECT_EQ(file.Get(L"[A]"), L"");
  EXPECT_EQ(file.Find(L"[A]"), nullptr);
  EXPECT_EQ(file.Get(L"[A] "), L"1");
  EXPECT_EQ(file.Get(L"[B]"), L"x = y ");
  EXPECT_EQ(file.Get(L"[C]"), L"\t1");
}

TEST(LibraryConfigurationTest, ReadsEachByteAsOneCharacter) {
  EXPECT_EQ(FileOf("T\r\n[A]=\xC3\xBC\xFF\r\n").Get(L"[A]"), L"\u00C3\u00BC\u00FF");
}

TEST(LibraryConfigurationTest, CutsKeyAndValueTo511Characters) {
  const LibraryConfiguration file =
      FileOf("T\r\n" + std::string(600, 'k') + "=" + std::string(512, 'v') + "w\r\n");
  EXPECT_EQ(file.Get(std::wstring(511, L'k')), std::wstring(511, L'v'));
}

LibraryConfiguration Sample() {
  return LibraryConfiguration::Read(ProgramFolder() + L"sample\\CorvelConfig.ini").value();
}

TEST(SampleConfigurationTest, EarnsNoAdvice) {
  EXPECT_THAT(CodesOf(AdviseOnConfiguration(Sample())), IsEmpty());
}

TEST(SampleConfigurationTest, SetsEachKeyOnceAndNothingElse) {
  const LibraryConfiguration sample = Sample();
  std::vector<std::wstring> keys;
  for (const LibraryConfiguration::Setting& setting : sample.Settings()) keys.push_back(setting.key);
  EXPECT_THAT(keys, ElementsAre(kTraceLevelKey, kRegistryLocationKey, kFirmwareFolderKey, kIpcTypeKey,
                                kRebootTypeKey, kEraseModeKey));
}

TEST(SampleConfigurationTest, ExplainsEachKeyRightAboveIt) {
  const LibraryConfiguration sample = Sample();
  for (const LibraryConfiguration::Setting& setting : sample.Settings()) {
    EXPECT_EQ(sample.Lines()[setting.line - 2].front(), L';') << ToUtf8(setting.key);
  }
}

TEST(LibraryConfigurationTest, KeyAndValueEndAtAZero) {
  EXPECT_EQ(FileOf("T\r\n[A]\0x=1\0y\r\n"s).Get(L"[A]"), L"1");
}

TEST(LibraryConfigurationTest, IsNothingWithoutAFile) {
  const TemporaryFolder folder;
  EXPECT_FALSE(LibraryConfiguration::Read(folder.File(std::wstring(L"CorvelConfig.ini"))).has_value());
}

/// The library does not read it either.
TEST(LibraryConfigurationTest, IsNothingWhileSomebodyElseHasItOpen) {
  const TemporaryFolder folder;
  const std::wstring path = folder.Write(std::wstring(L"CorvelConfig.ini"), "T\r\n[A]=1\r\n");
  for (const DWORD access : {DWORD{GENERIC_READ}, DWORD{GENERIC_WRITE}}) {
    const OwnedHandle other(::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    EXPECT_FALSE(LibraryConfiguration::Read(path).has_value());
  }
  EXPECT_TRUE(LibraryConfiguration::Read(path).has_value());
}

TEST(LibraryConfigurationTest, KnowsFiveRootsAndTakesTheLocalMachineForAnyOther) {
  const std::pair<const char*, HKEY> roots[] = {{"HKLM", HKEY_LOCAL_MACHINE}, {"HKU", HKEY_USERS},
                                                {"HKCU", HKEY_CURRENT_USER},  {"HKCR", HKEY_CLASSES_ROOT},
                                                {"HCC", HKEY_CURRENT_CONFIG}, {"HKCC", HKEY_LOCAL_MACHINE}};
  for (const auto& [name, root] : roots) {
    const HandshakeKey key =
        FileOf(std::string("T\r\n[RegistryLocation]=") + name + "\\A\\B\r\n").ServiceKey();
    EXPECT_EQ(key.root, root) << name;
    EXPECT_EQ(key.path, L"A\\B") << name;
  }
}

BOOL WINAPI FailToRead(HANDLE, void*, DWORD, DWORD*, OVERLAPPED*) {
  ::SetLastError(ERROR_READ_FAULT);
  return FALSE;
}

TEST(LibraryConfigurationTest, IsNothingWhenItCannotBeReadToItsEnd) {
  const TemporaryFolder folder;
  const std::wstring path = folder.Write(std::wstring(L"CorvelConfig.ini"), "T\r\n[A]=1\r\n");
  // Of the C runtime, whichever this program has.
  simulator::ImportPatch msvcrt(::GetModuleHandleW(L"msvcrt.dll"));
  simulator::ImportPatch ucrt(::GetModuleHandleW(L"ucrtbase.dll"));
  const bool patchedMsvcrt =
      ::GetModuleHandleW(L"msvcrt.dll") != nullptr && msvcrt.ReplaceIfImported("ReadFile", &FailToRead);
  const bool patchedUcrt =
      ::GetModuleHandleW(L"ucrtbase.dll") != nullptr && ucrt.ReplaceIfImported("ReadFile", &FailToRead);
  ASSERT_TRUE(patchedMsvcrt || patchedUcrt);
  EXPECT_FALSE(LibraryConfiguration::Read(path).has_value());
}

}  // namespace

}  // namespace hosts
