#include <windows.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "hosts/flashlog/log_reader.h"
#include "hosts/flashlog/log_source.h"
#include "hosts/flashlog/page.h"
#include "hosts/flashlog/page_file.h"
#include "hosts/flashlog_text.h"
#include "simulator/import_patch.h"
#include "support/temporary_folder.h"

namespace hosts::flashlog {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

/// A record with texts of its own.
struct Seen {
  std::string message;
  std::string function;
  Flaw flaw = Flaw::None;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  Milliseconds time = 0;
  Level level = Level::Other;
};

class LogReaderTest : public testing::Test {
 protected:
  void Read(const std::string& text, std::size_t pieceSize = 1 << 20) {
    for (std::size_t at = 0; at < text.size(); at += pieceSize) {
      reader.Take(std::string_view(text).substr(at, pieceSize));
    }
  }
  void ReadAll(const std::string& text, std::size_t pieceSize = 1 << 20) {
    Read(text, pieceSize);
    reader.Finish();
  }
  std::vector<std::string> Messages() const {
    std::vector<std::string> messages;
    for (const Seen& record : seen) messages.push_back(record.message);
    return messages;
  }
  std::vector<Flaw> Flaws() const {
    std::vector<Flaw> flaws;
    for (const Seen& record : seen) flaws.push_back(record.flaw);
    return flaws;
  }

  std::vector<Seen> seen;
  LogReader reader{[this](const Record& record) {
    seen.push_back({.message = std::string(record.message),
                    .function = std::string(record.function),
                    .flaw = record.flaw,
                    .offset = record.offset,
                    .size = record.size,
                    .time = record.time,
                    .level = record.level});
  }};
};

TEST_F(LogReaderTest, ReadsTheFieldsOfARecord) {
  ReadAll(
      "#2026-11-15\t23:04:11.042\t4120~5388\tFlashSvc\tTrace\tconfigparser.cpp\t152\tA::B\t\t get X : "
      "Y##\r\n");

  ASSERT_THAT(seen, SizeIs(1));
  EXPECT_EQ(seen[0].message, "get X : Y");
  EXPECT_EQ(seen[0].function, "A::B");
  EXPECT_EQ(seen[0].level, Level::Trace);
  EXPECT_EQ(seen[0].flaw, Flaw::None);
  EXPECT_EQ(seen[0].time % 86'400'000, ((23 * 60 + 4) * 60 + 11) * 1000 + 42);
}

TEST_F(LogReaderTest, AMessageMayHoldTabsLineEndsAndEndMarks) {
  const LogText log = LogText().Trace("A::B", "one\ttwo\r\nthree ## four\n").Trace("A::B", "five");

  ReadAll(log.Text());

  EXPECT_THAT(Messages(), ElementsAre("one\ttwo\nthree ## four", "five"));
  EXPECT_THAT(Flaws(), ElementsAre(Flaw::None, Flaw::None));
}

TEST_F(LogReaderTest, FindsTheSameRecordsWhereverThePiecesEnd) {
  const LogText log =
      LogText().Trace("A::B", "one\n").Raw("foreign\r\n").Error("A::B", "two").Trace("C::D", "three");
  ReadAll(log.Text());
  const std::vector<Seen> whole = seen;
  ASSERT_THAT(whole, SizeIs(4));

  for (std::size_t pieceSize = 1; pieceSize < log.Text().size(); ++pieceSize) {
    seen.clear();
    ReadAll(log.Text(), pieceSize);
    ASSERT_THAT(seen, SizeIs(4)) << pieceSize;
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(seen[i].message, whole[i].message) << pieceSize;
      EXPECT_EQ(seen[i].offset, whole[i].offset) << pieceSize;
      EXPECT_EQ(seen[i].size, whole[i].size) << pieceSize;
    }
  }
}

TEST_F(LogReaderTest, OffsetsAndSizesCoverTheWholeLog) {
  const LogText log = LogText().Trace("A::B", "one\n").Raw("foreign\n").Error("A::B", "two");

  ReadAll(log.Text());

  std::uint64_t end = 0;
  for (const Seen& record : seen) {
    EXPECT_EQ(record.offset, end);
    end = record.offset + record.size;
  }
  EXPECT_EQ(end, log.Text().size());
}

