// CTString against a model on the standard library, and the toolkit's own operations on texts.

#include <windows.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <cwctype>
#include <set>
#include <type_traits>

#include "common/tstring.h"
#include "hostile/captured_log.h"
#include "hostile/guarded_memory.h"
#include "hostile/property.h"
#include "simulator/import_patch.h"
#include "toolkit/toolkit.h"

namespace hostile {

namespace {

std::string MakeDecisions(Random& random) {
  return random.Bytes(random.Size(600));
}

GuardedMemory& Guarded() {
  static GuardedMemory memory(1 << 16);
  return memory;
}
GuardedMemory& MoreGuarded() {
  static GuardedMemory memory(1 << 16);
  return memory;
}

// --- CTString ---------------------------------------------------------------------------------------------

constexpr std::size_t kLongestText = 400;
constexpr std::wstring_view kUnits{L"aAbB.\\ \t19-+zZ\u00E9\u00C9\u00DF\u0130\u4E2D\uFFFD\uFFFF\0", 22};

std::wstring TakeWide(Choices& choices) {
  std::wstring text;
  for (std::size_t length = choices.Below(10); length > 0; --length) {
    const std::size_t which = choices.Byte();
    if (which == 255) {
      text += L"\U0001F4F6";
    } else if (which == 254) {
      text += static_cast<wchar_t>(0xD83D);
    } else {
      text += kUnits[which % kUnits.size()];
    }
  }
  return text;
}

/// UTF-8 by the book. Half of a pair becomes U+FFFD.
std::string Encoded(std::wstring_view text) {
  std::string bytes;
  const auto add = [&bytes](std::uint32_t value) { bytes += static_cast<char>(value); };
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t point = text[i];
    const bool high = point >= 0xD800 && point < 0xDC00;
    if (high && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
      point = 0x10000 + ((point - 0xD800) << 10) + (text[++i] - 0xDC00u);
    } else if (point >= 0xD800 && point < 0xE000) {
      point = 0xFFFD;
    }
    if (point < 0x80) {
      add(point);
    } else if (point < 0x800) {
      add(0xC0 | (point >> 6));
      add(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
      add(0xE0 | (point >> 12));
      add(0x80 | ((point >> 6) & 0x3F));
      add(0x80 | (point & 0x3F));
    } else {
      add(0xF0 | (point >> 18));
      add(0x80 | ((point >> 12) & 0x3F));
      add(0x80 | ((point >> 6) & 0x3F));
      add(0x80 | (point & 0x3F));
    }
  }
  return bytes;
}

/// What comes back of a text that was encoded.
std::wstring Whole(std::wstring text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool high = text[i] >= 0xD800 && text[i] < 0xDC00;
    if (high && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
      ++i;
    } else if (text[i] >= 0xD800 && text[i] < 0xE000) {
      text[i] = 0xFFFD;
    }
  }
  return text;
}

std::wstring UpToZero(const std::wstring& text) {
  return text.substr(0, text.find(L'\0'));
}

/// A negative size means very far.
std::size_t Far(std::int32_t value) {
  return value < 0 ? SIZE_MAX - static_cast<std::size_t>(-(static_cast<std::int64_t>(value) + 1))
                   : static_cast<std::size_t>(value);
}

int FindByTheBook(const std::wstring& text, const std::wstring& needle, std::int32_t start) {
  for (std::size_t at = Far(start); at <= text.size() && text.size() - at >= needle.size(); ++at) {
    if (text.compare(at, needle.size(), needle) == 0) return static_cast<int>(at);
  }
  return -1;
}

int FindBackByTheBook(const std::wstring& text, const std::wstring& needle, std::int32_t start) {
  if (needle.size() > text.size()) return -1;
  for (std::size_t at = std::min(text.size() - needle.size(), Far(start)) + 1; at-- > 0;) {
    if (text.compare(at, needle.size(), needle) == 0) return static_cast<int>(at);
  }
  return -1;
}

int NumberByTheBook(const std::wstring& text) {
  std::size_t at = 0;
  while (at < text.size() && std::iswspace(text[at]) != 0) ++at;
  const bool negative = at < text.size() && text[at] == L'-';
  if (at < text.size() && (text[at] == L'-' || text[at] == L'+')) ++at;
  std::int64_t number = 0;
  for (; at < text.size() && text[at] >= L'0' && text[at] <= L'9'; ++at)
    number = std::min<std::int64_t>(number * 10 + (text[at] - L'0'), std::int64_t{1} << 40);
  return static_cast<int>(std::clamp<std::int64_t>(negative ? -number : number, INT_MIN, INT_MAX));
}

/// Three texts, and what they should hold.
class TextMachine {
 public:
  explicit TextMachine(std::string_view input) : m_Choices(input) {}

