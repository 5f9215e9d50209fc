#include "hosts/common/flash_history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <thread>

#include "hosts/common/owners.h"
#include "simulator/import_patch.h"
#include "support/temporary_folder.h"

namespace hosts {

using testing::MatchesRegex;
using testing::SizeIs;

namespace {

constexpr char kWhole[] = "2026-11-15 23:04:11\tservice\t4\t100\t57\tsucceeded\r\n";
constexpr std::uintmax_t kLargestSize = 8192;
constexpr std::uintmax_t kLeastKept = 3900;
constexpr std::size_t kManyJobs = 400;

FinishedJob Job(long long seconds) {
  return {.flashed = true, .result = 4, .progress = 100, .seconds = seconds};
}

class FlashHistoryTest : public testing::Test {
 protected:
  std::uintmax_t Size() const { return std::filesystem::file_size(folder.Path() / L"history.txt"); }
  std::string Content() const { return folder.Content(L"history.txt"); }
  std::vector<HistoryEntry> Entries() const {
    const HistoryReading reading = history.Read();
    EXPECT_EQ(reading.error, static_cast<DWORD>(ERROR_SUCCESS));
    return reading.entries;
  }

  TemporaryFolder folder;
  FlashHistory history{folder.File(L"history.txt")};
};

TEST_F(FlashHistoryTest, IsEmptyBeforeTheFirstJob) {
  EXPECT_THAT(Entries(), SizeIs(0));
  EXPECT_FALSE(folder.Holds(L"history.txt"));
}

TEST_F(FlashHistoryTest, HoldsOneLinePerJob) {
  ASSERT_EQ(history.Append("service", {.flashed = false, .result = 3, .progress = 40, .seconds = 131}), 0u);
  ASSERT_EQ(history.Append("cmdline", Job(57)), 0u);
  EXPECT_TRUE(std::regex_match(
      Content(), std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\tservice\t3\t40\t131\tfailed\r\n"
                            "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\tcmdline\t4\t100\t57\tsucceeded\r\n")))
      << Content();
  const std::vector<HistoryEntry> entries = Entries();
  ASSERT_THAT(entries, SizeIs(2));
  EXPECT_EQ(entries[0].host, "service");
  EXPECT_FALSE(entries[0].job.flashed);
  EXPECT_EQ(entries[0].job.result, 3u);
  EXPECT_EQ(entries[0].job.progress, 40u);
  EXPECT_EQ(entries[0].job.seconds, 131);
  EXPECT_EQ(entries[1].host, "cmdline");
  EXPECT_TRUE(entries[1].job.flashed);
}

TEST_F(FlashHistoryTest, PassesOverATornLineAndSpoilsNoOther) {
  for (const std::size_t length : {1u, 19u, 30u, 45u}) {
    folder.Write(L"history.txt", kWhole + std::string(kWhole).substr(0, length));
    ASSERT_EQ(history.Append("service", Job(99)), 0u);
    const std::vector<HistoryEntry> entries = Entries();
    ASSERT_THAT(entries, SizeIs(2)) << length;
    EXPECT_EQ(entries[0].job.seconds, 57);
    EXPECT_EQ(entries[1].job.seconds, 99);
  }
}

/// What a loss of power leaves of a line whose bytes did not reach the disk.
TEST_F(FlashHistoryTest, PassesOverZeros) {
  folder.Write(L"history.txt", kWhole + std::string(60, '\0'));
  ASSERT_EQ(history.Append("service", Job(99)), 0u);
  EXPECT_THAT(Entries(), SizeIs(2));
}

TEST_F(FlashHistoryTest, PassesOverLinesThatAreNone) {
  folder.Write(L"history.txt",
               "\r\nhello\r\n"
               "2026-11-15 23:04:1x\tservice\t4\t100\t57\tsucceeded\r\n"
               "2026-11-15 23:04:11\tservice\t\t100\t57\tsucceeded\r\n"
               "2026-11-15 23:04:11\tservice\t4\t100\t57s\tsucceeded\r\n"
               "2026-11-15 23:04:11\tservice\t4\t100\t57\tperhaps\r\n"
               "2026-11-15 23:04:11\tservice\t4\t100\t57\tsucceeded\tmore\r\n");
  EXPECT_THAT(Entries(), SizeIs(0));
}

TEST_F(FlashHistoryTest, StaysSmallAndKeepsTheNewest) {
  std::uintmax_t largest = 0;
  std::uintmax_t before = 0;
  for (std::size_t i = 0; i < kManyJobs; ++i) {
    ASSERT_EQ(history.Append("service", Job(static_cast<long long>(i))), 0u);
    const std::uintmax_t size = Size();
    ASSERT_LE(size, kLargestSize);
    // Where the oldest lines were dropped, so much is left that the newest did not lie over them.
    if (size < before) {
      ASSERT_LT(size, kLargestSize / 2 + sizeof kWhole);
      ASSERT_GT(size, kLeastKept);
    }
    before = size;
    largest = std::max(size, largest);
  }
  EXPECT_GT(largest, kLargestSize - 2 * sizeof kWhole);
  EXPECT_EQ(Content().front(), '2');
  const std::vector<HistoryEntry> entries = Entries();
  ASSERT_GT(entries.size(), 50u);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i].job.seconds, static_cast<long long>(kManyJobs - entries.size() + i));
  }
}

