// Formats of the log: well made ones against a model, and all others as far as the contract reaches.

#include <windows.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <optional>

#include "common/logrecord.h"
#include "common/text.h"
#include "hostile/guarded_memory.h"
#include "hostile/property.h"

namespace hostile {

namespace {

GuardedMemory& Guarded() {
  static GuardedMemory memory(1 << 16);
  return memory;
}
GuardedMemory& MoreGuarded() {
  static GuardedMemory memory(1 << 16);
  return memory;
}

// On this platform the arguments of a call are a row of eight bytes each, and a list of them points to it.
using Slots = std::array<std::uint64_t, 16>;
std::va_list ListOf(Slots& slots) {
  static_assert(sizeof(std::va_list) == sizeof(void*));
  return reinterpret_cast<std::va_list>(slots.data());
}

std::string Composed(int level, const char* component, const char* function, const char* file, int line,
                     const char* format, Slots& slots) {
  return corvel::ComposeLogRecord(level, component, function, file, line, format, ListOf(slots));
}

/// The record with its time left out, which must look like one: "#date, time, process and thread".
std::string WithoutTime(const std::string& record) {
  constexpr std::string_view kShape = "#0000-00-00\t00:00:00.000\t";
  Expect(record.size() > kShape.size(), "the record is too short");
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const bool isDigit = record[i] >= '0' && record[i] <= '9';
    Expect(kShape[i] == '0' ? isDigit : record[i] == kShape[i], "the time has another shape");
  }
  const std::string ids =
      std::to_string(::GetCurrentProcessId()) + "~" + std::to_string(::GetCurrentThreadId()) + "\t";
  Expect(record.compare(kShape.size(), ids.size(), ids) == 0, "the ids are others");
  return record.substr(kShape.size() + ids.size());
}

// --- Formats that are well made ---------------------------------------------------------------------------

/// One thing to print: how, and from which arguments.
struct Piece {
  std::string literal;
  std::string flags;
  bool hasWidth = false;
  char conversion = 'd';
  std::uint64_t value = 0;
  int width = 0;
};

constexpr std::array<const char*, 6> kTexts{"", "a", "name with blanks", "\xC3\xA9t\xC3\xA9", "%d", "x\ty\n"};
constexpr std::array<const char*, 6> kFlags{"", "-", "0", "5", "-12.3", ".0"};

Piece TakePiece(Choices& choices) {
  Piece piece;
  for (std::size_t i = choices.Below(4); i > 0; --i) piece.literal += "abc \t#:%"[choices.Below(8)];
  piece.flags = kFlags[choices.Below(kFlags.size())];
  piece.conversion = "dxuscfX"[choices.Below(7)];
  switch (piece.conversion) {
    case 's':
      piece.value = reinterpret_cast<std::uint64_t>(kTexts[choices.Below(kTexts.size())]);
      break;
    case 'f':
      piece.value = std::bit_cast<std::uint64_t>(choices.Integer() / 8.0);
      break;
    case 'c':
      piece.value = choices.Below(95) + ' ';
      break;
    default:
      piece.value = static_cast<std::uint32_t>(choices.Integer());
  }
  return piece;
}

/// The runtime's own text for one argument alone.
std::string PrintedAlone(const Piece& piece) {
  const std::string format = "%" + piece.flags + piece.conversion;
  Slots one{piece.value};
  char text[1024];
  const int length = ::_vsnprintf(text, sizeof text, format.c_str(), ListOf(one));
  return {text, static_cast<std::size_t>(std::max(length, 0))};
}

/// A format of pieces, in their order or by their positions.
struct Sentence {
  std::string format;
  std::string printed;
  Slots slots{};
};

Sentence TakeSentence(Choices& choices) {
  const bool isPositional = choices.Flag();
  const std::size_t count = choices.Below(9);
  const std::size_t turn = choices.Byte();
  Sentence sentence;
  for (std::size_t i = 0; i < count; ++i) {
    const Piece piece = TakePiece(choices);
    // By position, the arguments come in another order than the pieces.
    const std::size_t slot = isPositional ? (i + turn) % count : i;
    sentence.slots[slot] = piece.value;
    for (const char letter : piece.literal) sentence.format += letter == '%' ? "%%" : std::string(1, letter);
    sentence.printed += piece.literal + PrintedAlone(piece);
    sentence.format +=
        "%" + (isPositional ? std::to_string(slot + 1) + "$" : "") + piece.flags + piece.conversion;
  }
  return sentence;
}

std::string FileNameByTheBook(const std::string& path) {
  std::string name = path.substr(path.size() > 1 && path[1] == ':' ? 2 : 0);
  const std::size_t folder = name.find_last_of("\\/");
  if (folder != std::string::npos) name.erase(0, folder + 1);
  const std::size_t dot = std::min(name.rfind('.'), name.size());
  return name.substr(0, dot).substr(0, 255) + name.substr(dot).substr(0, 255);
}

std::string TextOrNull(const char* text) {
  return text == nullptr ? "(null)" : text;
}

void CheckSentence(std::string_view input) {
  Choices choices(input);
  const int level = choices.Integer();
  const int line = choices.Integer();
  const char* const component = choices.Below(9) == 0 ? nullptr : kTexts[choices.Below(kTexts.size())];
  const char* const function = choices.Below(9) == 0 ? nullptr : kTexts[choices.Below(kTexts.size())];
  Sentence sentence = TakeSentence(choices);
  std::string path;
  const std::size_t times = choices.Below(8) == 0 ? 40 : 1;
  const std::string part(choices.Bytes(choices.Below(30)));
  for (std::size_t i = 0; i < times; ++i) path += part;
  path.resize(std::min(path.find('\0'), path.size()));

  const std::string record = Composed(level, component, function, Guarded().Text(path), line,
                                      MoreGuarded().Text(sentence.format), sentence.slots);
  const char* const word = level == 1 ? "Error" : level == 2 ? "Warning" : level == 3 ? "Trace" : "Off";
  ExpectEqual("the record", WithoutTime(record),
              TextOrNull(component) + "\t" + word + "\t" + FileNameByTheBook(path) + "\t" +
                  std::to_string(line) + "\t" + TextOrNull(function) + "\t" + sentence.printed + "##\r\n");
}

std::string MakeSentence(Random& random) {
  // What the path begins with comes last; its letters are those that split it.
  return random.Bytes(random.Size(160) + 8) + random.Text("aB.\\/: \xE9", random.Size(60));
}

// --- All others -------------------------------------------------------------------------------------------

std::string MakeFormat(Random& random) {
  std::string format;
  for (std::size_t i = random.Size(200) + 1; i > 0; --i)
    format += random.OneIn(3) ? '%' : random.Of("dsxcpfgeEGiouXSChlLwIjzt0123456789.$-+# a");
  return format;
}

/// No width from an argument, none of too many digits, no counted text (%Z) and no count (%n), and no more
/// than these arguments in their order: what such a format prints or writes has no bounds, or is not there.
std::string Tamed(std::string_view format, std::size_t mostDigits) {
  std::string tamed;
  std::size_t digits = 0;
  std::size_t conversions = 0;
  for (const char letter : format) {
    digits = letter >= '0' && letter <= '9' ? digits + 1 : 0;
    conversions += letter == '%' ? 1 : 0;
    if (letter != '*' && letter != 'Z' && letter != 'n' && letter != '\0' && digits <= mostDigits &&
        conversions <= Slots().size())
      tamed += letter;
  }
  return tamed;
}

/// Whatever the format, there is one record with its fields, whose message is what was printed up to its
/// first zero or, when that is refused, the format itself. Each argument points to a text, so that no
/// conversion reaches into nothing.
void CheckFormat(std::string_view input) {
  const std::string format = Tamed(input, 3);
  alignas(8) char text[32] = "text";
  Slots slots;
  slots.fill(reinterpret_cast<std::uint64_t>(&text));
  Slots same = slots;
  const char* const placed = MoreGuarded().Text(format);
  const std::optional<std::string> printed = corvel::PrintNarrow(placed, ListOf(slots));
  std::string message = printed.value_or("<not printable> " + format);
  message.resize(std::min(message.find('\0'), message.size()));
  const std::string record = Composed(3, "c", "f", "x.cpp", 1, placed, same);
  ExpectEqual("the record", WithoutTime(record), "c\tTrace\tx.cpp\t1\tf\t" + message + "##\r\n");

  // A text that is appended to keeps what it holds.
  std::string appended = "before";
  const bool isPrinted = corvel::AppendPrinted(appended, placed, ListOf(slots));
  ExpectEqual("whether it is printed", isPrinted, printed.has_value());
  ExpectEqual("the appended text", appended, "before" + printed.value_or(""));
}

/// The wide kind prints what has a length, or leaves the text alone; formats without a conversion stand as
/// they are.
void CheckWideFormat(std::string_view input) {
  // Wine's runtime has no room for wide numbers of more than some twenty letters.
  const std::string format = Tamed(input, 1);
  alignas(8) wchar_t text[32] = L"text";
  Slots slots;
  slots.fill(reinterpret_cast<std::uint64_t>(&text));
  const std::wstring wide(format.begin(), format.end());
  std::wstring printed = L"before";
  const bool isPrinted = corvel::PrintWide(printed, MoreGuarded().Text(wide), ListOf(slots));
  if (!isPrinted) ExpectEqual("the text that stays", printed, std::wstring(L"before"));
  if (wide.find(L'%') == std::wstring::npos) {
    Expect(isPrinted, "a plain text is refused");
    ExpectEqual("the text", printed, wide);
  }
}

}  // namespace

std::vector<Property> LogProperties() {
  return {{"log-sentence", 3, &MakeSentence, &CheckSentence},
          {"log-format", 2, &MakeFormat, &CheckFormat},
          {"wide-format", 1, &MakeFormat, &CheckWideFormat}};
}

}  // namespace hostile
