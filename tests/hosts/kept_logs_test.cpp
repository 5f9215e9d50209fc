#include "hosts/common/kept_logs.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "hosts/common/owners.h"
#include "support/temporary_folder.h"

namespace hosts {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

constexpr wchar_t kLog[] = L"Host.log";

class KeptLogsTest : public testing::Test {
 protected:
  /// A log of which the last record was written then, in local time.
  void WriteLog(const std::string& text, const SYSTEMTIME& localTime) const {
    folder.Write(kLog, text);
    SYSTEMTIME universal{};
    FILETIME time{};
    ASSERT_TRUE(::TzSpecificLocalTimeToSystemTime(nullptr, &localTime, &universal));
    ASSERT_TRUE(::SystemTimeToFileTime(&universal, &time));
    const OwnedHandle file(::CreateFileW(folder.File(kLog).c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr,
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
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11.log"), "evidence");
}

TEST_F(KeptLogsTest, KeepsNothingOfAnEmptyLogOrNone) {
  EXPECT_EQ(Keep(), "");
  folder.Write(kLog, "");
  EXPECT_EQ(Keep(), "");
  EXPECT_THAT(Names(), ElementsAre(kLog));
}

TEST_F(KeptLogsTest, KeepsTheLastFive) {
  for (WORD second = 10; second < 17; ++second) {
    WriteLog(std::to_string(second), At(second));
    EXPECT_EQ(Keep(), "");
  }
  EXPECT_THAT(Names(), ElementsAre(L"Host_2026-11-05_23-04-12.log", L"Host_2026-11-05_23-04-13.log",
                                   L"Host_2026-11-05_23-04-14.log", L"Host_2026-11-05_23-04-15.log",
                                   L"Host_2026-11-05_23-04-16.log"));
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-12.log"), "12");
}

TEST_F(KeptLogsTest, KeepsTwoLogsOfOneSecondApart) {
  for (const char* text : {"first", "second", "third"}) {
    WriteLog(text, At(11));
    EXPECT_EQ(Keep(), "");
  }
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11.log"), "first");
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11_2.log"), "second");
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11_3.log"), "third");
}

TEST_F(KeptLogsTest, RemovesNoFileOfAnotherName) {
  const std::vector<std::wstring> others{L"Host_.log",
                                         L"Host_2026-11-05.log",
                                         L"Host_2026-11-05_23-04-1x.log",
                                         L"Host_2026-11-05_23-04-11_x.log",
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

/// Opening it anew would empty it all the same.
TEST_F(KeptLogsTest, CopiesALogThatSomebodyReads) {
  WriteLog("evidence", At(11));
  const OwnedHandle reader(::CreateFileW(folder.File(kLog).c_str(), GENERIC_READ,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_EQ(Keep(), "");
  EXPECT_EQ(folder.Content(L"Host_2026-11-05_23-04-11.log"), "evidence");
}

TEST_F(KeptLogsTest, LeavesTheLogOfALivingHostAloneAndSaysSo) {
  folder.Write(kLog, "evidence");
  // As the library opens it.
  const OwnedHandle writer(::CreateFileW(folder.File(kLog).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_THAT(Keep(), HasSubstr("Host.log, is not kept"));
  EXPECT_THAT(Names(), ElementsAre(kLog));
}

}  // namespace

}  // namespace hosts
