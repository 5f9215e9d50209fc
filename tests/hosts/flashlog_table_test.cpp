#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "hosts/common/terminal.h"
#include "hosts/common/text_layout.h"
#include "hosts/flashlog/job_table.h"
#include "hosts/flashlog/log.h"
#include "hosts/flashlog/news.h"
#include "hosts/flashlog/readable_text.h"
#include "hosts/flashlog_text.h"

namespace hosts::flashlog {
namespace {

/// A flash that succeeds, one whose second attempt fails for good, and one that finds no images.
LogText ThreeFlashes() {
  LogText text;
  text.Trace("CConfigParser::LoadConfig", "VERSION: 1.8.1").At(2).SuccessfulFlash();
  text.At(100).Request().AttemptBegins().ReachesWriting().Progress(10).At(118).Progress(42);
  text.Error("CFirmwareDownloader::DownloadFirmwareIntoDevice",
             "\t Could not download file(|3|C:\\Corvel\\modem.fls)")
      .JobError("\t Flash FAILED, goto Flash_FAILED")
      .JobError("\t Flash FAIL, retry again, g_retry_times: 1(Max 1)")
      .Job("\t After unload dll, wait 5s for UDE CALL BB_RST");
  text.At(123).AttemptBegins().ReachesWriting().At(253).JobError(
      "\t Flash TIMEOUT or other issue, goto Flash_FAILED");
  text.JobError("\t Flash still failed after reach maximum retry value").Result(3).Tidied();
  text.Raw("a line of somebody else\r\n");
  text.At(300)
      .Request()
      .Trace("ToolKit::FetchModemNVMFls", "ToolKit::FetchModemNVMFls: FindFirstFile failed")
      .Job("\t Can't find available fls, monitor again")
      .At(303)
      .Result(3);
  return text;
}

std::string Table(const LogText& text, std::size_t columns) {
  Log log("C:\\Corvel\\FlashServiceDebugLogger_DLL.log", std::nullopt);
  log.Take(text.Text());
  log.Finish();
  return JobTable(log, columns);
}

std::string Snapshot(const std::string& name, std::size_t columns) {
  std::ifstream file(std::string(TEST_DATA) + "/flashlog/" + name + "_" + std::to_string(columns) + ".txt");
  return {std::istreambuf_iterator<char>(file), {}};
}

std::size_t LongestLine(const std::string& text) {
  std::size_t longest = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) longest = std::max(longest, line.size());
  return longest;
}

class FlashlogTableTest : public testing::TestWithParam<std::size_t> {};

TEST_P(FlashlogTableTest, LooksAsItShould) {
  const std::string table = Table(ThreeFlashes(), GetParam());

  EXPECT_EQ(table, Snapshot("table", GetParam()));
  EXPECT_LE(LongestLine(table), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Columns, FlashlogTableTest, testing::Values(40, 80, 120));

TEST(FlashlogTextTest, ALogWithoutAFlashSaysSo) {
  EXPECT_THAT(Table(LogText().Trace("A::B", "x"), 80), testing::HasSubstr("There is no flash in it."));
}

TEST(FlashlogTextTest, AnErrorThatIsTheFirstAndTheLastIsToldOnce) {
  LogText text;
  text.Request().AttemptBegins().Error("Somebody::Else", "went wrong").Result(3);

  const std::string table = Table(text, 80);

  EXPECT_THAT(table, testing::HasSubstr("Failed at 10:00:00.000, byte "));
  EXPECT_THAT(table, testing::Not(testing::HasSubstr("First error")));
}

TEST(FlashlogTextTest, ALogThatCouldNotBeReadToItsEndSaysSo) {
  Log log("test.log", std::nullopt);
  log.Take(LogText().Trace("A::B", "x").Text());
  log.BreakOff("The network is gone");

  EXPECT_THAT(JobTable(log, 80), testing::HasSubstr("Not read beyond byte " + std::to_string(log.Size()) +
                                                    ": The network is gone.\n"));
}

TEST(FlashlogTextTest, AWordThatIsLongerThanALineIsBrokenBetweenLetters) {
  EXPECT_EQ(Wrapped("\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F", 3, "", ""), "\xC3\xA4\xC3\xB6\xC3\xBC\n\xC3\x9F\n");
  EXPECT_EQ(Wrapped("one two three", 7, "", "  "), "one two\n  three\n");
  EXPECT_EQ(Wrapped("", 7, "", "  "), "\n");
}

TEST(FlashlogTextTest, DurationsAreShort) {
  EXPECT_EQ(DurationText(0), "0.0 s");
  EXPECT_EQ(DurationText(99'949), "99.9 s");
  EXPECT_EQ(DurationText(99'950), "1 min 40 s");
  EXPECT_EQ(DurationText(3'600'000), "1 h 00 min");
}

TEST(FlashlogTextTest, BytesOfTheSystemsCodePageBecomeReadable) {
  EXPECT_EQ(ReadableText("\xC3\xA4"), "\xC3\xA4");
  EXPECT_EQ(ReadableText("a\tb\x01"), "a b ");
}

TEST(FlashlogTextTest, NewsTellStagesErrorsAndTheEndOnce) {
  std::string told;
  Log log("test.log", std::nullopt);
  News news("", kUnlimitedColumns);
  log.Watch([&](const Record& record, const Place& place) { told += news.Behind(log, record, place); });
  LogText text;
  text.Request().AttemptBegins().At(3).JobError("\t Flash FAILED, goto Flash_FAILED").Result(3).Tidied();

  log.Take(text.Text());

  EXPECT_EQ(told,
            "10:00:00.000  flash 1 begins\n"
            "10:00:00.000  looking for images\n"
            "10:00:00.000  preparing, attempt 1\n"
            "10:00:03.000  error: Flash FAILED, goto Flash_FAILED\n"
            "10:00:03.000  tidying up\n"
            "10:00:03.000  flash 1 failed\n"
            "10:00:03.000  failed by: preparing in attempt 1 ended after 3.0 s, and no error tells why\n"
            "10:00:03.000  means: failed: no images were found, or the last attempt failed\n"
            "10:00:03.000  do: Ask for the flash again: a modem that was left in flash mode is found there. "
            "When it fails the same way twice, shut the PC down, wait half a minute, start it, and ask once "
            "more.\n");
}

class FlashlogNewsTest : public testing::TestWithParam<std::size_t> {};

TEST_P(FlashlogNewsTest, FitIntoTheWindow) {
  std::string told;
  Log log("test.log", std::nullopt);
  News news("collected\\pc-12.log", GetParam());
  log.Watch([&](const Record& record, const Place& place) { told += news.Behind(log, record, place); });

  log.Take(ThreeFlashes().Text());

  EXPECT_EQ(told, Snapshot("news", GetParam()));
  EXPECT_LE(LongestLine(told), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Columns, FlashlogNewsTest, testing::Values(40, 80, 120));

}  // namespace
}  // namespace hosts::flashlog
