#include "config/configparser.h"

#include <io.h>
#include <objbase.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include "common/text.h"
#include "simulator/import_patch.h"
#include "support/host_folder.h"
#include "support/scarce_memory.h"
#include "toolkit/toolkit.h"

using corvel::OwnFileHandle;
using corvel::UniqueHandle;
using corvel::Utf8FromWide;

namespace {

using namespace std::string_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Not;

auto IsRecord(const std::string& level, const std::string& function, const std::string& message) {
  return AllOf(Field(&LogRecord::level, level), Field(&LogRecord::function, function),
               Field(&LogRecord::message, message));
}

int g_entered = 0;
int g_left = 0;

HRESULT WINAPI CountEntering(void* reserved, DWORD kind) {
  ++g_entered;
  return ::CoInitializeEx(reserved, kind);
}

void WINAPI CountLeaving() {
  ++g_left;
  ::CoUninitialize();
}

/// Watches how the library uses COM.
class ComUse {
 public:
  ComUse() {
    g_entered = g_left = 0;
    m_Patch.Replace("CoInitializeEx", &CountEntering);
    m_Patch.Replace("CoUninitialize", &CountLeaving);
  }
  int Entered() const { return g_entered; }
  int Left() const { return g_left; }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

template <typename Body>
void OnAnotherThread(Body body) {
  std::thread(body).join();
}

class ConfigParserTest : public testing::Test {
 protected:
  CConfigParser& Config() { return *CConfigParser::GetInstance(); }
  bool Load(std::string_view bytes) {
    host.WriteConfig(bytes);
    return Config().LoadConfig(nullptr);
  }
  /// Loads a file with one line after the title.
  bool LoadLine(const std::string& line) { return Load("title\r\n" + line + "\r\n"); }
  std::wstring Folder() { return Config().GetFirmwareFolder(); }
  std::wstring IpcType() { return Config().GetIPCType(); }

