#include "hosts/common/finished_job.h"

#include <gtest/gtest.h>

namespace hosts {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::steady_clock::time_point kBegin{};

Handshake Values(std::uint32_t ready, std::uint32_t onGoing, std::uint32_t result) {
  Handshake values;
  values.ready = ready;
  values.onGoing = onGoing;
  values.progress = 70;
  values.result = result;
  return values;
}

TEST(JobWatchTest, FindsTheEndOfAJobOnce) {
  JobWatch jobs;
  EXPECT_FALSE(jobs.Look(Values(1, 0, 0), kBegin));
  EXPECT_FALSE(jobs.Look(Values(1, 1, 1), kBegin + 10s));
  const auto job = jobs.Look(Values(1, 0, 4), kBegin + 57s);
  ASSERT_TRUE(job);
  EXPECT_TRUE(job->flashed);
  EXPECT_EQ(job->result, 4u);
  EXPECT_EQ(job->progress, 70u);
  EXPECT_EQ(job->seconds, 57);
  EXPECT_FALSE(jobs.Look(Values(0, 0, 4), kBegin + 58s));
}

TEST(JobWatchTest, FindsAFailedJob) {
  JobWatch jobs;
  jobs.Look(Values(1, 1, 2), kBegin);
  const auto job = jobs.Look(Values(0, 1, 3), kBegin + 1s);
  ASSERT_TRUE(job);
  EXPECT_FALSE(job->flashed);
  EXPECT_EQ(job->result, 3u);
}

/// The result of the last job stays until the library sees the next request.
TEST(JobWatchTest, TakesNoOldResultForTheEndOfANewJob) {
  JobWatch jobs;
  EXPECT_FALSE(jobs.Look(Values(0, 0, 4), kBegin));
  EXPECT_FALSE(jobs.Look(Values(1, 0, 4), kBegin));
  EXPECT_FALSE(jobs.Look(Values(0, 0, 4), kBegin));
}

TEST(JobWatchTest, FindsAJobThatBeganAndEndedBetweenTwoLooks) {
  JobWatch jobs;
  EXPECT_FALSE(jobs.Look({}, kBegin));
  const auto first = jobs.Look(Values(0, 0, 4), kBegin + 2s);
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->flashed);
  EXPECT_EQ(first->seconds, 2);
  EXPECT_FALSE(jobs.Look(Values(0, 0, 4), kBegin + 3s));
  const auto second = jobs.Look(Values(0, 1, 3), kBegin + 4s);
  ASSERT_TRUE(second);
  EXPECT_FALSE(second->flashed);
  EXPECT_EQ(second->seconds, 1);
}

TEST(JobWatchTest, ForgetsARequestThatIsTakenBack) {
  JobWatch jobs;
  jobs.Look(Values(1, 0, 0), kBegin);
  jobs.Look(Values(0, 0, 0), kBegin + 100s);
  jobs.Look(Values(1, 0, 0), kBegin + 200s);
  const auto job = jobs.Look(Values(0, 0, 3), kBegin + 203s);
  ASSERT_TRUE(job);
  EXPECT_EQ(job->seconds, 3);
}

TEST(JobWatchTest, FindsTheNextJobToo) {
  JobWatch jobs;
  jobs.Look(Values(1, 1, 1), kBegin);
  EXPECT_TRUE(jobs.Look(Values(0, 0, 4), kBegin));
  jobs.Look(Values(1, 1, 1), kBegin);
  EXPECT_TRUE(jobs.Look(Values(0, 0, 4), kBegin));
}

/// Whoever took the flag back in the middle stops nothing.
TEST(JobWatchTest, FindsTheEndOfAJobWhoseFlagWasTakenBack) {
  JobWatch jobs;
  jobs.Look(Values(1, 1, 1), kBegin);
  jobs.Look(Values(0, 1, 1), kBegin);
  EXPECT_TRUE(jobs.Look(Values(0, 0, 4), kBegin));
}

TEST(FinishedJobTest, TellsAboutItselfInWords) {
  const FinishedJob job{.flashed = false, .result = 3, .progress = 40, .seconds = 131};
  EXPECT_EQ(job.Text(), "Flash_Result 3 (failed) after 131 s, 40 % of the images written.");
}

}  // namespace

}  // namespace hosts
