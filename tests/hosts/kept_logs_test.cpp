#include "hosts/common/kept_logs.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "support/temporary_folder.h"

namespace hosts {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

constexpr wchar_t kLog[] = L"Host.log";
/// In the log of every run that came so far as to serve.
constexpr char kServes[] = "##\tMonitor flash ready flag to be ready##\r\n";

class KeptLogsTest : public testing::Test {
 protected:
  /// A log of which the last record was written then, in local time.
  void WriteLog(const std::string& text, const SYSTEMTIME& localTime) const {
    WriteLogOfFailedStart(kServes + text, localTime);
  }
  void WriteLogOfFailedStart(const std::string& text, const SYSTEMTIME& localTime) const {
    folder.Write(kLog, text);
    SYSTEMTIME universal{};
    FILETIME time{};
    ASSERT_TRUE(::TzSpecificLocalTimeToSystemTime(nullptr, &localTime, &universal));
    ASSERT_TRUE(::SystemTimeToFileTime(&universal, &time));
    SetTime(kLog, time);
  }
  void SetTime(const std::wstring& name, const FILETIME& time) const {
    const OwnedHandle file(::CreateFileW(folder.File(name).c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(::SetFileTime(file.get(), nullptr, nullptr, &time));
  }
  static SYSTEMTIME At(WORD second) {
    SYSTEMTIME time{};
    time.wYear = 2026;
    time.wMonth = 11;
    time.wDay = 5;
    time.wHour = 23;
    time.wMinute = 4;
    time.wSecond = second;
    return time;
  }
  std::string Keep() const { return KeepLastLog(folder.File(kLog)); }
  std::vector<std::wstring> Names() const {
    std::vector<std::wstring> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
      names.push_back(entry.path().filename().wstring());
    }
    std::ranges::sort(names);
    return names;
  }

  TemporaryFolder folder;
};

TEST_F(KeptLogsTest, GivesTheLogTheTimeOfItsLastRecord) {
  WriteLog("evidence", At(11));
  EXPECT_EQ(Keep(), "");
  EXPECT_THAT(Names(), ElementsAre(L"Host_2026-11-05_23-04-11.log"));
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11.log"), kServes + std::string("evidence"));
}

TEST_F(KeptLogsTest, KeepsNothingOfAnEmptyLogOrNone) {
  EXPECT_EQ(Keep(), "");
  folder.Write(kLog, "");
  EXPECT_EQ(Keep(), "");
  EXPECT_THAT(Names(), ElementsAre(kLog));
  EXPECT_EQ(KeepLastLog(folder.File(L"no folder\\Host.log")), "");
}

TEST_F(KeptLogsTest, KeepsTheLastFive) {
  for (WORD second = 13; second < 20; ++second) {
    WriteLog(std::to_string(second), At(second));
    EXPECT_EQ(Keep(), "");
  }
  EXPECT_THAT(Names(), ElementsAre(L"Host_2026-11-05_23-04-15.log", L"Host_2026-11-05_23-04-16.log",
                                   L"Host_2026-11-05_23-04-17.log", L"Host_2026-11-05_23-04-18.log",
                                   L"Host_2026-11-05_23-04-19.log"));
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-15.log"), kServes + std::string("15"));
}

/// Local time goes back once a year, and with it what the names say.
TEST_F(KeptLogsTest, RemovesTheOldestWhateverTheNamesSay) {
  // The older half of a time outweighs the newer one.
  const std::vector<std::pair<std::wstring, FILETIME>> logs{
      {L"Host_2026-11-05_03-00-00.log", {.dwLowDateTime = 0x10, .dwHighDateTime = 0x01D00005}},
      {L"Host_2026-11-05_03-00-01.log", {.dwLowDateTime = 0x20, .dwHighDateTime = 0x01D00004}},
      {L"Host_2026-11-05_03-00-02.log", {.dwLowDateTime = 0x30, .dwHighDateTime = 0x01D00003}},
      {L"Host_2026-11-05_03-00-03.log", {.dwLowDateTime = 0x40, .dwHighDateTime = 0x01D00002}},
      {L"Host_2026-11-05_03-00-04.log", {.dwLowDateTime = 0xF0000000, .dwHighDateTime = 0x01D00001}}};
  for (const auto& [name, written] : logs) {
    folder.Write(name, "log");
    SetTime(name, written);
  }
  WriteLog("new", At(11));
  EXPECT_EQ(Keep(), "");
  EXPECT_THAT(Names(), ElementsAre(logs[0].first, logs[1].first, logs[2].first, logs[3].first,
                                   L"Host_2026-11-05_23-04-11.log"));
}

/// As when the service manager starts a service again and again that finds no configuration.
TEST_F(KeptLogsTest, KeepsTheLogOfAFailedStartInOnePlaceOfItsOwn) {
  WriteLog("a failed flash", At(10));
  EXPECT_EQ(Keep(), "");
  for (WORD second = 11; second < 19; ++second) {
    WriteLogOfFailedStart("Load Config failed " + std::to_string(second), At(second));
    EXPECT_EQ(Keep(), "");
  }
  EXPECT_THAT(Names(), ElementsAre(L"Host_2026-11-05_23-04-10.log", L"Host_failed_start.log"));
  EXPECT_EQ(folder.Content(L"Host_failed_start.log"), "Load Config failed 18");
}

TEST_F(KeptLogsTest, KeepsTheLogOfAFailedStartThatSomebodyReads) {
  folder.Write(L"Host_failed_start.log", "an older one");
  WriteLogOfFailedStart("Load Config failed", At(11));
  const OwnedHandle reader(::CreateFileW(folder.File(kLog).c_str(), GENERIC_READ,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_EQ(Keep(), "");
  EXPECT_EQ(folder.Content(L"Host_failed_start.log"), "Load Config failed");
}

TEST_F(KeptLogsTest, KeepsTwoLogsOfOneSecondApart) {
  for (const char* text : {"first", "second", "third"}) {
    WriteLog(text, At(11));
    EXPECT_EQ(Keep(), "");
  }
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11.log"), kServes + std::string("first"));
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11_2.log"), kServes + std::string("second"));
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11_3.log"), kServes + std::string("third"));
}

class FullSecondTest : public KeptLogsTest {
 protected:
  void SetUp() override {
    for (int i = 1; i <= 98; ++i) folder.Write(Name(i), "other");
    // Newer than the others, so that it is none of those that are removed then.
    SYSTEMTIME time = At(11);
    time.wYear = 2099;
    WriteLog("evidence", time);
  }
  static std::wstring Name(int number) {
    return L"Host_2099-11-05_23-04-11" + (number == 1 ? L"" : L"_" + std::to_wstring(number)) + L".log";
  }
};

TEST_F(FullSecondTest, TakesALastLog) {
  EXPECT_EQ(Keep(), "");
  EXPECT_EQ(folder.Content(Name(99)), kServes + std::string("evidence"));
}

TEST_F(FullSecondTest, LetsNoLogGiveWayToOneMore) {
  folder.Write(Name(99), "other");
  EXPECT_THAT(Keep(), HasSubstr("is not kept: " + SystemErrorText(ERROR_ALREADY_EXISTS)));
  {
    const OwnedHandle reader(::CreateFileW(folder.File(kLog).c_str(), GENERIC_READ,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                           FILE_ATTRIBUTE_NORMAL, nullptr));
    EXPECT_THAT(Keep(), HasSubstr("is not kept"));
  }
  EXPECT_EQ(folder.Content(kLog), kServes + std::string("evidence"));
  EXPECT_EQ(folder.Content(Name(99)), "other");
  EXPECT_FALSE(folder.Holds(Name(100)));
}

TEST_F(KeptLogsTest, RemovesNoFileOfAnotherName) {
  const std::vector<std::wstring> others{L"Host_.log",
                                         L"Host_2026-11-05.log",
                                         L"Host_2026-11-05_23-04-1x.log",
                                         L"Host_2026-11-05_23-04-11_x.log",
                                         L"Host_2026-11-05_23-04-11_.log",
                                         L"Host_2026-11-05_23-04-11_2.log.log",
                                         L"Host_my notes.log",
                                         L"Hosts_2026-11-05_23-04-11.log",
                                         L"Host_2026-11-05_23-04-11.txt"};
  for (const std::wstring& name : others) folder.Write(name, "mine");
  for (WORD second = 10; second < 18; ++second) {
    WriteLog("log", At(second));
    EXPECT_EQ(Keep(), "");
  }
  EXPECT_THAT(Names(), IsSupersetOf(others));
  EXPECT_EQ(Names().size(), others.size() + 5);
}

/// Opening it again would empty it all the same.
TEST_F(KeptLogsTest, CopiesALogThatSomebodyReads) {
  WriteLog("evidence", At(11));
  const OwnedHandle reader(::CreateFileW(folder.File(kLog).c_str(), GENERIC_READ,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_EQ(Keep(), "");
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11.log"), kServes + std::string("evidence"));
}

TEST_F(KeptLogsTest, CopiesALogThatSomebodyMayDelete) {
  WriteLog("evidence", At(11));
  const OwnedHandle reader(::CreateFileW(folder.File(kLog).c_str(), GENERIC_READ | DELETE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
  ASSERT_NE(reader.get(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Keep(), "");
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11.log"), kServes + std::string("evidence"));
}

TEST_F(KeptLogsTest, LeavesTheLogOfALivingHostAloneAndSaysSo) {
  folder.Write(kLog, "evidence");
  // As the library opens it.
  const OwnedHandle writer(::CreateFileW(folder.File(kLog).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_THAT(Keep(), HasSubstr("Host.log, is not kept"));
  EXPECT_THAT(Names(), ElementsAre(kLog));
}

TEST_F(KeptLogsTest, FindsTheLogAndAllThatAreKeptOfIt) {
  EXPECT_THAT(LogAndKeptOnes(folder.File(kLog)), IsEmpty());
  for (const wchar_t* name :
       {kLog, L"Host_failed_start.log", L"Host_2026-11-05_23-04-11.log", L"Host_my notes.log"}) {
    folder.Write(name, "evidence");
  }
  EXPECT_THAT(
      LogAndKeptOnes(folder.File(kLog)),
      testing::UnorderedElementsAre(folder.File(kLog), folder.File(std::wstring(L"Host_failed_start.log")),
                                    folder.File(std::wstring(L"Host_2026-11-05_23-04-11.log"))));
}

}  // namespace

}  // namespace hosts