TEST_F(FlashHistoryTest, TakesALineThatFillsItToItsLargestSize) {
  ASSERT_EQ(history.Append("service", Job(1)), 0u);
  const std::uintmax_t line = Size();
  folder.Write(L"history.txt", std::string(kLargestSize - line - 1, 'x') + "\n");
  ASSERT_EQ(history.Append("service", Job(1)), 0u);
  EXPECT_EQ(Size(), kLargestSize);
  EXPECT_THAT(Entries(), SizeIs(1));
}

TEST_F(FlashHistoryTest, GetsSmallAgainWhenSomebodyHasSpoiltIt) {
  folder.Write(L"history.txt", std::string(100000, 'x'));
  ASSERT_EQ(history.Append("service", Job(1)), 0u);
  EXPECT_THAT(Entries(), SizeIs(1));
  EXPECT_LT(Size(), 2 * sizeof kWhole);
}

TEST_F(FlashHistoryTest, TakesTheLinesOfTwoWriters) {
  constexpr int kEach = 40;
  const auto write = [this](const char* host) {
    for (int i = 0; i < kEach; ++i) EXPECT_EQ(history.Append(host, Job(i)), 0u);
  };
  std::thread service(write, "service");
  std::thread commandLine(write, "cmdline");
  service.join();
  commandLine.join();
  EXPECT_THAT(Entries(), SizeIs(2 * kEach));
}

/// While one writer is in the file no other may be: each takes its end for the place of its own line.
TEST_F(FlashHistoryTest, WaitsForAnotherWriterAndGivesUp) {
  folder.Write(L"history.txt", kWhole);
  const OwnedHandle other(::CreateFileW(history.Path().c_str(), GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
  ASSERT_NE(other.get(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(history.Append("service", Job(1)), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_THAT(Entries(), SizeIs(1));
}

OwnedHandle Open(const std::wstring& path, DWORD access) {
  OwnedHandle file(::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  EXPECT_NE(file.get(), INVALID_HANDLE_VALUE);
  return file;
}

TEST_F(FlashHistoryTest, IsWrittenWhileSomebodyReadsIt) {
  folder.Write(L"history.txt", kWhole);
  const OwnedHandle reader = Open(history.Path(), GENERIC_READ);
  EXPECT_EQ(history.Append("service", Job(1)), 0u);
  EXPECT_THAT(Entries(), SizeIs(2));
}

TEST_F(FlashHistoryTest, IsReadWhileSomebodyMayDeleteIt) {
  folder.Write(L"history.txt", kWhole);
  const OwnedHandle other = Open(history.Path(), DELETE);
  EXPECT_THAT(Entries(), SizeIs(1));
}

/// The disk takes the half, and is full.
BOOL WINAPI WriteHalf(HANDLE file, LPCVOID bytes, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
  const auto write = reinterpret_cast<decltype(&::WriteFile)>(
      ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "WriteFile"));
  write(file, bytes, size / 2, written, overlapped);
  ::SetLastError(ERROR_DISK_FULL);
  return FALSE;
}

BOOL WINAPI FailToFlush(HANDLE) {
  ::SetLastError(ERROR_WRITE_FAULT);
  return FALSE;
}

TEST_F(FlashHistoryTest, KeepsNoHalfLineAndTellsTheFirstError) {
  folder.Write(L"history.txt", kWhole);
  {
    simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
    patch.Replace("WriteFile", &WriteHalf);
    patch.Replace("FlushFileBuffers", &FailToFlush);
    EXPECT_EQ(history.Append("service", Job(1)), static_cast<DWORD>(ERROR_DISK_FULL));
  }
  EXPECT_EQ(Content(), kWhole);
}

TEST_F(FlashHistoryTest, CountsALineOnlyWhenItIsOnTheDisk) {
  folder.Write(L"history.txt", kWhole);
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("FlushFileBuffers", &FailToFlush);
  EXPECT_EQ(history.Append("service", Job(1)), static_cast<DWORD>(ERROR_WRITE_FAULT));
  EXPECT_EQ(Content(), kWhole);
}

TEST_F(FlashHistoryTest, IsEmptyWhereItsFolderIsNotThere) {
  const HistoryReading reading = FlashHistory(folder.File(L"no folder\\history.txt")).Read();
  EXPECT_EQ(reading.error, static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_THAT(reading.entries, SizeIs(0));
}

TEST_F(FlashHistoryTest, TellsThatItCannotBeWritten) {
  const FlashHistory nowhere(folder.File(L"no folder\\history.txt"));
  EXPECT_EQ(nowhere.Append("service", Job(1)), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
}

TEST_F(FlashHistoryTest, TellsThatItCannotBeRead) {
  std::filesystem::create_directory(folder.Path() / L"history.txt");
  EXPECT_NE(history.Read().error, static_cast<DWORD>(ERROR_SUCCESS));
}

}  // namespace

}  // namespace hosts
