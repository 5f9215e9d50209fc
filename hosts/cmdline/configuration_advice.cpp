#include "hosts/cmdline/configuration_advice.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <string>
#include <utility>
#include <vector>

#include "hosts/common/facts.h"
#include "hosts/common/nearest_word.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

constexpr std::size_t kLongestLine = 512;
constexpr wchar_t kFirstBeyondAscii = 0x80;
constexpr wchar_t kBlanks[] = L" \t\v\f\r";

enum class Kind { Text, Number };

struct Key {
  const wchar_t* name;
  Kind kind;
};
constexpr std::array kKeys{Key{kTraceLevelKey, Kind::Number},   Key{kRegistryLocationKey, Kind::Text},
                           Key{kFirmwareFolderKey, Kind::Text}, Key{kIpcTypeKey, Kind::Text},
                           Key{kRebootTypeKey, Kind::Number},   Key{kEraseModeKey, Kind::Number}};

using Findings = std::vector<Finding>;
using Setting = LibraryConfiguration::Setting;

void Warn(Findings& findings, const char* code, std::string message, std::string whatToDo) {
  findings.push_back({"configuration", Verdict::Warning, std::move(message), std::move(whatToDo), code});
}

std::string InLine(std::size_t number) {
  return "line " + std::to_string(number) + ": ";
}

/// A text of the file as it is read, with what no terminal should be sent as its number.
std::string Shown(const std::wstring& text) {
  std::string shown;
  for (const wchar_t character : text) {
    const bool control = character < 0x20 || (character >= 0x7F && character < 0xA0);
    char number[8];
    std::snprintf(number, sizeof number, "\\x%02X", static_cast<unsigned int>(character));
    shown += control ? number : ToUtf8({&character, 1});
  }
  return shown;
}

std::string Shown(const Setting& setting) {
  return Shown(setting.key + L"=" + setting.value);
}

bool IsBlank(wchar_t character) {
  return std::wcschr(kBlanks, character) != nullptr;
}

/// The letters of a key alone, so that keys compare equal that look alike to a person.
std::wstring Essence(const std::wstring& key) {
  std::wstring essence;
  for (const wchar_t character : key) {
    if (character < kFirstBeyondAscii && std::iswalnum(character)) {
      essence += static_cast<wchar_t>(std::towlower(character));
    }
  }
  return essence;
}

const Key* FindKey(const std::wstring& name) {
  const auto found = std::ranges::find_if(kKeys, [&](const Key& key) { return name == key.name; });
  return found == kKeys.end() ? nullptr : &*found;
}

const Key* FindKeyThatLooksLike(const std::wstring& name) {
  const std::wstring essence = Essence(name);
  const auto found =
      std::ranges::find_if(kKeys, [&](const Key& key) { return essence == Essence(key.name); });
  return found == kKeys.end() ? nullptr : &*found;
}

std::vector<std::string> KeyNames() {
  std::vector<std::string> names;
  names.reserve(std::size(kKeys));
  for (const Key& key : kKeys) names.push_back(ToUtf8(key.name));
  return names;
}

bool IsComment(const std::wstring& key) {
  const std::size_t first = key.find_first_not_of(kBlanks);
  return first != std::wstring::npos && (key[first] == L';' || key[first] == L'#');
}

// Encoding.

bool IsUtf16(const LibraryConfiguration& configuration) {
  const std::vector<std::wstring>& lines = configuration.Lines();
  if (lines.empty()) return false;
  const auto holdsZero = [](const std::wstring& line) { return line.find(L'\0') != std::wstring::npos; };
  return lines[0].starts_with(L"\u00FF\u00FE") || lines[0].starts_with(L"\u00FE\u00FF") ||
         std::ranges::any_of(lines, holdsZero);
}

void AdviseOnMark(const LibraryConfiguration& configuration, Findings& findings) {
  const std::vector<std::wstring>& lines = configuration.Lines();
  if (lines.empty() || !lines[0].starts_with(L"\u00EF\u00BB\u00BF")) return;
  Warn(findings, "byte_order_mark",
       "the file begins with the byte-order mark of UTF-8, but each of its bytes is read as one character",
       "Save it as ANSI text, without a mark.");
}

