#include "config/configparser.h"

#include <objbase.h>
#include <share.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <new>
#include <optional>
#include <string_view>

#include "common/debuglogger.h"
#include "common/facts.h"
#include "common/log.h"
#include "common/narrow.h"
#include "common/programfolder.h"
#include "common/text.h"
#include "config/documentfile.h"

using namespace corvel;

// %S is Microsoft's, and so is the function that prints it: no pedantry, but the types are checked.
#if defined(__GNUC__)
#define LOG_ERROR_WITH_WIDE_TEXT(...) __extension__ LOG_ERROR(__VA_ARGS__)
#else
#define LOG_ERROR_WITH_WIDE_TEXT(...) LOG_ERROR(__VA_ARGS__)
#endif

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kConfigFileName[] = L"CorvelConfig.ini";
constexpr wchar_t kLogFileName[] = L"FlashServiceDebugLogger_DLL.log";
constexpr wchar_t kPcie[] = L"PCIE";
constexpr wchar_t kUsb[] = L"USB";
constexpr std::size_t kTextCapacity = 512;

enum KeyNumber {
  UnknownKey = 0,
  TraceLevelKey = 1,
  RegistryLocationKey = 2,
  FirmwareFolderKey = 3,
  IpcTypeKey = 4,
  RebootTypeKey = 5,
  EraseModeKey = 6,
};

struct Key {
  const wchar_t* text;
  KeyNumber number;
};

constexpr Key kKeys[] = {
    {L"[TraceLevel]", TraceLevelKey},
    {L"[RegistryLocation]", RegistryLocationKey},
    {L"[ModemAndNVMFirmwareFolder]", FirmwareFolderKey},
    {L"[IPCTYPE]", IpcTypeKey},
    {L"[REBOOTTYPE]", RebootTypeKey},
    {L"[ERASEMODE]", EraseModeKey},
};

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

/// Opens for reading in text mode; nobody else may have or get the file meanwhile.
UniqueFile OpenForOneself(const wchar_t* path) {
  return UniqueFile(::_wfsopen(path, L"rt", _SH_DENYRW));
}

/// Reads a file by lines, whatever their length, each byte one character. It fetches blocks, for the C
/// runtime takes a lock with each call.
class LineReader {
 public:
  explicit LineReader(std::FILE* file) : m_File(file) {}

  /// The next line with its line end; nothing at the end, nor when reading fails on the way.
  std::optional<std::wstring> Next() {
    std::wstring line;
    while (!m_Rest.empty() || Fetch()) {
      const std::size_t size = std::min(m_Rest.find('\n'), m_Rest.size() - 1) + 1;
      for (const char byte : m_Rest.substr(0, size)) line += static_cast<unsigned char>(byte);
      m_Rest.remove_prefix(size);
      if (line.back() == L'\n') return line;
    }
    if (line.empty() || HasFailed()) return std::nullopt;
    return line;
  }
  bool HasFailed() const { return std::ferror(m_File) != 0; }

 private:
  bool Fetch() {
    m_Rest = {m_Block, std::fread(m_Block, 1, sizeof m_Block, m_File)};
    return !m_Rest.empty();
  }

  std::FILE* m_File;
  char m_Block[512];
  std::string_view m_Rest;
};

bool Exists(const wchar_t* path) {
  return ::GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES;
}

/// The text in the system's ANSI code page, in which the log file is named; nothing when that page lacks one
/// of its characters.
std::optional<std::string> ExactAnsi(const std::wstring& text) {
  std::string narrow = AnsiFromWide(text);
  std::wstring back(text.size(), L'\0');
  const int length = ::MultiByteToWideChar(CP_ACP, 0, narrow.data(), static_cast<int>(narrow.size()),
                                           back.data(), static_cast<int>(back.size()));
  if (static_cast<std::size_t>(length) != text.size() || back != text) return std::nullopt;
  return narrow;
}

/// The path that the volume also knows a folder by; the same path when it knows no other.
std::wstring ShortPath(const std::wstring& folder) {
  std::wstring path(::GetShortPathNameW(folder.c_str(), nullptr, 0), L'\0');
  if (path.empty()) return folder;
  path.resize(::GetShortPathNameW(folder.c_str(), path.data(), static_cast<DWORD>(path.size())));
  return path;
}

/// Where the log goes; nothing when no narrow name leads to the folder.
std::optional<std::string> LogPath(const std::wstring& folder) {
  if (auto path = ExactAnsi(folder + kLogFileName)) return path;
  return ExactAnsi(ShortPath(folder) + kLogFileName);
}

/// As atoi converts, but clamped where atoi leaves too large a number open.
int LeadingNumber(const wchar_t* text) {
  return std::strtol(Utf8FromWide(text).c_str(), nullptr, 10);
}

}  // namespace

CConfigParser* CConfigParser::m_Instance = nullptr;

