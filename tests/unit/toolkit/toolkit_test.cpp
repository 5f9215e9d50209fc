#include "toolkit/toolkit.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <new>
#include <string>

#include "common/debuglogger.h"
#include "common/programfolder.h"
#include "simulator/import_patch.h"
#include "support/scarce_memory.h"
#include "support/temporary_folder.h"
#include "support/test_log.h"

using corvel::ProgramFolder;

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

/// Gives the tests what is meant for derived classes.
struct Exposed : ToolKit {
  using ToolKit::GetDataDir;
};

std::wstring Wide(CTString text) {
  return text;
}

class PatchedTest : public testing::Test {
 protected:
  simulator::ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

// Folder of the host

std::wstring g_hostPath;

DWORD WINAPI StandInHostPath(HMODULE, LPWSTR buffer, DWORD size) {
  const std::size_t copied = g_hostPath.copy(buffer, size - 1);
  buffer[copied] = L'\0';
  if (copied == g_hostPath.size()) return static_cast<DWORD>(copied);
  ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return size;
}

DWORD WINAPI NoHostPath(HMODULE, LPWSTR, DWORD) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return 0;
}

class InstallationDirTest : public PatchedTest {
 protected:
  void HostIs(const std::wstring& path) {
    g_hostPath = path;
    patch.Replace("GetModuleFileNameW", &StandInHostPath);
  }
};

TEST_F(InstallationDirTest, IsTheFolderOfTheExecutableWithItsSeparator) {
  std::array<wchar_t, MAX_PATH> path{};
  ::GetModuleFileNameW(nullptr, path.data(), MAX_PATH);
  EXPECT_EQ(Wide(ToolKit::GetInstallationDir()),
            std::filesystem::path(path.data()).parent_path().wstring() + L"\\");
}

TEST_F(InstallationDirTest, KeepsLettersOutsideOfAscii) {
  HostIs(L"C:\\caf\u00E9 \u4E2D\\host.exe");
  EXPECT_EQ(Wide(ToolKit::GetInstallationDir()), L"C:\\caf\u00E9 \u4E2D\\");
}

TEST_F(InstallationDirTest, TakesTheLongestPathThatFits) {
  const std::wstring folder = L"C:\\" + std::wstring(252, L'f') + L"\\";
  HostIs(folder + L"h.e");
  EXPECT_EQ(Wide(ToolKit::GetInstallationDir()), folder);
}

TEST_F(InstallationDirTest, OfAPathThatIsCutIsEmptyAndLogged) {
  const TestLog log;
  HostIs(L"C:\\" + std::wstring(300, L'f') + L"\\host.exe");
  EXPECT_TRUE(ToolKit::GetInstallationDir().IsEmpty());
  EXPECT_THAT(log.Said(), ElementsAre("E:\t GetModuleFileName() failed with: 0x0000007a"));
}

TEST_F(InstallationDirTest, IsEmptyAndLoggedAsAnErrorWhenThePathCannotBeHad) {
  const TestLog log;
  patch.Replace("GetModuleFileNameW", &NoHostPath);
  EXPECT_TRUE(ToolKit::GetInstallationDir().IsEmpty());
  const std::vector<LogRecord> records = log.Records();
  EXPECT_THAT(MarkedMessagesOf(records), ElementsAre("E:\t GetModuleFileName() failed with: 0x00000005"));
  EXPECT_EQ(records.at(0).file, "toolkit.cpp");
  EXPECT_EQ(records.at(0).function, "ToolKit::GetInstallationDir");
}

TEST(EraseModeTest, IsTheOneThatAHostHasSet) {
  ToolKit::m_EraseMode = 2;
  EXPECT_EQ(ToolKit::GetEraseMode(), 2);
  ToolKit::m_EraseMode = 0;
}