  void Run() {
    while (!m_Choices.AtEnd()) {
      Step();
      for (std::size_t i = 0; i < m_Texts.size(); ++i) Compare(m_Texts[i], m_Models[i]);
    }
  }

 private:
  static void Compare(CTString& text, std::wstring& model) {
    ExpectEqual("the text", static_cast<std::wstring>(text), model);
    ExpectEqual("its length", text.GetLength(), static_cast<int>(model.size()));
    ExpectEqual("whether it is empty", text.IsEmpty(), model.empty());
    ExpectEqual("its pointer", std::wstring(static_cast<const wchar_t*>(text)), UpToZero(model));
    ExpectEqual("its UTF-8", static_cast<std::string>(text), Encoded(model));
    if (model.size() <= kLongestText) return;
    text.Empty();
    model.clear();
  }

  std::size_t Which() { return m_Choices.Below(m_Texts.size()); }
  /// A text at the end of memory; sometimes none.
  const wchar_t* Wide(std::wstring& copy) {
    if (m_Choices.Below(16) == 0) return nullptr;
    copy = TakeWide(m_Choices);
    const wchar_t* const placed = Guarded().Text(copy);
    copy = UpToZero(copy);
    return placed;
  }
  const char* Narrow(std::wstring& copy) {
    if (m_Choices.Below(16) == 0) return nullptr;
    copy = Whole(UpToZero(TakeWide(m_Choices)));
    return MoreGuarded().Text(Encoded(copy));
  }

  /// The same on both, which may refuse a position.
  template <typename OnText, typename OnModel>
  static void Both(OnText onText, OnModel onModel) {
    bool refused = false;
    bool refusal = false;
    try {
      onText();
    } catch (const std::out_of_range&) {
      refused = true;
    }
    try {
      onModel();
    } catch (const std::out_of_range&) {
      refusal = true;
    }
    ExpectEqual("whether the position is refused", refused, refusal);
  }

  void Step() {
    CTString& text = m_Texts[Which()];
    std::wstring& model = m_Models[static_cast<std::size_t>(&text - m_Texts.data())];
    const std::size_t kind = m_Choices.Below(26);
    if (kind < 6) return Make(kind, text, model);
    if (kind < 12) return Add(kind, text, model);
    if (kind < 18) return Change(kind, text, model);
    Ask(kind, text, model);
  }

  void Make(std::size_t kind, CTString& text, std::wstring& model) {
    std::wstring other;
    switch (kind) {
      case 0: {
        const std::int32_t number = m_Choices.Integer();
        text = CTString(number);
        model = std::to_wstring(number);
        break;
      }
      case 1: {
        const wchar_t* const wide = Wide(other);
        text = CTString(wide);
        model = other;
        break;
      }
      case 2: {
        const char* const narrow = Narrow(other);
        text = CTString(narrow);
        model = other;
        break;
      }
      case 3:
        other = Whole(TakeWide(m_Choices));
        text = CTString(Encoded(other));
        model = other;
        break;
      case 4:
        other = TakeWide(m_Choices);
        text = CTString(other);
        model = other;
        break;
      default: {
        const std::size_t from = Which();
        text = m_Texts[from];
        model = std::wstring(m_Models[from]);
      }
    }
  }

  void Add(std::size_t kind, CTString& text, std::wstring& model) {
    std::wstring other;
    switch (kind) {
      case 6: {
        const std::size_t from = Which();
        text += m_Texts[from];
        model += std::wstring(m_Models[from]);
        break;
      }
      case 7:
        text += Wide(other);
        model += other;
        break;
      case 8:
        text.Append(Narrow(other));
        model += other;
        break;
      case 9: {
        const wchar_t* const wide = Wide(other);
        text = text + wide;
        model += other;
        break;
      }
      case 10: {
        // Its own buffer: the text may move while it grows.
        text += static_cast<const wchar_t*>(text);
        model += UpToZero(model);
        break;
      }
      default: {
        const std::int32_t at = m_Choices.Integer();
        const std::int32_t count = m_Choices.Integer();
        const bool isNarrow = m_Choices.Flag();
        const char* const narrow = isNarrow ? Narrow(other) : nullptr;
        const wchar_t* const wide = isNarrow ? nullptr : Wide(other);
        const bool isThere = narrow != nullptr || wide != nullptr;
        int length = 0;
        Both([&] { length = isNarrow ? text.Insert(at, narrow, count) : text.Insert(at, wide, count); },
             [&] {
               if (isThere) model.insert(Far(at), other.substr(0, Far(count)));
               ExpectEqual("the new length", length, static_cast<int>(model.size()));
             });
      }
    }
  }

