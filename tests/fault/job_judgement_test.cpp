// What the campaigns find wrong with the end of a job, and what they let pass.

#include "fault/job_judgement.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "hosts/cmdline/exit_code.h"

namespace campaign {

using simulator::ModemState;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

JobEnd GoodEnd() {
  JobEnd end;
  end.ended = true;
  end.values.ready = 0;
  end.values.onGoing = 0;
  end.values.timeOut = 153000;
  end.values.progress = 100;
  end.values.result = static_cast<std::uint32_t>(hosts::FlashResult::Succeeded);
  end.isMemoryEqual = true;
  end.modem = end.modemAtResult = ModemState::Normal;
  end.beganAttempt = true;
  return end;
}

JobEnd FailedEnd() {
  JobEnd end = GoodEnd();
  end.values.result = static_cast<std::uint32_t>(hosts::FlashResult::Failed);
  end.isMemoryEqual = false;
  end.modem = end.modemAtResult = ModemState::Restarting;
  return end;
}

JobEnd EndWithoutImages() {
  JobEnd end = FailedEnd();
  end.beganAttempt = false;
  end.isImageLeft = end.areImagesKept = true;
  return end;
}

/// A good end with one thing about it changed.
template <typename Change>
std::string Wrong(const Change& change, JobEnd end = GoodEnd()) {
  change(end);
  return WhatIsWrongWith(end);
}

TEST(JobJudgementTest, LetsEachDocumentedEndPass) {
  EXPECT_EQ(WhatIsWrongWith(GoodEnd()), "");
  EXPECT_EQ(WhatIsWrongWith(FailedEnd()), "");
  EXPECT_EQ(WhatIsWrongWith(EndWithoutImages()), "");
  EXPECT_EQ(WhatIsWrongWithSound(GoodEnd()), "");
}

TEST(JobJudgementTest, TakesNoFailureForASoundJob) {
  EXPECT_THAT(WhatIsWrongWithSound(FailedEnd()), StartsWith("it fails"));
}

TEST(JobJudgementTest, FindsAServiceThatDoesNotGoOn) {
  EXPECT_THAT(Wrong([](JobEnd& end) { end.ended = false; }), HasSubstr("does not wait"));
}

TEST(JobJudgementTest, FindsResultsThatAreNoEnd) {
  for (const std::uint32_t result : {0u, 1u, 2u, 5u})
    EXPECT_THAT(Wrong([=](JobEnd& end) { end.values.result = result; }), StartsWith("no documented end"));
  EXPECT_THAT(Wrong([](JobEnd& end) { end.values.result.reset(); }), StartsWith("no documented end"));
}

TEST(JobJudgementTest, FindsASuccessThatIsNone) {
  EXPECT_THAT(Wrong([](JobEnd& end) { end.isMemoryEqual = false; }), HasSubstr("the memory is not equal"));
  EXPECT_THAT(Wrong([](JobEnd& end) { end.modem = ModemState::FlashPort; }), HasSubstr("the modem is"));
  EXPECT_THAT(Wrong([](JobEnd& end) { end.modemAtResult = ModemState::Restarting; }),
              HasSubstr("while the modem was"));
}

TEST(JobJudgementTest, FindsValuesThatAreLeft) {
  EXPECT_THAT(Wrong([](JobEnd& end) { end.values.ready = 1; }), StartsWith("the flag is not taken back"));
  EXPECT_THAT(Wrong([](JobEnd& end) { end.values.onGoing = 1; }), HasSubstr("Flash_OnGoing"));
  EXPECT_THAT(Wrong([](JobEnd& end) { end.values.timeOut = 152999; }), HasSubstr("Time_Out"));
  EXPECT_THAT(Wrong([](JobEnd& end) { end.values.progress = 101; }), StartsWith("no percentage"));
}

TEST(JobJudgementTest, FindsAnImageThatIsLeftBehindAnAttempt) {
  const auto leaves = [](JobEnd& end) { end.isImageLeft = true; };
  EXPECT_THAT(Wrong(leaves), StartsWith("the image is left"));
  EXPECT_THAT(Wrong(leaves, FailedEnd()), StartsWith("the image is left"));
}

TEST(JobJudgementTest, FindsAnImageThatIsGoneWithoutAnAttempt) {
  EXPECT_THAT(Wrong([](JobEnd& end) { end.areImagesKept = false; }, EndWithoutImages()),
              StartsWith("an image is gone"));
}

hosts::Handshake Found(std::uint32_t ready) {
  hosts::Handshake values;
  values.ready = ready;
  return values;
}

/// What a new host looks like that has found nothing to do.
JobEnd NothingToDo() {
  JobEnd end = GoodEnd();
  end.values.result = static_cast<std::uint32_t>(hosts::FlashResult::Idle);
  return end;
}

TEST(JobJudgementTest, LetsANewHostPassThatHasDoneWhatStood) {
  EXPECT_EQ(WhatIsWrongWithGoingOn(Found(1), GoodEnd()), "");
  EXPECT_EQ(WhatIsWrongWithGoingOn(Found(0), NothingToDo()), "");
}

TEST(JobJudgementTest, FindsARequestThatANewHostHasNotDone) {
  for (const JobEnd& end : {FailedEnd(), NothingToDo()})
    EXPECT_THAT(WhatIsWrongWithGoingOn(Found(1), end), StartsWith("the job is not done"));
  JobEnd end = GoodEnd();
  end.isImageLeft = true;
  EXPECT_EQ(WhatIsWrongWithGoingOn(Found(1), end), "the image is left");
}

TEST(JobJudgementTest, FindsANewHostThatTellsOfAnOldJob) {
  EXPECT_THAT(WhatIsWrongWithGoingOn(Found(0), GoodEnd()), HasSubstr("an old job"));
}

TEST(JobJudgementTest, FindsAModemThatANewHostHasNotBroughtBack) {
  for (const std::uint32_t ready : {0u, 1u}) {
    const JobEnd good = ready == 1 ? GoodEnd() : NothingToDo();
    JobEnd end = good;
    end.isMemoryEqual = false;
    EXPECT_EQ(WhatIsWrongWithGoingOn(Found(ready), end), "the memory is not equal");
    end = good;
    end.modem = ModemState::Booted;
    EXPECT_EQ(WhatIsWrongWithGoingOn(Found(ready), end), "the modem is booted");
    end = good;
    end.values.ready = 1;
    EXPECT_EQ(WhatIsWrongWithGoingOn(Found(ready), end), "the flag is not taken back");
  }
  JobEnd early = GoodEnd();
  early.modemAtResult = ModemState::Returning;
  EXPECT_THAT(WhatIsWrongWithGoingOn(Found(1), early), HasSubstr("while the modem was returning"));
}

TEST(JobJudgementTest, FindsAnAttemptThatGoesOnInANewerOnesPlace) {
  EXPECT_THAT(Wrong([](JobEnd& end) { end.hasOldAttemptWritten = true; }),
              StartsWith("an attempt that was given up"));
}

// --- The command line --------------------------------------------------------------------------------------

/// A job that went no further than its request.
JobEnd BrokenOffEnd() {
  JobEnd end = EndWithoutImages();
  end.values.result = 0;
  end.values.ready = 1;
  return end;
}

TEST(CommandLineJudgementTest, LetsPassWhatItsHostDealsWith) {
  EXPECT_EQ(WhatIsWrongWithCommandLine(GoodEnd()), "");
  JobEnd failed = FailedEnd();
  failed.values.onGoing = 1;
  EXPECT_EQ(WhatIsWrongWithCommandLine(failed), "") << "nobody begins another pass";
  EXPECT_EQ(WhatIsWrongWithCommandLine(BrokenOffEnd()), "");
}

TEST(CommandLineJudgementTest, LooksAtModemMemoryAndImages) {
  JobEnd end = GoodEnd();
  end.isMemoryEqual = false;
  EXPECT_THAT(WhatIsWrongWithCommandLine(end), HasSubstr("the memory is not equal"));
  end = GoodEnd();
  end.modem = ModemState::FlashPort;
  EXPECT_THAT(WhatIsWrongWithCommandLine(end), HasSubstr("the modem is"));
  end = GoodEnd();
  end.isImageLeft = true;
  EXPECT_THAT(WhatIsWrongWithCommandLine(end), HasSubstr("the image is left"));
  end = BrokenOffEnd();
  end.isImageLeft = end.areImagesKept = false;
  EXPECT_THAT(WhatIsWrongWithCommandLine(end), HasSubstr("gone without an attempt"));
}

TEST(CommandLineJudgementTest, LooksAtTheFlags) {
  JobEnd end = GoodEnd();
  end.values.onGoing = 1;
  EXPECT_THAT(WhatIsWrongWithCommandLine(end), HasSubstr("\"Flash_OnGoing\" is left"));
  end = GoodEnd();
  end.values.ready = 1;
  EXPECT_THAT(WhatIsWrongWithCommandLine(end), HasSubstr("the flag is not taken back"));
  end = BrokenOffEnd();
  end.values.ready = 0;
  EXPECT_THAT(WhatIsWrongWithCommandLine(end), HasSubstr("no documented end"));
}

ProgramEnd Exit(hosts::ExitCode code, hosts::FlashResult result) {
  ProgramEnd end;
  end.exitCode = static_cast<unsigned long>(code);
  end.values.ready = 0;
  end.values.result = static_cast<std::uint32_t>(result);
  end.modem = ModemState::Normal;
  return end;
}

ProgramEnd Flashed() {
  ProgramEnd end = Exit(hosts::ExitCode::Success, hosts::FlashResult::Succeeded);
  end.wasModemTouched = end.isMemoryEqual = true;
  return end;
}

ProgramEnd RefusedToFlash() {
  ProgramEnd end = Exit(hosts::ExitCode::NotReady, hosts::FlashResult::Idle);
  end.isImageLeft = true;
  return end;
}

template <typename Change>
std::string WrongExit(ProgramEnd end, const Change& change) {
  change(end);
  return WhatIsWrongWith(end);
}

TEST(ProgramJudgementTest, LetsEachTrueExitStatusPass) {
  EXPECT_EQ(WhatIsWrongWith(Flashed()), "");
  EXPECT_EQ(WhatIsWrongWithSound(Flashed()), "");
  EXPECT_EQ(WhatIsWrongWith(RefusedToFlash()), "");
  EXPECT_EQ(WhatIsWrongWith(Exit(hosts::ExitCode::FlashFailed, hosts::FlashResult::Failed)), "");
}

TEST(ProgramJudgementTest, FindsASuccessThatIsNone) {
  EXPECT_THAT(WrongExit(Flashed(), [](ProgramEnd& end) { end.isMemoryEqual = false; }),
              HasSubstr("not equal"));
  EXPECT_THAT(WrongExit(Flashed(), [](ProgramEnd& end) { end.modem = ModemState::Booted; }),
              HasSubstr("the modem is"));
  EXPECT_THAT(WrongExit(Flashed(), [](ProgramEnd& end) { end.isImageLeft = true; }),
              HasSubstr("the image is left"));
  EXPECT_THAT(WrongExit(Flashed(), [](ProgramEnd& end) { end.values.result = 3; }),
              HasSubstr("with the result 3"));
}

TEST(ProgramJudgementTest, FindsAFailureThatIsNone) {
  const ProgramEnd end = Exit(hosts::ExitCode::FlashFailed, hosts::FlashResult::Succeeded);
  EXPECT_EQ(WhatIsWrongWith(end), "exit 1 behind a success");
  EXPECT_THAT(WhatIsWrongWithSound(Exit(hosts::ExitCode::FlashFailed, hosts::FlashResult::Failed)),
              HasSubstr("it ends with 1"));
}

TEST(ProgramJudgementTest, FindsAModemOrAnImageThatWasTouchedByARefusal) {
  EXPECT_THAT(WrongExit(RefusedToFlash(), [](ProgramEnd& end) { end.wasModemTouched = true; }),
              HasSubstr("the modem was touched"));
  EXPECT_THAT(WrongExit(RefusedToFlash(), [](ProgramEnd& end) { end.isImageLeft = false; }),
              HasSubstr("the image is gone"));
}

TEST(ProgramJudgementTest, FindsWhatIsNoEnd) {
  EXPECT_THAT(WrongExit(Flashed(), [](ProgramEnd& end) { end.exitCode.reset(); }), HasSubstr("does not end"));
  EXPECT_THAT(WrongExit(Flashed(), [](ProgramEnd& end) { end.modem.reset(); }), HasSubstr("broken off"));
  EXPECT_THAT(WrongExit(Flashed(), [](ProgramEnd& end) { end.values.ready = 1; }),
              HasSubstr("the request stands"));
  EXPECT_THAT(WrongExit(Flashed(), [](ProgramEnd& end) { end.exitCode = 5; }), HasSubstr("it ends with 5"));
}

}  // namespace

}  // namespace campaign
