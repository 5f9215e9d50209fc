#include "hosts/common/nearest_word.h"

#include <gtest/gtest.h>

namespace hosts {

namespace {

const std::vector<std::string> kVerbs{"flash", "status", "check"};

TEST(NearestWordTest, FindsAWordWithSwappedCharacters) {
  EXPECT_EQ(NearestWord("falsh", kVerbs), "flash");
}

TEST(NearestWordTest, CountsASwapAsOneMistake) {
  EXPECT_EQ(NearestWord("abdc", {"abdxy", "abcd"}), "abcd");
}

TEST(NearestWordTest, FindsAWordWithAMissingOrAnotherCharacter) {
  EXPECT_EQ(NearestWord("chec", kVerbs), "check");
  EXPECT_EQ(NearestWord("stutus", kVerbs), "status");
  EXPECT_EQ(NearestWord("flashh", kVerbs), "flash");
}

TEST(NearestWordTest, TakesUpperAndLowerCaseAsTheSame) {
  EXPECT_EQ(NearestWord("STATUS", kVerbs), "status");
  EXPECT_EQ(NearestWord("[a]", {"[B]", "[A]"}), "[A]");
}

TEST(NearestWordTest, AllowsTwoMistakesInAShortWordAndNoMore) {
  EXPECT_EQ(NearestWord("chk", kVerbs), "check");
  EXPECT_EQ(NearestWord("ch", kVerbs), "");
}

TEST(NearestWordTest, AllowsAThirdOfALongWord) {
  EXPECT_EQ(NearestWord("--wait-controller", {"--wait-for-controller"}), "--wait-for-controller");
  EXPECT_EQ(NearestWord("--controller", {"--wait-for-controller"}), "");
}

TEST(NearestWordTest, TakesTheNearestOfSeveralAndTheFirstOfEquals) {
  EXPECT_EQ(NearestWord("abcd", {"abxy", "abcx", "abcy"}), "abcx");
}

TEST(NearestWordTest, FindsNothingNearAWordOfAnotherKind) {
  EXPECT_EQ(NearestWord("blink", kVerbs), "");
  EXPECT_EQ(NearestWord("", kVerbs), "");
}

}  // namespace

}  // namespace hosts
