// What the command line shows, in windows of several widths. The files of tests/data/cmdline hold what it
// looks like.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/cmdline/check_report.h"
#include "hosts/cmdline/doctor_report.h"
#include "hosts/cmdline/flash_end.h"
#include "hosts/cmdline/images_text.h"
#include "hosts/cmdline/logged_cause.h"
#include "hosts/cmdline/progress_line.h"
#include "hosts/cmdline/running_job.h"
#include "hosts/cmdline/status_report.h"
#include "hosts/common/help_text.h"
#include "hosts/common/history_output.h"
#include "hosts/common/problem.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "support/temporary_folder.h"
#include "tests/hosts/flashlog_text.h"
#include "tests/hosts/kept_text.h"

namespace hosts {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

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

class CmdlineTextTest : public testing::TestWithParam<std::size_t> {
 protected:
  static void ExpectAsKept(const std::string& name, const std::string& text) {
    hosts::ExpectAsKept("cmdline/" + name, text, GetParam());
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

TEST_P(CmdlineTextTest, ListOfTheDoctor) {
  ExpectAsKept("doctor_list",
               DoctorListText({{"check.json", "what `check --json` finds"},
                               {"devices.txt",
                                "the modem's devices that are present, by bus, vendor and product, without "
                                "what tells one modem from another"},
                               {"logs/FlashServiceDebugLogger_DLL*.log",
                                "the service's debug log and those that are kept of it"}},
                              GetParam()));
}

TEST_P(CmdlineTextTest, History) {
  ExpectAsKept("history",
               HistoryText({{.time = "2026-11-15 23:04:11",
                             .host = "service",
                             .job = {.flashed = false, .result = 3, .progress = 40, .seconds = 131}},
                            {.time = "2026-11-15 23:09:00",
                             .host = "cmdline",
                             .job = {.flashed = true, .result = 4, .progress = 100, .seconds = 57}}},
                           GetParam()));
  EXPECT_LE(LongestLine(HistoryText({}, GetParam())), GetParam());
}

class HelpTextTest : public testing::TestWithParam<std::size_t> {
 protected:
  HelpTextTest() {
    program.name("corvel_example");
    program.formatter(std::make_shared<HelpText>(GetParam()));
    program.require_subcommand(1);
    program.footer(
        "\"corvel_example help VERB\" tells the options of a verb.\nExit status: 0 flashed (or nothing "
        "wrong), 1 flash failed.");
    CLI::App* const flash = program.add_subcommand("flash", "Flash the images of the configured folder");
    flash->add_option("WORD", word, "Whatever may stand there")->required();
    CLI::Option* const images =
        flash->add_option("--images", words, "Flash copies of these images, which stay where they are")
            ->type_name("FOLDER | FILE");
    flash->add_option("--bus", word, "Bus of the modem")->check(CLI::IsMember({"usb", "pcie"}));
    flash->add_option("--trace", number, "0 writes no debug log")
        ->check(CLI::Range(0, 1))
        ->capture_default_str();
    flash->add_flag("-w,--wait-for-another-program", waits, "Wait until another program asks")
        ->excludes(images);
    flash->add_flag("--hidden", hides, "Not for people")->group("");
    flash->footer(
        "Examples:\n  corvel_example flash --images D:\\Firmware\\2.1 --bus usb\nExit status: 0 flashed.");
  }

  CLI::App program{"Flashes the built-in cellular modem, once"};
  std::string word;
  std::vector<std::string> words;
  int number = 1;
  bool waits = false;
  bool hides = false;
};

TEST_P(HelpTextTest, OfAProgram) {
  ExpectAsKept("cmdline/help", program.help(), GetParam());
}

TEST_P(HelpTextTest, OfAVerb) {
  ExpectAsKept("cmdline/help_verb", program.get_subcommand("flash")->help("corvel_example"), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Columns, HelpTextTest, testing::Values(40, 80, 120));

TEST_P(CmdlineTextTest, EndOfAFlash) {
  ExpectAsKept("flash",
               FlashEndText({.flashed = true,
                             .verdict = "The modem was flashed and is back.",
                             .result = "Result 4 (succeeded), 1 attempt, 98 s.",
                             .whatToDo = "The images were deleted. Nothing is left to do.",
                             .log = "C:\\Program Files\\Corvel\\bin\\FlashCommandLineLogger_DLL.log"},
                            GetParam()));
}

TEST_P(CmdlineTextTest, EndOfAFlashThatFailed) {
  const LoggedCause cause{.message = "Timeout in waiting for flash channel",
                          .meaning = "The modem did not come back as a flash port within 15 s.",
                          .whatToDo = "Look whether the device list has the modem."};
  ExpectAsKept("flash_failed",
               FlashEndText({.flashed = false,
                             .verdict = "The flash failed.",
                             .result = "Result 3 (failed), 4 attempts, 214 s.",
                             .why = cause.Text(),
                             .whatToDo = cause.whatToDo + " The image files were removed: copy them anew and "
                                                          "run the flash again.",
                             .log = "C:\\Corvel\\FlashCommandLineLogger_DLL.log",
                             .toShowLog = "corvel_flashlog \"C:\\Corvel\\FlashCommandLineLogger_DLL.log\""},
                            GetParam()));
}

TEST_P(CmdlineTextTest, CheckThatFoundNothingWrong) {
  CheckReport report = MixedReport();
  report.findings.resize(2);
  ExpectAsKept("check_ready", CheckText(report, GetParam()));
}

TEST_P(CmdlineTextTest, StatusOfAFlashThatWasCutShort) {
  Status status = WritingStatus();
  status.writer = Writer::Gone;
  status.job.reset();
  status.hindrances.clear();
  ExpectAsKept("status_cut_short", StatusText(status, GetParam()));
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

// --- Why a flash failed ------------------------------------------------------------------------------------

flashlog::Job FailedJob() {
  flashlog::Job job;
  job.state = flashlog::JobState::Failed;
  job.lastCause = flashlog::Reason{.function = "ToolKit::", .message = "ZEMO_DL_open_channel error"};
  return job;
}

TEST(LoggedCauseTest, IsNoneOfAFlashThatHasNotFailed) {
  flashlog::Job job = FailedJob();
  EXPECT_TRUE(CauseOf(job));
  job.state = flashlog::JobState::Succeeded;
  EXPECT_FALSE(CauseOf(job));
}

TEST(LoggedCauseTest, TellsARecordThatNobodyKnows) {
  const auto cause = CauseOf(FailedJob());
  ASSERT_TRUE(cause);
  EXPECT_EQ(cause->Text(), "Why: \"ZEMO_DL_open_channel error\".");
  EXPECT_EQ(cause->whatToDo, "");
}

TEST(LoggedCauseTest, TellsWhatTheFlashWasDoingWhenNoRecordTells) {
  flashlog::Job job = FailedJob();
  job.lastCause.reset();
  job.stages.push_back({.kind = flashlog::StageKind::Return, .begin = 0, .end = 23'000, .limit = 23'000});
  const auto cause = CauseOf(job);
  ASSERT_TRUE(cause);
  EXPECT_THAT(cause->Text(), StartsWith("Why: awaiting the modem ended after 23.0 s of 23 s"));
  EXPECT_NE(cause->whatToDo, "");
}

TEST(LoggedCauseTest, IsOfTheLastFlashOfALog) {
  const auto cause = FindLoggedCause(ToWide(std::string(TEST_DATA) + "/flashlog/sample.log"));
  ASSERT_TRUE(cause);
  EXPECT_NE(cause->meaning, "");
  EXPECT_NE(cause->whatToDo, "");
  EXPECT_EQ(AsJson(cause)["message"], cause->message);
}

TEST(LoggedCauseTest, IsNoneWithoutALog) {
  EXPECT_FALSE(FindLoggedCause(L"C:\\there is\\none.log"));
  EXPECT_TRUE(AsJson(std::nullopt).is_null());
}

TEST(FlashEndTextTest, ColoursItsVerdictAlone) {
  EXPECT_EQ(FlashEndText(
                {.flashed = false, .verdict = "The flash failed.", .result = "Result 3.", .whatToDo = "Do."},
                80, Colours::Ansi),
            "\x1b[31mThe flash failed.\x1b[0m Result 3.\nDo.\n");
}

// --- What goes to support --------------------------------------------------------------------------------

class PlayedCollection : public DoctorCollection {
 public:
  void Take(const std::string& name, std::string_view, const SYSTEMTIME&) override { told.push_back(name); }
  void LeaveOut(const std::string& name, const std::string& why) override {
    told.push_back(name + ": " + why);
  }
  bool TakesMore() const override { return told.size() < 3; }

  std::vector<std::string> told;
};

/// Who needs the archive has trouble already.
TEST(DoctorCollectionTest, LosesNothingElseWhenOneFails) {
  const auto fails = [](DoctorCollection&) { throw std::runtime_error("no such luck"); };
  const auto takes = [](DoctorCollection& collection) { collection.Take("b.txt", "b", {}); };
  const DoctorItem items[] = {
      {"a.txt", "", fails}, {"b.txt", "", takes}, {"c.txt", "", fails}, {"d", "", takes}};
  PlayedCollection collection;
  Collect(items, collection);
  EXPECT_THAT(collection.told,
              testing::ElementsAre("a.txt: something unforeseen went wrong: no such luck", "b.txt",
                                   "c.txt: something unforeseen went wrong: no such luck"));
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
