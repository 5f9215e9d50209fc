// What the command line shows, in windows of several widths. The files of tests/data/cmdline hold what it
// looks like.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "hosts/cmdline/check_report.h"
#include "hosts/cmdline/doctor_report.h"
#include "hosts/cmdline/flash_end.h"
#include "hosts/cmdline/images_text.h"
#include "hosts/cmdline/progress_line.h"
#include "hosts/cmdline/running_job.h"
#include "hosts/cmdline/status_report.h"
#include "hosts/common/problem.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "support/temporary_folder.h"
#include "tests/hosts/flashlog_text.h"

namespace hosts {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

CheckReport MixedReport() {
  return {
      .findings = {{"command line", Verdict::Ok, "not in the way", ""},
                   {"folder", Verdict::Ok, "C:\\ProgramData\\Corvel\\Firmware", ""},
                   {"modem image", Verdict::Error, "C:\\ProgramData\\Corvel\\Firmware\\modem.fls is empty",
                    "Copy the image anew.", "image_empty"},
                   {"power", Verdict::Warning, "the PC runs on its battery, 40 % charged",
                    "Connect the PC to the mains: one that goes off during a flash leaves the modem in flash "
                    "mode.",
                    "on_battery"}}};
}

ImageReport ThreeImages() {
  return {.folder = L"C:\\ProgramData\\Corvel\\Firmware",
          .images = {{.file = {L"C:\\ProgramData\\Corvel\\Firmware\\modem.fls", 13'631'488},
                      .isTaken = true,
                      .sha256 = std::string(64, 'a')},
                     {.file = {L"C:\\ProgramData\\Corvel\\Firmware\\nvm.fls", 262'144},
                      .isTaken = true,
                      .sha256 = {},
                      .problem = "Sharing violation (32)"},
                     {.file = {L"C:\\ProgramData\\Corvel\\Firmware\\old.fls", 262'145},
                      .sha256 = std::string(64, 'b')}}};
}

Status WritingStatus() {
  Status status{.key = {.path = L"SOFTWARE\\Quenta\\FlashService"},
                .writer = Writer::Lives,
                .values = {},
                .modem = {.mode = ModemMode::FlashPort, .atPort = false, .resetDriver = true},
                .folder = L"C:\\ProgramData\\Corvel\\Firmware",
                .images = {},
                .hindrances = {"another program has the name \"RegistryNotify\""}};
  status.values.ready = 1;
  status.values.timeOut = 153000;
  status.values.onGoing = 1;
  status.values.progress = 42;
  status.values.result = 1;
  status.images.modem = L"C:\\ProgramData\\Corvel\\Firmware\\modem.fls";
  status.job = RunningJob{.stageToken = "write",
                          .stage = "writing",
                          .attempt = 2,
                          .mostAttempts = 4,
                          .percent = 42,
                          .stageTimes = TimedStep{.begin = 36'000'000, .limit = 0},
                          .attemptTimes = TimedStep{.begin = 35'990'000, .limit = 130'000}};
  return status;
}

std::string Snapshot(const std::string& name, std::size_t columns) {
  std::ifstream file(std::string(TEST_DATA) + "/cmdline/" + name + "_" + std::to_string(columns) + ".txt");
  return {std::istreambuf_iterator<char>(file), {}};
}

std::size_t LongestLine(const std::string& text) {
  std::size_t longest = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) longest = std::max(longest, line.size());
  return longest;
}

class CmdlineTextTest : public testing::TestWithParam<std::size_t> {
 protected:
  static void ExpectAsKept(const std::string& name, const std::string& text) {
    EXPECT_EQ(text, Snapshot(name, GetParam()));
    EXPECT_LE(LongestLine(text), GetParam());
  }
};

TEST_P(CmdlineTextTest, Check) {
  ExpectAsKept("check", CheckText(MixedReport(), GetParam()));
}

TEST_P(CmdlineTextTest, Images) {
  ExpectAsKept("images", ImagesText(ThreeImages(), GetParam()));
}

TEST_P(CmdlineTextTest, Status) {
  ExpectAsKept("status", StatusText(WritingStatus(), GetParam()));
}

TEST_P(CmdlineTextTest, Doctor) {
  ExpectAsKept(
      "doctor",
      DoctorText({.archive = "D:\\corvel_doctor_2026-11-22_10-11-12.zip",
                  .files = {{"check.json", 2314},
                            {"logs/FlashServiceDebugLogger_DLL_2026-11-15_23-04-11.log", 181234}},
                  .leftOut = {{"CorvelConfig.ini", "the flash service is starting and needs it for itself"}}},
                 GetParam()));
}

TEST_P(CmdlineTextTest, EndOfAFlash) {
  ExpectAsKept("flash",
               FlashEndText({.flashed = true,
                             .verdict = "The modem was flashed and is back.",
                             .result = "Result 4 (succeeded), 1 attempt, 98 s.",
                             .whatToDo = "The images were deleted. Nothing is left to do.",
                             .log = "C:\\Program Files\\Corvel\\bin\\FlashCommandLineLogger_DLL.log"},
                            GetParam()));
}

TEST_P(CmdlineTextTest, Problem) {
  ExpectAsKept("problem", ProblemText("corvel_cmdline",
                                      {"folder_holds_images",
                                       "Not ready, chosen images: the configured folder "
                                       "C:\\ProgramData\\Corvel\\Firmware holds other images: old.fls.",
                                       "Move them away, or leave --images out to flash them."},
                                      GetParam()));
}

TEST_P(CmdlineTextTest, LiveLine) {
  ExpectAsKept("live", LiveLine({.stage = "awaiting flash port",
                                 .percent = 0,
                                 .attempt = 2,
                                 .elapsedSeconds = 14,
                                 .remainingSeconds = 9},
                                GetParam() + 1) +
                           "\n");
}

INSTANTIATE_TEST_SUITE_P(Columns, CmdlineTextTest, testing::Values(40, 80, 120));

TEST(FlashEndTextTest, ColoursItsVerdictAlone) {
  EXPECT_EQ(FlashEndText(
                {.flashed = false, .verdict = "The flash failed.", .result = "Result 3.", .whatToDo = "Do."},
                80, Colours::Ansi),
            "\x1b[31mThe flash failed.\x1b[0m Result 3.\nDo.\n");
}

// --- Verdicts ----------------------------------------------------------------------------------------------

TEST(CheckTextTest, ColoursVerdictsAndNothingElse) {
  const std::string text = CheckText(MixedReport(), 80, Colours::Ansi);
  EXPECT_THAT(text,
              AllOf(HasSubstr("\x1b[32mok\x1b[0m       command line"),
                    HasSubstr("\x1b[31merror\x1b[0m    modem image"),
                    HasSubstr("\x1b[33mwarning\x1b[0m  power"), HasSubstr("\x1b[31mNot ready\x1b[0m: ")));
  EXPECT_EQ(std::ranges::count(text, '\x1b'), 10);
}

TEST(CheckTextTest, EndsWithAVerdict) {
  EXPECT_THAT(
      CheckText(MixedReport(), 80),
      testing::EndsWith("Not ready: 1 error, 1 warning. Begin with what is said of \"modem image\".\n"));
}

TEST(CheckTextTest, IsReadyWithWarnings) {
  CheckReport report = MixedReport();
  std::erase_if(report.findings, [](const Finding& each) { return each.verdict == Verdict::Error; });
  EXPECT_THAT(CheckText(report, 80), testing::EndsWith("Ready: a flash can begin, with 1 warning.\n"));
  report.strict = true;
  EXPECT_THAT(CheckText(report, 80),
              testing::EndsWith("Not ready: 1 warning. Begin with what is said of \"power\".\n"));
  report.findings.pop_back();
  EXPECT_THAT(CheckText(report, 80), testing::EndsWith("Ready: a flash can begin.\n"));
}

TEST(CheckTextTest, BreaksNoLineForPrograms) {
  EXPECT_EQ(std::ranges::count(CheckText(MixedReport(), kUnlimitedColumns), '\n'), 7);
}

// --- The stage of a running job ----------------------------------------------------------------------------

class JobFollowerTest : public testing::Test {
 protected:
  void Log(const flashlog::LogText& text) const { folder.Write(L"Service.log", text.Text()); }
  std::optional<RunningJob> Look(Writer writer = Writer::Lives) { return follower.Look(values, writer); }
  void SetUp() override {
    values.onGoing = 1;
    values.result = 1;
    values.progress = 42;
  }

  TemporaryFolder folder;
  Handshake values;
  JobFollower follower{folder.File(std::wstring(L"Service.log"))};
};

TEST_F(JobFollowerTest, TellsStageAttemptAndLimitsByTheLog) {
  flashlog::LogText text;
  Log(text.Request().AttemptBegins().At(1).ReachesWriting());
  const auto job = Look();
  ASSERT_TRUE(job);
  EXPECT_EQ(job->stageToken, "write");
  EXPECT_EQ(job->Text(), "writing since 10:00:04; attempt 1 of 4 since 10:00:00, 130 s at most");
  EXPECT_EQ(job->attemptTimes->SecondsLeft(job->attemptTimes->begin + 30'500), 99);
  EXPECT_EQ(job->attemptTimes->SecondsLeft(job->attemptTimes->begin + 131'000), 0);
  EXPECT_EQ(job->percent, 42u);
}

TEST_F(JobFollowerTest, FollowsALogThatGrows) {
  values.retryTimes = 1;
  flashlog::LogText text;
  Log(text.Request().AttemptBegins().ReachesWriting());
  EXPECT_EQ(Look()->stage, "writing");
  Log(text.At(5).JobError("\t Flash FAIL, retry again, g_retry_times: 1(Max 1)").AttemptBegins());
  EXPECT_EQ(Look()->Text(), "preparing since 10:00:05; attempt 2 of 2 since 10:00:05, 130 s at most");
  flashlog::LogText next;
  Log(next.At(60).Request());
  EXPECT_EQ(Look()->stage, "looking for images");
}

TEST_F(JobFollowerTest, GoesByTheHandshakeWithoutALog) {
  const auto job = Look();
  ASSERT_TRUE(job);
  EXPECT_EQ(job->stageToken, "");
  EXPECT_EQ(job->Text(), "writing; attempt 1 of 4");
  EXPECT_TRUE(job->AsJson()["stage"].is_null());
  EXPECT_TRUE(job->AsJson()["stage_times"].is_null());
}

/// It is the log of an earlier run of a host that writes none now.
TEST_F(JobFollowerTest, TakesNoJobThatHasEndedInTheLogForTheRunningOne) {
  flashlog::LogText text;
  Log(text.SuccessfulFlash());
  EXPECT_EQ(Look()->stageToken, "");
}

TEST_F(JobFollowerTest, TellsNothingWhileNothingRuns) {
  flashlog::LogText text;
  Log(text.Request().AttemptBegins());
  EXPECT_FALSE(Look(Writer::Gone));
  values.onGoing = 0;
  EXPECT_FALSE(Look());
}

TEST_F(JobFollowerTest, HasTheTimeOfDebugLogs) {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  const std::string text = flashlog::TimeText(LocalTime());
  EXPECT_THAT(text, HasSubstr(std::to_string(now.wYear) + "-"));
  EXPECT_THAT(text, Not(HasSubstr("1970")));
}

}  // namespace

}  // namespace hosts