TEST(DataFolders, AreAllTheInstallationFolderThoughOnlyOneReturnsTrue) {
  const std::wstring expected = Wide(ToolKit::GetInstallationDir());
  CTString data;
  CTString localAppData;
  CTString programData;
  CTString localToolkit;
  EXPECT_FALSE(Exposed::GetDataDir(data, true));
  EXPECT_FALSE(ToolKit::GetLocalAppDataDir(localAppData));
  EXPECT_FALSE(ToolKit::GetProgramDataDir(programData));
  EXPECT_TRUE(ToolKit::GetLocalDataToolkitDir(localToolkit));
  EXPECT_EQ(Wide(data), expected);
  EXPECT_EQ(Wide(localAppData), expected);
  EXPECT_EQ(Wide(programData), expected);
  EXPECT_EQ(Wide(localToolkit), expected);
}

TEST(DataFolders, AreTheSameWhateverTheUnusedFlagSays) {
  CTString folder;
  EXPECT_FALSE(Exposed::GetDataDir(folder, false));
  EXPECT_EQ(Wide(folder), Wide(ToolKit::GetInstallationDir()));
}

// Without memory

class NoMemoryTest : public testing::Test {
 protected:
  NoMemoryTest() { ToolKit::TurnLoggingOff(); }
  ~NoMemoryTest() override {
    ToolKit::TurnLoggingOn();
    ToolKit::m_ModemFlsFile.Empty();
    ToolKit::m_NVMFlsFile.Empty();
  }

  ScarceMemory memory;
};

TEST_F(NoMemoryTest, TheInstallationFolderIsEmpty) {
  const std::wstring folder = Wide(ToolKit::GetInstallationDir());
  memory.FailEachOf([&] {
    const CTString found = ToolKit::GetInstallationDir();
    EXPECT_TRUE(found == (memory.HasFailed() ? L"" : folder.c_str()));
  });
}

// An empty one would pass for a path that the system does not tell, and the next file for one in the current
// folder.
TEST_F(NoMemoryTest, TheLibraryItselfDoesNotTakeTheInstallationFolderForAnEmptyOne) {
  memory.Fail(1);
  EXPECT_THROW(ProgramFolder(), std::bad_alloc);
}

TEST_F(NoMemoryTest, TheDataFoldersAreEmptyAndNoneIsASuccess) {
  for (const auto get :
       {&ToolKit::GetLocalAppDataDir, &ToolKit::GetProgramDataDir, &ToolKit::GetLocalDataToolkitDir}) {
    CTString folder(L"of an earlier call");
    memory.FailEachOf([&] {
      const bool succeeded = get(folder);
      EXPECT_EQ(folder.IsEmpty(), memory.HasFailed());
      EXPECT_FALSE(succeeded && memory.HasFailed());
    });
  }
}

TEST_F(NoMemoryTest, TheDataFolderForDerivedClassesIsEmptyToo) {
  CTString folder(L"of an earlier call");
  memory.FailEachOf([&] {
    EXPECT_FALSE(Exposed::GetDataDir(folder, true));
    EXPECT_EQ(folder.IsEmpty(), memory.HasFailed());
  });
}

TEST_F(NoMemoryTest, MakingFoldersFails) {
  const TemporaryFolder folder;
  const std::string path = folder.File("a-name-that-needs-memory\\another-name-that-needs-memory");
  memory.FailEachOf([&] {
    const bool made = ToolKit::MakeDirectory(path.c_str());
    EXPECT_EQ(made, !memory.HasFailed());
  });
}

TEST_F(NoMemoryTest, TheNextTokenIsTheEnd) {
  memory.FailEachOf([&] {
    int position = 0;
    const std::string token = ToolKit::Tokenize("a-token-that-needs-memory,b", ",", position);
    EXPECT_EQ(token.empty(), memory.HasFailed());
    EXPECT_EQ(position, memory.HasFailed() ? -1 : 26);
  });
}

TEST_F(NoMemoryTest, AFileIsOfNoType) {
  const CTString path(L"a.type-that-needs-memory");
  const CTString extension(L".typ");
  // The first one is the argument's own.
  memory.FailEachOf([&] { EXPECT_FALSE(ToolKit::IsFileOfType(path, extension)); }, 2);
}

