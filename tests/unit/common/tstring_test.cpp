#include "common/tstring.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>

namespace {

std::wstring Wide(CTString text) {
  return text;
}

std::string Utf8(CTString text) {
  return text;
}

/// Gives the tests the conversions that are meant for derived classes.
struct Converter : CTString {
  using CTString::CharToWChar;
  using CTString::CTString;
  using CTString::WCharToChar;
};

constexpr char kCafeInUtf8[] = "caf\xC3\xA9";
constexpr wchar_t kCafe[] = L"caf\u00E9";
constexpr wchar_t kReplacement = 0xFFFD;

// Construction and conversion

TEST(TStringConstruction, IsEmptyByDefault) {
  EXPECT_TRUE(CTString().IsEmpty());
  EXPECT_EQ(CTString().GetLength(), 0);
}

TEST(TStringConstruction, PrintsANumberInDecimal) {
  EXPECT_EQ(Wide(CTString(0)), L"0");
  EXPECT_EQ(Wide(CTString(std::numeric_limits<int>::min())), L"-2147483648");
  EXPECT_EQ(Wide(CTString(std::numeric_limits<int>::max())), L"2147483647");
}

TEST(TStringConstruction, DecodesNarrowTextFromUtf8) {
  EXPECT_EQ(Wide(CTString(kCafeInUtf8)), kCafe);
  EXPECT_EQ(Wide(CTString(std::string(kCafeInUtf8))), kCafe);
}

TEST(TStringConstruction, DecodesACharacterOutsideTheBasicPlaneIntoTwoUnits) {
  EXPECT_EQ(CTString("\xF0\x9F\x93\xB6").GetLength(), 2);
  EXPECT_EQ(Utf8(CTString(L"\U0001F4F6")), "\xF0\x9F\x93\xB6");
}

TEST(TStringConstruction, CopiesWideText) {
  EXPECT_EQ(Wide(CTString(kCafe)), kCafe);
  EXPECT_EQ(Wide(CTString(std::wstring(kCafe))), kCafe);
}

TEST(TStringConstruction, TakesANullPointerForAnEmptyText) {
  EXPECT_TRUE(CTString(static_cast<const char*>(nullptr)).IsEmpty());
  EXPECT_TRUE(CTString(static_cast<const wchar_t*>(nullptr)).IsEmpty());
}

TEST(TStringConstruction, DoesNotCountTheTerminator) {
  EXPECT_EQ(CTString("abc").GetLength(), 3);
  EXPECT_EQ(CTString("").GetLength(), 0);
}

TEST(TStringConstruction, ReplacesInvalidUtf8InsteadOfRefusingIt) {
  EXPECT_NE(Wide(CTString("a\xFFz")).find(kReplacement), std::wstring::npos);
  EXPECT_EQ(Wide(CTString("a\xFFz")).back(), L'z');
}

TEST(TStringConstruction, ReplacesAUtf8SequenceThatIsCutOffAtTheEnd) {
  EXPECT_EQ(Wide(CTString("\xC3")).front(), kReplacement);
  EXPECT_EQ(Wide(CTString("ab\xE9")).substr(0, 3), std::wstring(L"ab") + kReplacement);
}

TEST(TStringConstruction, CopiesTextAndHasBuffersOfItsOwn) {
  CTString original("original");
  const char* const narrow = original;
  CTString copy(original);
  copy += L"!";
  EXPECT_STREQ(narrow, "original");
  EXPECT_EQ(Wide(original), L"original");
  EXPECT_EQ(Wide(copy), L"original!");
}

TEST(TStringConstruction, AssignsTextAndSurvivesSelfAssignment) {
  CTString text("before");
  const CTString other("after");
  text = other;
  text = *&text;
  EXPECT_EQ(Wide(text), L"after");
}

TEST(TStringConversion, GivesUtf8AndWideCopies) {
  CTString text(kCafe);
  EXPECT_EQ(static_cast<std::string>(text), kCafeInUtf8);
  EXPECT_EQ(static_cast<std::wstring>(text), kCafe);
}

TEST(TStringConversion, RegeneratesTheNarrowTextAtEachConversion) {
  CTString text("number one");
  EXPECT_STREQ(static_cast<const char*>(text), "number one");
  text = CTString("two");
  EXPECT_STREQ(static_cast<const char*>(text), "two");
  text.Empty();
  EXPECT_STREQ(static_cast<const char*>(text), "");
}

TEST(TStringConversion, GivesAWidePointerToAConstantText) {
  const CTString text(kCafe);
  EXPECT_STREQ(static_cast<const wchar_t*>(text), kCafe);
}

TEST(TStringConversion, KeepsScratchBuffersApartFromTheText) {
  Converter text(L"text");
  EXPECT_STREQ(text.CharToWChar(kCafeInUtf8), kCafe);
  EXPECT_STREQ(text.WCharToChar(kCafe), kCafeInUtf8);
  EXPECT_EQ(Wide(text), L"text");
}

TEST(TStringConversion, TakesANullPointerForAnEmptyScratchText) {
  Converter text;
  EXPECT_STREQ(text.CharToWChar(nullptr), L"");
  EXPECT_STREQ(text.WCharToChar(nullptr), "");
}

// Comparison

TEST(TStringEquality, NeedsTheSameLengthUnitsAndCase) {
  CTString text("PCIE");
  CTString same("PCIE");
  CTString lower("pcie");
  CTString longer("PCIE2");
  EXPECT_TRUE(text == same);
  EXPECT_FALSE(text == lower);
  EXPECT_FALSE(text == longer);
}

TEST(TStringEquality, ComparesContentsOfAConstantTextNotItsAddress) {
  const CTString text(L"PCIE");
  EXPECT_TRUE(text == L"PCIE");
  EXPECT_TRUE(text == "PCIE");
  EXPECT_FALSE(text == L"USB");
}

TEST(TStringEquality, ComparesTemporaries) {
  EXPECT_TRUE(CTString("a") == CTString("a"));
  EXPECT_FALSE(CTString("a") == CTString("b"));
}

TEST(TStringEquality, ComparesConstantsWithVariablesEitherWayRound) {
  const CTString constant("a");
  CTString variable("a");
  EXPECT_TRUE(constant == variable);
  EXPECT_TRUE(variable == constant);
}

TEST(TStringEquality, DecodesANarrowText) {
  CTString text(kCafe);
  EXPECT_TRUE(text == kCafeInUtf8);
}

TEST(TStringEquality, OfANullPointerIsFalseEvenForAnEmptyText) {
  CTString empty;
  EXPECT_FALSE(empty == static_cast<const char*>(nullptr));
  EXPECT_FALSE(empty == static_cast<const wchar_t*>(nullptr));
  EXPECT_TRUE(empty == "");
}

TEST(TStringEquality, SeesADifferenceInTheLastUnitsUpperByteAlone) {
  EXPECT_FALSE(CTString(L"ab\x0163") == CTString(L"ab\x0263"));
  EXPECT_TRUE(CTString(L"ab\x0163") == CTString(L"ab\x0163"));
  EXPECT_EQ(CTString(L"ab\x0163").Compare(CTString(L"ab\x0263")), -1);
  EXPECT_EQ(CTString(L"ab\x0263").Compare(CTString(L"ab\x0163")), 1);
}

TEST(TStringCompare, PutsATextBeforeItsExtension) {
  EXPECT_EQ(CTString("ab").Compare(CTString("abc")), -1);
  EXPECT_EQ(CTString("abc").Compare(CTString("ab")), 1);
}

TEST(TStringCompare, IsMinusOneHoweverMuchLongerTheExtensionIs) {
  EXPECT_EQ(CTString("ab").Compare(CTString("abcdefg")), -1);
}

TEST(TStringCompare, IsOneWhenTheFirstUnitIsGreaterWhateverTheLengths) {
  EXPECT_EQ(CTString("b").Compare(CTString("abcdefg")), 1);
  EXPECT_EQ(CTString("bcd").Compare(CTString("a")), 1);
}

TEST(TStringCompare, IsZeroForEqualTexts) {
  EXPECT_EQ(CTString("ab").Compare(CTString("ab")), 0);
  EXPECT_EQ(CTString().Compare(CTString()), 0);
}

TEST(TStringCompare, GoesByCodeUnitNotByAlphabet) {
  EXPECT_EQ(CTString("Z").Compare(CTString("a")), -1);
  EXPECT_EQ(CTString(L"\uFF5E").Compare(CTString(L"\U0001F4F6")), 1);
}

// Joining

TEST(TStringJoining, MakesANewTextOfBoth) {
  const CTString text("caf");
  EXPECT_EQ(Wide(text + CTString(L"\u00E9")), kCafe);
  EXPECT_EQ(Wide(text + "\xC3\xA9"), kCafe);
  EXPECT_EQ(Wide(text + L"\u00E9"), kCafe);
  EXPECT_EQ(Wide(text), L"caf");
}

TEST(TStringJoining, AppendsInPlaceAndReturnsTheTextItself) {
  CTString text;
  CTString& result = ((text += CTString("a")) += "b") += L"c";
  EXPECT_EQ(&result, &text);
  EXPECT_EQ(Wide(text), L"abc");
}

TEST(TStringJoining, AppendsAllThreeKinds) {
  CTString text;
  text.Append(CTString("a"));
  text.Append("\xC3\xA9");
  text.Append(L"c");
  EXPECT_EQ(Wide(text), L"a\u00E9c");
}

TEST(TStringJoining, TakesANullPointerForNothing) {
  CTString text("a");
  text += static_cast<const char*>(nullptr);
  text.Append(static_cast<const wchar_t*>(nullptr));
  EXPECT_EQ(Wide(text + static_cast<const char*>(nullptr)), L"a");
  EXPECT_EQ(Wide(text), L"a");
}

TEST(TStringJoining, AppendsATextToItself) {
  CTString text("ab");
  text += text;
  text += static_cast<const wchar_t*>(text);
  EXPECT_EQ(Wide(text), L"abababab");
}

// Insert, Erase, Replace, SubStr

TEST(TStringInsert, PutsTheFirstUnitsAtThePositionAndReturnsTheNewLength) {
  CTString text("ad");
  EXPECT_EQ(text.Insert(1, L"bcX", 2), 4);
  EXPECT_EQ(Wide(text), L"abcd");
}

TEST(TStringInsert, CountsDecodedUnitsOfANarrowText) {
  CTString text("!");
  EXPECT_EQ(text.Insert(0, kCafeInUtf8, 4), 5);
  EXPECT_EQ(Wide(text), std::wstring(kCafe) + L"!");
}

TEST(TStringInsert, OfANullTextChangesNothingAndReturnsTheLength) {
  CTString text("ab");
  EXPECT_EQ(text.Insert(0, static_cast<const char*>(nullptr), 1), 2);
  EXPECT_EQ(text.Insert(9, static_cast<const wchar_t*>(nullptr), 1), 2);
  EXPECT_EQ(Wide(text), L"ab");
}

TEST(TStringInsert, WithACountBeyondTheTextTakesAllOfIt) {
  CTString text("ad");
  EXPECT_EQ(text.Insert(1, "bc", 100), 4);
  EXPECT_EQ(text.Insert(4, L"ef", 3), 6);
  EXPECT_EQ(Wide(text), L"abcdef");
}

TEST(TStringInsert, WithANegativeCountTakesAllOfTheText) {
  CTString text("a");
  EXPECT_EQ(text.Insert(1, L"bcd", -1), 4);
  EXPECT_EQ(Wide(text), L"abcd");
}

TEST(TStringInsert, BeyondTheEndThrowsOutOfRange) {
  CTString text("ab");
  EXPECT_THROW(text.Insert(3, L"c", 1), std::out_of_range);
  EXPECT_THROW(text.Insert(-1, "c", 1), std::out_of_range);
  EXPECT_EQ(Wide(text), L"ab");
}

TEST(TStringInsert, TakesItsOwnText) {
  CTString text("ab");
  EXPECT_EQ(text.Insert(1, static_cast<const wchar_t*>(text), 2), 4);
  EXPECT_EQ(Wide(text), L"aabb");
}

TEST(TStringErase, RemovesUnitsAndReturnsTheWideBuffer) {
  CTString text("abcd");
  EXPECT_STREQ(text.Erase(1, 2), L"ad");
  EXPECT_EQ(text.GetLength(), 2);
}

TEST(TStringErase, WithACountOfMinusOneOrTooMuchRemovesTheRest) {
  EXPECT_STREQ(CTString("abcd").Erase(1, -1), L"a");
  EXPECT_STREQ(CTString("abcd").Erase(1, 100), L"a");
}

TEST(TStringErase, AtTheVeryEndRemovesNothing) {
  EXPECT_STREQ(CTString("ab").Erase(2, 1), L"ab");
  EXPECT_STREQ(CTString().Erase(0, 1), L"");
}

TEST(TStringErase, BeyondTheEndThrowsOutOfRangeAlsoOnAnEmptyText) {
  EXPECT_THROW(CTString("ab").Erase(3, 1), std::out_of_range);
  EXPECT_THROW(CTString("ab").Erase(-1, 1), std::out_of_range);
  EXPECT_THROW(CTString().Erase(1, 1), std::out_of_range);
}

TEST(TStringReplace, ChangesTheTextAndReturnsACopy) {
  CTString text("one two three");
  EXPECT_EQ(Wide(text.Replace(4, 3, CTString("2"))), L"one 2 three");
  EXPECT_EQ(Wide(text), L"one 2 three");
}

TEST(TStringReplace, WithTooManyUnitsReplacesTheRest) {
  CTString text("abcd");
  EXPECT_EQ(Wide(text.Replace(2, 100, CTString("!"))), L"ab!");
}

TEST(TStringReplace, BeyondTheEndThrowsOutOfRange) {
  CTString text("ab");
  EXPECT_THROW(text.Replace(3, 1, CTString("c")), std::out_of_range);
}

TEST(TStringSubStr, WithACountOfMinusOneCopiesTheWholeText) {
  EXPECT_EQ(Wide(CTString("hello").SubStr(0, -1)), L"hello");
}

TEST(TStringSubStr, WithACountBeyondTheEndGivesTheRest) {
  EXPECT_EQ(Wide(CTString("hello").SubStr(2, 100)), L"llo");
}

TEST(TStringSubStr, UpToAMissingNeedleGivesTheWholeText) {
  const CTString text("hello");
  EXPECT_EQ(Wide(text.SubStr(0, text.Find(L"x", 0))), L"hello");
}

TEST(TStringSubStr, FromBehindAMissingNeedleGivesTheWholeText) {
  const CTString text("hello");
  EXPECT_EQ(Wide(text.SubStr(text.Find(L"x", 0) + 1, -1)), L"hello");
}

TEST(TStringSubStr, AtTheVeryEndIsEmpty) {
  EXPECT_TRUE(CTString("ab").SubStr(2, 1).IsEmpty());
}

TEST(TStringSubStr, BeyondTheEndThrowsOutOfRange) {
  EXPECT_THROW(CTString("ab").SubStr(3, 1), std::out_of_range);
  EXPECT_THROW(CTString("ab").SubStr(-1, 1), std::out_of_range);
}

TEST(TStringSubStr, OfAnEmptyTextIsEmptyWhereverItStarts) {
  EXPECT_TRUE(CTString().SubStr(7, 3).IsEmpty());
  EXPECT_TRUE(CTString().SubStr(-1, -1).IsEmpty());
}

// Find, ReverseFind

TEST(TStringFind, GivesTheFirstPlaceAtOrAfterTheStart) {
  const CTString text("a.b.c");
  EXPECT_EQ(text.Find(L".", 0), 1);
  EXPECT_EQ(text.Find(L".", 1), 1);
  EXPECT_EQ(text.Find(L".", 2), 3);
}

TEST(TStringFind, OfANeedleThatIsNotThereIsMinusOne) {
  EXPECT_EQ(CTString("hello").Find(L"x", 0), -1);
  EXPECT_EQ(CTString("a.b").Find(L".", 2), -1);
}

TEST(TStringFind, OfANeedleLongerThanTheTextIsMinusOne) {
  EXPECT_EQ(CTString("ab").Find(L"abc", 0), -1);
}

TEST(TStringFind, FromAStartBeyondTheLastPossiblePlaceIsMinusOne) {
  EXPECT_EQ(CTString("abab").Find(L"ab", 3), -1);
  EXPECT_EQ(CTString("abab").Find(L"ab", 100), -1);
  EXPECT_EQ(CTString("abab").Find(L"ab", -1), -1);
}

TEST(TStringFind, OfAnEmptyNeedleIsTheStartWithinTheTextElseMinusOne) {
  const CTString text("abc");
  EXPECT_EQ(text.Find(L"", 0), 0);
  EXPECT_EQ(text.Find(L"", 3), 3);
  EXPECT_EQ(text.Find(L"", 4), -1);
  EXPECT_EQ(text.Find(L"", -1), -1);
}

TEST(TStringFind, OfANullNeedleIsMinusOne) {
  EXPECT_EQ(CTString("abc").Find(nullptr, 0), -1);
}

TEST(TStringReverseFind, FromMinusOneGivesTheLastOfTwoDots) {
  EXPECT_EQ(CTString("a.b.c").ReverseFind(L".", -1), 3);
}

TEST(TStringReverseFind, GivesTheLastPlaceAtOrBeforeTheStart) {
  const CTString text("a.b.c");
  EXPECT_EQ(text.ReverseFind(L".", 3), 3);
  EXPECT_EQ(text.ReverseFind(L".", 2), 1);
  EXPECT_EQ(text.ReverseFind(L".", 0), -1);
}

TEST(TStringReverseFind, OfANeedleLongerThanTheTextIsMinusOne) {
  EXPECT_EQ(CTString("ab").ReverseFind(L"abc", -1), -1);
}

TEST(TStringReverseFind, OfAnEmptyNeedleIsTheLesserOfLengthAndStart) {
  const CTString text("abc");
  EXPECT_EQ(text.ReverseFind(L"", -1), 3);
  EXPECT_EQ(text.ReverseFind(L"", 1), 1);
}

TEST(TStringReverseFind, OfANullNeedleIsMinusOne) {
  EXPECT_EQ(CTString("abc").ReverseFind(nullptr, -1), -1);
}

// Case, trimming

TEST(TStringCase, ChangesEachUnitInPlace) {
  CTString text("Vid_1d5A");
  EXPECT_STREQ(text.MakeUpper(), L"VID_1D5A");
  EXPECT_STREQ(text.MakeLower(), L"vid_1d5a");
  EXPECT_EQ(Wide(text), L"vid_1d5a");
}

TEST(TStringTrim, RemovesOnlyTheUnitsOfTheSetAtItsEnd) {
  EXPECT_EQ(Wide(CTString(" \tab c\t ").TrimLeft(L" \t")), L"ab c\t ");
  EXPECT_EQ(Wide(CTString(" \tab c\t ").TrimRight(L" \t")), L" \tab c");
}

TEST(TStringTrim, EmptiesATextThatHoldsNothingElse) {
  EXPECT_TRUE(CTString("  \t").TrimLeft(L"\t ").IsEmpty());
  EXPECT_TRUE(CTString("  \t").TrimRight(L"\t ").IsEmpty());
}

TEST(TStringTrim, ReturnsTheTextItself) {
  CTString text(" a ");
  EXPECT_EQ(&text.TrimLeft(L" ").TrimRight(L" "), &text);
  EXPECT_EQ(Wide(text), L"a");
}

TEST(TStringTrim, WithAnEmptyOrNullSetChangesNothing) {
  EXPECT_EQ(Wide(CTString(" a ").TrimLeft(L"").TrimRight(L"")), L" a ");
  EXPECT_EQ(Wide(CTString(" a ").TrimLeft(nullptr).TrimRight(nullptr)), L" a ");
  EXPECT_TRUE(CTString().TrimLeft(L" ").TrimRight(L" ").IsEmpty());
}

// Format

TEST(TStringFormat, PrintsNarrowAndDecodesTheResult) {
  CTString text("before");
  text.Format("%s=%d", kCafeInUtf8, 7);
  EXPECT_EQ(Wide(text), L"caf\u00E9=7");
}

TEST(TStringFormat, PrintsWideTextsByTheWideFormat) {
  CTString text;
  text.Format(L"%s=%d", L"hello", 7);
  EXPECT_EQ(Wide(text), L"hello=7");
}

TEST(TStringFormat, HasNoFixedBuffer) {
  const std::string narrow(20000, 'n');
  const std::wstring wide(20000, L'w');
  CTString text;
  text.Format("<%s>", narrow.c_str());
  EXPECT_EQ(text.GetLength(), 20002);
  text.Format(L"<%s>", wide.c_str());
  EXPECT_EQ(text.GetLength(), 20002);
}

TEST(TStringFormat, MayPrintTheTextItself) {
  CTString text("abc");
  text.Format(L"%s-%s", static_cast<const wchar_t*>(text), static_cast<const wchar_t*>(text));
  EXPECT_EQ(Wide(text), L"abc-abc");
  text.Format("%s-x", static_cast<const char*>(text));
  EXPECT_EQ(Wide(text), L"abc-abc-x");
}

TEST(TStringFormat, OfNothingEmptiesTheText) {
  CTString text("before");
  text.Format("%s", "");
  EXPECT_TRUE(text.IsEmpty());
  text = CTString("before");
  text.Format(L"%s", L"");
  EXPECT_TRUE(text.IsEmpty());
}

TEST(TStringFormat, EmptiesTheTextWhenTheRuntimeRefusesToPrint) {
  CTString text("before");
  text.Format("%ls", L"\u4E2D");
  EXPECT_TRUE(text.IsEmpty());
}

// Numbers, length

TEST(TStringToInt, TakesTheLeadingDecimalNumber) {
  EXPECT_EQ(CTString("12 monkeys").ToInt(), 12);
  EXPECT_EQ(CTString("-7").ToInt(), -7);
  EXPECT_EQ(CTString(" 45").ToInt(), 45);
  EXPECT_EQ(CTString("+45").ToInt(), 45);
}

TEST(TStringToInt, IsZeroWithoutANumber) {
  EXPECT_EQ(CTString("").ToInt(), 0);
  EXPECT_EQ(CTString("COM7").ToInt(), 0);
}

TEST(TStringToInt, ClampsANumberOutOfRange) {
  EXPECT_EQ(CTString("99999999999").ToInt(), std::numeric_limits<int>::max());
}

TEST(TStringLength, CountsUnitsAndEmptiesUnderBothNames) {
  CTString text("abc");
  EXPECT_EQ(text.GetLength(), 3);
  EXPECT_FALSE(text.IsEmpty());
  text.Empty();
  EXPECT_TRUE(text.IsEmpty());
  text = CTString("abc");
  text.Clear();
  EXPECT_TRUE(text.IsEmpty());
}

}  // namespace
