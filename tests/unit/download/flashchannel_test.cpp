#include "download/flashchannel.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "download/attempt.h"
#include "support/lock_probe.h"
#include "support/simulated_clock.h"

namespace {

using corvel::Attempt;
using corvel::flash_channel::Claim;
using corvel::flash_channel::LateClose;

class FlashChannelTest : public testing::Test {
 protected:
  FlashChannelTest() {
    // Another test may have left a close that never ended.
    while (older->TakeChannel() == Claim::Refused) WaitTheLongestTime();
  }

  void WaitTheLongestTime() { clock.Pause(corvel::flash_channel::kLongestWaitForLateCloseMs); }

  void WaitLongEnough() {
    EXPECT_EQ(newer->TakeChannel(), Claim::Refused);
    WaitTheLongestTime();
  }

  SimulatedClock clock;
  std::shared_ptr<Attempt> older = std::make_shared<Attempt>();
  std::shared_ptr<Attempt> newer = std::make_shared<Attempt>();
};

TEST_F(FlashChannelTest, IsTakenByTheAttemptThatIsNotGivenUp) {
  EXPECT_TRUE(older->HasTakenChannel());
  EXPECT_FALSE(newer->HasTakenChannel());
}

TEST_F(FlashChannelTest, IsRefusedToAnAttemptThatWasGivenUp) {
  newer->Abandon();
  EXPECT_EQ(newer->TakeChannel(), Claim::Refused);
  EXPECT_FALSE(newer->HasTakenChannel());
  EXPECT_TRUE(LateClose(older->Number()).IsAllowed());
}

TEST_F(FlashChannelTest, IsNotTakenByAnAttemptThatIsToldToWait) {
  const LateClose close(older->Number());
  EXPECT_TRUE(close.IsAllowed());
  EXPECT_EQ(newer->TakeChannel(), Claim::Refused);
  EXPECT_FALSE(newer->HasTakenChannel());
}

TEST_F(FlashChannelTest, IsTakenWhenTheCloseIsOver) {
  { const LateClose close(older->Number()); }
  EXPECT_EQ(newer->TakeChannel(), Claim::Taken);
  EXPECT_TRUE(newer->HasTakenChannel());
}

TEST_F(FlashChannelTest, IsTakenOverFromACloseThatWasWaitedForLongEnough) {
  const LateClose close(older->Number());
  WaitLongEnough();
  EXPECT_EQ(newer->TakeChannel(), Claim::TakenOver);
  EXPECT_TRUE(newer->HasTakenChannel());
  // The close goes on, but nobody waits for it any more.
  EXPECT_EQ(newer->TakeChannel(), Claim::Taken);
}

TEST_F(FlashChannelTest, StaysWithTheOneThatTookItOverWhenTheCloseEnds) {
  std::optional<LateClose> close(std::in_place, older->Number());
  WaitLongEnough();
  EXPECT_EQ(newer->TakeChannel(), Claim::TakenOver);
  close.reset();
  EXPECT_TRUE(LateClose(newer->Number()).IsAllowed());
}

TEST_F(FlashChannelTest, IsClosedLateOnce) {
  EXPECT_TRUE(LateClose(older->Number()).IsAllowed());
  EXPECT_FALSE(LateClose(older->Number()).IsAllowed());
}

TEST_F(FlashChannelTest, IsNotClosedLateOnceANewerAttemptTookIt) {
  EXPECT_EQ(newer->TakeChannel(), Claim::Taken);
  EXPECT_FALSE(LateClose(older->Number()).IsAllowed());
  // A close that is not allowed ends nothing.
  EXPECT_TRUE(LateClose(newer->Number()).IsAllowed());
}

TEST_F(FlashChannelTest, TimeOfTheWaitBeginsAnewWithEachClose) {
  std::optional<LateClose> close(std::in_place, older->Number());
  EXPECT_EQ(newer->TakeChannel(), Claim::Refused);
  close.reset();
  EXPECT_EQ(newer->TakeChannel(), Claim::Taken);
  clock.Pause(2 * corvel::flash_channel::kLongestWaitForLateCloseMs);
  const LateClose second(newer->Number());
  EXPECT_EQ(older->TakeChannel(), Claim::Refused);
}

TEST_F(FlashChannelTest, IsTakenUnderALock) {
  LockProbe locks;
  EXPECT_TRUE(locks.Excludes([this] { corvel::flash_channel::Take(newer->Number()); },
                             [this] { corvel::flash_channel::Take(newer->Number()); }));
}

TEST_F(FlashChannelTest, LateCloseBeginsUnderThatLock) {
  LockProbe locks;
  EXPECT_TRUE(locks.Excludes([this] { const LateClose close(older->Number()); },
                             [this] { corvel::flash_channel::Take(newer->Number()); }, 1));
}

TEST_F(FlashChannelTest, LateCloseEndsUnderThatLock) {
  LockProbe locks;
  EXPECT_TRUE(locks.Excludes([this] { const LateClose close(older->Number()); },
                             [this] { corvel::flash_channel::Take(newer->Number()); }, 2));
}

}  // namespace
