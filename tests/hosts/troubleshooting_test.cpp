#include "hosts/common/troubleshooting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace hosts {
namespace {

using testing::IsEmpty;
using testing::IsNull;
using testing::NotNull;
using testing::SizeIs;

constexpr char kJobOfService[] = "ToolKit::MainThreadImplementation";

std::string Trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

/// The texts in quotes of a piece of source; neighbours are one text.
std::vector<std::string> Literals(const std::string& source) {
  std::vector<std::string> literals;
  bool joins = false;
  for (std::size_t i = 0; i < source.size(); ++i) {
    if (source[i] != '"') {
      joins = joins && std::isspace(static_cast<unsigned char>(source[i])) != 0;
      continue;
    }
    std::string text;
    for (++i; source[i] != '"'; ++i) {
      if (source[i] != '\\') {
        text += source[i];
        continue;
      }
      ++i;
      text += source[i] == 't' ? '\t' : source[i] == 'n' ? '\n' : source[i];
    }
    if (joins) {
      literals.back() += text;
    } else {
      literals.push_back(text);
    }
    joins = true;
  }
  return literals;
}

/// What stands between the parenthesis at `open` and the one that closes it.
std::string InParentheses(const std::string& source, std::size_t open) {
  int depth = 0;
  bool quoted = false;
  for (std::size_t i = open; i < source.size(); ++i) {
    if (quoted && source[i] == '\\') {
      ++i;
    } else if (source[i] == '"') {
      quoted = !quoted;
    } else if (!quoted && source[i] == '(') {
      ++depth;
    } else if (!quoted && source[i] == ')' && --depth == 0) {
      return source.substr(open + 1, i - open - 1);
    }
  }
  return {};
}

/// A source of the library, and what it can log as an error.
class Source {
 public:
  explicit Source(const std::filesystem::path& path) : m_Name(path.filename().string()) {
    std::ifstream file(path, std::ios::binary);
    m_Text.assign(std::istreambuf_iterator<char>(file), {});
  }

  const std::string& Text() const { return m_Text; }

  /// Formats of all error records. What cannot be told is named in `unknown`.
  std::set<std::string> ErrorFormats(std::vector<std::string>& unknown) const {
    std::set<std::string> formats;
    static const std::regex call(R"(\b(LOG_ERROR\w*|LOG_AT\w*|WriteLogRecord)\s*\()");
    for (std::sregex_iterator found(m_Text.begin(), m_Text.end(), call), end; found != end; ++found) {
      if (IsDefinition(static_cast<std::size_t>(found->position()))) continue;
      const std::string arguments =
          InParentheses(m_Text, static_cast<std::size_t>(found->position() + found->length() - 1));
      const bool hasLevel = !(*found)[1].str().starts_with("LOG_ERROR");
      if (hasLevel && (arguments.starts_with("2,") || arguments.starts_with("3,"))) continue;
      const std::vector<std::string> texts = FormatsOf(arguments, hasLevel);
      if (texts.empty()) unknown.push_back(m_Name + ": " + arguments);
      for (const std::string& text : texts) formats.insert(Trimmed(text));
    }
    return formats;
  }

 private:
  bool IsDefinition(std::size_t position) const {
    const std::size_t line = m_Text.rfind('\n', position) + 1;
    return m_Text.compare(line, 7, "#define") == 0 || m_Text.compare(line, 5, "void ") == 0;
  }

  std::vector<std::string> FormatsOf(const std::string& arguments, bool hasLevel) const {
    // A procedure's name, or the name of a source, comes before the format of the longer forms.
    std::vector<std::string> texts = Literals(arguments);
    std::erase_if(texts, [](const std::string& text) {
      return text == "%s" || text.ends_with(".cpp") || text.starts_with("ToolKit::");
    });
    if (!texts.empty()) return {texts.front()};
    std::smatch field;
    std::vector<std::string> found;
    std::string rest = arguments;
    // A field of a table: all that the table says there.
    static const std::regex fieldName(R"(m_Rules\.(\w+))");
    for (; std::regex_search(rest, field, fieldName); rest = field.suffix()) {
      if (field[1] == "procedure") continue;
      const std::regex entry(R"(\.)" + field[1].str() + R"(\s*=\s*("[^"]*"))");
      AddAll(entry, found);
    }
    // A setter's text of failure stands in front of its level.
    if (hasLevel) AddAll(std::regex(R"re(("[^"]*"),\s*kError\})re"), found);
    return found;
  }

  void AddAll(const std::regex& entry, std::vector<std::string>& found) const {
    for (std::sregex_iterator match(m_Text.begin(), m_Text.end(), entry), end; match != end; ++match) {
      found.push_back(Literals((*match)[1].str()).front());
    }
  }

  std::string m_Name;
  std::string m_Text;
};

std::vector<Source> SourcesOfLibrary() {
  std::vector<Source> sources;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(PRODUCT_SOURCES)) {
    if (entry.path().extension() == ".cpp") sources.emplace_back(entry.path());
  }
  return sources;
}

bool IsInTable(const std::string& format) {
  return std::ranges::any_of(AllTroubles(), [&](const Trouble& row) { return row.format == format; });
}

