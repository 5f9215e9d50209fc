// The configuration file, against a reader of its own.

#include <windows.h>

#include <algorithm>
#include <climits>
#include <map>
#include <string>

#include "config/configparser.h"
#include "hostile/property.h"
#include "support/host_folder.h"
#include "toolkit/toolkit.h"

namespace hostile {

namespace {

constexpr std::size_t kLongestText = 511;

/// The host whose configuration it is. Its log stays off.
class QuietHost {
 public:
  QuietHost() {
    s_host = this;
    CConfigParser::GetInstance();
    CDebugLogger::SetLevel(0);
  }
  ~QuietHost() { s_host = nullptr; }
  static HostFolder& Folder() { return s_host->m_Folder; }

 private:
  static inline QuietHost* s_host = nullptr;
  HostFolder m_Folder;
};

// --- The reader -------------------------------------------------------------------------------------------

/// What a file in text mode reads as: CR LF is one line end, and Ctrl-Z ends it.
std::string InTextMode(std::string_view bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.size() && bytes[i] != '\x1A'; ++i) {
    if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n') continue;
    text += bytes[i];
  }
  return text;
}

int Number(const std::string& text) {
  std::size_t at = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
  const bool negative = at < text.size() && text[at] == '-';
  if (at < text.size() && (text[at] == '-' || text[at] == '+')) ++at;
  std::int64_t number = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
    number = std::min<std::int64_t>(number * 10 + (text[at] - '0'), std::int64_t{1} << 40);
  return static_cast<int>(std::clamp<std::int64_t>(negative ? -number : number, INT_MIN, INT_MAX));
}

/// Each byte one character.
std::wstring Widened(const std::string& text) {
  std::wstring wide;
  for (const char byte : text) wide += static_cast<wchar_t>(static_cast<unsigned char>(byte));
  return wide;
}

class Reader {
 public:
  explicit Reader(std::string_view bytes) {
    const std::string text = InTextMode(bytes);
    for (std::size_t from = 0, line = 0; from < text.size(); ++line) {
      const std::size_t end = std::min(text.find('\n', from), text.size());
      if (line > 0) Take(text.substr(from, std::min(end + 1, text.size()) - from));
      from = end + 1;
    }
  }
  std::wstring Text(const std::string& key) const { return Widened(Value(key)); }
  int Integer(const std::string& key) const { return Number(Value(key)); }

 private:
  std::string Value(const std::string& key) const {
    const auto found = m_Values.find(key);
    return found == m_Values.end() ? std::string() : found->second;
  }
  void Take(std::string line) {
    if (line.ends_with('\n') || line.ends_with('\r')) line.pop_back();
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) return;
    std::string value = line.substr(equals + 1);
    value.erase(0, value.find_first_not_of(' '));
    // Both are texts that end at a zero.
    std::string key = line.substr(0, equals).substr(0, kLongestText);
    value = value.substr(0, kLongestText);
    key.resize(std::min(key.find('\0'), key.size()));
    value.resize(std::min(value.find('\0'), value.size()));
    m_Values[key] = value;
  }

  std::map<std::string, std::string> m_Values;
};

// --- Files ------------------------------------------------------------------------------------------------

std::string MakeValue(Random& random) {
  switch (random.Below(6)) {
    case 0:
      return random.Pick<std::string>(
          {"1", "0", "-1", "+3", "99999999999", "-99999999999", "abc", "\t7x", ""});
    case 1:
      return random.Pick<std::string>({"PCIE", "pcie", "PCIE ", "USB", "PCIE=", " PCIE"});
    case 2:
      return random.Pick<std::string>({"HKLM", "HKCU", "HCC", "HKCC", "hklm", "HKU"}) + "\\" +
             random.Text("aB\\ ", random.Below(20));
    case 3:
      return random.Text("aB\\. =\xE9", random.Below(3) * 500 + random.Below(30));
    case 4:
      return random.Bytes(random.Below(20));
    default:
      return "C:\\images" + random.Text("\\x ", random.Below(8));
  }
}