  void Change(std::size_t kind, CTString& text, std::wstring& model) {
    const std::int32_t at = m_Choices.Integer();
    const std::int32_t count = m_Choices.Integer();
    std::wstring other;
    switch (kind) {
      case 12:
        Both([&] { text.Erase(at, count); }, [&] { model.erase(Far(at), Far(count)); });
        break;
      case 13: {
        const std::wstring with = TakeWide(m_Choices);
        Both([&] { text.Replace(Far(at), Far(count), CTString(with)); },
             [&] { model.replace(Far(at), Far(count), with); });
        break;
      }
      case 14: {
        const bool upper = m_Choices.Flag();
        const wchar_t* const changed = upper ? text.MakeUpper() : text.MakeLower();
        for (wchar_t& unit : model)
          unit = static_cast<wchar_t>(upper ? std::towupper(unit) : std::towlower(unit));
        ExpectEqual("the pointer", std::wstring(changed), UpToZero(model));
        break;
      }
      case 15: {
        const wchar_t* const set = Wide(other);
        if (set == nullptr) other.clear();
        text.TrimLeft(set);
        while (!model.empty() && other.find(model.front()) != std::wstring::npos) model.erase(0, 1);
        break;
      }
      case 16: {
        const wchar_t* const set = Wide(other);
        if (set == nullptr) other.clear();
        text.TrimRight(set);
        while (!model.empty() && other.find(model.back()) != std::wstring::npos) model.pop_back();
        break;
      }
      default:
        Print(at, text, model);
    }
  }

  /// The printed texts may be the very one that is printed into.
  void Print(std::int32_t number, CTString& text, std::wstring& model) {
    if (m_Choices.Flag()) {
      text.Format(L"<%d|%ls|%%>", number, static_cast<const wchar_t*>(text));
      model = L"<" + std::to_wstring(number) + L"|" + UpToZero(model) + L"|%>";
    } else {
      text.Format("<%d|%s|%%>", number, static_cast<const char*>(text));
      model = L"<" + std::to_wstring(number) + L"|" + Whole(UpToZero(model)) + L"|%>";
    }
  }

  void Ask(std::size_t kind, CTString& text, const std::wstring& model) {
    const std::int32_t at = m_Choices.Integer();
    std::wstring other;
    switch (kind) {
      case 18: {
        const wchar_t* const needle = Wide(other);
        ExpectEqual("Find", text.Find(needle, at), needle == nullptr ? -1 : FindByTheBook(model, other, at));
        break;
      }
      case 19: {
        const wchar_t* const needle = Wide(other);
        ExpectEqual("ReverseFind", text.ReverseFind(needle, at),
                    needle == nullptr ? -1 : FindBackByTheBook(model, other, at));
        break;
      }
      case 20: {
        const std::int32_t count = m_Choices.Integer();
        Both([&] { other = static_cast<std::wstring>(text.SubStr(at, count)); },
             [&] {
               const std::wstring part = model.empty() ? std::wstring() : model.substr(Far(at), Far(count));
               ExpectEqual("the part", other, part);
             });
        break;
      }
      case 21:
        ExpectEqual("ToInt", text.ToInt(), NumberByTheBook(UpToZero(model)));
        break;
      case 22: {
        const wchar_t* const wide = Wide(other);
        ExpectEqual("whether it equals a wide text", text == wide, wide != nullptr && model == other);
        break;
      }
      case 23: {
        const char* const narrow = Narrow(other);
        ExpectEqual("whether it equals a narrow text", text == narrow, narrow != nullptr && model == other);
        break;
      }
      case 24:
        AskAboutAnother(text, model);
        break;
      default:
        CheckDamaged();
    }
  }