TEST_F(NoMemoryTest, ThePathsOfTheImagesAreEmpty) {
  ToolKit::m_ModemFlsFile = L"C:\\images\\modem.fls";
  ToolKit::m_NVMFlsFile = L"C:\\images\\nvm.fls";
  for (const auto get : {&ToolKit::GetModemFlsFile, &ToolKit::GetNVMFlsFile}) {
    memory.FailEachOf([&] {
      const bool empty = get().IsEmpty();
      EXPECT_EQ(empty, memory.HasFailed());
    });
  }
}

TEST_F(NoMemoryTest, NamingTheLogIsNoException) {
  const TemporaryFolder folder;
  const std::string path = folder.File("a-log-that-needs-memory.log");
  ToolKit* const toolKit = ToolKit::GetInstance();
  ASSERT_NE(toolKit, nullptr);
  memory.FailEachOf([&] { toolKit->SetDebugLoggerFileName(path.c_str()); });
  CDebugLogger::GetInstance()->SetFileName("");
}

// MakeDirectory

class MakeDirectoryTest : public testing::Test {
 protected:
  MakeDirectoryTest() { std::filesystem::current_path(folder.Path()); }
  ~MakeDirectoryTest() override { std::filesystem::current_path(before); }

  std::filesystem::path before = std::filesystem::current_path();
  TemporaryFolder folder;
};

TEST_F(MakeDirectoryTest, MakesEveryMissingFolder) {
  EXPECT_TRUE(ToolKit::MakeDirectory(folder.File("a\\b\\c").c_str()));
  EXPECT_TRUE(folder.Holds("a/b/c"));
}

TEST_F(MakeDirectoryTest, IsContentWithFoldersThatExist) {
  ASSERT_TRUE(ToolKit::MakeDirectory(folder.File("a\\b").c_str()));
  EXPECT_TRUE(ToolKit::MakeDirectory(folder.File("a\\b").c_str()));
}

TEST_F(MakeDirectoryTest, TakesSeveralSeparatorsForOneAndOneAtTheEndForNone) {
  EXPECT_TRUE(ToolKit::MakeDirectory(folder.File("a\\\\b\\\\\\c\\").c_str()));
  EXPECT_TRUE(folder.Holds("a/b/c"));
}

TEST_F(MakeDirectoryTest, TakesAPathFromTheCurrentFolder) {
  EXPECT_TRUE(ToolKit::MakeDirectory("a\\b"));
  EXPECT_TRUE(folder.Holds("a/b"));
}

TEST_F(MakeDirectoryTest, SkipsOneLeadingSeparatorSoThatThePathIsRelative) {
  EXPECT_TRUE(ToolKit::MakeDirectory("\\a\\b"));
  EXPECT_TRUE(folder.Holds("a/b"));
}

TEST_F(MakeDirectoryTest, MakesNothingOfAPathWithTwoLeadingSeparators) {
  EXPECT_TRUE(ToolKit::MakeDirectory("\\\\server\\share"));
  EXPECT_FALSE(folder.Holds("server"));
}

TEST_F(MakeDirectoryTest, MakesNothingOfAnEmptyPath) {
  EXPECT_TRUE(ToolKit::MakeDirectory(""));
  EXPECT_TRUE(ToolKit::MakeDirectory(nullptr));
}

TEST_F(MakeDirectoryTest, DoesNotSplitAtASlash) {
  EXPECT_FALSE(ToolKit::MakeDirectory("a/b"));
  EXPECT_FALSE(folder.Holds("a"));
}

TEST_F(MakeDirectoryTest, IsContentWithAFileInThePlaceOfTheLastFolder) {
  EXPECT_TRUE(ToolKit::MakeDirectory(folder.Write("file", "x").c_str()));
}

TEST_F(MakeDirectoryTest, StopsAtTheFirstFolderThatCannotBeMadeAndKeepsThoseBefore) {
  const TestLog log;
  EXPECT_FALSE(ToolKit::MakeDirectory(folder.File("a\\b?c\\d").c_str()));
  EXPECT_TRUE(folder.Holds("a"));
  EXPECT_THAT(log.Said(), ElementsAre(StartsWith("E:CreateDirectory(" + folder.File("a\\b?c") +
                                                 ") failed: Error code 123: ")));
  EXPECT_EQ(log.Records().at(0).file, "toolkit.cpp");
}

