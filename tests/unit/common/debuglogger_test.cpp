#include "common/debuglogger.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/handles.h"
#include "common/text.h"
#include "simulator/import_patch.h"
#include "support/temporary_folder.h"
#include "support/test_log.h"
#include "toolkit/toolkit.h"

using corvel::UniqueHandle;

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr char kFile[] = "C:\\build\\src\\module.src";
constexpr char kOfTheSystem[] = "toolkit_internals.dll";
constexpr DWORD kLongEnough = 30000;

// A macro, so that the compiler checks the formats.
#define RECORD(...) ToolKit::OutputDebug(3, "FlashSvc", "Class::Function", kFile, 339, __VA_ARGS__)

/// For formats that the C runtime knows and the language does not.
template <typename... Values>
void LogUnchecked(const char* format, Values... values) {
  ToolKit::OutputDebug(3, "FlashSvc", "Class::Function", kFile, 339, format, values...);
}

void LogAtLevel(int level) {
  ToolKit::OutputDebug(level, "FlashSvc", "Class::Function", kFile, 339, "message");
}

std::vector<std::string> Fields(const std::string& record) {
  std::vector<std::string> fields;
  std::istringstream text(record);
  for (std::string field; std::getline(text, field, '\t');) fields.push_back(field);
  return fields;
}

/// The lines of a log, without their line ends.
std::vector<std::string> Records(const std::string& log) {
  std::vector<std::string> records;
  std::size_t from = 0;
  for (std::size_t end = 0; (end = log.find("\r\n", from)) != std::string::npos; from = end + 2) {
    records.push_back(log.substr(from, end - from));
  }
  return records;
}

class DebugLoggerTest : public testing::Test {
 protected:
  ~DebugLoggerTest() override { CDebugLogger::SetLevel(3); }

  TestLog log;
  simulator::ImportPatch patch{::GetModuleHandleA(kOfTheSystem)};
};

// The record

TEST_F(DebugLoggerTest, WritesARecordOfTabSeparatedFields) {
  RECORD("\t get Config Var, [%s] : %s", "IPCTYPE", "USB");
  const std::string ids =
      std::to_string(::GetCurrentProcessId()) + "~" + std::to_string(::GetCurrentThreadId());
  EXPECT_THAT(log.Text(), StartsWith("#"));
  EXPECT_THAT(log.Text(), EndsWith("\t" + ids +
                                   "\tFlashSvc\tTrace\tmodule.src\t339\tClass::Function"
                                   "\t\t get Config Var, [IPCTYPE] : USB##\r\n"));
}

TEST_F(DebugLoggerTest, WritesDateAndTimeWithAllTheirDigits) {
  RECORD("message");
  const auto fields = Fields(log.Text());
  ASSERT_EQ(fields.size(), 9u);
  EXPECT_THAT(fields[0], MatchesRegex("#\\d\\d\\d\\d-\\d\\d-\\d\\d"));
  EXPECT_THAT(fields[1], MatchesRegex("\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d"));
}

VOID WINAPI EarlyMorning(SYSTEMTIME* time) {
  *time = {2026, 1, 4, 2, 3, 4, 5, 6};
}

TEST_F(DebugLoggerTest, FillsSmallNumbersOfDateAndTimeWithZeros) {
  patch.Replace("GetLocalTime", &EarlyMorning);
  RECORD("message");
  EXPECT_THAT(log.Text(), StartsWith("#2026-01-02\t03:04:05.006\t"));
}

TEST_F(DebugLoggerTest, NamesTheLevelsOneToThree) {
  LogAtLevel(1);
  LogAtLevel(2);
  LogAtLevel(3);
  const auto records = Records(log.Text());
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(Fields(records[0])[4], "Error");
  EXPECT_EQ(Fields(records[1])[4], "Warning");
  EXPECT_EQ(Fields(records[2])[4], "Trace");
}

TEST_F(DebugLoggerTest, WritesAnyOtherLevelAsOff) {
  LogAtLevel(0);
  LogAtLevel(7);
  LogAtLevel(-1);
  const auto records = Records(log.Text());
  ASSERT_EQ(records.size(), 3u);
  for (const std::string& record : records) EXPECT_EQ(Fields(record)[4], "Off");
}

