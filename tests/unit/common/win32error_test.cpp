#include "common/win32error.h"

#include <gtest/gtest.h>

using corvel::HResultFromWin32;

namespace {

TEST(Win32ErrorTest, MapsAnErrorIntoTheWin32Facility) {
  EXPECT_EQ(static_cast<unsigned>(HResultFromWin32(ERROR_FILE_NOT_FOUND)), 0x80070002u);
  EXPECT_EQ(static_cast<unsigned>(HResultFromWin32(WAIT_TIMEOUT)), 0x80070102u);
}

TEST(Win32ErrorTest, KeepsOnlyTheLowHalfOfTheError) {
  EXPECT_EQ(static_cast<unsigned>(HResultFromWin32(0x00120005u)), 0x80070005u);
}

TEST(Win32ErrorTest, LeavesZeroAndNegativeValuesAsTheyAre) {
  EXPECT_EQ(HResultFromWin32(0), S_OK);
  EXPECT_EQ(static_cast<unsigned>(HResultFromWin32(0x80004005u)), 0x80004005u);
  EXPECT_EQ(HResultFromWin32(WAIT_FAILED), -1);
}

}  // namespace