// Lines.

void AdviseOnTitle(const LibraryConfiguration& configuration, Findings& findings) {
  if (configuration.Lines().empty()) return;
  const std::wstring& title = configuration.Lines()[0];
  const std::size_t equals = title.find(L'=');
  if (equals == std::wstring::npos || IsComment(title)) return;
  const Key* const key = FindKeyThatLooksLike(title.substr(0, equals));
  if (key == nullptr) return;
  Warn(findings, "setting_on_first_line",
       InLine(1) + ToUtf8(key->name) + " does not count: the first line is a title and always skipped",
       "Put a title there and the setting below it.");
}

void AdviseOnLongLines(const LibraryConfiguration& configuration, Findings& findings) {
  const std::vector<std::wstring>& lines = configuration.Lines();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].size() <= kLongestLine) continue;
    Warn(findings, "long_line",
         InLine(i + 1) + std::to_string(lines[i].size()) + " bytes; of a key and of a value " +
             std::to_string(kLongestConfigurationText) + " are read, the rest is cut off",
         "Keep lines at " + std::to_string(kLongestLine) + " bytes or fewer.");
  }
}

void AdviseOnKey(const Setting& setting, Findings& findings) {
  if (FindKey(setting.key) != nullptr || IsComment(setting.key)) return;
  const std::string found = InLine(setting.line) + "\"" + Shown(setting.key) + "\" ";
  if (const Key* const meant = FindKeyThatLooksLike(setting.key)) {
    const std::string name = ToUtf8(meant->name);
    return Warn(findings, "inexact_key", found + "is not exactly " + name + ": the line does not count",
                "Write " + name + "=, in these letters, with the brackets and without blanks.");
  }
  const std::string nearest = NearestWord(Shown(setting.key), KeyNames());
  Warn(findings, "unknown_key", found + "is no key: the line does not count",
       nearest.empty() ? "Remove the line, or begin it with \";\" if it is a comment."
                       : "Write " + nearest + "= if that is meant, or remove the line.");
}

void AdviseOnRepetition(const LibraryConfiguration& configuration, const Setting& setting,
                        Findings& findings) {
  if (FindKey(setting.key) == nullptr) return;
  const Setting* const counts = configuration.Find(setting.key);
  if (counts == &setting) return;
  Warn(findings, "repeated_key",
       InLine(setting.line) + Shown(setting) + " does not count: line " + std::to_string(counts->line) +
           " sets " + Shown(setting.key) + " again",
       "Keep one of the two lines.");
}

// Values, each as the line gives it that counts.

void AdviseOnBlanks(const Setting& setting, Kind kind, Findings& findings) {
  const bool keptBefore = !setting.value.empty() && IsBlank(setting.value.front());
  const bool behind = !setting.value.empty() && IsBlank(setting.value.back());
  if (!setting.valueBehindBlanks && !keptBefore && !behind) return;
  const bool belong = kind == Kind::Text && (keptBefore || behind);
  Warn(findings, "blanks_around_value",
       InLine(setting.line) + "blanks around the value of " + Shown(setting.key) +
           (belong ? ", which is read as \"" + Shown(setting.value) + "\"" : ""),
       "Write the value right behind the \"=\", and nothing behind it.");
}

void AdviseOnBytes(const Setting& setting, Kind kind, Findings& findings) {
  const auto beyondAscii = [](wchar_t character) { return character >= kFirstBeyondAscii; };
  if (kind != Kind::Text || std::ranges::none_of(setting.value, beyondAscii)) return;
  Warn(findings, "bytes_beyond_ascii",
       InLine(setting.line) + Shown(setting.key) + " holds bytes beyond ASCII and is read as \"" +
           Shown(setting.value) + "\"",
       "If that is not what is meant, save the file as ANSI (Latin-1) text or choose a name in ASCII.");
}

void WarnOfReading(const Setting& setting, const std::string& reading, const std::string& whatToDo,
                   Findings& findings) {
  Warn(findings, "value_read_otherwise", InLine(setting.line) + Shown(setting) + " is read as " + reading,
       whatToDo);
}