TEST_F(DebugLoggerTest, LeavesTheFolderOfTheSourceFileOut) {
  ToolKit::OutputDebug(3, "c", "f", "D:/a.b/source.cpp", 1, "slashes");
  ToolKit::OutputDebug(3, "c", "f", "plain", 1, "no folder, no extension");
  ToolKit::OutputDebug(3, "c", "f", "\\\\server\\share\\x.y.z", 1, "two dots");
  const auto records = Records(log.Text());
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(Fields(records[0])[5], "source.cpp");
  EXPECT_EQ(Fields(records[1])[5], "plain");
  EXPECT_EQ(Fields(records[2])[5], "x.y.z");
}

TEST_F(DebugLoggerTest, CutsAnOverlongSourceFileNameTo255Characters) {
  const std::string file = "C:\\" + std::string(300, 'f') + "\\" + std::string(300, 'n') + ".cpp";
  ToolKit::OutputDebug(3, "c", "f", file.c_str(), 1, "message");
  EXPECT_EQ(Fields(log.Text())[5], std::string(255, 'n') + ".cpp");
}

// The message

TEST_F(DebugLoggerTest, WritesAMessageOfMoreThanTenThousandCharactersWhole) {
  const std::string message(10001, 'm');
  RECORD("%s", message.c_str());
  EXPECT_THAT(log.Text(), EndsWith("\t" + message + "##\r\n"));
  RECORD("%s of %d", message.c_str(), 1);
  EXPECT_THAT(log.Text(), EndsWith("\t" + message + " of 1##\r\n"));
}