TEST_F(LogReaderTest, ForeignLinesAreHandedOutAndLoseNothing) {
  const LogText log =
      LogText().Raw("Hello\r\n\r\n").Trace("A::B", "one").Raw("not a record##\r\n").Trace("A::B", "two");

  ReadAll(log.Text());

  EXPECT_THAT(Messages(), ElementsAre("Hello", "one", "not a record##", "two"));
  EXPECT_THAT(Flaws(), ElementsAre(Flaw::Foreign, Flaw::None, Flaw::Foreign, Flaw::None));
  EXPECT_EQ(seen[2].time, seen[1].time);
}

TEST_F(LogReaderTest, ARecordWithoutItsEndIsTruncatedByTheNextOne) {
  const LogText text;
  ReadAll(text.Begin("Trace", "A::B") + "half\r\n" + LogText().Trace("A::B", "whole").Text());

  EXPECT_THAT(Messages(), ElementsAre("half", "whole"));
  EXPECT_THAT(Flaws(), ElementsAre(Flaw::Truncated, Flaw::None));
}

TEST_F(LogReaderTest, ARecordThatBreaksOffInItsLineDoesNotTakeTheNextOneWithIt) {
  const LogText text;
  ReadAll(text.Begin("Trace", "A::B") + "ha" + LogText().Trace("A::B", "whole").Text());

  EXPECT_THAT(Messages(), ElementsAre("ha", "whole"));
  EXPECT_THAT(Flaws(), ElementsAre(Flaw::Truncated, Flaw::None));
}

TEST_F(LogReaderTest, TheEndOfTheLogTruncates) {
  const LogText text;
  ReadAll(text.Begin("Trace", "A::B") + "half");
  EXPECT_THAT(Flaws(), ElementsAre(Flaw::Truncated));

  seen.clear();
  ReadAll("#2026-11-15\t10:0");
  EXPECT_THAT(Flaws(), ElementsAre(Flaw::Foreign));
}

TEST_F(LogReaderTest, ALastRecordWithoutALineEndIsWhole) {
  const LogText text;
  ReadAll(text.Begin("Trace", "A::B") + "last##");

  EXPECT_THAT(Messages(), ElementsAre("last"));
  EXPECT_THAT(Flaws(), ElementsAre(Flaw::None));
}

TEST_F(LogReaderTest, ARecordThatLacksFieldsIsMalformedAndKeepsItsTime) {
  ReadAll(
      "#2026-11-15\t10:00:01.000\t4120\tFlashSvc\tTrace##\r\n"
      "#2026-11-15\t10:00:02.000\tx~y\tFlashSvc\tTrace\ta.cpp\t1\tA::B\tmessage##\r\n"
      "#2026-11-15\t10:00:03.000\t1~99999999999\tFlashSvc\tTrace\ta.cpp\t1\tA::B\tmessage##\r\n");

  EXPECT_THAT(Flaws(), ElementsAre(Flaw::Malformed, Flaw::Malformed, Flaw::Malformed));
  EXPECT_THAT(seen[0].message, StartsWith("4120"));
  EXPECT_EQ(seen[2].time - seen[0].time, 2000);
}

TEST_F(LogReaderTest, AnImpossibleTimeIsNoBegin) {
  const LogText good = LogText().Trace("A::B", "good");
  ReadAll(
      "#2026-13-15\t10:00:01.000\t1~2\tS\tTrace\ta.cpp\t1\tF\tm##\r\n"
      "#2026-02-30\t10:00:01.000\t1~2\tS\tTrace\ta.cpp\t1\tF\tm##\r\n"
      "#2026-11-15\t24:00:01.000\t1~2\tS\tTrace\ta.cpp\t1\tF\tm##\r\n" +
      good.Text());

  EXPECT_THAT(Flaws(), ElementsAre(Flaw::Foreign, Flaw::Foreign, Flaw::Foreign, Flaw::None));
}