  HostFolder host;
};

TEST_F(ConfigParserTest, AllSettingsOfAFileAreStored) {
  EXPECT_TRUE(
      Load("title\r\n"
           "[TraceLevel]=1\r\n"
           "[RegistryLocation]=HKLM\\SOFTWARE\\Some\r\n"
           "[ModemAndNVMFirmwareFolder]=C:\\images\r\n"
           "[IPCTYPE]=PCIE\r\n"
           "[REBOOTTYPE]=1\r\n"
           "[ERASEMODE]=3\r\n"));
  EXPECT_EQ(Config().GetTraceLevel(), 1);
  EXPECT_EQ(std::wstring(Config().GetRegistryLocation()), L"HKLM\\SOFTWARE\\Some");
  EXPECT_EQ(Folder(), L"C:\\images");
  EXPECT_EQ(IpcType(), L"PCIE");
  EXPECT_EQ(Config().GetRebootType(), 1);
  EXPECT_EQ(Config().GetEraseMode(), 3);
}

TEST_F(ConfigParserTest, ASettingOnTheFirstLineSetsNothing) {
  EXPECT_TRUE(Load("[REBOOTTYPE]=1\r\n"));
  EXPECT_EQ(Config().GetRebootType(), 0);
}

TEST_F(ConfigParserTest, ASpaceAfterTheEqualsSignIsRemoved) {
  LoadLine("[REBOOTTYPE]= 1");
  EXPECT_EQ(Config().GetRebootType(), 1);
}

TEST_F(ConfigParserTest, ASpaceBeforeTheEqualsSignMakesAnUnknownKey) {
  LoadLine("[REBOOTTYPE] = 1");
  EXPECT_EQ(Config().GetRebootType(), 0);
}

TEST_F(ConfigParserTest, AnUnknownKeyIsLoggedToo) {
  LoadLine("[Colour]=green");
  EXPECT_THAT(host.Log(), Contains(IsRecord("Trace", "CConfigParser::SetConfigVar",
                                            "\t get Config Var, [Colour] : green")));
}

TEST_F(ConfigParserTest, KeysAreCaseSensitive) {
  LoadLine("[reboottype]=1");
  EXPECT_EQ(Config().GetRebootType(), 0);
}

TEST_F(ConfigParserTest, ALineWithoutAnEqualsSignIsIgnoredAndNotLogged) {
  LoadLine("; a comment [REBOOTTYPE] 1\r\n\r\n");
  EXPECT_THAT(host.Said(), Not(Contains(testing::HasSubstr("get Config Var"))));
}

TEST_F(ConfigParserTest, LeadingSpacesOfAValueAreRemovedAndTrailingOnesKept) {
  LoadLine("[ModemAndNVMFirmwareFolder]=   C:\\two words  ");
  EXPECT_EQ(Folder(), L"C:\\two words  ");
}

TEST_F(ConfigParserTest, ALeadingTabOfAValueIsKept) {
  LoadLine("[ModemAndNVMFirmwareFolder]=\tC:\\x");
  EXPECT_EQ(Folder(), L"\tC:\\x");
}

TEST_F(ConfigParserTest, AValueOfSpacesOnlyIsEmpty) {
  LoadLine("[ModemAndNVMFirmwareFolder]=    ");
  EXPECT_EQ(Folder(), L"");
}

TEST_F(ConfigParserTest, FurtherEqualsSignsBelongToTheValue) {
  LoadLine("[ModemAndNVMFirmwareFolder]=a=b=c");
  EXPECT_EQ(Folder(), L"a=b=c");
}

TEST_F(ConfigParserTest, TheLaterOfTwoLinesWins) {
  LoadLine("[ERASEMODE]=1\r\n[ERASEMODE]=2");
  EXPECT_EQ(Config().GetEraseMode(), 2);
}

TEST_F(ConfigParserTest, ALoneCarriageReturnInsideALineStays) {
  LoadLine("[ModemAndNVMFirmwareFolder]=a\rb");
  EXPECT_EQ(Folder(), L"a\rb");
}

TEST_F(ConfigParserTest, OnlyOneLineEndCharacterIsRemoved) {
  Load("title\r\n[IPCTYPE]=PCIE\r\r\n");
  EXPECT_EQ(IpcType(), L"USB");
}

TEST_F(ConfigParserTest, ACarriageReturnThatEndsTheFileIsRemoved) {
  Load("title\r\n[IPCTYPE]=PCIE\r");
  EXPECT_EQ(IpcType(), L"PCIE");
}

TEST_F(ConfigParserTest, TheLastLineNeedsNoLineEnd) {
  Load("title\n[IPCTYPE]=PCIE");
  EXPECT_EQ(IpcType(), L"PCIE");
}

TEST_F(ConfigParserTest, AnEndOfTextCharacterEndsTheFile) {
  LoadLine("[ERASEMODE]=1\r\n\x1A\r\n[ERASEMODE]=2");
  EXPECT_EQ(Config().GetEraseMode(), 1);
}

TEST_F(ConfigParserTest, AZeroByteAtTheStartOfALineHarmsNothing) {
  EXPECT_TRUE(Load("title\r\n[ERASEMODE]=2\r\n\0\r\n\0[ERASEMODE]=1\r\n"s));
  EXPECT_EQ(Config().GetEraseMode(), 2);
}

TEST_F(ConfigParserTest, EachByteIsOneCharacterWhateverTheCodePage) {
  LoadLine("[ModemAndNVMFirmwareFolder]=\xE9\xC3\xA9");
  EXPECT_EQ(Folder(), L"\u00E9\u00C3\u00A9");
}

TEST_F(ConfigParserTest, AByteOrderMarkIsNotRecognised) {
  Load("\xEF\xBB\xBF[ERASEMODE]=1\r\n\xEF\xBB\xBF[ERASEMODE]=2\r\n");
  EXPECT_EQ(Config().GetEraseMode(), 0);
}

TEST_F(ConfigParserTest, AnEmptyFileLoadsWithDefaults) {
  EXPECT_TRUE(Load(""));
  EXPECT_TRUE(Config().IsLoaded());
  EXPECT_EQ(Config().GetTraceLevel(), 0);
  EXPECT_EQ(std::wstring(Config().GetRegistryLocation()), L"");
  EXPECT_EQ(IpcType(), L"USB");
}

TEST_F(ConfigParserTest, AFileWithOnlyTheFirstLineLoads) {
  EXPECT_TRUE(Load("title"));
  EXPECT_TRUE(Config().IsLoaded());
}

TEST_F(ConfigParserTest, ATextOf511CharactersIsKeptWhole) {
  LoadLine("[ModemAndNVMFirmwareFolder]=" + std::string(511, 'x'));
  EXPECT_EQ(Folder(), std::wstring(511, L'x'));
}

TEST_F(ConfigParserTest, ALongerTextIsCutTo511Characters) {
  LoadLine("[ModemAndNVMFirmwareFolder]=" + std::string(100'000, 'x') + "\r\n[ERASEMODE]=2");
  EXPECT_EQ(Folder(), std::wstring(511, L'x'));
  EXPECT_EQ(Config().GetEraseMode(), 2);
}

TEST_F(ConfigParserTest, AKeyThatIsTooLongIsUnknown) {
  EXPECT_TRUE(LoadLine("[ERASEMODE]" + std::string(1000, ' ') + "=2"));
  EXPECT_EQ(Config().GetEraseMode(), 0);
}

TEST_F(ConfigParserTest, AnEraseModeBeyondTheKnownOnesIsStored) {
  LoadLine("[ERASEMODE]=7");
  EXPECT_EQ(Config().GetEraseMode(), 7);
}

struct NumberCase {
  const char* text;
  int number;
};

class ConfigNumberTest : public ConfigParserTest, public testing::WithParamInterface<NumberCase> {};

TEST_P(ConfigNumberTest, IsReadFromTheStartOfTheValue) {
  LoadLine(std::string("[TraceLevel]=") + GetParam().text);
  EXPECT_EQ(Config().GetTraceLevel(), GetParam().number);
}

INSTANTIATE_TEST_SUITE_P(Values, ConfigNumberTest,
                         testing::Values(NumberCase{"0", 0}, NumberCase{"abc", 0}, NumberCase{"2", 2},
                                         NumberCase{"", 0}, NumberCase{"12abc", 12}, NumberCase{"\t 5", 5},
                                         NumberCase{"-3", -3}, NumberCase{"+4", 4}, NumberCase{"- 4", 0},
                                         NumberCase{"0x10", 0},
                                         NumberCase{"\xA0"
                                                    "1",
                                                    0},
                                         NumberCase{"99999999999", 2147483647}));

class IpcTypeTest : public ConfigParserTest, public testing::WithParamInterface<const char*> {};

TEST_P(IpcTypeTest, CountsAsUsb) {
  LoadLine(std::string("[IPCTYPE]=") + GetParam());
  EXPECT_EQ(IpcType(), L"USB");
}

INSTANTIATE_TEST_SUITE_P(OtherThanPcie, IpcTypeTest, testing::Values("pcie", "PCIE ", "PCI", "PCIEX", "USB"));

TEST_F(ConfigParserTest, TheIpcTypeIsLoggedAsStoredAndAsUsed) {
  LoadLine("[IPCTYPE]=pcie");
  IpcType();
  EXPECT_THAT(host.Log(), Contains(IsRecord("Trace", "CConfigParser::GetIPCType", "++ IPCType: pcie")));
  EXPECT_THAT(host.Log(), Contains(IsRecord("Trace", "CConfigParser::GetIPCType", "++ use IPCType: USB")));
}

TEST_F(ConfigParserTest, AnIpcTypeOfTheHostReplacesTheConfiguredOne) {
  LoadLine("[IPCTYPE]=USB");
  Config().SetIPCType("PCIE");
  EXPECT_EQ(IpcType(), L"PCIE");
}

TEST_F(ConfigParserTest, AnIpcTypeThatIsTooLongIsCutTo511Characters) {
  Config().SetIPCType(std::string(600, 'x').c_str());
  IpcType();
  EXPECT_THAT(host.Said(), Contains("++ IPCType: " + std::string(511, 'x')));
}

TEST_F(ConfigParserTest, NoIpcTypeAtAllCountsAsAnEmptyOne) {
  Config().SetIPCType(nullptr);
  EXPECT_EQ(IpcType(), L"USB");
}

TEST_F(ConfigParserTest, LoadingIsLoggedWithTheVersion) {
  Load("");
  EXPECT_THAT(host.Log(),
              ElementsAre(IsRecord("Trace", "CConfigParser::LoadConfig", "Start LoadConfig ++"),
                          IsRecord("Trace", "CConfigParser::LoadConfig", "VERSION: " CORVEL_VERSION)));
}

TEST_F(ConfigParserTest, ASecondLoadDoesNotReadTheFileAgainEvenIfItChanged) {
  LoadLine("[ERASEMODE]=1");
  EXPECT_TRUE(LoadLine("[ERASEMODE]=2"));
  EXPECT_EQ(Config().GetEraseMode(), 1);
}

TEST_F(ConfigParserTest, AFailedLoadIsTriedAgain) {
  EXPECT_FALSE(Config().LoadConfig(nullptr));
  EXPECT_FALSE(Config().IsLoaded());
  EXPECT_TRUE(LoadLine("[ERASEMODE]=2"));
  EXPECT_EQ(Config().GetEraseMode(), 2);
}

TEST_F(ConfigParserTest, TheGivenPathIsNotUsed) {
  const TemporaryFolder elsewhere;
  const std::wstring other = elsewhere.Write(L"CorvelConfig.ini", "title\n[ERASEMODE]=1\n");
  host.WriteConfig("title\n[ERASEMODE]=2\n");
  EXPECT_TRUE(Config().LoadConfig(other.c_str()));
  EXPECT_EQ(Config().GetEraseMode(), 2);
}

TEST_F(ConfigParserTest, AMissingFileIsAnError) {
  EXPECT_FALSE(Config().LoadConfig(nullptr));
  EXPECT_THAT(host.Log(), Contains(IsRecord("Error", "CConfigParser::LoadConfig",
                                            "\t" + Utf8FromWide(host.ConfigPath()) + " not exist, exit")));
}

TEST_F(ConfigParserTest, WithoutAnInstallationFolderThePathIsEmptyAndTheLoadFails) {
  host.Hide();
  TestLog log;
  EXPECT_FALSE(Config().LoadConfig(nullptr));
  EXPECT_EQ(log.LevelOf("\t not exist, exit"), "Error");
}

TEST_F(ConfigParserTest, AFileThatSomebodyReadsWithAllSharingCannotBeLoaded) {
  host.WriteConfig("title\n[ERASEMODE]=2\n");
  const UniqueHandle reader = OwnFileHandle(::CreateFileW(
      host.ConfigPath().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
      nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(Config().LoadConfig(nullptr));
  EXPECT_FALSE(Config().IsLoaded());
  const std::string path = Utf8FromWide(host.ConfigPath());
  EXPECT_THAT(host.Log(), Contains(IsRecord("Trace", "CConfigParser::LoadConfig",
                                            "CConfigParser::LoadConfig: file: " + path + " not exist!!!\n")));
  EXPECT_THAT(host.Log(),
              Contains(IsRecord("Trace", "CConfigParser::LoadConfig", "CConfigParser::LoadConfig --\n")));
}

bool g_diskIsGone = false;

/// Reads what the runtime fetches at first, four thousand bytes, and then fails as a disk does.
std::size_t __cdecl ReadOnce(void* block, std::size_t size, std::size_t count, std::FILE* file) {
  const std::size_t read = std::fread(block, size, count, file);
  if (!std::exchange(g_diskIsGone, true)) ::_close(::_fileno(file));
  return read;
}

/// A file whose reading fails in the middle of a line.
class UnreadableConfigTest : public ConfigParserTest {
 protected:
  UnreadableConfigTest() {
    host.WriteConfig(
        "title\n[TraceLevel]=1\n[ERASEMODE]=2\n[IPCTYPE]=PCIE\n[RegistryLocation]=HKCU\\Some\n"
        "[ModemAndNVMFirmwareFolder]=C:\\images\n[Cut]=" +
        std::string(10'000, 'x') + "\n[REBOOTTYPE]=1\n");
    g_diskIsGone = false;
    m_Patch.Replace("fread", &ReadOnce);
  }
  void BecomeReadable() { m_Patch.Restore(); }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

TEST_F(UnreadableConfigTest, IsNotLoadedAndLeavesNoneOfItsSettings) {
  EXPECT_FALSE(Config().LoadConfig(nullptr));
  EXPECT_FALSE(Config().IsLoaded());
  EXPECT_EQ(Config().GetTraceLevel(), 0);
  EXPECT_EQ(Config().GetEraseMode(), 0);
  EXPECT_EQ(Config().GetRebootType(), 0);
  EXPECT_EQ(std::wstring(Config().GetRegistryLocation()), L"");
  EXPECT_EQ(Folder(), L"");
  EXPECT_EQ(IpcType(), L"USB");
}

TEST_F(UnreadableConfigTest, IsLoggedAsAnErrorBehindTheWholeLinesThatWereRead) {
  Config().LoadConfig(nullptr);
  EXPECT_THAT(
      host.Said(),
      ElementsAre("Start LoadConfig ++", "VERSION: " CORVEL_VERSION, "\t get Config Var, [TraceLevel] : 1",
                  "\t get Config Var, [ERASEMODE] : 2", "\t get Config Var, [IPCTYPE] : PCIE",
                  "\t get Config Var, [RegistryLocation] : HKCU\\Some",
                  "\t get Config Var, [ModemAndNVMFirmwareFolder] : C:\\images",
                  "E:\t" + Utf8FromWide(host.ConfigPath()) +
                      " could not be read to its end, none of its settings is used"));
}

TEST_F(UnreadableConfigTest, IsReadAnewByTheNextLoad) {
  Config().LoadConfig(nullptr);
  BecomeReadable();
  EXPECT_TRUE(Config().LoadConfig(nullptr));
  EXPECT_EQ(Config().GetRebootType(), 1);
}

TEST_F(ConfigParserTest, WithoutMemoryNothingIsLoadedAndNothingIsKept) {
  host.WriteConfig("title\n[ERASEMODE]=2\n[ModemAndNVMFirmwareFolder]=C:\\images\n");
  ScarceMemory memory;
  memory.FailEachOf([&] {
    ToolKit::TurnLoggingOff();
    const bool loaded = ToolKit::LoadConfig(nullptr);
    EXPECT_TRUE(loaded || memory.HasFailed());
    EXPECT_EQ(ToolKit::IsConfigLoaded(), loaded);
    EXPECT_EQ(CConfigParser::ConfiguredEraseMode(), loaded ? 2 : 0);
    ToolKit::CloseConfig();
  });
}

// Half an instance would know neither keys nor file the next time.
TEST_F(ConfigParserTest, WithoutMemoryNoHalfInstanceIsKept) {
  host.WriteConfig("title\n[ERASEMODE]=2\n");
  ScarceMemory memory;
  memory.FailEachOf([&] {
    ToolKit::IsConfigLoaded();
    memory.Suffice();
    EXPECT_TRUE(ToolKit::LoadConfig(nullptr));
    EXPECT_EQ(CConfigParser::ConfiguredEraseMode(), 2);
    ToolKit::CloseConfig();
  });
}

TEST_F(ConfigParserTest, TheFileIsClosedAfterLoading) {
  LoadLine("[ERASEMODE]=1");
  EXPECT_TRUE(::DeleteFileW(host.ConfigPath().c_str()));
}

TEST(AccentedHostFolderTest, HoldsConfigurationAndLog) {
  HostFolder host(L"-\u00E9t\u00E9");
  host.WriteConfig("title\n[ERASEMODE]=2\n");
  EXPECT_TRUE(CConfigParser::GetInstance()->LoadConfig(nullptr));
  EXPECT_EQ(CConfigParser::GetInstance()->GetEraseMode(), 2);
  EXPECT_THAT(host.Said(), Contains("Start LoadConfig ++"));
}

DWORD WINAPI NoShortPath(const wchar_t* path, wchar_t* buffer, DWORD size) {
  // A volume without short names gives the path itself.
  const std::wstring same(path);
  if (size <= same.size()) return static_cast<DWORD>(same.size() + 1);
  buffer[same.copy(buffer, size - 1)] = L'\0';
  return static_cast<DWORD>(same.size());
}

DWORD WINAPI CannotShorten(const wchar_t*, wchar_t*, DWORD) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return 0;
}

/// A host in a folder whose name the ANSI code page lacks.
class ForeignHostFolderTest : public testing::Test {
 protected:
  ForeignHostFolderTest() { host.WriteConfig("title\n[ERASEMODE]=2\n"); }
  bool Load() { return CConfigParser::GetInstance()->LoadConfig(nullptr); }

  HostFolder host{L"-\u4E2D\u6587"};
  simulator::ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

TEST_F(ForeignHostFolderTest, HoldsItsConfiguration) {
  EXPECT_TRUE(Load());
  EXPECT_EQ(CConfigParser::GetInstance()->GetEraseMode(), 2);
}

TEST_F(ForeignHostFolderTest, HoldsItsLogUnderTheVolumesShortPath) {
  Load();
  EXPECT_THAT(host.Said(), Contains("Start LoadConfig ++"));
}

TEST_F(ForeignHostFolderTest, OnAVolumeWithoutShortNamesHasNoLogAndIsLoaded) {
  patch.Replace("GetShortPathNameW", &NoShortPath);
  EXPECT_TRUE(Load());
  EXPECT_FALSE(host.HasLog());
}

// A name without its folder would lie in the current one.
TEST_F(ForeignHostFolderTest, WhoseShortPathCannotBeHadHasNoLogAnywhere) {
  const TemporaryFolder current;
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(current.Path());
  patch.Replace("GetShortPathNameW", &CannotShorten);
  EXPECT_TRUE(Load());
  EXPECT_FALSE(host.HasLog());
  EXPECT_FALSE(current.Holds(L"FlashServiceDebugLogger_DLL.log"));
  std::filesystem::current_path(before);
}

TEST_F(ConfigParserTest, ThereIsOneInstance) {
  EXPECT_EQ(CConfigParser::GetInstance(), CConfigParser::GetInstance());
}

TEST_F(ConfigParserTest, TheCommandLineInstanceHasNoKeysAndNoFile) {
  TestLog log;
  host.WriteConfig("title\n[ERASEMODE]=2\n");
  CConfigParser* const config = CConfigParser::GetInstance_CmdLine();
  ASSERT_NE(config, nullptr);
  EXPECT_FALSE(config->LoadConfig(nullptr));
  config->SetConfigVar(L"[ERASEMODE]", L"2");
  EXPECT_EQ(config->GetEraseMode(), 0);
  EXPECT_EQ(log.LevelOf("\t not exist, exit"), "Error");
  EXPECT_THAT(host.Log(), IsEmpty());
}

class ConfigInstanceTest : public testing::Test {
 protected:
  HostFolder host;
  ComUse com;
};

TEST_F(ConfigInstanceTest, ReadersGiveDefaultsAndMakeNoInstance) {
  EXPECT_EQ(CConfigParser::ConfiguredTraceLevel(), 0);
  EXPECT_EQ(CConfigParser::ConfiguredRebootType(), 0);
  EXPECT_EQ(CConfigParser::ConfiguredEraseMode(), 0);
  EXPECT_EQ(std::wstring(CConfigParser::ConfiguredRegistryLocation()), L"");
  EXPECT_EQ(std::wstring(CConfigParser::ConfiguredFirmwareFolder()), L"");
  EXPECT_EQ(std::wstring(CConfigParser::ConfiguredIPCType()), L"USB");
  EXPECT_EQ(com.Entered(), 0);
}

TEST_F(ConfigInstanceTest, ReadersGiveWhatTheInstanceHolds) {
  CConfigParser* const config = CConfigParser::GetInstance();
  config->SetConfigVar(L"[TraceLevel]", L"1");
  config->SetConfigVar(L"[RegistryLocation]", L"HKCU\\Some");
  config->SetConfigVar(L"[ModemAndNVMFirmwareFolder]", L"C:\\images");
  config->SetConfigVar(L"[IPCTYPE]", L"PCIE");
  config->SetConfigVar(L"[REBOOTTYPE]", L"2");
  config->SetConfigVar(L"[ERASEMODE]", L"3");
  EXPECT_EQ(CConfigParser::ConfiguredTraceLevel(), 1);
  EXPECT_EQ(std::wstring(CConfigParser::ConfiguredRegistryLocation()), L"HKCU\\Some");
  EXPECT_EQ(std::wstring(CConfigParser::ConfiguredFirmwareFolder()), L"C:\\images");
  EXPECT_EQ(std::wstring(CConfigParser::ConfiguredIPCType()), L"PCIE");
  EXPECT_EQ(CConfigParser::ConfiguredRebootType(), 2);
  EXPECT_EQ(CConfigParser::ConfiguredEraseMode(), 3);
}

TEST_F(ConfigInstanceTest, AThreadOfAnotherApartmentGetsNone) {
  TestLog log;
  CConfigParser* made = nullptr;
  OnAnotherThread([&] {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    made = CConfigParser::GetInstance();
    ::CoUninitialize();
  });
  EXPECT_EQ(made, nullptr);
  EXPECT_THAT(log.Records(), ElementsAre(IsRecord("Error", "CConfigParser::GetInstance",
                                                  "COM initialization failed with: 80010106")));
  EXPECT_EQ(com.Left(), 0);
}

TEST_F(ConfigInstanceTest, AThreadOfAnotherApartmentGetsNoCommandLineInstance) {
  TestLog log;
  CConfigParser* made = nullptr;
  OnAnotherThread([&] {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    made = CConfigParser::GetInstance_CmdLine();
    ::CoUninitialize();
  });
  EXPECT_EQ(made, nullptr);
  EXPECT_THAT(log.Records(), ElementsAre(IsRecord("Error", "CConfigParser::GetInstance_CmdLine",
                                                  "COM initialization failed with: 80010106")));
}

TEST_F(ConfigInstanceTest, AThreadAlreadyInTheMultithreadedApartmentIsWelcome) {
  CConfigParser* made = nullptr;
  OnAnotherThread([&] {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    made = CConfigParser::GetInstance();
    CConfigParser::ReleaseInstance();
    ::CoUninitialize();
  });
  EXPECT_NE(made, nullptr);
  EXPECT_EQ(com.Left(), 1);
}

TEST_F(ConfigInstanceTest, ReleasingNoInstanceLeavesTheComOfTheHostAlone) {
  CConfigParser::ReleaseInstance();
  EXPECT_EQ(com.Left(), 0);
}

TEST_F(ConfigInstanceTest, ReleasingTwiceLeavesComOnce) {
  CConfigParser::GetInstance();
  CConfigParser::ReleaseInstance();
  CConfigParser::ReleaseInstance();
  EXPECT_EQ(com.Left(), 1);
}

TEST_F(ConfigInstanceTest, ReleasingOnAnotherThreadDoesNotLeaveItsCom) {
  CConfigParser::GetInstance();
  OnAnotherThread([] { CConfigParser::ReleaseInstance(); });
  EXPECT_EQ(com.Left(), 0);
  ::CoUninitialize();
}

TEST_F(ConfigInstanceTest, ReleasingAtProcessExitDoesNothingWithCom) {
  CConfigParser::GetInstance();
  CConfigParser::ReleaseAtProcessExit();
  EXPECT_EQ(com.Left(), 0);
  ::CoUninitialize();
}

TEST_F(ConfigInstanceTest, AnInstanceMadeAfterAReleaseIsNotLoaded) {
  host.WriteConfig("title\n[ERASEMODE]=2\n");
  ToolKit::LoadConfig(nullptr);
  ToolKit::CloseConfig();
  EXPECT_FALSE(ToolKit::IsConfigLoaded());
  EXPECT_EQ(CConfigParser::ConfiguredEraseMode(), 0);
}

TEST_F(ConfigInstanceTest, LoadingThroughTheToolkitTurnsLoggingOnAgain) {
  host.WriteConfig("title\n[ERASEMODE]=2\n");
  ToolKit::TurnLoggingOff();
  EXPECT_TRUE(ToolKit::LoadConfig(nullptr));
  EXPECT_TRUE(ToolKit::IsConfigLoaded());
  EXPECT_EQ(CDebugLogger::GetLevel(), 3);
}

}  // namespace