std::string MakeKey(Random& random) {
  std::string key =
      random.Pick<std::string>({"[TraceLevel]", "[RegistryLocation]", "[ModemAndNVMFirmwareFolder]",
                                "[IPCTYPE]", "[REBOOTTYPE]", "[ERASEMODE]"});
  switch (random.Below(14)) {
    case 0:
      return key + " ";
    case 1:
      return " " + key;
    case 2:
      return key.substr(1);
    case 3:
      return random.Bytes(random.Below(12));
    case 4:
      return key + std::string(1, '\0') + "tail";
    default:
      return key;
  }
}

std::string MakeConfiguration(Random& random) {
  std::string file = random.OneIn(5) ? "" : "# title\r\n";
  for (std::size_t i = random.Below(10); i > 0; --i) {
    file += random.OneIn(12) ? random.Text("a=\r\n[] ", random.Size(40)) : MakeKey(random);
    if (!random.OneIn(12)) file += "=" + std::string(random.Below(3) == 0 ? 1 : 0, ' ') + MakeValue(random);
    file += random.Pick<std::string>({"\r\n", "\r\n", "\n", "\n", "\r", "\r\r\n", "", "\n\n", "\x1A"});
  }
  return file;
}

void CheckConfiguration(std::string_view input) {
  QuietHost::Folder().WriteConfig(input);
  CConfigParser& config = *CConfigParser::GetInstance();
  config.Init();
  Expect(config.LoadConfig(nullptr), "the file is refused");
  const Reader reader(input);
  ExpectEqual("[TraceLevel]", config.GetTraceLevel(), reader.Integer("[TraceLevel]"));
  ExpectEqual("[REBOOTTYPE]", config.GetRebootType(), reader.Integer("[REBOOTTYPE]"));
  ExpectEqual("[ERASEMODE]", config.GetEraseMode(), reader.Integer("[ERASEMODE]"));
  ExpectEqual("[ModemAndNVMFirmwareFolder]", std::wstring(config.GetFirmwareFolder()),
              reader.Text("[ModemAndNVMFirmwareFolder]"));
  ExpectEqual("[IPCTYPE]", std::wstring(config.GetIPCType()),
              std::wstring(reader.Text("[IPCTYPE]") == L"PCIE" ? L"PCIE" : L"USB"));
  const std::wstring location = reader.Text("[RegistryLocation]");
  ExpectEqual("[RegistryLocation]", std::wstring(config.GetRegistryLocation()), location);

  // And what becomes of that.
  static const std::map<std::wstring, HKEY> kRoots{{L"HKLM", HKEY_LOCAL_MACHINE},
                                                   {L"HKU", HKEY_USERS},
                                                   {L"HKCU", HKEY_CURRENT_USER},
                                                   {L"HKCR", HKEY_CLASSES_ROOT},
                                                   {L"HCC", HKEY_CURRENT_CONFIG}};
  const HKEY before = ToolKit::hMainKey;
  ToolKit::GetLabelsLocation();
  const std::wstring root = location.substr(0, location.find(L'\\'));
  const std::size_t separator = location.find(L'\\');
  ExpectEqual("mRegitstryLocation", std::wstring(ToolKit::mRegitstryLocation), location);
  ExpectEqual("mMainKey", std::wstring(ToolKit::mMainKey), root);
  ExpectEqual("mStrKey", std::wstring(ToolKit::mStrKey),
              separator == std::wstring::npos ? location : location.substr(separator + 1));
  const auto known = kRoots.find(root);
  Expect(ToolKit::hMainKey == (known == kRoots.end() ? before : known->second), "the root is another");
}

}  // namespace

std::vector<Property> ConfigurationProperties() {
  return {{"configuration", 200, &MakeConfiguration, &CheckConfiguration,
           [] { return std::shared_ptr<void>(std::make_shared<QuietHost>()); }}};
}

}  // namespace hostile