TEST_F(DebugLoggerTest, WritesFieldsOfMoreThanTenThousandCharactersWhole) {
  const std::string function(10'001, 'f');
  ToolKit::OutputDebug(3, "FlashSvc", function.c_str(), kFile, 339, "message");
  EXPECT_THAT(log.Text(), HasSubstr("\t339\t" + function + "\tmessage##\r\n"));
}

// The fields are printed at a usual length first, and measured only beyond it.
TEST_F(DebugLoggerTest, WritesFieldsWholeAroundTheUsualLength) {
  constexpr std::size_t kRoomForOtherFields = 150;
  for (std::size_t length = corvel::kUsualPrint - kRoomForOtherFields; length <= corvel::kUsualPrint;
       ++length) {
    const std::string function(length, 'f');
    ToolKit::OutputDebug(3, "FlashSvc", function.c_str(), kFile, 339, "message");
    ASSERT_THAT(log.Text(), EndsWith("\t339\t" + function + "\tmessage##\r\n"));
  }
}

TEST_F(DebugLoggerTest, KeepsALineEndInTheMessage) {
  RECORD("first\nsecond\n");
  EXPECT_THAT(log.Text(), EndsWith("\tfirst\nsecond\n##\r\n"));
}

TEST_F(DebugLoggerTest, EndsAMessageAtACharacterThatIsNul) {
  LogUnchecked("narrow%c unseen", 0);
  EXPECT_THAT(log.Text(), EndsWith("\tnarrow##\r\n"));
  LogUnchecked("wide%C unseen", 0);
  EXPECT_THAT(log.Text(), EndsWith("\twide##\r\n"));
}

TEST_F(DebugLoggerTest, TakesPositionalParameters) {
  LogUnchecked("%2$s before %1$s", "b", "a");
  EXPECT_THAT(log.Text(), EndsWith("\ta before b##\r\n"));
}

TEST_F(DebugLoggerTest, PrintsWideTexts) {
  LogUnchecked("%ls %S", L"one", L"two");
  EXPECT_THAT(log.Text(), EndsWith("\tone two##\r\n"));
}

TEST_F(DebugLoggerTest, NamesTheFormatOfAMessageThatTheRuntimeRefusesToPrint) {
  RECORD("\t path: %ls", L"\u4E2D");
  EXPECT_THAT(log.Text(), EndsWith("<not printable> \t path: %ls##\r\n"));
}

TEST_F(DebugLoggerTest, SurvivesMissingTexts) {
  ToolKit::OutputDebug(3, nullptr, nullptr, nullptr, 1, nullptr);
  EXPECT_EQ(Records(log.Text()).size(), 1u);
}

TEST_F(DebugLoggerTest, WritesAMissingTextInAMessageAsNull) {
  const char* const missing = nullptr;
  LogUnchecked("%s", missing);
  EXPECT_THAT(log.Text(), EndsWith("\t(null)##\r\n"));
  LogUnchecked("text %s", missing);
  EXPECT_THAT(log.Text(), EndsWith("\ttext (null)##\r\n"));
}

TEST_F(DebugLoggerTest, WritesAnEmptyMessage) {
  RECORD("%s", "");
  EXPECT_THAT(log.Text(), EndsWith("\tClass::Function\t##\r\n"));
}

// The switch

TEST_F(DebugLoggerTest, WritesNothingAndCreatesNoFileAtLevelZero) {
  CDebugLogger::SetLevel(0);
  RECORD("message");
  EXPECT_FALSE(log.Exists());
}

TEST_F(DebugLoggerTest, WritesNothingAtANegativeLevel) {
  CDebugLogger::SetLevel(-1);
  RECORD("message");
  EXPECT_FALSE(log.Exists());
}

TEST_F(DebugLoggerTest, KeepsWhatWasWrittenBeforeLoggingWasTurnedOff) {
  RECORD("before");
  ToolKit::TurnLoggingOff();
  RECORD("while off");
  ToolKit::TurnLoggingOn();
  RECORD("after");
  const auto records = Records(log.Text());
  ASSERT_EQ(records.size(), 2u);
  EXPECT_THAT(records[0], HasSubstr("before"));
  EXPECT_THAT(records[1], HasSubstr("after"));
}

TEST_F(DebugLoggerTest, TheSwitchIsNoThreshold) {
  CDebugLogger::SetLevel(1);
  LogAtLevel(3);
  EXPECT_EQ(Records(log.Text()).size(), 1u);
}

TEST_F(DebugLoggerTest, TurningOnAndOffStoresThreeAndZero) {
  ToolKit::TurnLoggingOff();
  EXPECT_EQ(CDebugLogger::GetLevel(), 0);
  ToolKit::TurnLoggingOn();
  EXPECT_EQ(CDebugLogger::GetLevel(), 3);
}

// The file

class LogFileTest : public DebugLoggerTest {
 protected:
  // The file is closed before its folder goes.
  ~LogFileTest() override { CDebugLogger::GetInstance()->SetFileName(""); }

  void Name(const std::string& path) { CDebugLogger::GetInstance()->SetFileName(path.c_str()); }

  TemporaryFolder folder;
};

TEST_F(LogFileTest, IsCreatedByTheFirstRecordNotByItsName) {
  Name(folder.File("new.log"));
  EXPECT_FALSE(folder.Holds("new.log"));
  RECORD("message");
  EXPECT_TRUE(folder.Holds("new.log"));
}

TEST_F(LogFileTest, IsNamedThroughTheExportedFunctionToo) {
  ToolKit().SetDebugLoggerFileName(folder.File("host.log").c_str());
  RECORD("message");
  EXPECT_TRUE(folder.Holds("host.log"));
}

TEST_F(LogFileTest, OfAnEarlierRunIsEmptiedByTheFirstRecord) {
  Name(folder.Write("old.log", "old records"));
  EXPECT_EQ(folder.Content("old.log"), "old records");
  RECORD("message");
  EXPECT_EQ(Records(folder.Content("old.log")).size(), 1u);
}

TEST_F(LogFileTest, IsFollowedByAnotherWhenTheNameChanges) {
  Name(folder.File("first.log"));
  RECORD("one");
  Name(folder.File("second.log"));
  RECORD("two");
  EXPECT_THAT(folder.Content("first.log"), EndsWith("\tone##\r\n"));
  EXPECT_EQ(Records(folder.Content("second.log")).size(), 1u);
}

TEST_F(LogFileTest, IsEmptiedWhenItIsNamedAgain) {
  Name(folder.File("same.log"));
  RECORD("one");
  Name(folder.File("same.log"));
  RECORD("two");
  const auto records = Records(folder.Content("same.log"));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_THAT(records[0], HasSubstr("two"));
}

TEST_F(LogFileTest, GetsItsMissingFolderWhenItIsNamed) {
  Name(folder.File("logs\\new.log"));
  EXPECT_TRUE(folder.Holds("logs"));
  RECORD("message");
  EXPECT_TRUE(folder.Holds("logs/new.log"));
}

TEST_F(LogFileTest, TwoMissingFoldersDeepIsNotMadeAndDropsItsRecords) {
  Name(folder.File("logs\\deeper\\new.log"));
  RECORD("message");
  EXPECT_FALSE(folder.Holds("logs"));
}

TEST_F(LogFileTest, WithoutANameDropsRecordsUntilThereIsOne) {
  Name("");
  RECORD("lost");
  Name(folder.File("new.log"));
  RECORD("kept");
  EXPECT_EQ(Records(folder.Content("new.log")).size(), 1u);
}

TEST_F(LogFileTest, ThatCannotBeOpenedIsTriedAgainForEveryRecord) {
  Name(folder.File("a\\b\\new.log"));
  RECORD("lost");
  std::filesystem::create_directories(folder.Path() / "a" / "b");
  RECORD("kept");
  EXPECT_EQ(Records(folder.Content("a/b/new.log")).size(), 1u);
}

TEST_F(LogFileTest, TakesANullNameForNone) {
  Name(folder.File("named.log"));
  RECORD("kept");
  CDebugLogger::GetInstance()->SetFileName(nullptr);
  RECORD("lost");
  const auto records = Records(folder.Content("named.log"));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_THAT(records[0], HasSubstr("kept"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 1);
}

struct AskedOpening {
  std::string path;
  DWORD access = 0;
  DWORD sharing = 0;
  SECURITY_ATTRIBUTES* security = nullptr;
  DWORD creation = 0;
  DWORD attributes = 0;
  HANDLE pattern = nullptr;
} g_askedOpening;
HANDLE WINAPI RecordOpening(LPCSTR path, DWORD access, DWORD sharing, SECURITY_ATTRIBUTES* security,
                            DWORD creation, DWORD attributes, HANDLE pattern) {
  g_askedOpening = {path, access, sharing, security, creation, attributes, pattern};
  return ::CreateFileA(path, access, sharing, security, creation, attributes, pattern);
}

TEST_F(LogFileTest, IsOpenedForWritingAnewAndSharedWithReaders) {
  Name(folder.File("new.log"));
  patch.Replace("CreateFileA", &RecordOpening);
  RECORD("message");
  EXPECT_EQ(g_askedOpening.path, folder.File("new.log"));
  EXPECT_EQ(g_askedOpening.access, static_cast<DWORD>(GENERIC_WRITE));
  EXPECT_EQ(g_askedOpening.sharing, static_cast<DWORD>(FILE_SHARE_READ));
  EXPECT_EQ(g_askedOpening.security, nullptr);
  EXPECT_EQ(g_askedOpening.creation, static_cast<DWORD>(CREATE_ALWAYS));
  EXPECT_EQ(g_askedOpening.attributes, static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL));
  EXPECT_EQ(g_askedOpening.pattern, nullptr);
}

TEST_F(LogFileTest, LetsOthersReadWhileItIsWritten) {
  RECORD("message");
  CFileIo reader;
  EXPECT_EQ(reader.OpenEx(log.Path().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING,
                          0, nullptr, nullptr),
            S_OK);
}

TEST_F(LogFileTest, IsRefusedToAReaderWhoDoesNotShareWriting) {
  RECORD("message");
  CFileIo reader;
  EXPECT_EQ(reader.Open(log.Path().c_str(), false), static_cast<HRESULT>(0x80070020u));
}

TEST_F(LogFileTest, TakesAFinishedTextAsItStands) {
  CDebugLogger::GetInstance()->WriteText("finished line\r\n");
  RECORD("message");
  EXPECT_THAT(log.Text(), StartsWith("finished line\r\n#"));
}

TEST_F(LogFileTest, IsClosedByReleasingAndEmptiedByALaterRecord) {
  RECORD("one");
  CDebugLogger::ReleaseInstance();
  CFileIo exclusive;
  EXPECT_EQ(exclusive.Open(log.Path().c_str(), false), S_OK);
  exclusive.Close();
  RECORD("two");
  EXPECT_EQ(Records(log.Text()).size(), 1u);
}

// Failures and locking

struct Calls {
  int writes = 0;
  int sizes = 0;
  int flushes = 0;
} g_calls;

BOOL WINAPI CountWrite(HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
  ++g_calls.writes;
  return ::WriteFile(file, data, size, written, overlapped);
}
DWORD WINAPI CountSize(HANDLE file, LPDWORD high) {
  ++g_calls.sizes;
  return ::GetFileSize(file, high);
}
BOOL WINAPI CountFlush(HANDLE file) {
  ++g_calls.flushes;
  return ::FlushFileBuffers(file);
}
BOOL WINAPI RefuseWrite(HANDLE, LPCVOID, DWORD, LPDWORD, LPOVERLAPPED) {
  ::SetLastError(ERROR_DISK_FULL);
  return FALSE;
}
DWORD WINAPI FailToWait(HANDLE, DWORD) {
  return WAIT_FAILED;
}

TEST_F(DebugLoggerTest, WritesARecordInOneCallAndDoesNotFlushIt) {
  g_calls = {};
  patch.Replace("WriteFile", &CountWrite);
  patch.Replace("GetFileSize", &CountSize);
  patch.Replace("FlushFileBuffers", &CountFlush);
  RECORD("message");
  EXPECT_EQ(g_calls.writes, 1);
  EXPECT_EQ(g_calls.sizes, 1);
  EXPECT_EQ(g_calls.flushes, 0);
}

TEST_F(DebugLoggerTest, GoesOnAfterAFailedWrite) {
  patch.Replace("WriteFile", &RefuseWrite);
  RECORD("lost");
  patch.Restore();
  RECORD("kept");
  const auto records = Records(log.Text());
  ASSERT_EQ(records.size(), 1u);
  EXPECT_THAT(records[0], HasSubstr("kept"));
}

TEST_F(DebugLoggerTest, WritesTheRecordEvenWhenTheLockFails) {
  patch.Replace("WaitForSingleObject", &FailToWait);
  RECORD("message");
  EXPECT_EQ(Records(log.Text()).size(), 1u);
}

TEST_F(DebugLoggerTest, LeavesTheCallersLastErrorAlone) {
  patch.Replace("WriteFile", &RefuseWrite);
  ::SetLastError(1234);
  RECORD("lost");
  EXPECT_EQ(::GetLastError(), 1234u);
}

TEST_F(DebugLoggerTest, NeverInterleavesTheRecordsOfSeveralThreads) {
  constexpr int kThreads = 4;
  constexpr int kRecordsOfEach = 100;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < kRecordsOfEach; ++j) RECORD("a message of some length");
    });
  }
  for (std::thread& thread : threads) thread.join();

  const auto records = Records(log.Text());
  EXPECT_EQ(records.size(), std::size_t{kThreads} * kRecordsOfEach);
  EXPECT_TRUE(std::ranges::all_of(records, [](const std::string& record) {
    return record.starts_with("#") && record.ends_with("\ta message of some length##");
  }));
}

