#include <windows.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <string>
#include <string_view>

#include "benchmarks/catch.h"
#include "benchmarks/sampler.h"
#include "common/tstring.h"

namespace benchmarks {

namespace {

constexpr double kTarget = 1.1;
constexpr double kAppendTarget = 1.15;
constexpr double kFormatTarget = 1.3;
constexpr char kStandard[] = "std::wstring";

struct Size {
  const char* name;
  std::size_t units;
};
constexpr Size kSizes[] = {{"20 B", 20}, {"1 KB", 1024}, {"1 MB", 1 << 20}};

std::wstring Sentence(std::size_t units) {
  constexpr std::wstring_view kWords = L"C:\\ProgramData\\Firmware\\modem image v7.fls; ";
  std::wstring text;
  while (text.size() < units) text += kWords;
  text.resize(units);
  return text;
}

std::string Narrowed(const std::wstring& text) {
  return {text.begin(), text.end()};
}

/// From a pointer alone, as the library is given it: its length has to be found first.
std::wstring BareWide(const char* text) {
  const int size = static_cast<int>(std::strlen(text));
  const int length = ::MultiByteToWideChar(CP_UTF8, 0, text, size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, text, size, wide.data(), length);
  return wide;
}

void BareNarrow(const std::wstring& text, std::string& narrow) {
  const int size = static_cast<int>(text.size());
  const int length = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
  narrow.assign(static_cast<std::size_t>(length), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, narrow.data(), length, nullptr, nullptr);
}

std::string NameOf(const char* operation, const Size& size) {
  return std::string("text: ") + operation + ", " + size.name;
}

void CompareConversions(const Size& size) {
  const std::wstring wide = Sentence(size.units);
  const std::string narrow = Narrowed(wide);
  Compare(
      {NameOf("from UTF-8", size), "the conversion calls", kTarget},
      [&] { Use(static_cast<const wchar_t*>(CTString(narrow.c_str()))); },
      [&] { Use(BareWide(narrow.c_str()).data()); });
  CTString text(wide);
  std::string bare;
  Compare(
      {NameOf("to UTF-8", size), "the conversion calls", kTarget},
      [&] { Use(static_cast<const char*>(text)); },
      [&] {
        BareNarrow(wide, bare);
        Use(bare.data());
      });
}

/// `piece` twice behind an empty text that has room.
template <typename Piece, typename BarePiece>
void CompareAppending(const std::string& name, const char* floorName, const Piece& piece,
                      const BarePiece& barePiece) {
  CTString text;
  std::wstring bare;
  Compare(
      {name, floorName, kAppendTarget},
      [&] {
        text.Empty();
        text += piece;
        text += piece;
        Use(&text);
      },
      [&] {
        bare.clear();
        bare += barePiece();
        bare += barePiece();
        Use(bare.data());
      });
}

void CompareAppending(const Size& size) {
  const std::wstring wide = Sentence(size.units);
  const std::string narrow = Narrowed(wide);
  CompareAppending(NameOf("append wide", size), kStandard, wide.c_str(), [&] { return wide.c_str(); });
  CompareAppending(NameOf("append narrow", size), "conversion calls, std::wstring", narrow.c_str(),
                   [&] { return BareWide(narrow.c_str()); });
  CompareAppending(NameOf("append its own type", size), kStandard, CTString(wide),
                   [&]() -> const std::wstring& { return wide; });
}

}  // namespace

TEST_CASE("Conversions of texts") {
  for (const Size& size : kSizes) CompareConversions(size);
}

TEST_CASE("Appending to texts") {
  for (const Size& size : {kSizes[0], kSizes[1]}) CompareAppending(size);
}

TEST_CASE("Printing into texts") {
  const wchar_t kFormat[] = L"\\\\?\\USB#VID_%04X&PID_%04X#%s#%d";
  const wchar_t kSerial[] = L"6&1234abcd&0&2";
  CTString text;
  std::wstring bare;
  Compare(
      {"text: format", "swprintf into a buffer and a copy", kFormatTarget},
      [&] {
        text.Format(kFormat, 0x8087u, 0x0716u, kSerial, 42);
        Use(&text);
      },
      [&] {
        wchar_t buffer[256];
        const int length = ::_snwprintf(buffer, std::size(buffer), kFormat, 0x8087u, 0x0716u, kSerial, 42);
        bare.assign(buffer, static_cast<std::size_t>(length));
        Use(bare.data());
      });
}

TEST_CASE("Searching, copying and changing texts") {
  for (const Size& size : {kSizes[0], kSizes[1]}) {
    const std::wstring bare = Sentence(size.units) + L"needle";
    const CTString text(bare);
    Compare(
        {NameOf("find", size), kStandard, kTarget},
        [&] {
          const int found = text.Find(L"needle", 0);
          Use(&found);
        },
        [&] {
          const std::size_t found = bare.find(L"needle", 0);
          Use(&found);
        });
    Compare(
        {NameOf("compare", size), kStandard, kTarget},
        [&, other = CTString(bare)] {
          const int order = text.Compare(other);
          Use(&order);
        },
        [&, other = std::wstring(bare)] {
          const int order = bare.compare(other);
          Use(&order);
        });
    Compare(
        {NameOf("copy a part", size), kStandard, kTarget},
        [&] { Use(static_cast<const wchar_t*>(text.SubStr(2, -1))); }, [&] { Use(bare.substr(2).data()); });
    Compare(
        {NameOf("copy and trim", size), kStandard, kTarget},
        [&] {
          CTString copy(text);
          Use(&copy.TrimRight(L"elden").TrimLeft(L"C:\\"));
        },
        [&] {
          std::wstring copy(bare);
          copy.erase(copy.find_last_not_of(L"elden") + 1);
          copy.erase(0, copy.find_first_not_of(L"C:\\"));
          Use(copy.data());
        });
    Compare(
        {NameOf("copy in capitals", size), kStandard, kTarget},
        [&] {
          CTString copy(text);
          Use(copy.MakeUpper());
        },
        [&] {
          std::wstring copy(bare);
          std::ranges::transform(copy, copy.begin(),
                                 [](wchar_t unit) { return static_cast<wchar_t>(std::towupper(unit)); });
          Use(copy.data());
        });
  }
}

}  // namespace benchmarks