TEST_F(LogReaderTest, AHugeRecordIsCutAndTheNextOneFound) {
  const std::string huge(5'000'000, 'x');
  for (const std::size_t pieceSize : {std::size_t{1} << 22, std::size_t{1} << 16, std::size_t{999}}) {
    seen.clear();
    ReadAll(LogText().Trace("A::B", huge).Trace("A::B", "next").Text(), pieceSize);

    ASSERT_THAT(Flaws(), ElementsAre(Flaw::Cut, Flaw::None)) << pieceSize;
    EXPECT_LE(seen[0].message.size(), LogReader::kLongestRecord);
    EXPECT_EQ(seen[1].offset, seen[0].size);
    EXPECT_EQ(seen[1].message, "next");
  }
}

TEST_F(LogReaderTest, ARecordOfEndlessLinesIsCut) {
  std::string lines;
  while (lines.size() < 1'000'000) lines += "a line\n";

  ReadAll(LogText().Trace("A::B", lines).Trace("A::B", "next").Text());

  ASSERT_THAT(Flaws(), ElementsAre(Flaw::Cut, Flaw::None));
  EXPECT_LE(seen[0].message.size(), LogReader::kLongestRecord);
}

TEST_F(LogReaderTest, ZerosOfALostSectorAreAForeignLine) {
  ReadAll(std::string(100'000, '\0') + "\n" + LogText().Trace("A::B", "one").Text());

  EXPECT_THAT(Flaws(), ElementsAre(Flaw::Foreign, Flaw::None));
}

TEST_F(LogReaderTest, ZerosOfAPowerCutLoseNoRecordBehindThem) {
  constexpr std::size_t kZeros = 70'000;
  const std::string records = LogText().Request().Trace("A::B", "next").Text();
  for (const std::size_t pieceSize : {std::size_t{1} << 18, std::size_t{4096}, std::size_t{1}}) {
    seen.clear();
    ReadAll(std::string(kZeros, '\0') + records, pieceSize);

    ASSERT_THAT(Flaws(), ElementsAre(Flaw::Foreign, Flaw::None, Flaw::None)) << pieceSize;
    EXPECT_EQ(seen[0].size, kZeros);
    EXPECT_EQ(seen[1].message, "flash flag changed to 1");
    EXPECT_EQ(seen[1].offset, kZeros);
    EXPECT_EQ(seen[1].size + seen[2].size, records.size());
    EXPECT_EQ(seen[2].message, "next");
  }
}

TEST_F(LogReaderTest, ARecordBeginsAnywhereAroundWhereALineIsTooLong) {
  const std::string records = LogText().Trace("A::B", "one").Trace("A::B", "two").Text();
  for (std::size_t zeros = LogReader::kLongestRecord - 60; zeros < LogReader::kLongestRecord + 60; ++zeros) {
    seen.clear();
    ReadAll(std::string(zeros, '\0') + records, 1000);

    ASSERT_THAT(Flaws(), ElementsAre(Flaw::Foreign, Flaw::None, Flaw::None)) << zeros;
    ASSERT_EQ(seen[0].size, zeros);
    ASSERT_EQ(seen[1].offset, zeros);
    ASSERT_EQ(seen[1].message, "one");
  }
}

TEST_F(LogReaderTest, EachHoleOfZerosEndsWithTheNextRecord) {
  const std::string zeros(70'000, '\0');
  const std::string one = LogText().Trace("A::B", "one").Text();
  const std::string half = LogText().Begin("Trace", "A::B") + "half";
  ReadAll(one + zeros + one + half + zeros + one + one);

  EXPECT_THAT(Flaws(),
              ElementsAre(Flaw::None, Flaw::Foreign, Flaw::None, Flaw::Truncated, Flaw::None, Flaw::None));
  EXPECT_EQ(seen.back().offset + seen.back().size, 4 * one.size() + half.size() + 2 * zeros.size());
}

TEST_F(LogReaderTest, AByteOrderMarkDoesNotHideTheFirstRecord) {
  ReadAll("\xEF\xBB\xBF" + LogText().Trace("A::B", "one").Text());

  EXPECT_THAT(Flaws(), ElementsAre(Flaw::None));
}

TEST_F(LogReaderTest, LineEndsOfAnotherSystemAreRead) {
  std::string text = LogText().Trace("A::B", "one").Trace("A::B", "two").Text();
  std::erase(text, '\r');

  ReadAll(text);

  EXPECT_THAT(Messages(), ElementsAre("one", "two"));
}

// --- Where the bytes come from ---------------------------------------------------------------------------

class LogSourceTest : public testing::Test {
 protected:
  static void Write(const std::wstring& path, const std::string& text, DWORD disposition) {
    const HANDLE file =
        ::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    DWORD written = 0;
    ::WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    ::CloseHandle(file);
  }
  void Put(const std::string& text) { Write(path, text, CREATE_ALWAYS); }
  void Append(const std::string& text) { Write(path, text, OPEN_EXISTING); }

  /// What is there to read; "|" where the file began anew.
  static std::string All(LogSource& source) {
    std::string text;
    for (;;) {
      const LogSource::Outcome outcome = source.Read();
      if (outcome == LogSource::Outcome::Bytes) text += source.Bytes();
      if (outcome == LogSource::Outcome::BeganAnew) text += "|";
      if (outcome == LogSource::Outcome::Nothing) return text;
      if (outcome == LogSource::Outcome::Failed) return text + "!";
    }
  }

  TemporaryFolder folder;
  std::wstring path = folder.File(L"growing.log");
};

TEST_F(LogSourceTest, GivesWhatIsAppendedAndNothingTwice) {
  Put("one");
  LogSource source(ToUtf8(path));
  EXPECT_EQ(All(source), "one");

  Append("two");

  EXPECT_EQ(All(source), "two");
  EXPECT_EQ(All(source), "");
}

TEST_F(LogSourceTest, AnEmptiedFileBeginsAnew) {
  Put("a long begin");
  LogSource source(ToUtf8(path));
  All(source);

  Put("short");

  EXPECT_EQ(All(source), "|short");
}

TEST_F(LogSourceTest, AnEmptiedFileThatIsLongerAgainBeginsAnew) {
  Put("#2026-11-15 one");
  LogSource source(ToUtf8(path));
  All(source);

  Put("#2026-11-16 two, and more than before");

  EXPECT_EQ(All(source), "|#2026-11-16 two, and more than before");
}

TEST_F(LogSourceTest, AReplacedFileIsReadToItsEndFirst) {
  Put("same begin");
  LogSource source(ToUtf8(path));
  EXPECT_EQ(All(source), "same begin");
  Append(", old end");
  ASSERT_TRUE(::MoveFileW(path.c_str(), (path + L".kept").c_str()));

  Put("same begin, of the new one");

  EXPECT_EQ(All(source), ", old end|same begin, of the new one");
}

TEST_F(LogSourceTest, AFileThatIsNotThereFailsAndMayCome) {
  LogSource source(ToUtf8(path));
  EXPECT_EQ(All(source), "!");
  EXPECT_EQ(source.Error(), DWORD{ERROR_FILE_NOT_FOUND});

  Put("here");

  EXPECT_EQ(All(source), "here");
}

TEST_F(LogSourceTest, HoldsNobodyUp) {
  Put("one");
  LogSource source(ToUtf8(path));
  All(source);

  EXPECT_TRUE(::DeleteFileW(path.c_str()));
}

TEST_F(LogSourceTest, KnowsWhetherAFileWasEverThere) {
  LogSource source(ToUtf8(path));
  All(source);
  EXPECT_FALSE(source.HasBeenThere());

  Put("here");
  All(source);
  EXPECT_TRUE(source.HasBeenThere());

  ASSERT_TRUE(::DeleteFileW(path.c_str()));
  All(source);
  EXPECT_TRUE(source.HasBeenThere());
}

TEST_F(LogSourceTest, OneFileMayHaveSeveralPaths) {
  Put("one");
  const std::wstring link = folder.File(L"link.log");
  ASSERT_TRUE(::CreateHardLinkW(link.c_str(), path.c_str(), nullptr));

  EXPECT_TRUE(IsSameFile(path, path));
  EXPECT_TRUE(IsSameFile(path, link));
  EXPECT_TRUE(IsSameFile(folder.File(L"missing.log"), folder.File(L"MISSING.log")));
  EXPECT_TRUE(IsSameFile(folder.File(L"missing.log"), folder.File(L".\\missing.log")));
  EXPECT_FALSE(IsSameFile(path, folder.File(L"missing.log")));
}

// --- Where a page goes -----------------------------------------------------------------------------------

class PageFileTest : public LogSourceTest {
 protected:
  static std::string TextOf(const std::wstring& file) {
    LogSource source(ToUtf8(file));
    return All(source);
  }

  const std::string page = Page({});
  const std::wstring draft = path + L".new";
};

TEST_F(PageFileTest, APageTakesThePlaceOfAPage) {
  EXPECT_EQ(WritePageFile(path, page), DWORD{ERROR_SUCCESS});
  EXPECT_EQ(WritePageFile(path, page + "newer"), DWORD{ERROR_SUCCESS});

  EXPECT_EQ(TextOf(path), page + "newer");
  EXPECT_EQ(TextOf(draft), "!");
}

TEST_F(PageFileTest, NothingElseIsReplaced) {
  for (const std::string& text :
       {std::string("a log"), std::string(), std::string("<!doctype html>"), std::string(10'000, 'x')}) {
    Put(text);

    EXPECT_EQ(LookAtPageFile(path), DWORD{ERROR_FILE_EXISTS});
    EXPECT_EQ(WritePageFile(path, page), DWORD{ERROR_FILE_EXISTS});
    EXPECT_EQ(TextOf(path), text);
  }
}

TEST_F(PageFileTest, NoDraftOfSomebodyElseIsTouched) {
  Write(draft, "precious", CREATE_ALWAYS);

  EXPECT_EQ(WritePageFile(path, page), DWORD{ERROR_SUCCESS});

  EXPECT_EQ(TextOf(draft), "precious");
  EXPECT_EQ(TextOf(path), page);
  EXPECT_EQ(TextOf(path + L".2.new"), "!");
}

TEST_F(PageFileTest, APageThatCannotTakeItsPlaceLeavesNoDraft) {
  Put(page);
  Write(draft, "precious", CREATE_ALWAYS);
  const OwnedHandle held(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));

  EXPECT_NE(WritePageFile(path, page), DWORD{ERROR_SUCCESS});

  EXPECT_EQ(TextOf(draft), "precious");
  EXPECT_EQ(TextOf(path + L".2.new"), "!");
}

// --- Reading that fails ----------------------------------------------------------------------------------

/// Reading that fails from a place of the file on, as on a share whose server is gone.
class BrokenLogSourceTest : public LogSourceTest {
 protected:
  BrokenLogSourceTest() {
    s_brokenFrom = kNowhere;
    patch.Replace("ReadFile", &BreakingReadFile);
  }

  static constexpr std::uint64_t kNowhere = std::numeric_limits<std::uint64_t>::max();
  static std::uint64_t s_brokenFrom;

  simulator::ImportPatch patch{::GetModuleHandleW(nullptr)};

 private:
  static BOOL WINAPI BreakingReadFile(HANDLE file, void* buffer, DWORD size, DWORD* length,
                                      OVERLAPPED* place) {
    using Function = BOOL(WINAPI*)(HANDLE, void*, DWORD, DWORD*, OVERLAPPED*);
    static const auto readFile = reinterpret_cast<Function>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "ReadFile")));
    if (place->Offset >= s_brokenFrom) {
      ::SetLastError(ERROR_NETNAME_DELETED);
      return FALSE;
    }
    const std::uint64_t good = s_brokenFrom - place->Offset;
    return readFile(file, buffer, static_cast<DWORD>(std::min<std::uint64_t>(size, good)), length, place);
  }
};

std::uint64_t BrokenLogSourceTest::s_brokenFrom = kNowhere;

TEST_F(BrokenLogSourceTest, WhatCannotBeReadInTheMiddleIsToldAndReadWhenItCan) {
  Put("the first half, the second half");
  LogSource source(ToUtf8(path));
  s_brokenFrom = 14;
  EXPECT_EQ(All(source), "the first half!");
  EXPECT_TRUE(source.BrokeOff());
  EXPECT_EQ(source.Error(), DWORD{ERROR_NETNAME_DELETED});

  s_brokenFrom = kNowhere;

  EXPECT_EQ(All(source), ", the second half");
  EXPECT_FALSE(source.BrokeOff());
}

TEST_F(BrokenLogSourceTest, AFileOfWhichNothingCanBeReadAnyMoreHasNotBegunAnew) {
  Put("one");
  LogSource source(ToUtf8(path));
  EXPECT_EQ(All(source), "one");

  s_brokenFrom = 0;

  EXPECT_EQ(All(source), "!");
  EXPECT_TRUE(source.BrokeOff());
}

TEST_F(LogSourceTest, AFileThatIsNotThereHasNotBrokenOff) {
  LogSource source(ToUtf8(path));

  EXPECT_EQ(All(source), "!");
  EXPECT_FALSE(source.BrokeOff());
}

/// A pipe in the place of standard input.
class InputSourceTest : public testing::Test {
 protected:
  void SetUp() override {
    HANDLE reading = nullptr;
    HANDLE writing = nullptr;
    ASSERT_TRUE(::CreatePipe(&reading, &writing, nullptr, 0));
    reader.reset(reading);
    writer.reset(writing);
    ::SetStdHandle(STD_INPUT_HANDLE, reading);
  }
  void TearDown() override { ::SetStdHandle(STD_INPUT_HANDLE, before); }

  void Write(const std::string& text) {
    DWORD written = 0;
    ASSERT_TRUE(::WriteFile(writer.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
  }

  /// Until then somebody reads from the pipe.
  void ExpectEnd(LogSource& source) {
    writer.reset();
    EXPECT_EQ(source.Read(), LogSource::Outcome::Nothing);
  }
  /// Somebody else reads, so it takes a moment.
  static bool BecomesReady(const LogSource& source) {
    constexpr int kMostLooks = 10'000;
    for (int i = 0; i < kMostLooks && !source.IsReady(); ++i) ::Sleep(1);
    return source.IsReady();
  }

  HANDLE before = ::GetStdHandle(STD_INPUT_HANDLE);
  OwnedHandle reader;
  OwnedHandle writer;
};

TEST_F(InputSourceTest, AnEmptyPipeIsNotReadyAndMayGrow) {
  LogSource source("-");

  EXPECT_FALSE(source.IsReady());
  EXPECT_TRUE(source.CanGrow());
  ExpectEnd(source);
}

TEST_F(InputSourceTest, APipeIsReadyWhenSomebodyHasWritten) {
  LogSource source("-");

  Write("one");

  ASSERT_TRUE(BecomesReady(source));
  EXPECT_EQ(source.Read(), LogSource::Outcome::Bytes);
  EXPECT_EQ(source.Bytes(), "one");
  EXPECT_FALSE(source.IsReady());
  EXPECT_TRUE(source.CanGrow());
  ExpectEnd(source);
}

TEST_F(InputSourceTest, ReadingWaitsForWhatIsWritten) {
  LogSource source("-");
  std::thread writing([this] { Write("one"); });

  EXPECT_EQ(source.Read(), LogSource::Outcome::Bytes);
  EXPECT_EQ(source.Bytes(), "one");
  writing.join();
  ExpectEnd(source);
}

TEST_F(InputSourceTest, MoreThanIsKeptComesWholeAndInOrder) {
  std::string text;
  while (text.size() < 5'000'000) text += std::to_string(text.size()) + " ";
  LogSource source("-");
  std::thread writing([&] {
    Write(text);
    writer.reset();
  });

  std::string seen;
  while (source.Read() == LogSource::Outcome::Bytes) seen += source.Bytes();
  writing.join();

  EXPECT_TRUE(seen == text);
}

TEST_F(InputSourceTest, APipeWithoutAWriterEndsOnce) {
  LogSource source("-");

  writer.reset();

  ASSERT_TRUE(BecomesReady(source));
  EXPECT_EQ(source.Read(), LogSource::Outcome::Nothing);
  EXPECT_FALSE(source.CanGrow());
  EXPECT_FALSE(source.IsReady());
  EXPECT_FALSE(source.BrokeOff());
}

TEST_F(InputSourceTest, AnInputThatCannotBeReadIsToldOnce) {
  ::SetStdHandle(STD_INPUT_HANDLE, writer.get());
  LogSource source("-");

  EXPECT_EQ(source.Read(), LogSource::Outcome::Failed);
  EXPECT_TRUE(source.BrokeOff());
  EXPECT_EQ(source.Read(), LogSource::Outcome::Nothing);
  EXPECT_TRUE(source.BrokeOff());
}

}  // namespace
}  // namespace hosts::flashlog
