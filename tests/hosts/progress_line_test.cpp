#include "progress_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

namespace {

TEST(LiveLineTest, TellsStageBarAttemptAndBothTimes) {
  EXPECT_THAT(
      LiveLine(
          {.stage = "writing", .percent = 50, .attempt = 2, .elapsedSeconds = 14, .remainingSeconds = 139}),
      HasSubstr("writing            [########........]  50 %  attempt 2  14 s, limit in 139 s"));
}

TEST(LiveLineTest, FillsItsBarAtTheEndOnly) {
  EXPECT_THAT(LiveLine({.stage = "writing", .percent = 99}), HasSubstr("#.]  99 %"));
  EXPECT_THAT(LiveLine({.stage = "flashed", .percent = 100}), HasSubstr("##] 100 %"));
}

TEST(LiveLineTest, NamesNoLimitWhileNoAttemptRuns) {
  EXPECT_THAT(LiveLine({.stage = "waiting to begin"}), Not(HasSubstr("limit")));
}

TEST(LiveLineTest, IsAlwaysAsWideSoThatItWritesOverALongerOne) {
  EXPECT_THAT(LiveLine({.stage = "failed"}), SizeIs(79));
}

TEST(LiveLineTest, FitsIntoEightyColumnsAtItsLongest) {
  const std::string line = LiveLine({.stage = "awaiting the modem",
                                     .percent = 100,
                                     .attempt = 9,
                                     .elapsedSeconds = 9999,
                                     .remainingSeconds = 153});
  EXPECT_THAT(line, SizeIs(79));
  EXPECT_THAT(line, HasSubstr("9999 s, limit in 153 s"));
}

}  // namespace