HANDLE g_writing = nullptr;
BOOL WINAPI WriteForEver(HANDLE, LPCVOID, DWORD, LPDWORD, LPOVERLAPPED) {
  ::SetEvent(g_writing);
  ::Sleep(INFINITE);
  return FALSE;
}
DWORD WINAPI LogOnce(LPVOID) {
  RECORD("never ends");
  return 0;
}

// Two threads, the first of which is held while it writes

class TwoWritersTest : public DebugLoggerTest {
 protected:
  void SetUp() override {
    s_writers = 0;
    patch.Replace("WriteFile", &HoldTheFirst);
    patch.Replace("WaitForSingleObject", &TellOfTheSecond);
  }

  /// Starts a writer and holds it in its write, then starts another. @return whether that one waits for the
  /// log; otherwise it has come to its write.
  template <typename Write>
  bool TheSecondWaits(Write write) {
    first = std::thread(write);
    if (::WaitForSingleObject(s_held.get(), kLongEnough) != WAIT_OBJECT_0) return false;
    s_tell = true;
    second = std::thread(write);
    const HANDLE either[] = {s_secondWaits.get(), s_secondWrites.get()};
    return ::WaitForMultipleObjects(2, either, FALSE, kLongEnough) == WAIT_OBJECT_0;
  }
  void LetBothEnd() {
    s_tell = false;
    ::SetEvent(s_goOn.get());
    first.join();
    second.join();
  }

