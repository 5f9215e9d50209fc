#include "common/tstring.h"

#include <gtest/gtest.h>

TEST(TStringTest, SubStrWithCountMinusOneCopiesTheWholeText) {
  EXPECT_EQ(std::wstring(CTString("hello").SubStr(0, -1)), L"hello");
}