TEST(TroubleshootingTest, HoldsEachTextThatTheLibraryCanLogAsAnError) {
  std::set<std::string> formats;
  std::vector<std::string> unknown;
  for (const Source& source : SourcesOfLibrary()) formats.merge(source.ErrorFormats(unknown));

  EXPECT_THAT(unknown, IsEmpty()) << "this way of logging an error is not known here";
  EXPECT_THAT(formats, SizeIs(testing::Ge(120U)));
  for (const std::string& format : formats) EXPECT_TRUE(IsInTable(format)) << format;
}

TEST(TroubleshootingTest, HoldsNoTextThatTheLibraryDoesNotHave) {
  std::set<std::string> literals;
  for (const Source& source : SourcesOfLibrary()) {
    for (const std::string& literal : Literals(source.Text())) literals.insert(Trimmed(literal));
  }
  // One format serves two texts that differ in the name of the procedure.
  for (const Trouble& row : AllTroubles()) EXPECT_TRUE(literals.contains(row.format)) << row.format;
}

TEST(TroubleshootingTest, HoldsNoRowTwice) {
  std::set<std::string> seen;
  for (const Trouble& row : AllTroubles()) {
    EXPECT_TRUE(seen.insert(std::string(row.function) + "|" + row.format).second) << row.format;
  }
}

TEST(TroubleshootingTest, FindsEachRowByItsOwnFormat) {
  for (const Trouble& row : AllTroubles()) {
    std::string message = row.format;
    for (const auto& [conversion, value] : {std::pair{"%s", "some text"},
                                            {"%ls", "C:\\a b"},
                                            {"%S", "x"},
                                            {"%d", "-7"},
                                            {"%x", "8000ffff"},
                                            {"%X", "8000FFFF"},
                                            {"%08lx", "00000005"}}) {
      for (std::size_t at = message.find(conversion); at != std::string::npos;
           at = message.find(conversion)) {
        message.replace(at, std::string_view(conversion).size(), value);
      }
    }
    EXPECT_EQ(FindTrouble(row.function, "\t " + message + "\n"), &row) << message;
  }
}

TEST(TroubleshootingTest, TellsTheSameTextOfTwoProceduresApart) {
  const Trouble* const reset =
      FindTrouble("CUdeIoControl::OpenUdeDeviceFlashInterface", "Error retrieving device interface list: 19");
  const Trouble* const port = FindTrouble("CFirmwareDownloader::CheckFlashPortImplementation",
                                          "Error retrieving device interface list: 19\n");

  ASSERT_THAT(reset, NotNull());
  ASSERT_THAT(port, NotNull());
  EXPECT_STRNE(reset->meaning, port->meaning);
}

TEST(TroubleshootingTest, KnowsErrorsThatAreNone) {
  const Trouble* const deletion = FindTrouble("ToolKit::DeleteFLSFiles", "\t DeleteFLSFiles ++");

  ASSERT_THAT(deletion, NotNull());
  EXPECT_EQ(deletion->kind, TroubleKind::Harmless);
}

TEST(TroubleshootingTest, FindsNothingForATextThatIsNotTheLibrarys) {
  EXPECT_THAT(FindTrouble(kJobOfService, ""), IsNull());
  EXPECT_THAT(FindTrouble(kJobOfService, "Flash FAILED"), IsNull());
  EXPECT_THAT(FindTrouble("Somebody::Else", "\t Flash FAILED, goto Flash_FAILED"), IsNull());
}

TEST(TroubleshootingTest, ALongHostileTextIsLookedUpQuickly) {
  std::string text;
  while (text.size() < 4'000'000) text += "CreateDirectory(x) failed: ";

  EXPECT_THAT(FindTrouble("ToolKit::MakeDirectory", text), NotNull());
  EXPECT_THAT(FindTrouble("ToolKit::DeleteFLSFiles", text), IsNull());
}

TEST(MatchesFormatTest, ANumberOfADifferentBaseIsNotTaken) {
  EXPECT_TRUE(MatchesFormat("failed: %d", "failed: 12"));
  EXPECT_FALSE(MatchesFormat("failed: %d", "failed: 1f"));
  EXPECT_FALSE(MatchesFormat("failed: %d", "failed: "));
}

TEST(MatchesFormatTest, ATextInTheMiddleMayHoldWhatComesBehindIt) {
  EXPECT_TRUE(MatchesFormat("file(%s)", "file(a(b)c)"));
  EXPECT_FALSE(MatchesFormat("file(%s)", "file(a(b)c"));
}

TEST(ResultAdviceTest, KnowsEachResultAndNoOther) {
  for (const int value : {0, 1, 2, 3, 4})
    EXPECT_THAT(FindResultAdvice(FlashResultAdvice(), value), NotNull());
  for (const int value : {0, 1, 5}) EXPECT_THAT(FindResultAdvice(AttemptResultAdvice(), value), NotNull());
  EXPECT_THAT(FindResultAdvice(FlashResultAdvice(), 5), IsNull());
  EXPECT_THAT(FindResultAdvice(AttemptResultAdvice(), 2), IsNull());
}

}  // namespace
}  // namespace hosts