  static UniqueHandle NewEvent() { return UniqueHandle(::CreateEventW(nullptr, TRUE, FALSE, nullptr)); }

  static BOOL WINAPI HoldTheFirst(HANDLE file, LPCVOID data, DWORD size, LPDWORD written,
                                  LPOVERLAPPED overlapped) {
    if (++s_writers == 1) {
      ::SetEvent(s_held.get());
      ::WaitForSingleObject(s_goOn.get(), kLongEnough);
    } else {
      ::SetEvent(s_secondWrites.get());
    }
    return ::WriteFile(file, data, size, written, overlapped);
  }
  static DWORD WINAPI TellOfTheSecond(HANDLE object, DWORD milliseconds) {
    if (s_tell) {
      s_waitLimit = milliseconds;
      ::SetEvent(s_secondWaits.get());
    }
    return ::WaitForSingleObject(object, milliseconds);
  }

  static inline std::atomic<int> s_writers{0};
  static inline std::atomic<bool> s_tell{false};
  static inline std::atomic<DWORD> s_waitLimit{0};
  static inline UniqueHandle s_held = NewEvent();
  static inline UniqueHandle s_goOn = NewEvent();
  static inline UniqueHandle s_secondWaits = NewEvent();
  static inline UniqueHandle s_secondWrites = NewEvent();

