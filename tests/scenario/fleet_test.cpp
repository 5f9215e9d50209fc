// What a fleet draws, and what is told of it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "hosts/flashlog_text.h"
#include "simulator/program/fleet/fleet_report.h"
#include "simulator/program/fleet/why_failed.h"
#include "support/temporary_folder.h"

using namespace simulator;
using testing::HasSubstr;
using testing::Not;

namespace {

using namespace std::chrono_literals;

RequestEnd Flashed(int attempts = 1) {
  return {.result = 4, .attempts = attempts, .duration = 15s, .isMemoryEqual = true, .isModemNormal = true};
}
RequestEnd Failed(const std::string& why) {
  return {.result = 3, .attempts = 4, .duration = 95s, .why = why};
}
RequestEnd Repaired(RequestEnd end) {
  end.isRepaired = true;
  return end;
}

PcStory StoryWith(unsigned pc, std::vector<RequestEnd> requests) {
  PcStory story;
  story.pc = pc;
  story.requests = std::move(requests);
  return story;
}

// --- The draw --------------------------------------------------------------------------------------------

TEST(FleetPlan, IsTheSameForTheSameSeedAndNumber) {
  const PcPlan one = PlanOf(7, 4711);
  const PcPlan other = PlanOf(7, 4711);
  EXPECT_EQ(one.route, other.route);
  EXPECT_EQ(one.drawn, other.drawn);
  EXPECT_EQ(one.interruptions.size(), other.interruptions.size());
}

TEST(FleetPlan, DiffersFromSeedToSeed) {
  int different = 0;
  for (unsigned pc = 0; pc < 100; ++pc) {
    if (PlanOf(1, pc).drawn != PlanOf(2, pc).drawn) ++different;
  }
  EXPECT_GT(different, 20);
}

TEST(FleetPlan, DrawsEveryRowAboutAsOftenAsTheTableSays) {
  constexpr unsigned kPcs = 20'000;
  std::map<std::string, int> drawn;
  for (unsigned pc = 0; pc < kPcs; ++pc) {
    for (const std::string& name : PlanOf(3, pc).drawn) ++drawn[name];
  }
  for (const FaultRate& rate : FaultRates()) {
    const double expected = rate.perTenThousand * (kPcs / 10'000.0);
    EXPECT_NEAR(drawn[rate.name], expected, 5 * std::sqrt(expected)) << rate.name;
  }
}

TEST(FleetPlan, NoRowStandsTwice) {
  std::map<std::string, int> names;
  for (const FaultRate& rate : FaultRates()) EXPECT_EQ(++names[rate.name], 1) << rate.name;
}

// --- Why a request failed ----------------------------------------------------------------------------------

using hosts::flashlog::LogText;

LogText& WithAttemptThatCannotWrite(LogText& log) {
  return log.AttemptBegins()
      .ReachesWriting()
      .By(LogText::kWorker)
      .Error("CFirmwareDownloader::DownloadFirmwareIntoDevice", "\t Could not download file(|3|C:\\a.fls)")
      .JobError("\t Flash FAILED, goto Flash_FAILED");
}

TEST(WhyFailed, WhatOnlyFollowsIsNotBlamed) {
  LogText log;
  WithAttemptThatCannotWrite(log.Request()).Result(3).Tidied();
  EXPECT_EQ(WhyFailed(log.Text()), "Could not download file(|3|C:\\a.fls)");
}

TEST(WhyFailed, WhatIsCalledAnErrorAndIsNoneIsNotBlamed) {
  LogText log;
  log.Request().AttemptBegins().Download("\t GO BootDeviceInFirmwareMode, g_retry_times: 0\n");
  log.By(LogText::kWorker).Error("ATProcessor::writeCmd", "ATProcessor::writeCmd write at command success\n");
  log.JobError("\t Flash FAILED, goto Flash_FAILED").Result(3);
  EXPECT_EQ(WhyFailed(log.Text()), "no error tells why, last stage: into flash mode");
}

TEST(WhyFailed, OfAnEarlierAttemptNothingIsBlamed) {
  LogText log;
  WithAttemptThatCannotWrite(log.Request()).AttemptBegins().By(LogText::kWorker);
  log.Error("CFirmwareDownloader::Download", "went wrong").Result(3);
  EXPECT_EQ(WhyFailed(log.Text()), "went wrong");
}

TEST(WhyFailed, WhatBeganItIsToldWhereTheLastAttemptSaysNothing) {
  LogText log;
  WithAttemptThatCannotWrite(log.Request()).AttemptBegins();
  log.JobError("\t Flash FAILED, goto Flash_FAILED").Result(3);
  EXPECT_EQ(WhyFailed(log.Text()),
            "no error tells why, last stage: preparing; first error: Could not download file(|3|C:\\a.fls)");
}

TEST(WhyFailed, FilesAreNamedWithoutThePcsFolder) {
  LogText log;
  WithAttemptThatCannotWrite(log.Request()).Result(3);
  EXPECT_EQ(WhyFailed(log.Text(), "C:\\"), "Could not download file(|3|a.fls)");
}

TEST(WhyFailed, OfAllFlashesTheLastOneIsTold) {
  LogText log;
  WithAttemptThatCannotWrite(log.Request()).Result(3).Tidied().SuccessfulFlash();
  EXPECT_EQ(WhyFailed(log.Text()), "the log has no failure; its last flash: succeeded");
  EXPECT_EQ(WhyFailed(""), "the log has no flash");
}

// --- The tally -------------------------------------------------------------------------------------------

class FleetTallyTest : public testing::Test {
 protected:
  FleetTally tally{77, 10};
  std::string Report() const { return tally.Report(20s, 2); }
};

TEST_F(FleetTallyTest, IsGoodWhenAllAreFlashed) {
  tally.Add(StoryWith(0, {Flashed()}));
  tally.Add(StoryWith(1, {Failed("no port"), Flashed(2)}));
  EXPECT_TRUE(tally.IsGood());
  EXPECT_EQ(tally.AtFirstAttempt(), 1u);
  EXPECT_THAT(Report(), Not(HasSubstr("LOST")));
  EXPECT_THAT(Report(), HasSubstr("     1  no port\n"));
}

TEST_F(FleetTallyTest, ALostModemIsNamedWithSeedAndNumber) {
  tally.Add(StoryWith(5, {Failed("no port"), Failed("no port"), Repaired(Failed("no boot"))}));
  EXPECT_FALSE(tally.IsGood());
  EXPECT_EQ(tally.Lost(), 1u);
  EXPECT_THAT(Report(), HasSubstr("LOST: modem_simulator --seed 77 --pc 5: no boot\n"));
  const auto json = tally.Json(20s, 2, 100);
  EXPECT_EQ(json["good"], false);
  EXPECT_EQ(json["lost"][0]["pc"], 5);
  EXPECT_EQ(json["lost"][0]["again"], "modem_simulator --seed 77 --pc 5");
}

TEST_F(FleetTallyTest, APcOfWhichNoRequestEndedIsLost) {
  tally.Add(StoryWith(6, {}));
  EXPECT_EQ(tally.Lost(), 1u);
}

TEST_F(FleetTallyTest, ASuccessWithAnotherMemoryIsNone) {
  RequestEnd end = Flashed();
  end.isMemoryEqual = false;
  tally.Add(StoryWith(2, {end}));
  EXPECT_FALSE(tally.IsGood());
  EXPECT_EQ(tally.Lost(), 1u);
}

TEST_F(FleetTallyTest, ASuccessWithAModemThatIsAwayIsNone) {
  RequestEnd end = Flashed();
  end.isModemNormal = false;
  EXPECT_TRUE(end.IsFalse());
  EXPECT_FALSE(StoryWith(2, {end}).IsFlashed());
}

TEST_F(FleetTallyTest, TroubleSpoilsAFleetThatLostNobody) {
  PcStory story = StoryWith(3, {Flashed()});
  story.trouble = "a process ended with 9";
  tally.Add(story);
  EXPECT_EQ(tally.Lost(), 0u);
  EXPECT_FALSE(tally.IsGood());
  EXPECT_THAT(Report(), HasSubstr("TROUBLE: modem_simulator --seed 77 --pc 3: a process ended with 9\n"));
}

TEST_F(FleetTallyTest, TellsByWhichWayEachWasFlashed) {
  PcStory killed = StoryWith(0, {Flashed()});
  killed.kills = 1;
  tally.Add(killed);
  tally.Add(StoryWith(1, {Flashed(3)}));
  tally.Add(StoryWith(2, {Failed("x"), Flashed()}));
  tally.Add(StoryWith(3, {Failed("x"), Failed("x"), Repaired(Flashed())}));
  const auto ways = tally.Json(1s, 1, 100)["flashed"];
  EXPECT_EQ(ways["behind a kill or a power cut"], 1);
  EXPECT_EQ(ways["after 3 attempts"], 1);
  EXPECT_EQ(ways["by the second request"], 1);
  EXPECT_EQ(ways["once nothing was wrong any more"], 1);
}

TEST_F(FleetTallyTest, DrawsABarForEachStretchOfDurations) {
  tally.Add(StoryWith(0, {Failed("x"), Flashed()}));
  const TemporaryFolder folder;
  const auto file = folder.Path() / L"durations.svg";
  ASSERT_TRUE(tally.DrawHistogram(file));
  std::ifstream stream(file);
  const std::string svg{std::istreambuf_iterator<char>(stream), {}};
  EXPECT_THAT(svg, testing::StartsWith("<svg "));
  EXPECT_THAT(svg, testing::EndsWith("</svg>\n"));
  const auto bars = [&svg](const char* colour) {
    int count = 0;
    const std::string bar = std::string("fill=\"") + colour + "\"><title>1</title>";
    for (auto at = svg.find(bar); at != std::string::npos; at = svg.find(bar, at + 1)) ++count;
    return count;
  };
  EXPECT_EQ(bars("#3a7d44"), 1);
  EXPECT_EQ(bars("#b23a48"), 1);
}

TEST_F(FleetTallyTest, AHistogramThatCannotBeWrittenIsTold) {
  EXPECT_FALSE(tally.DrawHistogram(L"?:/nowhere/durations.svg"));
}

}  // namespace