TEST_F(MakeDirectoryTest, FailsOnAFileInThePlaceOfAnEarlierFolder) {
  folder.Write("file", "x");
  EXPECT_FALSE(ToolKit::MakeDirectory(folder.File("file\\a").c_str()));
}

TEST_F(MakeDirectoryTest, FailsOnAMissingDrive) {
  EXPECT_FALSE(ToolKit::MakeDirectory("Q:\\a"));
}

// GetWin32ErrorStr

DWORD g_flags = 0;
std::string g_message;
int g_released = 0;

DWORD WINAPI StandInMessage(DWORD flags, LPCVOID, DWORD, DWORD, LPSTR buffer, DWORD, va_list*) {
  g_flags = flags;
  auto* const text = static_cast<char*>(::LocalAlloc(LMEM_ZEROINIT, g_message.size() + 1));
  g_message.copy(text, g_message.size());
  *reinterpret_cast<char**>(buffer) = text;
  return static_cast<DWORD>(g_message.size());
}

HLOCAL WINAPI CountRelease(HLOCAL memory) {
  ++g_released;
  return ::LocalFree(memory);
}

class Win32ErrorTextTest : public PatchedTest {
 protected:
  void TheSystemSays(const std::string& message) {
    g_message = message;
    g_released = 0;
    patch.Replace("FormatMessageA", &StandInMessage);
    patch.Replace("LocalFree", &CountRelease);
  }
};

TEST_F(Win32ErrorTextTest, HoldsTheNumberAndTheSystemsMessageWithItsLineEnd) {
  const std::string text = ToolKit::GetWin32ErrorStr(ERROR_FILE_NOT_FOUND);
  EXPECT_THAT(text, StartsWith("Error code 2: "));
  EXPECT_THAT(text, EndsWith("\r\n"));
  EXPECT_GT(text.size(), std::string("Error code 2: \r\n").size());
}

TEST_F(Win32ErrorTextTest, OfAnUnknownCodeHasNoMessage) {
  EXPECT_STREQ(ToolKit::GetWin32ErrorStr(0x1FFFFFFF), "Error code 536870911: ");
}

TEST_F(Win32ErrorTextTest, PrintsTheNumberAsSigned) {
  EXPECT_THAT(ToolKit::GetWin32ErrorStr(0xFFFFFFFF), StartsWith("Error code -1: "));
}

TEST_F(Win32ErrorTextTest, IsCutToItsBufferAndTerminated) {
  TheSystemSays(std::string(300, 'm'));
  const std::string text = ToolKit::GetWin32ErrorStr(5);
  EXPECT_EQ(text.size(), 127u);
  EXPECT_THAT(text, StartsWith("Error code 5: mmm"));
}

TEST_F(Win32ErrorTextTest, AsksTheSystemNotToLookForInserts) {
  TheSystemSays("%1 is not a valid application\r\n");
  EXPECT_STREQ(ToolKit::GetWin32ErrorStr(193), "Error code 193: %1 is not a valid application\r\n");
  EXPECT_EQ(g_flags, static_cast<DWORD>(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                        FORMAT_MESSAGE_IGNORE_INSERTS));
}

TEST_F(Win32ErrorTextTest, ReleasesTheSystemsBuffer) {
  TheSystemSays("message");
  ToolKit::GetWin32ErrorStr(5);
  EXPECT_EQ(g_released, 1);
}

TEST_F(Win32ErrorTextTest, OverwritesTheTextBefore) {
  const char* const first = ToolKit::GetWin32ErrorStr(2);
  const char* const second = ToolKit::GetWin32ErrorStr(5);
  EXPECT_EQ(first, second);
  EXPECT_THAT(first, StartsWith("Error code 5: "));
}