  void AskAboutAnother(const CTString& text, const std::wstring& model) {
    const std::size_t with = Which();
    const std::wstring& other = m_Models[with];
    const auto [mine, theirs] = std::ranges::mismatch(model, other);
    int order = 0;
    if (mine != model.end() || theirs != other.end())
      order = mine == model.end() || (theirs != other.end() && *mine < *theirs) ? -1 : 1;
    ExpectEqual("Compare", text.Compare(m_Texts[with]), order);
    ExpectEqual("whether it equals another", text == m_Texts[with], order == 0);
  }

  /// Of bytes that are no UTF-8, what is plain in front of the first that is not stays, and nothing plain is
  /// made up behind it. How much a broken sequence swallows is up to the system.
  void CheckDamaged() {
    const std::string bytes(m_Choices.Bytes(m_Choices.Below(40)));
    const auto isPlain = [](auto letter) {
      return static_cast<std::make_unsigned_t<decltype(letter)>>(letter) < 0x80;
    };
    const std::wstring decoded = CTString(bytes);
    Expect(decoded.size() <= bytes.size(), "more units than bytes");
    const auto plainEnd = std::ranges::find_if_not(bytes, isPlain);
    const std::wstring beginning(bytes.begin(), plainEnd);
    ExpectEqual("what is plain in front", decoded.substr(0, beginning.size()), beginning);
    auto from = plainEnd;
    for (const wchar_t unit : decoded.substr(beginning.size())) {
      if (unit >= 0x80) continue;
      from = std::find(from, bytes.end(), static_cast<char>(unit));
      Expect(from++ != bytes.end(), "a plain letter is made up");
    }
  }

  Choices m_Choices;
  std::array<CTString, 3> m_Texts;
  std::array<std::wstring, 3> m_Models;
};

void CheckText(std::string_view input) {
  TextMachine(input).Run();
}

// --- Tokenize ---------------------------------------------------------------------------------------------

std::string MakeTokens(Random& random) {
  std::string input = random.Bytes(6) + static_cast<char>(random.Below(5)) + random.Text("\\/;, ", 4);
  return input + random.Text("ab\\/;, \xE9", random.Size(80));
}

/// By the book, with the runtime's own functions on texts.
std::string TokenByTheBook(const std::string& text, const std::string& set, int& position) {
  if (position < 0) return {};
  std::size_t from = std::min(static_cast<std::size_t>(position), text.size());
  std::size_t length = std::strcspn(text.c_str() + from, set.c_str());
  if (length == 0 && from < text.size()) length = std::strcspn(text.c_str() + ++from, set.c_str());
  std::string token = text.substr(from, length);
  from += length;
  position = token.empty() ? -1 : static_cast<int>(from + std::strspn(text.c_str() + from, set.c_str()));
  return token;
}

void CheckTokens(std::string_view input) {
  Choices choices(input);
  int position = choices.Flag() ? 0 : choices.Integer();
  const std::string set(choices.Bytes(choices.Below(5)));
  const std::string text(choices.Rest());
  const char* const placedSet = MoreGuarded().Text(set);
  const char* const placed = Guarded().Text(text);
  int expectedPosition = position;
  for (std::size_t i = 0; i <= text.size() + 1; ++i) {
    const std::string expected = TokenByTheBook(placed, placedSet, expectedPosition);
    ExpectEqual("the token", ToolKit::Tokenize(placed, placedSet, position), expected);
    ExpectEqual("the position", position, expectedPosition);
  }
  Expect(position < 0, "it does not come to an end");
  ExpectEqual("the token of nothing", ToolKit::Tokenize(nullptr, placedSet, position), std::string());
  ExpectEqual("the token without a set", ToolKit::Tokenize(placed, nullptr, position), std::string());
}

// --- IsFileOfType -----------------------------------------------------------------------------------------

std::string MakePath(Random& random) {
  return static_cast<char>(random.Below(8)) + random.Text(".fFlLsS\\aZ", random.Size(60) + 4);
}

void CheckFileType(std::string_view input) {
  Choices choices(input);
  const std::size_t extensionLength = choices.Below(8);
  const auto widened = [](std::string_view bytes) {
    std::wstring wide;
    for (const char byte : bytes) wide += static_cast<wchar_t>(static_cast<unsigned char>(byte));
    return wide;
  };
  const std::wstring extension = widened(choices.Bytes(extensionLength));
  const std::wstring path = widened(choices.Rest());
  const auto lowered = [](std::wstring text) {
    for (wchar_t& unit : text) unit = static_cast<wchar_t>(std::towlower(unit));
    return text;
  };
  const std::size_t dot = path.rfind(L'.');
  const bool expected = dot != std::wstring::npos && lowered(path.substr(dot)) == lowered(extension);
  ExpectEqual("the answer", ToolKit::IsFileOfType(CTString(path), CTString(extension)), expected);
}

// --- MakeDirectory ----------------------------------------------------------------------------------------

/// Folders that are only remembered. One after so many cannot be made.
class RememberedFolders {
 public:
  RememberedFolders() {
    s_folders.clear();
    m_Patch.Replace("GetFileAttributesA", &Attributes);
    m_Patch.Replace("CreateDirectoryA", &Create);
  }
  static void Begin(std::set<std::string> present, std::size_t creatable) {
    s_folders = std::move(present);
    s_made.clear();
    s_creatable = creatable;
  }
  static const std::vector<std::string>& Made() { return s_made; }

