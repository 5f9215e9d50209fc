#include <gmock/gmock.h>

#include <cstddef>
#include <fstream>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/flashlog/ending.h"
#include "hosts/flashlog/log.h"
#include "hosts/flashlog/page.h"
#include "hosts/flashlog_text.h"

namespace hosts::flashlog {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class FlashlogJobsTest : public testing::Test {
 protected:
  const std::vector<Job>& JobsOf(const LogText& text) {
    log.Take(text.Text());
    log.Finish();
    return log.Jobs();
  }
  static std::vector<StageKind> StagesOf(const Job& job) {
    std::vector<StageKind> kinds;
    for (const Stage& stage : job.stages) kinds.push_back(stage.kind);
    return kinds;
  }
  static Milliseconds Length(const Stage& stage) { return stage.end - stage.begin; }

  Log log{"test.log", std::nullopt};
};

TEST_F(FlashlogJobsTest, ASuccessfulFlashHasItsStagesAndItsResult) {
  const auto& jobs = JobsOf(LogText().At(5).SuccessfulFlash());

  ASSERT_THAT(jobs, SizeIs(1));
  const Job& job = jobs[0];
  EXPECT_EQ(job.state, JobState::Succeeded);
  EXPECT_EQ(job.result, 4);
  EXPECT_EQ(job.end - job.begin, 20'000);
  EXPECT_THAT(StagesOf(job),
              ElementsAre(StageKind::Images, StageKind::Prepare, StageKind::FlashMode, StageKind::FlashPort,
                          StageKind::Boot, StageKind::Write, StageKind::Return, StageKind::TidyUp));
  EXPECT_EQ(Length(job.stages[3]), 1000);
  EXPECT_EQ(job.stages[3].limit, 15'000);
  EXPECT_EQ(Length(job.stages[5]), 11'000);
  EXPECT_EQ(Length(job.stages[6]), 6000);
  EXPECT_EQ(job.stages[6].limit, 23'000);
  ASSERT_THAT(job.attempts, SizeIs(1));
  EXPECT_EQ(job.attempts[0].outcome, AttemptOutcome::Succeeded);
  EXPECT_EQ(job.highestProgress, 100);
  EXPECT_FALSE(job.firstError);
  EXPECT_EQ(job.errors, 0U) << "the deletion of the images is none, whatever its level";
}

TEST_F(FlashlogJobsTest, AFailedAttemptIsRepeatedBehindAPause) {
  const auto& jobs = JobsOf(LogText()
                                .Request()
                                .AttemptBegins()
                                .ReachesWriting()
                                .At(4)
                                .By(LogText::kWorker)
                                .Error("CFirmwareDownloader::DownloadFirmwareIntoDevice",
                                       "\t Could not download file(|3|C:\\a.fls)")
                                .JobError("\t Flash FAILED, goto Flash_FAILED")
                                .JobError("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)")
                                .Job("\t After unload dll, wait 5s for UDE CALL BB_RST")
                                .At(9)
                                .SuccessfulFlash());

  // The second request is another job: what is between the two has to be the first one's.
  ASSERT_THAT(jobs, SizeIs(2));
  EXPECT_EQ(jobs[0].attempts[0].outcome, AttemptOutcome::Failed);
  EXPECT_EQ(jobs[0].stages.back().kind, StageKind::Pause);
  EXPECT_EQ(jobs[0].state, JobState::CutShort);
  ASSERT_TRUE(jobs[0].firstError);
  EXPECT_EQ(jobs[0].firstError->message, "Could not download file(|3|C:\\a.fls)");
  EXPECT_EQ(jobs[0].errors, 3U);
  EXPECT_EQ(jobs[1].state, JobState::Succeeded);
}

TEST_F(FlashlogJobsTest, TheCauseIsTheFirstErrorAlsoBehindItsConsequence) {
  const auto& jobs =
      JobsOf(LogText()
                 .Request()
                 .AttemptBegins()
                 .Error("CUdeIoControl::TriggerFlashReset", "TriggerFlashReset--: OpenFlashDevice Failed")
                 .Error("CUdeIoControl::OpenUdeDeviceFlashInterface", "CreateFile failed: 5")
                 .Error("CUdeIoControl::OpenUdeDeviceFlashInterface", "CreateFile failed: 6"));

  ASSERT_TRUE(jobs[0].firstError);
  EXPECT_EQ(jobs[0].firstError->message, "CreateFile failed: 5");
}

TEST_F(FlashlogJobsTest, AnUnknownErrorIsACauseOfItsOwn) {
  const auto& jobs = JobsOf(LogText().Request().Error("Somebody::Else", "went wrong"));

  ASSERT_TRUE(jobs[0].firstError);
  EXPECT_EQ(jobs[0].firstError->trouble, nullptr);
}

TEST_F(FlashlogJobsTest, ATraceThatTellsACauseCounts) {
  const auto& jobs = JobsOf(LogText().Request().Trace("ToolKit::FetchModemNVMFls",
                                                      "ToolKit::FetchModemNVMFls: FindFirstFile failed"));

  ASSERT_TRUE(jobs[0].firstError);
  EXPECT_EQ(jobs[0].errors, 1U);
}

TEST_F(FlashlogJobsTest, AnAttemptThatOverrunsIsGivenUpAndItsLateRecordsMoveNothing) {
  LogText text;
  text.Request().AttemptBegins().ReachesWriting().At(130).JobError(
      "\t Flash TIMEOUT or other issue, goto Flash_FAILED");
  text.Job("\t After unload dll, wait 5s for UDE CALL BB_RST").At(135);
  text.Job("\t DownloadFirmwareImplementation timeout: 130s");
  text.By(77).Trace("ToolKit::DownloadFirmwareImplementation", "ToolKit::DownloadFirmwareImplementation ++");
  text.At(140).Download("\t BootDeviceInFirmwareMode OK");

  const auto& jobs = JobsOf(text);

  ASSERT_THAT(jobs, SizeIs(1));
  ASSERT_THAT(jobs[0].attempts, SizeIs(2));
  EXPECT_EQ(jobs[0].attempts[0].outcome, AttemptOutcome::Overran);
  EXPECT_EQ(jobs[0].stages.back().kind, StageKind::Prepare)
      << "the first attempt's worker has nothing to say";
  EXPECT_EQ(jobs[0].stages.back().attempt, 2);
}

TEST_F(FlashlogJobsTest, AnAttemptThatDidNotStartTakesNothingOfTheNextOne) {
  LogText text;
  text.Request().Job("\t fetch modem & NVM folder, m_nModemNVMFolder:C:\\f").At(2);
  text.JobError("\t CreateThread DownloadFirmwareImplementation FAIL, 8");

  const Job& job = JobsOf(text.At(3).AttemptBegins().At(5).Progress(1)).at(0);

  ASSERT_THAT(job.attempts, SizeIs(2));
  EXPECT_EQ(job.attempts[0].outcome, AttemptOutcome::NotStarted);
  ASSERT_THAT(StagesOf(job), ElementsAre(StageKind::Images, StageKind::Prepare, StageKind::Prepare));
  EXPECT_EQ(job.stages[1].attempt, 1);
  EXPECT_EQ(Length(job.stages[1]), 0);
  EXPECT_EQ(job.stages[2].attempt, 2);
  EXPECT_EQ(Length(job.stages[2]), 2000);
}

TEST_F(FlashlogJobsTest, ALimitThatTheLogTellsCounts) {
  const Job& job =
      JobsOf(
          LogText()
              .Request()
              .Job("\t DownloadFirmwareImplementation timeout: 90s")
              .By(LogText::kWorker)
              .Trace("ToolKit::DownloadFirmwareImplementation", "ToolKit::DownloadFirmwareImplementation ++")
              .Trace("CFirmwareDownloader::InjectBootTarget", "\t InjectBootTargetThread timeout: 25s"))
          .at(0);

  EXPECT_EQ(job.attempts.at(0).limit, 90'000);
  ASSERT_EQ(job.stages.back().kind, StageKind::Boot);
  EXPECT_EQ(job.stages.back().limit, 25'000);
}

TEST_F(FlashlogJobsTest, ALimitThatIsNoneIsTheUsualOne) {
  LogText text;
  text.Request();
  for (const char* const limit : {"0s", "-5s", "90", "99999999999s", "soon"}) {
    text.Job(std::string("\t DownloadFirmwareImplementation timeout: ") + limit);
  }

  const Job& job = JobsOf(text).at(0);

  ASSERT_THAT(job.attempts, SizeIs(5));
  for (const Attempt& attempt : job.attempts) EXPECT_EQ(attempt.limit, 130'000) << attempt.number;
}

// --- What ended a flash that failed ----------------------------------------------------------------------

constexpr char kNotWritten[] = "\t Could not download file(|3|C:\\a.fls)";

/// An attempt whose download breaks off, up to its end.
LogText& FailingAttempt(LogText& text) {
  return text.AttemptBegins()
      .ReachesWriting()
      .By(LogText::kWorker)
      .Error("CFirmwareDownloader::DownloadFirmwareIntoDevice", kNotWritten)
      .JobError("\t Flash FAILED, goto Flash_FAILED");
}

TEST_F(FlashlogJobsTest, WhatARetryHasOvercomeDidNotEndTheFlash) {
  LogText text;
  FailingAttempt(text.Request()).AttemptBegins().ReachesWriting();
  text.Job("\t Flash OK, to wait for MBIM Modem re-arrival").At(30);
  text.JobError("\t Wait Modem re-arrival timeout or other issue, Let's check it last time\n");
  text.JobError("\t Flash OK, but wait Modem re-arrived failed").Result(3);

  const Job& job = JobsOf(text).at(0);

  EXPECT_THAT(job.firstError->message, StartsWith("Could not download file"));
  const auto ending = EndingOf(job);
  ASSERT_TRUE(ending);
  EXPECT_THAT(ending->message, StartsWith("Wait Modem re-arrival timeout"));
  EXPECT_THAT(ending->meaning, HasSubstr("not back within 23 s"));
  EXPECT_TRUE(BeganOtherwise(job, *ending));
}

TEST_F(FlashlogJobsTest, WhatTheLastAttemptHasOvercomeItselfDidNotEndTheFlash) {
  LogText text;
  text.Request().AttemptBegins().By(LogText::kWorker);
  text.Error("CFirmwareDownloader::MonitorFlashPort", "\t Timeout in waiting for flash channel");
  text.Job("\t Flash OK, to wait for MBIM Modem re-arrival").At(30);
  text.JobError("\t Wait Modem re-arrival timeout or other issue, retry\n").Result(3);

  EXPECT_THAT(EndingOf(JobsOf(text).at(0))->message, StartsWith("Wait Modem re-arrival timeout"));
}

TEST_F(FlashlogJobsTest, OneErrorMayBeTheFirstAndEndTheFlash) {
  LogText text;
  FailingAttempt(text.Request()).Result(3);

  const Job& job = JobsOf(text).at(0);

  const auto ending = EndingOf(job);
  ASSERT_TRUE(ending && job.firstError);
  EXPECT_EQ(ending->offset, job.firstError->offset);
  EXPECT_FALSE(BeganOtherwise(job, *ending));
}

TEST_F(FlashlogJobsTest, AnAttemptThatWasGivenUpDoesNotEndALaterOne) {
  LogText text;
  text.Request().AttemptBegins().At(130).JobError("\t Flash TIMEOUT or other issue, goto Flash_FAILED");
  text.At(135).Job("\t DownloadFirmwareImplementation timeout: 130s");
  text.By(77).Trace("ToolKit::DownloadFirmwareImplementation", "ToolKit::DownloadFirmwareImplementation ++");
  text.By(LogText::kWorker).Error("CFirmwareDownloader::DownloadFirmwareIntoDevice", kNotWritten);
  text.By(77).Error("Somebody::Else", "went wrong");
  text.JobError("\t Flash FAILED, goto Flash_FAILED").Result(3);

  EXPECT_EQ(EndingOf(JobsOf(text).at(0))->message, "went wrong");
}

TEST_F(FlashlogJobsTest, AThreadOfAnAttemptThatWasGivenUpMayWorkForALaterOne) {
  LogText text;
  text.Request().AttemptBegins().At(130).JobError("\t Flash TIMEOUT or other issue, goto Flash_FAILED");
  FailingAttempt(text.At(135)).Result(3);

  EXPECT_THAT(EndingOf(JobsOf(text).at(0))->message, StartsWith("Could not download file"));
}

TEST_F(FlashlogJobsTest, AWaitThatRanOutWithoutAnErrorIsToldInWords) {
  LogText text;
  FailingAttempt(text.Request()).AttemptBegins().ReachesWriting();
  text.At(10).Job("\t Flash OK, to wait for MBIM Modem re-arrival").At(33);
  text.JobError("\t Flash OK, but wait Modem re-arrived failed").Result(3);
  text.Error("ToolKit::DeleteFLSFiles", "DeleteFile(C:\\a.fls) failed with: 5").Tidied();

  const Job& job = JobsOf(text).at(0);

  const auto ending = EndingOf(job);
  ASSERT_TRUE(ending);
  EXPECT_FALSE(ending->IsError());
  EXPECT_EQ(ending->message, "awaiting the modem ended after 23.0 s of 23 s, and no error tells why");
  EXPECT_EQ(ending->offset, job.stages[job.stages.size() - 2].offset);
  EXPECT_EQ(ending->time - job.begin, 33'000);
  EXPECT_THAT(ending->meaning, HasSubstr("the modem did not come back"));
  EXPECT_TRUE(BeganOtherwise(job, *ending));
}

TEST_F(FlashlogJobsTest, AnAttemptThatFailedWithoutAnErrorIsToldByItsResult) {
  LogText text;
  text.Request().AttemptBegins().ReachesWriting().By(LogText::kWorker);
  text.Trace("ToolKit::DownloadFirmwareImplementation",
             "ToolKit::DownloadFirmwareImplementation --, result: 5");
  text.At(4).JobError("\t Flash FAILED, goto Flash_FAILED").Result(3);

  const auto ending = EndingOf(JobsOf(text).at(0));

  ASSERT_TRUE(ending);
  EXPECT_EQ(ending->message, "writing in attempt 1 ended after 1.0 s, and no error tells why");
  EXPECT_THAT(ending->meaning, StartsWith("update failed"));
}

TEST_F(FlashlogJobsTest, OnlyAFlashThatFailedHasAnEndingThatIsTold) {
  LogText text;
  FailingAttempt(text.Request()).At(9).SuccessfulFlash();
  FailingAttempt(text.At(100).Request());

  for (const Job& job : JobsOf(text)) EXPECT_FALSE(EndingOf(job)) << job.number;
}

TEST_F(FlashlogJobsTest, EachWaitForTheModemHasItsOwnLimit) {
  LogText text;
  text.Request().AttemptBegins().ReachesWriting().Job("\t Flash OK, to wait for MBIM Modem re-arrival");
  text.By(40).Trace("ToolKit::WaitForMBIMRearrivedImplementation", "WaitForMBIMRearrivedImplementation ++");
  text.At(30).JobError("\t MBIM device not arrival, retry again, 1(Max 3)");
  text.Trace("CUdeIoControl::TriggerFlashReset", "TriggerFlashReset ++");
  text.At(33).By(41).Trace("ToolKit::WaitForMBIMRearrivedImplementation",
                           "WaitForMBIMRearrivedImplementation ++");
  text.At(40).Job("\t MBIM Modem re-arrival, FW update OK").Result(4).Tidied();

  const Job& job = JobsOf(text).at(0);

  const std::vector<StageKind> stages = StagesOf(job);
  ASSERT_THAT(stages, SizeIs(10));
  EXPECT_THAT(std::vector(stages.begin() + 6, stages.end()),
              ElementsAre(StageKind::Return, StageKind::Pause, StageKind::Return, StageKind::TidyUp));
  EXPECT_EQ(job.stages[8].limit, 23'000);
  EXPECT_THAT(job.moments, SizeIs(2));
  EXPECT_EQ(job.state, JobState::Succeeded);
}

TEST_F(FlashlogJobsTest, AFlashWithoutImagesIsTold) {
  const Job& job = JobsOf(LogText()
                              .Request()
                              .Job("\t fetch modem & NVM folder, m_nModemNVMFolder:C:\\f")
                              .Job("\t Can't find available fls, monitor again")
                              .At(3)
                              .Result(3)
                              .Job("\t Start a new loop process..."))
                       .at(0);

  EXPECT_EQ(job.state, JobState::NoImages);
  EXPECT_EQ(job.result, 3);
}

TEST_F(FlashlogJobsTest, ALogThatEndsInAFlashLeavesItRunning) {
  const Job& job = JobsOf(LogText().Request().AttemptBegins().ReachesWriting().At(50).Progress(30)).at(0);

  EXPECT_EQ(job.state, JobState::Running);
  EXPECT_EQ(job.stages.back().kind, StageKind::Write);
  EXPECT_EQ(job.stages.back().end - job.begin, 50'000);
}

TEST_F(FlashlogJobsTest, AnotherProcessCutsTheFlashOfTheFirstOneShort) {
  const auto& jobs = JobsOf(LogText().Request().AttemptBegins().At(60).Process(11).SuccessfulFlash());

  ASSERT_THAT(jobs, SizeIs(2));
  EXPECT_EQ(jobs[0].state, JobState::CutShort);
  EXPECT_EQ(jobs[1].state, JobState::Succeeded);
}

TEST_F(FlashlogJobsTest, ALogThatBeginsInAFlashShowsTheRestOfIt) {
  const auto& jobs = JobsOf(LogText()
                                .By(LogText::kWorker)
                                .Progress(70)
                                .At(9)
                                .Job("\t Flash OK, to wait for MBIM Modem re-arrival")
                                .At(12)
                                .Job("\t MBIM Modem re-arrival, FW update OK")
                                .Result(4)
                                .Tidied());

  ASSERT_THAT(jobs, SizeIs(1));
  EXPECT_TRUE(jobs[0].beginMissing);
  EXPECT_EQ(jobs[0].state, JobState::Succeeded);
}

TEST_F(FlashlogJobsTest, TheCommandLinesTextsMeanTheSame) {
  const Job& job = JobsOf(LogText()
                              .ByCommandLine()
                              .Request()
                              .Job("DownloadFirmwareImplementation timeout: 130s")
                              .At(3)
                              .JobError("Flash NOT success, goto Flash_FAILED")
                              .JobError("\t Flash still failed after reach maximum retry value")
                              .Result(3)
                              .Tidied())
                       .at(0);

  EXPECT_TRUE(job.byCommandLine);
  EXPECT_EQ(job.state, JobState::Failed);
  EXPECT_EQ(job.attempts.at(0).outcome, AttemptOutcome::Failed);
}

TEST_F(FlashlogJobsTest, AClockThatIsSetBackGivesNoNegativeLength) {
  const Job& job = JobsOf(LogText().At(100).Request().AttemptBegins().At(50).Job(
                              "\t Flash OK, to wait for MBIM Modem re-arrival"))
                       .at(0);

  for (const Stage& stage : job.stages) EXPECT_GE(stage.end, stage.begin);
  EXPECT_GE(job.end, job.begin);
}

TEST_F(FlashlogJobsTest, ForeignLinesWithinAFlashBelongToIt) {
  Log kept("test.log", PageLimits{.others = 10});
  kept.Take(LogText().Request().Raw("foreign\r\n").Text());
  kept.Finish();

  ASSERT_THAT(kept.Kept(), SizeIs(2));
  EXPECT_EQ(kept.Kept()[1].place.job, 1);
  EXPECT_EQ(kept.Flaws().foreign, 1U);
}

TEST_F(FlashlogJobsTest, ALogWithoutAFlashHasNone) {
  EXPECT_THAT(JobsOf(LogText().Trace("A::B", "something")), IsEmpty());
}

TEST_F(FlashlogJobsTest, WithoutAPageOnlyTheHighestPercentageIsKept) {
  const Job& job = JobsOf(LogText().Request().AttemptBegins().Progress(30).Progress(70).Progress(50)).at(0);

  EXPECT_EQ(job.highestProgress, 70);
  EXPECT_THAT(job.progress, IsEmpty());
}

TEST_F(FlashlogJobsTest, ForAPageTheCurveIsKept) {
  Log kept("test.log", PageLimits{});
  kept.Take(LogText().Request().AttemptBegins().Progress(30).Progress(70).Progress(50).Text());

  EXPECT_THAT(kept.Jobs().at(0).progress, SizeIs(3));
}

std::string SampleLog() {
  std::ifstream file(std::string(TEST_DATA) + "/flashlog/sample.log", std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(LogTest, ALogThatIsCutAnywhereLosesNothingInFrontOfTheCut) {
  constexpr std::size_t kStep = 1997;
  const std::string sample = SampleLog();
  ASSERT_GT(sample.size(), 50 * kStep);
  for (std::size_t end = 1; end < sample.size(); end += kStep) {
    Log log("test.log", PageLimits{});
    log.Take(std::string_view(sample).substr(0, end));
    log.Finish();

    ASSERT_THAT(log.Kept(), testing::Not(IsEmpty())) << end;
    const KeptRecord& last = log.Kept().back();
    ASSERT_EQ(last.offset + last.size, end);
    ASSERT_LE(log.Flaws().Sum(), 1U) << end;
    ASSERT_TRUE(log.Flaws().Sum() == 0 || last.flaw != Flaw::None) << end;
  }
}

TEST(LogTest, ACopyOfTwoBytesALetterIsKnownByItsMarkAndNotRead) {
  for (const std::string& text :
       {std::string("\xFF\xFE#\0002\0000\000", 8), std::string("\xFE\xFF\000#\0002", 6)}) {
    Log log("test.log", std::nullopt);
    for (const char letter : text) log.Take(std::string_view(&letter, 1));

    EXPECT_TRUE(log.IsUtf16());
    EXPECT_EQ(log.Size(), text.size());
    log.Finish(true);
    log.Take(LogText().SuccessfulFlash().Text());
    EXPECT_FALSE(log.IsUtf16()) << "another one took its place";
    EXPECT_THAT(log.Jobs(), SizeIs(1));
  }
}

TEST(LogTest, ThatItBrokeOffIsForgottenWhenItGoesOn) {
  Log log("test.log", std::nullopt);
  log.Take(LogText().Trace("A::B", "one").Text());
  log.BreakOff("The network is gone");
  EXPECT_EQ(log.BrokeOff(), "The network is gone");

  log.Take(LogText().Trace("A::B", "two").Text());

  EXPECT_EQ(log.BrokeOff(), "");
}

// --- A log that begins anew ------------------------------------------------------------------------------

LogText FailingFlash() {
  LogText text;
  text.Request().Trace("A::B", "one").Trace("A::B", "two").Error("Somebody::Else", "went wrong");
  return text;
}

/// What the page of a log holds for its script.
nlohmann::json PageData(Log& log) {
  const std::string page = Page({&log});
  constexpr std::string_view kMark = "id=\"data\">";
  const std::size_t begin = page.find(kMark) + kMark.size();
  return nlohmann::json::parse(page.substr(begin, page.find("</script>", begin) - begin));
}

class LogThatBeganAnewTest : public testing::Test {
 protected:
  LogThatBeganAnewTest() {
    log.Take(first);
    log.Finish(true);
    log.Take(second);
    log.Finish();
  }

  const std::string first = LogText().Trace("A::B", std::string(3000, 'x')).Text() + FailingFlash().Text();
  const std::string second = FailingFlash().Text();
  Log log{"test.log", PageLimits{.others = 0}};
};

TEST_F(LogThatBeganAnewTest, HasTheSizeOfWhatIsInIt) {
  EXPECT_EQ(log.Size(), second.size());
  EXPECT_EQ(log.Taken(), first.size() + second.size());
}

TEST_F(LogThatBeganAnewTest, TellsWhereARecordStandsInIt) {
  ASSERT_THAT(log.Jobs(), SizeIs(2));
  EXPECT_EQ(log.Jobs()[1].offset, 0U);
  EXPECT_EQ(log.Jobs()[1].firstError->offset, second.find("#2026", second.find("two")));
}

TEST_F(LogThatBeganAnewTest, HasGapsThatEndWithTheLogTheyAreIn) {
  std::uint64_t end = 0;
  std::uint64_t leftOut = 0;
  for (const KeptRecord& record : log.Kept()) {
    EXPECT_EQ(record.before + record.offset, end);
    end = record.before + record.offset + record.size;
    leftOut += record.leftOut;
    EXPECT_LE(record.offset + record.size, record.before == 0 ? first.size() : second.size());
  }
  EXPECT_EQ(end, log.Taken());
  EXPECT_EQ(leftOut, 5U);
}

TEST_F(LogThatBeganAnewTest, HasAPageInWhichNoPlaceComesTwice) {
  const nlohmann::json data = PageData(log)["logs"][0];

  EXPECT_EQ(data["beginnings"], (nlohmann::json{0, first.size()}));
  EXPECT_EQ(data["size"], second.size());
  EXPECT_EQ(data["jobs"][1]["offset"], first.size());
  EXPECT_EQ(data["jobs"][1]["reason"], first.size() + log.Jobs()[1].firstError->offset);
}

// --- What is kept for a page -----------------------------------------------------------------------------

TEST(RecordStoreTest, KeepsAllErrorsAndTheNewestTraces) {
  Log log("test.log", PageLimits{.others = 3});
  LogText text;
  for (int i = 0; i < 5000; ++i) {
    text.Trace("A::B", "trace " + std::to_string(i));
    if (i % 1000 == 0) text.Error("A::B", "error " + std::to_string(i));
  }
  log.Take(text.Text());
  log.Finish();

  std::uint64_t leftOut = 0;
  std::uint64_t end = 0;
  int errors = 0;
  std::vector<std::string> traces;
  for (const KeptRecord& record : log.Kept()) {
    EXPECT_EQ(record.offset, end) << "each byte belongs to a record or to a gap";
    end = record.offset + record.size;
    leftOut += record.leftOut;
    if (record.leftOut != 0) continue;
    if (record.level == Level::Error) ++errors;
    if (record.level == Level::Trace) traces.push_back(record.message);
  }
  EXPECT_EQ(errors, 5);
  EXPECT_EQ(leftOut, 4997U);
  EXPECT_THAT(traces, ElementsAre("trace 4997", "trace 4998", "trace 4999"));
  EXPECT_EQ(end, text.Text().size());
}

TEST(RecordStoreTest, ALongMessageIsCutAndToldSo) {
  Log log("test.log", PageLimits{.others = 3});
  log.Take(LogText().Error("A::B", std::string(5000, 'x')).Text());
  log.Finish();

  EXPECT_EQ(log.Kept().at(0).messageCut, 3000U);
}

std::string Filled(const std::string& begin, std::size_t size) {
  return begin + std::string(size - begin.size(), 'x');
}

/// Kept records of one kind.
template <typename Predicate>
std::vector<std::string> Messages(Log& log, Predicate predicate) {
  std::vector<std::string> messages;
  for (const KeptRecord& record : log.Kept()) {
    if (predicate(record)) messages.push_back(record.message);
  }
  return messages;
}

TEST(RecordStoreTest, WhatIsNotInOrderIsKeptInFrontOfManyTraces) {
  Log log("test.log", PageLimits{});
  LogText text;
  text.Raw("foreign\r\n").Raw(text.Begin("Trace", "A::B") + "half\r\n");
  for (int i = 0; i < 20'000; ++i) text.Trace("A::B", "trace");
  log.Take(text.Text());
  log.Finish();

  ASSERT_THAT(log.Kept(), SizeIs(2 + 1 + 8000));
  EXPECT_EQ(log.Kept()[0].message, "foreign");
  EXPECT_EQ(log.Kept()[1].flaw, Flaw::Truncated);
  EXPECT_EQ(log.Kept()[2].leftOut, 12'000U);
}

TEST(RecordStoreTest, OfManyForeignLinesTheFirstAndTheLastAreKept) {
  Log log("test.log", PageLimits{});
  LogText text;
  for (int i = 0; i < 5000; ++i) text.Raw("line " + std::to_string(i) + "\r\n");
  log.Take(text.Text());
  log.Finish();

  const auto lines = Messages(log, [](const KeptRecord& record) { return record.IsFlawed(); });

  ASSERT_THAT(lines, SizeIs(RecordStore::kMostFlawed));
  EXPECT_EQ(lines.front(), "line 0");
  EXPECT_EQ(lines[499], "line 499");
  EXPECT_EQ(lines[500], "line 4500");
  EXPECT_EQ(lines.back(), "line 4999");
}

constexpr std::size_t kBiggestPage = 5'000'000;

TEST(RecordStoreTest, LongTracesThatAreAllDifferentFitIntoAPage) {
  Log log("test.log", PageLimits{});
  for (int i = 0; i < 9000; ++i) {
    log.Take(LogText().Trace("A::B", Filled("<" + std::to_string(i) + ">", 2000)).Text());
  }
  log.Finish();

  const auto kept = Messages(log, [](const KeptRecord& record) { return record.IsOther(); });

  ASSERT_THAT(kept, testing::Not(IsEmpty()));
  EXPECT_THAT(kept.back(), testing::StartsWith("<8999>"));
  const std::size_t size = Page({&log}).size();
  EXPECT_LE(size, kBiggestPage);
  EXPECT_GE(size, kBiggestPage * 8 / 10) << "the room is used";
}

TEST(RecordStoreTest, LongErrorsThatAreAllDifferentStayWithShorterTexts) {
  Log log("test.log", PageLimits{});
  for (int i = 0; i < 3000; ++i) {
    log.Take(LogText().Trace("A::B", "trace").Error("A::B", Filled(std::to_string(i) + ":", 2000)).Text());
  }
  log.Finish();

  const auto errors = Messages(log, [](const KeptRecord& record) { return record.level == Level::Error; });

  ASSERT_THAT(errors, SizeIs(3000));
  EXPECT_THAT(errors.front(), testing::StartsWith("0:xxx"));
  EXPECT_LE(Page({&log}).size(), kBiggestPage);
  EXPECT_GT(log.Kept().back().messageCut, 0U);
  EXPECT_EQ(log.Kept().back().message.size() + log.Kept().back().messageCut, 2000U);
}

TEST(RecordStoreTest, JobsTakeOfTheRoomOfTheTraces) {
  Log log("test.log", PageLimits{.others = 8000, .bytes = 600'000});
  for (int i = 0; i < 1000; ++i) log.Take(LogText().Trace("A::B", Filled(std::to_string(i), 500)).Text());
  log.Finish();
  const std::size_t all = log.Kept().size();

  EXPECT_LT(log.Kept(300'000).size(), all);
}

TEST(RecordStoreTest, AFullPageHasNoOthers) {
  Log log("test.log", PageLimits{.others = 8000, .bytes = 600'000});
  log.Take(LogText().Error("A::B", "error").Trace("A::B", "trace").Text());
  log.Finish();

  EXPECT_THAT(Messages(log, [](const KeptRecord& record) { return record.leftOut == 0; }), SizeIs(2));
  log.Kept(600'000);
  EXPECT_THAT(Messages(log, [](const KeptRecord& record) { return record.leftOut == 0; }),
              ElementsAre("error"));
}

TEST(RecordStoreTest, OfStagesThatThereIsNoRoomForTheOldestAreLeftOutAndTold) {
  constexpr int kStages = 3000;
  Log log("test.log", PageLimits{.others = 100, .bytes = 20'000});
  log.Take(LogText().Error("A::B", "error").Warning("A::B", "warning").Text());
  for (int i = 0; i < kStages; ++i) {
    log.Take(LogText().At(i).Job("\t Start a new loop process...").Trace("A::B", "trace").Text());
  }
  log.Finish();

  std::uint64_t all = 0;
  int stages = 0;
  for (const KeptRecord& record : log.Kept()) {
    all += record.leftOut == 0 ? 1 : record.leftOut;
    stages += record.IsStage() ? 1 : 0;
  }
  EXPECT_EQ(log.Kept()[0].message, "error");
  EXPECT_EQ(log.Kept()[1].message, "warning");
  EXPECT_GT(log.Kept()[2].leftOut, 1000U);
  EXPECT_TRUE(log.Kept()[3].IsStage()) << "the newest stay";
  EXPECT_EQ(all, 2U + 2 * kStages);
  EXPECT_GT(stages, 500);
  EXPECT_LT(stages, 1500);
}

TEST(RecordStoreTest, TextsAreNotShortenedWhereTheyTakeNoRoom) {
  Log log("test.log", PageLimits{.others = 100, .bytes = 20'000});
  for (int i = 0; i < 3000; ++i) {
    log.Take(LogText().Error("A::B", Filled("error", 500)).Text());
  }
  log.Finish();

  EXPECT_EQ(log.Kept().back().message.size(), 500U);
}

TEST(RecordStoreTest, WhoAsksForAllGetsAll) {
  Log log("test.log", PageLimits{.others = 9000, .bytes = std::numeric_limits<std::size_t>::max()});
  for (int i = 0; i < 5000; ++i) {
    log.Take(LogText().Trace("A::B", Filled(std::to_string(i), 2000)).Text());
  }
  log.Finish();

  EXPECT_THAT(log.Kept(), SizeIs(5000));
}

TEST(RecordStoreTest, NoLetterIsCutInTwo) {
  Log log("test.log", PageLimits{});
  log.Take(LogText().Trace("A::B", std::string(1999, 'x') + "\xC3\xA4").Text());
  log.Finish();

  EXPECT_EQ(log.Kept().at(0).message, std::string(1999, 'x'));
}

}  // namespace
}  // namespace hosts::flashlog
