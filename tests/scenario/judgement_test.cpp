// A scenario is worth what its judge sees: each kind of difference is found, and nothing else.

#include "simulator/program/judgement.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace simulator {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class JudgementTest : public testing::Test {
 protected:
  JudgementTest() {
    expected.values = {.ready = 0,
                       .retryTimes = std::nullopt,
                       .timeOut = 153000,
                       .onGoing = 0,
                       .progress = 100,
                       .result = 4};
    expected.attempts = 1;
    expected.log = {"first", "second"};
    report.serviceStarted = true;
    report.finished = true;
    report.values = expected.values;
    report.attempts = 1;
    report.workersBack = 1;
    report.memory = Memory::Equal;
    Log({"first", "second"});
  }

  void Log(const std::vector<std::string>& messages) {
    report.log.clear();
    for (const std::string& message : messages) report.log.push_back({"Trace", "Function", message});
  }
  std::vector<std::string> Found() const { return Differences(expected, report); }

  Expectation expected;
  SessionReport report;
};

TEST_F(JudgementTest, FindsNothingWhereAllIsAsExpected) {
  EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(JudgementTest, FindsARunThatDidNotFinish) {
  report.finished = false;
  report.difficulty = "the job does not end";
  EXPECT_THAT(Found(), ElementsAre("the job does not end"));
}

TEST_F(JudgementTest, FindsEachRegistryValue) {
  report.values = {
      .ready = 1, .retryTimes = 2, .timeOut = 3, .onGoing = 4, .progress = 5, .result = std::nullopt};
  EXPECT_THAT(Found(), ElementsAre("Fls_Ready is 1, not 0", "Retry_Times is 2, not absent",
                                   "Time_Out is 3, not 153000", "Flash_OnGoing is 4, not 0",
                                   "Flash_Progress is 5, not 100", "Flash_Result is absent, not 4"));
}

TEST_F(JudgementTest, FindsTheNumberOfAttempts) {
  report.attempts = report.workersBack = 2;
  EXPECT_THAT(Found(), ElementsAre("number of attempts is 2, not 1",
                                   "number of download workers that came back is 2, not 1"));
}

TEST_F(JudgementTest, FindsAWorkerThatNeverCameBack) {
  report.workersBack = 0;
  EXPECT_THAT(Found(), ElementsAre("number of download workers that came back is 0, not 1"));
}

TEST_F(JudgementTest, FindsABasebandReset) {
  report.resets = 1;
  EXPECT_THAT(Found(), ElementsAre("number of baseband resets is 1, not 0"));
}

TEST_F(JudgementTest, FindsTheModemInAnotherState) {
  report.modem = ModemState::FlashPort;
  EXPECT_THAT(Found(), ElementsAre("modem is flash port, not normal"));
}

TEST_F(JudgementTest, FindsAnotherMemory) {
  report.memory = Memory::Incomplete;
  EXPECT_THAT(Found(), ElementsAre("flash memory is incomplete, not equal to the images"));
}

TEST_F(JudgementTest, FindsAnImageThatWasLeft) {
  report.imagesLeft = 1;
  EXPECT_THAT(Found(), ElementsAre("number of images left is 1, not 0"));
}

TEST_F(JudgementTest, FindsLogTextsInTheWrongOrder) {
  Log({"second", "first"});
  EXPECT_THAT(Found(), ElementsAre("the log lacks Trace \"second\" behind Trace \"first\""));
}

TEST_F(JudgementTest, OneRecordDoesNotCountForTwoTexts) {
  Log({"first and second"});
  EXPECT_THAT(Found(), ElementsAre("the log lacks Trace \"second\" behind Trace \"first\""));
}

TEST_F(JudgementTest, FindsARecordOfAnotherLevel) {
  report.log[1].level = "Error";
  EXPECT_THAT(Found(), ElementsAre("the log lacks Trace \"second\" behind Trace \"first\""));
  expected.log = {"first", Error("second")};
  EXPECT_THAT(Found(), IsEmpty());
  report.log[1].level = "Warning";
  EXPECT_THAT(Found(), ElementsAre("the log lacks Error \"second\" behind Trace \"first\""));
  expected.log = {"first", Warning("second")};
  EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(JudgementTest, FindsATextThatIsThereOnceInAnotherLevel) {
  expected.log = {};
  expected.once = {Error("first")};
  EXPECT_THAT(Found(), ElementsAre("the log lacks Error \"first\""));
}

TEST_F(JudgementTest, FindsATextThatShouldBeThereOnce) {
  expected.once = {"first"};
  Log({"first", "first", "second"});
  EXPECT_THAT(Found(), ElementsAre("the log has Trace \"first\" 2 times, not once"));
}

TEST_F(JudgementTest, FindsAForbiddenText) {
  expected.forbidden = {"sec"};
  EXPECT_THAT(Found(), ElementsAre(HasSubstr("must not hold \"second\"")));
}

TEST_F(JudgementTest, ANumberAtTheEndOfATextIsWhole) {
  expected.log = {"text: 30", "text: 3"};
  expected.once = {"text: 3"};
  expected.forbidden = {"text: 5"};
  Log({"text: 30, of 300", "text: 3", "text: 50"});
  EXPECT_THAT(Found(), IsEmpty());
  Log({"text: 300", "text: 3"});
  EXPECT_THAT(Found(), ElementsAre("the log lacks Trace \"text: 30\""));
}

TEST_F(JudgementTest, FindsAWholeNumberBehindALongerOne) {
  expected.log = {};
  expected.forbidden = {"text: 5"};
  Log({"text: 50, text: 5, and more"});
  EXPECT_THAT(Found(), ElementsAre(HasSubstr("must not hold")));
}

TEST_F(JudgementTest, FindsProgressThatFalls) {
  Log({"first", "second", "\t WriteRegistry Flash_Progress: 7", "\t WriteRegistry Flash_Progress: 6"});
  EXPECT_THAT(Found(), ElementsAre("Flash_Progress went from 7 to 6"));
}

TEST_F(JudgementTest, FindsProgressPastHundred) {
  Log({"first", "second", "\t WriteRegistry Flash_Progress: 101"});
  EXPECT_THAT(Found(), ElementsAre("Flash_Progress went from 0 to 101"));
}

TEST_F(JudgementTest, ProgressBeginsAnewWithEachAttempt) {
  Log({"first", "second", "\t WriteRegistry Flash_Progress: 57", "ToolKit::DownloadFirmwareImplementation ++",
       "\t WriteRegistry Flash_Progress: 1"});
  EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(JudgementTest, FindsAServiceThatShouldNotHaveBegun) {
  expected.serviceStarts = false;
  EXPECT_THAT(Found(), ElementsAre("the library began its service"));
}

}  // namespace

}  // namespace simulator