 private:
  static DWORD WINAPI Attributes(const char* path) {
    return s_folders.contains(path) ? FILE_ATTRIBUTE_DIRECTORY : INVALID_FILE_ATTRIBUTES;
  }
  static BOOL WINAPI Create(const char* path, SECURITY_ATTRIBUTES*) {
    if (s_made.size() >= s_creatable) {
      ::SetLastError(ERROR_DIRECTORY);
      return FALSE;
    }
    s_made.emplace_back(path);
    s_folders.insert(path);
    return TRUE;
  }

  static inline std::set<std::string> s_folders;
  static inline std::vector<std::string> s_made;
  static inline std::size_t s_creatable = 0;

  CapturedLog m_Log;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

std::string MakeFolders(Random& random) {
  std::string path = random.OneIn(3) ? random.Text("\\", random.Below(4)) : "C:\\";
  for (std::size_t i = random.OneIn(50) ? 300 : random.Below(9); i > 0; --i)
    path += random.Text("aB .:*\xE9\x01", random.Below(5) + 1) + random.Text("\\", random.OneIn(6) ? 2 : 1);
  return random.Bytes(2) + path;
}

void CheckMakeDirectory(std::string_view input) {
  Choices choices(input);
  const std::size_t present = choices.Below(4);
  const std::size_t creatable = choices.Flag() ? SIZE_MAX : choices.Below(4);
  std::string path(choices.Rest());
  path.resize(path.find('\0') == std::string::npos ? path.size() : path.find('\0'));

  // A leading separator is skipped once, a run of them counts as one.
  std::vector<std::string> folders;
  std::string prefix;
  for (std::size_t at = path.starts_with('\\') ? 1 : 0; at < path.size() && path[at] != '\\';) {
    const std::size_t end = std::min(path.find('\\', at), path.size());
    prefix += (prefix.empty() ? "" : "\\") + path.substr(at, end - at);
    folders.push_back(prefix);
    for (at = end; at < path.size() && path[at] == '\\';) ++at;
  }
  const std::size_t first = std::min(present, folders.size());
  RememberedFolders::Begin({folders.begin(), folders.begin() + static_cast<std::ptrdiff_t>(first)},
                           creatable);
  const std::vector<std::string> missing(folders.begin() + static_cast<std::ptrdiff_t>(first), folders.end());
  const bool works = missing.size() <= creatable;
  const std::vector<std::string> expected(
      missing.begin(), works ? missing.end() : missing.begin() + static_cast<std::ptrdiff_t>(creatable));

  CapturedLog::Take();
  ExpectEqual("the answer", ToolKit::MakeDirectory(Guarded().Text(path)), works);
  ExpectEqual("what was made", RememberedFolders::Made(), expected);
  const std::string log = CapturedLog::Take();
  if (works) return ExpectEqual("the log", log, std::string());
  Expect(
      log.find("\tCreateDirectory(" + missing[creatable] + ") failed: Error code 267: ") != std::string::npos,
      "the failure is not told: " + Quoted(log));
}

}  // namespace

std::vector<Property> TextProperties() {
  return {
      {"text", 10, &MakeDecisions, &CheckText},
      {"tokens", 2, &MakeTokens, &CheckTokens},
      {"file-type", 1, &MakePath, &CheckFileType},
      {"make-directory", 10, &MakeFolders, &CheckMakeDirectory,
       [] { return std::shared_ptr<void>(std::make_shared<RememberedFolders>()); }},
  };
}

}  // namespace hostile