long NumberOf(const Setting& setting) {
  return std::strtol(ToUtf8(setting.value).c_str(), nullptr, 10);
}

/// Whether a value is the number that is read and nothing else.
bool IsPlainNumber(const Setting& setting) {
  std::wstring text = setting.value;
  text.erase(0, std::min(text.find_first_not_of(kBlanks), text.size()));
  text.erase(text.find_last_not_of(kBlanks) + 1);
  return text == std::to_wstring(NumberOf(setting));
}

/// @param largest number that counts as itself; larger ones and those below zero count as zero.
void AdviseOnNumber(const Setting& setting, long largest, const std::string& whatToDo, Findings& findings) {
  const long number = NumberOf(setting);
  const long used = number < 0 || number > largest ? 0 : number;
  if (IsPlainNumber(setting) && used == number) return;
  WarnOfReading(setting, std::to_string(used), whatToDo, findings);
}

void AdviseOnIpcType(const Setting& setting, Findings& findings) {
  // Small letters for USB come to the same.
  if (setting.value.empty() || setting.value == L"PCIE" || Essence(setting.value) == L"usb") return;
  WarnOfReading(setting, "USB", "Write PCIE exactly so for that bus, else USB.", findings);
}

void AdviseOnReading(const LibraryConfiguration& configuration, Findings& findings) {
  if (const Setting* const trace = configuration.Find(kTraceLevelKey)) {
    AdviseOnNumber(*trace, LONG_MAX, "Write 1 for a debug log, 0 for none.", findings);
  }
  if (const Setting* const ipcType = configuration.Find(kIpcTypeKey)) AdviseOnIpcType(*ipcType, findings);
  if (const Setting* const reboot = configuration.Find(kRebootTypeKey)) {
    AdviseOnNumber(*reboot, 1, "Write 1 for the AT command, 0 for the Mobile Broadband command.", findings);
  }
  if (const Setting* const erase = configuration.Find(kEraseModeKey)) {
    AdviseOnNumber(*erase, 3, "Write 0, 1, 2 or 3.", findings);
  }
}

void AdviseOnLocation(const LibraryConfiguration& configuration, Findings& findings) {
  constexpr const char* kWhatToDo = "Correct it for the service; the command line uses a key of its own.";
  const std::string readAs = ": the service takes " + Shown(configuration.ServiceKey().rootName + L"\\" +
                                                            configuration.ServiceKey().path);
  if (!configuration.NamesKnownRoot()) {
    return Warn(findings, "unknown_root",
                ToUtf8(kRegistryLocationKey) + " names no key below HKLM, HKU, HKCU, HKCR or HCC" + readAs,
                kWhatToDo);
  }
  const std::wstring location = configuration.Get(kRegistryLocationKey);
  if (location.find(L'\\') < location.size() - 1) return;
  Warn(findings, "location_without_key",
       ToUtf8(kRegistryLocationKey) + "=" + Shown(location) + " is a root without a key" + readAs, kWhatToDo);
}

}  // namespace

std::vector<Finding> AdviseOnConfiguration(const LibraryConfiguration& configuration) {
  Findings findings;
  if (IsUtf16(configuration)) {
    // Nothing in it can be read, so there is nothing to say about its lines.
    Warn(findings, "utf16", "the file holds bytes of zero, as UTF-16 does, and its settings cannot be found",
         "Save it as ANSI text, one byte for each character.");
    return findings;
  }
  AdviseOnMark(configuration, findings);
  AdviseOnTitle(configuration, findings);
  AdviseOnLongLines(configuration, findings);
  for (const Setting& setting : configuration.Settings()) {
    AdviseOnKey(setting, findings);
    AdviseOnRepetition(configuration, setting, findings);
  }
  for (const Key& key : kKeys) {
    const Setting* const setting = configuration.Find(key.name);
    if (setting == nullptr) continue;
    AdviseOnBlanks(*setting, key.kind, findings);
    AdviseOnBytes(*setting, key.kind, findings);
  }
  AdviseOnReading(configuration, findings);
  AdviseOnLocation(configuration, findings);
  return findings;
}

}  // namespace hosts