TEST_F(Win32ErrorTextTest, LeavesTheLastErrorAlone) {
  ::SetLastError(1234);
  ToolKit::GetWin32ErrorStr(0x1FFFFFFF);
  EXPECT_EQ(::GetLastError(), 1234u);
}

// Tokenize

class TokenizeTest : public testing::Test {
 protected:
  std::string Next(const char* text, const char* delimiters = ",;") {
    return ToolKit::Tokenize(text, delimiters, position);
  }

  int position = 0;
};

TEST_F(TokenizeTest, OfTwoLettersWithTwoDelimitersBetweenGivesBothAndThenTheEnd) {
  EXPECT_EQ(Next("a,;b"), "a");
  EXPECT_EQ(position, 3);
  EXPECT_EQ(Next("a,;b"), "b");
  EXPECT_EQ(position, 4);
  EXPECT_EQ(Next("a,;b"), "");
  EXPECT_EQ(position, -1);
}

TEST_F(TokenizeTest, LeavesANegativePositionAsItIs) {
  position = -7;
  EXPECT_EQ(Next("a,b"), "");
  EXPECT_EQ(position, -7);
}

TEST_F(TokenizeTest, SkipsOneLeadingDelimiter) {
  EXPECT_EQ(Next(",a"), "a");
}

TEST_F(TokenizeTest, EndsAtTwoLeadingDelimiters) {
  EXPECT_EQ(Next(",,a"), "");
  EXPECT_EQ(position, -1);
}

TEST_F(TokenizeTest, MovesBehindTrailingDelimiters) {
  EXPECT_EQ(Next("abc,,"), "abc");
  EXPECT_EQ(position, 5);
}

TEST_F(TokenizeTest, OfAnEmptyTextIsTheEnd) {
  EXPECT_EQ(Next(""), "");
  EXPECT_EQ(position, -1);
}

TEST_F(TokenizeTest, WithoutDelimitersGivesTheWholeText) {
  EXPECT_EQ(Next("a,b", ""), "a,b");
}

TEST_F(TokenizeTest, FromBeyondTheTextIsTheEnd) {
  position = 100;
  EXPECT_EQ(Next("abc"), "");
  EXPECT_EQ(position, -1);
}

TEST_F(TokenizeTest, FromTheMiddleOfATokenGivesItsRest) {
  position = 1;
  EXPECT_EQ(Next("abc,d"), "bc");
}

// IsFileOfType

TEST(IsFileOfType, MatchesWhateverTheCaseOfEither) {
  EXPECT_TRUE(ToolKit::IsFileOfType(CTString("C:\\fw\\MODEM.FLS"), CTString(".fls")));
  EXPECT_TRUE(ToolKit::IsFileOfType(CTString("modem.fls"), CTString(".FLS")));
}

TEST(IsFileOfType, NeverMatchesANameWithoutADot) {
  EXPECT_FALSE(ToolKit::IsFileOfType(CTString("modem"), CTString(".fls")));
  EXPECT_FALSE(ToolKit::IsFileOfType(CTString("modem"), CTString("")));
}

TEST(IsFileOfType, TakesTheTextFromTheLastDot) {
  EXPECT_TRUE(ToolKit::IsFileOfType(CTString("a.b.fls"), CTString(".fls")));
  EXPECT_FALSE(ToolKit::IsFileOfType(CTString("a.fls.bak"), CTString(".fls")));
  EXPECT_FALSE(ToolKit::IsFileOfType(CTString("a.b.fls"), CTString(".b.fls")));
}

TEST(IsFileOfType, NeedsTheDotOfTheExtension) {
  EXPECT_FALSE(ToolKit::IsFileOfType(CTString("modem.fls"), CTString("fls")));
}

TEST(IsFileOfType, MatchesOnlyTheWholeExtension) {
  EXPECT_FALSE(ToolKit::IsFileOfType(CTString("modem.flsx"), CTString(".fls")));
  EXPECT_FALSE(ToolKit::IsFileOfType(CTString("modem.fl"), CTString(".fls")));
}

}  // namespace
