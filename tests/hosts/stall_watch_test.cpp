#include "hosts/common/stall_watch.h"

#include <windows.h>

#include <gtest/gtest.h>

namespace hosts {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLimit{153000};

/// A job whose values a test changes as time goes on.
class StallWatchTest : public testing::Test {
 protected:
  bool LooksAt(milliseconds when) { return watch.Look(job, when); }

  static Handshake Running() {
    Handshake values;
    values.ready = 1;
    values.timeOut = 153000;
    values.onGoing = 1;
    values.progress = 40;
    values.result = 1;
    return values;
  }
  static Handshake Asked() {
    Handshake values;
    values.ready = 1;
    return values;
  }
  static Handshake Over() {
    Handshake values = Running();
    values.ready = 0;
    values.onGoing = 0;
    values.result = 4;
    return values;
  }

  StallWatch watch;
  Handshake job = Running();
};

TEST_F(StallWatchTest, FindsAJobInWhichNothingChangesForLongerThanItsTimeOut) {
  EXPECT_FALSE(LooksAt(milliseconds(1000)));
  EXPECT_FALSE(LooksAt(milliseconds(1000) + kLimit));
  EXPECT_TRUE(LooksAt(milliseconds(1001) + kLimit));
}

TEST_F(StallWatchTest, TellsOfAStallOnce) {
  LooksAt(milliseconds(0));
  EXPECT_TRUE(LooksAt(2 * kLimit));
  EXPECT_FALSE(LooksAt(4 * kLimit));
  EXPECT_FALSE(watch.Left());
}

TEST_F(StallWatchTest, TellsOfTheNextStallOfTheSameJob) {
  LooksAt(milliseconds(0));
  ASSERT_TRUE(LooksAt(2 * kLimit));
  job.progress = 41;
  EXPECT_FALSE(LooksAt(2 * kLimit));
  EXPECT_TRUE(LooksAt(4 * kLimit));
}

TEST_F(StallWatchTest, BeginsAnewWithEachChange) {
  LooksAt(milliseconds(0));
  job.progress = 41;
  EXPECT_FALSE(LooksAt(kLimit));
  EXPECT_FALSE(LooksAt(2 * kLimit));
  EXPECT_TRUE(LooksAt(2 * kLimit + milliseconds(1)));
}

TEST_F(StallWatchTest, FindsARequestThatNobodyTakes) {
  job = Asked();
  LooksAt(milliseconds(0));
  EXPECT_TRUE(LooksAt(kLimit + milliseconds(1)));
}

TEST_F(StallWatchTest, FindsNothingWithoutAJob) {
  job = Over();
  EXPECT_FALSE(LooksAt(milliseconds(0)));
  EXPECT_FALSE(LooksAt(10 * kLimit));
  EXPECT_FALSE(watch.Left());
}

TEST_F(StallWatchTest, CountsFromTheBeginOfTheNextJob) {
  LooksAt(milliseconds(0));
  job = Over();
  LooksAt(milliseconds(10));
  job = Running();
  EXPECT_FALSE(LooksAt(10 * kLimit));
}

TEST_F(StallWatchTest, GoesByTheTimeOutThatStandsThereOrElseByTheUsualOne) {
  job.timeOut = 1000;
  LooksAt(milliseconds(0));
  EXPECT_TRUE(LooksAt(milliseconds(1001)));
  job.timeOut = 0;
  LooksAt(milliseconds(2000));
  EXPECT_FALSE(LooksAt(milliseconds(2000) + kLimit));
  EXPECT_TRUE(LooksAt(milliseconds(2001) + kLimit));
}

TEST_F(StallWatchTest, SaysHowLongUntilTheNextLook) {
  EXPECT_FALSE(watch.Left());
  LooksAt(milliseconds(0));
  EXPECT_EQ(watch.Left(), kLimit + milliseconds(1));
  LooksAt(milliseconds(3000));
  EXPECT_EQ(watch.Left(), kLimit - milliseconds(2999));
}

TEST(AwakeTimeTest, GoesOnAsTheClockDoes) {
  const milliseconds before = StallWatch::AwakeTime();
  ::Sleep(50);
  const milliseconds passed = StallWatch::AwakeTime() - before;
  EXPECT_GE(passed, milliseconds(30));
  EXPECT_LT(passed, milliseconds(30000));
}

}  // namespace

}  // namespace hosts