  void TearDown() override {
    for (const UniqueHandle* event : {&s_held, &s_goOn, &s_secondWaits, &s_secondWrites})
      ::ResetEvent(event->get());
  }

  std::thread first;
  std::thread second;
};

TEST_F(TwoWritersTest, ARecordWaitsForTheOneThatIsBeingWritten) {
  EXPECT_TRUE(TheSecondWaits([] { RECORD("a message"); }));
  EXPECT_EQ(s_writers, 1);
  EXPECT_EQ(s_waitLimit, INFINITE);
  LetBothEnd();
  EXPECT_EQ(Records(log.Text()).size(), 2u);
}

TEST_F(TwoWritersTest, AFinishedTextWaitsForTheOneThatIsBeingWritten) {
  EXPECT_TRUE(TheSecondWaits([] { CDebugLogger::GetInstance()->WriteText("a text\r\n"); }));
  EXPECT_EQ(s_writers, 1);
  EXPECT_EQ(s_waitLimit, INFINITE);
  LetBothEnd();
  EXPECT_EQ(log.Text(), "a text\r\na text\r\n");
}

// As at process exit, where the system ends all other threads before the library is told.
TEST_F(DebugLoggerTest, TakesTheLockOverFromAThreadThatWasKilledWhileItHeldIt) {
  const UniqueHandle writing(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  g_writing = writing.get();
  RECORD("before");
  patch.Replace("WriteFile", &WriteForEver);
  const UniqueHandle thread(::CreateThread(nullptr, 0, &LogOnce, nullptr, 0, nullptr));
  ASSERT_EQ(::WaitForSingleObject(writing.get(), kLongEnough), WAIT_OBJECT_0);
  ::TerminateThread(thread.get(), 1);
  ASSERT_EQ(::WaitForSingleObject(thread.get(), kLongEnough), WAIT_OBJECT_0);
  patch.Restore();

  RECORD("after");
  EXPECT_THAT(log.Text(), EndsWith("\tafter##\r\n"));
}

// Several processes

void RunChild(const std::string& role, const std::string& logFile) {
  std::array<wchar_t, MAX_PATH> test{};
  ::GetModuleFileNameW(nullptr, test.data(), static_cast<DWORD>(test.size()));
  const std::string program = std::filesystem::path(test.data()).replace_filename("log_child.exe").string();
  std::string command = "\"" + program + "\" \"" + logFile + "\" " + role;
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  ASSERT_TRUE(::CreateProcessA(program.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               &startup, &process));
  const UniqueHandle child(process.hProcess);
  const UniqueHandle thread(process.hThread);
  ASSERT_EQ(::WaitForSingleObject(child.get(), kLongEnough), WAIT_OBJECT_0);
  DWORD exitCode = 1;
  ASSERT_TRUE(::GetExitCodeProcess(child.get(), &exitCode));
  ASSERT_EQ(exitCode, 0u);
}

TEST(LogOfSeveralProcesses, StartsAfreshWithEachRunOfTheHost) {
  const TemporaryFolder folder;
  RunChild("one-record", folder.File("host.log"));
  RunChild("one-record", folder.File("host.log"));
  EXPECT_EQ(Records(folder.Content("host.log")).size(), 1u);
}

TEST(LogOfSeveralProcesses, BelongsToTheFirstOneThatOpenedIt) {
  const TestLog log;
  RECORD("from the parent");
  RunChild("one-record", log.Path());
  RECORD("from the parent");
  EXPECT_EQ(Records(log.Text()).size(), 2u);
  EXPECT_FALSE(log.Contains("from the child"));
}

TEST(LogOfSeveralProcesses, KeepsItsRecordsWhenOneComesAfterShutDown) {
  const TemporaryFolder folder;
  RunChild("after-shut-down", folder.File("host.log"));
  const auto records = Records(folder.Content("host.log"));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_THAT(records[0], HasSubstr("from the child"));
}

}  // namespace
