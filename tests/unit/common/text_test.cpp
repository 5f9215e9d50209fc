#include "common/text.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>

#include "common/narrow.h"

using corvel::AnsiFromWide;
using corvel::Narrow;
using corvel::PrintNarrow;
using corvel::PrintWide;
using corvel::Utf8FromWide;
using corvel::WideFromUtf8;

namespace {

std::optional<std::string> Print(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  auto text = PrintNarrow(format, arguments);
  va_end(arguments);
  return text;
}

std::optional<std::wstring> Print(const wchar_t* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::wstring text = L"before";
  const bool printed = PrintWide(text, format, arguments);
  va_end(arguments);
  if (printed) return text;
  EXPECT_EQ(text, L"before");
  return std::nullopt;
}

TEST(TextConversion, GoesBothWaysBetweenUtf8AndWide) {
  EXPECT_EQ(WideFromUtf8("caf\xC3\xA9"), L"caf\u00E9");
  EXPECT_EQ(Utf8FromWide(L"caf\u00E9"), "caf\xC3\xA9");
}

TEST(TextConversion, OfAnEmptyTextIsEmpty) {
  EXPECT_EQ(WideFromUtf8(""), L"");
  EXPECT_EQ(Utf8FromWide(L""), "");
  EXPECT_EQ(AnsiFromWide(L""), "");
}

TEST(TextConversion, KeepsAnEmbeddedTerminator) {
  EXPECT_EQ(WideFromUtf8(std::string_view("a\0b", 3)), std::wstring(L"a\0b", 3));
  EXPECT_EQ(Utf8FromWide(std::wstring_view(L"a\0b", 3)), std::string("a\0b", 3));
}

TEST(TextConversion, UsesTheSystemsCodePageForAnsi) {
  char expected[8]{};
  ::WideCharToMultiByte(CP_ACP, 0, L"caf\u00E9", -1, expected, sizeof expected, nullptr, nullptr);
  EXPECT_EQ(AnsiFromWide(L"caf\u00E9"), expected);
}

TEST(TextConversion, LeavesTheLastErrorAlone) {
  ::SetLastError(1234);
  WideFromUtf8("");
  WideFromUtf8("\xFF");
  Utf8FromWide(L"");
  EXPECT_EQ(::GetLastError(), 1234u);
}

TEST(TextNarrow, GivesUtf8WithoutChangingTheText) {
  const CTString text(L"caf\u00E9");
  EXPECT_EQ(Narrow(text), "caf\xC3\xA9");
}

// Texts are printed at a usual length first, and measured only beyond it.
TEST(TextPrint, IsWholeAroundTheUsualLength) {
  for (std::size_t length = corvel::kUsualPrint - 3; length < corvel::kUsualPrint + 3; ++length) {
    SCOPED_TRACE(length);
    const std::string narrow(length, 'n');
    EXPECT_EQ(Print("%s", narrow.c_str()), narrow);
    const std::wstring wide(length, L'w');
    EXPECT_EQ(Print(L"%ls", wide.c_str()), wide);
  }
}

TEST(TextPrint, AppendsBehindWhatIsThere) {
  const auto append = [](std::string& text, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const bool printed = corvel::AppendPrinted(text, format, arguments);
    va_end(arguments);
    return printed;
  };
  const std::string longer(2 * corvel::kUsualPrint, 'x');
  std::string text = "head ";
  EXPECT_TRUE(append(text, "%d", 42));
  EXPECT_EQ(text, "head 42");
  EXPECT_TRUE(append(text, "%s", longer.c_str()));
  EXPECT_EQ(text, "head 42" + longer);
  EXPECT_FALSE(append(text, nullptr));
  EXPECT_EQ(text, "head 42" + longer);
}

TEST(TextConversion, IsAddedBehindAText) {
  std::wstring text = L"head ";
  corvel::AppendWideFromUtf8(text, "caf\xC3\xA9");
  corvel::AppendWideFromUtf8(text, "");
  EXPECT_EQ(text, L"head caf\u00E9");
}

TEST(TextPrint, TakesPositionalParameters) {
  EXPECT_EQ(Print("%2$s %1$s", "world", "hello"), "hello world");
}

TEST(TextPrint, PrintsWideTextsInANarrowFormat) {
  EXPECT_EQ(Print("[%ls] [%S]", L"one", L"two"), "[one] [two]");
}

TEST(TextPrint, GivesAnEmptyTextForAnEmptyFormat) {
  EXPECT_EQ(Print("%s", ""), "");
  EXPECT_EQ(Print(L"%s", L""), L"");
}

TEST(TextPrint, TakesAnyLength) {
  const std::string text(100000, 'x');
  EXPECT_EQ(Print("%s", text.c_str()), text);
}

TEST(TextPrint, GivesNothingForACharacterThatTheLocaleLacks) {
  EXPECT_EQ(Print("%ls", L"\u4E2D"), std::nullopt);
}

TEST(TextPrint, GivesNothingForParametersOfWhichOnlySomeHavePositions) {
  // Handed over, or the compiler would refuse it first.
  const char* const format = "%1$s %s";
  EXPECT_EQ(Print(format, "one", "two"), std::nullopt);
}

#if defined(_MSC_VER) && defined(_UCRT)
int g_refusals = 0;
void __cdecl CountRefusal(const wchar_t*, const wchar_t*, const wchar_t*, unsigned int, std::uintptr_t) {
  ++g_refusals;
}

// The universal runtime would end the process there, or do what the host has asked for.
TEST(TextPrint, KeepsARefusedFormatFromTheHostsHandlerForThatCallAlone) {
  g_refusals = 0;
  const auto before = ::_set_thread_local_invalid_parameter_handler(&CountRefusal);
  const char* const format = "%1$s %s";
  EXPECT_EQ(Print(format, "one", "two"), std::nullopt);
  EXPECT_EQ(g_refusals, 0);
  EXPECT_EQ(::_set_thread_local_invalid_parameter_handler(before), &CountRefusal);
}
#endif

TEST(TextPrint, GivesNothingWithoutAFormat) {
  EXPECT_EQ(Print(static_cast<const char*>(nullptr)), std::nullopt);
  EXPECT_EQ(Print(static_cast<const wchar_t*>(nullptr)), std::nullopt);
}

TEST(TextPrint, TakesPlainStringsAsWideInAWideFormat) {
  EXPECT_EQ(Print(L"%s|%ls|%S", L"hello", L"wide", "narrow"), L"hello|wide|narrow");
}

}  // namespace