CConfigParser* CConfigParser::GetInstance() {
  if (m_Instance != nullptr) return m_Instance;
  const HRESULT entered = EnterComAndMake();
  if (FAILED(entered)) {
    LOG_ERROR("COM initialization failed with: %x", static_cast<unsigned int>(entered));
    return nullptr;
  }
  if (m_Instance == nullptr) return nullptr;
  try {
    m_Instance->Init();
  } catch (...) {
    // Out of memory: half an instance would pass for a whole one the next time.
    ReleaseInstance();
    throw;
  }
  return m_Instance;
}

CConfigParser* CConfigParser::GetInstance_CmdLine() {
  if (m_Instance != nullptr) return m_Instance;
  const HRESULT entered = EnterComAndMake();
  if (FAILED(entered)) LOG_ERROR("COM initialization failed with: %x", static_cast<unsigned int>(entered));
  return m_Instance;
}

HRESULT CConfigParser::EnterComAndMake() {
  const HRESULT entered = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (FAILED(entered)) return entered;
  m_Instance = new (std::nothrow) CConfigParser;
  if (m_Instance == nullptr) ::CoUninitialize();
  return entered;
}

void CConfigParser::ReleaseInstance() {
  if (m_Instance == nullptr) return;
  // Anywhere else, leaving would take down an apartment that the host itself entered.
  const bool leaveCom = m_Instance->EnteredComOnThisThread();
  delete m_Instance;
  m_Instance = nullptr;
  if (leaveCom) ::CoUninitialize();
}

void CConfigParser::ReleaseAtProcessExit() {
  // Not destroyed: that would release interfaces whose apartment is gone. The memory goes with the process.
  m_Instance = nullptr;
}

CTString CConfigParser::ConfiguredRegistryLocation() {
  return m_Instance == nullptr ? CTString() : m_Instance->GetRegistryLocation();
}

CTString CConfigParser::ConfiguredFirmwareFolder() {
  return m_Instance == nullptr ? CTString() : m_Instance->GetFirmwareFolder();
}

CTString CConfigParser::ConfiguredIPCType() {
  return m_Instance == nullptr ? CTString(kUsb) : m_Instance->GetIPCType();
}

int CConfigParser::ConfiguredTraceLevel() {
  return m_Instance == nullptr ? 0 : m_Instance->GetTraceLevel();
}

int CConfigParser::ConfiguredRebootType() {
  return m_Instance == nullptr ? 0 : m_Instance->GetRebootType();
}

int CConfigParser::ConfiguredEraseMode() {
  return m_Instance == nullptr ? 0 : m_Instance->GetEraseMode();
}

CConfigParser::CConfigParser()
    : m_ComThreadId(::GetCurrentThreadId()), m_ComThread(::OpenThread(SYNCHRONIZE, FALSE, m_ComThreadId)) {}

CConfigParser::~CConfigParser() = default;

bool CConfigParser::EnteredComOnThisThread() const {
  return m_ComThreadId == ::GetCurrentThreadId();
}

bool CConfigParser::Init() {
  m_Loaded = m_ResourceLoaded = false;
  ResetSettings();
  for (const Key& key : kKeys) m_Keys[key.text] = key.number;

  const CTString folder = ProgramFolder();
  if (folder.IsEmpty()) return false;
  m_FileName = kConfigFileName;
  m_FilePath = folder + m_FileName;
  CDebugLogger* const logger = CDebugLogger::GetInstance();
  const std::optional<std::string> logPath = LogPath(static_cast<const wchar_t*>(folder));
  if (logger != nullptr && logPath) logger->SetFileName(logPath->c_str());
  return true;
}

void CConfigParser::ResetSettings() {
  m_TraceLevel = m_RebootType = m_EraseMode = 0;
  m_RegistryLocation[0] = m_FirmwareFolder[0] = m_IpcType[0] = L'\0';
}

bool CConfigParser::LoadConfig(const wchar_t*) try {
  if (m_Loaded) return true;
  LOG_TRACE("Start LoadConfig ++");
  LOG_TRACE("VERSION: %s", facts::kVersion);

  const wchar_t* const path = m_FilePath;
  if (!Exists(path)) {
    LOG_ERROR("\t%s not exist, exit", Narrow(m_FilePath).c_str());
    return false;
  }
  const UniqueFile file = OpenForOneself(path);
  if (file == nullptr) {
    LOG_TRACE("%s: file: %ls not exist!!!\n", QUALIFIED_FUNCTION, path);
    LOG_TRACE("%s --\n", QUALIFIED_FUNCTION);
    return false;
  }

  // The first line is a title, whatever it holds.
  LineReader lines(file.get());
  static_cast<void>(lines.Next());
  while (const std::optional<std::wstring> line = lines.Next()) TakeLine(*line);
  if (lines.HasFailed()) {
    // Half of the settings would start a service that nobody has configured.
    ResetSettings();
    LOG_ERROR("\t%s could not be read to its end, none of its settings is used", Narrow(m_FilePath).c_str());
    return false;
  }
  m_Loaded = true;
  return true;
} catch (...) {
  // Out of memory on the way.
  ResetSettings();
  throw;
}

void CConfigParser::TakeLine(std::wstring_view line) {
  if (line.ends_with(L'\n') || line.ends_with(L'\r')) line.remove_suffix(1);
  const std::size_t equals = line.find(L'=');
  if (equals == std::wstring_view::npos) return;
  std::wstring_view setting = line.substr(equals + 1);
  setting.remove_prefix(std::min(setting.find_first_not_of(L' '), setting.size()));

  wchar_t key[kTextCapacity];
  wchar_t value[kTextCapacity];
  CopyBounded(key, line.substr(0, equals));
  CopyBounded(value, setting);
  SetConfigVar(key, value);
}

void CConfigParser::SetConfigVar(const wchar_t* key, const wchar_t* value) {
  const auto known = m_Keys.find(key);
  const int number = known == m_Keys.end() ? UnknownKey : known->second;
  LOG_TRACE("\t get Config Var, %s : %s", Utf8FromWide(key).c_str(), Utf8FromWide(value).c_str());
  switch (number) {
    case TraceLevelKey:
      m_TraceLevel = LeadingNumber(value);
      break;
    case RegistryLocationKey:
      CopyBounded(m_RegistryLocation, value);
      break;
    case FirmwareFolderKey:
      CopyBounded(m_FirmwareFolder, value);
      break;
    case IpcTypeKey:
      CopyBounded(m_IpcType, value);
      break;
    case RebootTypeKey:
      m_RebootType = LeadingNumber(value);
      break;
    case EraseModeKey:
      m_EraseMode = LeadingNumber(value);
      break;
    default:
      break;
  }
}

CTString CConfigParser::GetIPCType() {
  LOG_TRACE("++ IPCType: %s", Utf8FromWide(m_IpcType).c_str());
  const wchar_t* const used = std::wcscmp(m_IpcType, kPcie) == 0 ? kPcie : kUsb;
  LOG_TRACE("++ use IPCType: %s", Utf8FromWide(used).c_str());
  return CTString(used);
}

void CConfigParser::SetIPCType(const char* type) {
  CopyBounded(m_IpcType, static_cast<const wchar_t*>(CTString(type)));
}

CTString CConfigParser::GetRegistryLocation() const {
  return CTString(m_RegistryLocation);
}

CTString CConfigParser::GetFirmwareFolder() const {
  return CTString(m_FirmwareFolder);
}

bool CConfigParser::LoadResource(const wchar_t* path) {
  LOG_TRACE("Start LoadResource");
  const CTString file(path);
  if (!OpenDocument(file, VARIANT_FALSE, m_Document)) {
    LOG_ERROR_WITH_WIDE_TEXT("Could not Open %S", static_cast<const wchar_t*>(file));
    return false;
  }
  ComPtr<IXMLDOMElement> root;
  HRESULT result = m_Document->get_documentElement(root.GetAddressOf());
  if (SUCCEEDED(result)) result = root == nullptr ? E_FAIL : m_Resources.Read(root.Get());
  if (FAILED(result)) {
    LOG_ERROR_WITH_WIDE_TEXT("Could not read the elements of %S: %x", static_cast<const wchar_t*>(file),
                             HexOf(result));
    return false;
  }
  m_ResourceLoaded = true;
  return true;
}

bool CConfigParser::SaveConfig(const wchar_t* path) {
  LOG_TRACE("Start SaveConfig");
  const CTString file(path);
  if (!OpenDocument(file, VARIANT_TRUE, m_Document)) {
    LOG_ERROR("Could not load %s", Narrow(file).c_str());
    return false;
  }
  if (FAILED(CreateDocument(VARIANT_TRUE, m_FormattedDocument)) ||
      FAILED(FormatDocument(m_Document.Get(), m_FormattedDocument.Get()))) {
    LOG_ERROR_WITH_WIDE_TEXT("Failed to format the document %S", static_cast<const wchar_t*>(file));
    return false;
  }

  ComPtr<IXMLDOMNode> declaration;
  if (FAILED(FindDeclaration(m_FormattedDocument.Get(), declaration)) || declaration == nullptr) {
    LOG_ERROR("Could not find child element");
    return false;
  }
  ComPtr<IXMLDOMNamedNodeMap> attributes;
  if (FAILED(declaration->get_attributes(attributes.GetAddressOf())) || attributes == nullptr) {
    LOG_ERROR("Could not map child element");
    return false;
  }
  const OwnedBstr encodingName{CTString(L"encoding")};
  ComPtr<IXMLDOMNode> encoding;
  if (FAILED(attributes->getNamedItem(encodingName.Get(), encoding.GetAddressOf())) || encoding == nullptr) {
    LOG_ERROR("Could not find encoding element");
    return false;
  }
  const OwnedBstr encodingValue{CTString(kFormattedEncoding)};
  if (FAILED(encoding->put_nodeValue(encodingValue.AsVariant()))) {
    LOG_ERROR("Could not set encoding element to UTF-8");
    return false;
  }

  if (!SaveDocument(m_FormattedDocument.Get(), file)) {
    LOG_ERROR_WITH_WIDE_TEXT("Could not save %S", static_cast<const wchar_t*>(file));
    return false;
  }
  return true;
}
