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

#include "common/debuglogger.h"
#include "common/facts.h"
#include "common/log.h"
#include "common/narrow.h"
#include "common/programfolder.h"
#include "common/text.h"
#include "config/documentfile.h"

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
  kUnknownKey = 0,
  kTraceLevel = 1,
  kRegistryLocation = 2,
  kFirmwareFolder = 3,
  kIpcType = 4,
  kRebootType = 5,
  kEraseMode = 6,
};

struct Key {
  const wchar_t* text;
  KeyNumber number;
};

constexpr Key kKeys[] = {
    {L"[TraceLevel]", kTraceLevel},
    {L"[RegistryLocation]", kRegistryLocation},
    {L"[ModemAndNVMFirmwareFolder]", kFirmwareFolder},
    {L"[IPCTYPE]", kIpcType},
    {L"[REBOOTTYPE]", kRebootType},
    {L"[ERASEMODE]", kEraseMode},
};

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

/// Opens for reading in text mode; nobody else may have or get the file meanwhile.
UniqueFile OpenForOneself(const wchar_t* path) {
  return UniqueFile(::_wfsopen(path, L"rt", _SH_DENYRW));
}

/// The next line with its line end, whatever its length, each byte one character; nothing at the end, nor
/// when reading fails on the way.
std::optional<std::wstring> ReadLine(std::FILE* file) {
  std::wstring line;
  for (int byte = std::fgetc(file); byte != EOF; byte = std::fgetc(file)) {
    line += static_cast<wchar_t>(byte);
    if (byte == '\n') return line;
  }
  if (line.empty() || std::ferror(file) != 0) return std::nullopt;
  return line;
}

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

CConfigParser* CConfigParser::m_instance = nullptr;

CConfigParser* CConfigParser::GetInstance() {
  if (m_instance != nullptr) return m_instance;
  const HRESULT entered = EnterComAndMake();
  if (FAILED(entered)) {
    LOG_ERROR("COM initialization failed with: %x", static_cast<unsigned int>(entered));
    return nullptr;
  }
  if (m_instance == nullptr) return nullptr;
  try {
    m_instance->Init();
  } catch (...) {
    // Out of memory: half an instance would pass for a whole one the next time.
    ReleaseInstance();
    throw;
  }
  return m_instance;
}

CConfigParser* CConfigParser::GetInstance_CmdLine() {
  if (m_instance != nullptr) return m_instance;
  const HRESULT entered = EnterComAndMake();
  if (FAILED(entered)) LOG_ERROR("COM initialization failed with: %x", static_cast<unsigned int>(entered));
  return m_instance;
}

HRESULT CConfigParser::EnterComAndMake() {
  const HRESULT entered = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (FAILED(entered)) return entered;
  m_instance = new (std::nothrow) CConfigParser;
  if (m_instance == nullptr) ::CoUninitialize();
  return entered;
}

void CConfigParser::ReleaseInstance() {
  if (m_instance == nullptr) return;
  // Anywhere else, leaving would take down an apartment that the host itself entered.
  const bool leaveCom = m_instance->EnteredComOnThisThread();
  delete m_instance;
  m_instance = nullptr;
  if (leaveCom) ::CoUninitialize();
}

void CConfigParser::ReleaseAtProcessExit() {
  // Not destroyed: that would release interfaces whose apartment is gone. The memory goes with the process.
  m_instance = nullptr;
}

CTString CConfigParser::ConfiguredRegistryLocation() {
  return m_instance == nullptr ? CTString() : m_instance->GetRegistryLocation();
}

CTString CConfigParser::ConfiguredFirmwareFolder() {
  return m_instance == nullptr ? CTString() : m_instance->GetFirmwareFolder();
}

CTString CConfigParser::ConfiguredIPCType() {
  return m_instance == nullptr ? CTString(kUsb) : m_instance->GetIPCType();
}

int CConfigParser::ConfiguredTraceLevel() {
  return m_instance == nullptr ? 0 : m_instance->GetTraceLevel();
}

int CConfigParser::ConfiguredRebootType() {
  return m_instance == nullptr ? 0 : m_instance->GetRebootType();
}

int CConfigParser::ConfiguredEraseMode() {
  return m_instance == nullptr ? 0 : m_instance->GetEraseMode();
}

CConfigParser::CConfigParser()
    : m_comThreadId(::GetCurrentThreadId()), m_comThread(::OpenThread(SYNCHRONIZE, FALSE, m_comThreadId)) {}

CConfigParser::~CConfigParser() = default;

bool CConfigParser::EnteredComOnThisThread() const {
  return m_comThreadId == ::GetCurrentThreadId();
}

bool CConfigParser::Init() {
  m_loaded = m_resourceLoaded = false;
  ResetSettings();
  for (const Key& key : kKeys) m_keys[key.text] = key.number;

  const CTString folder = ProgramFolder();
  if (folder.IsEmpty()) return false;
  m_fileName = kConfigFileName;
  m_filePath = folder + m_fileName;
  CDebugLogger* const logger = CDebugLogger::GetInstance();
  const std::optional<std::string> logPath = LogPath(static_cast<const wchar_t*>(folder));
  if (logger != nullptr && logPath) logger->SetFileName(logPath->c_str());
  return true;
}

void CConfigParser::ResetSettings() {
  m_traceLevel = m_rebootType = m_eraseMode = 0;
  m_registryLocation[0] = m_firmwareFolder[0] = m_ipcType[0] = L'\0';
}

bool CConfigParser::LoadConfig(const wchar_t*) try {
  if (m_loaded) return true;
  LOG_TRACE("Start LoadConfig ++");
  LOG_TRACE("VERSION: %s", corvel::facts::kVersion);

  const wchar_t* const path = m_filePath;
  if (!Exists(path)) {
    LOG_ERROR("\t%s not exist, exit", Narrow(m_filePath).c_str());
    return false;
  }
  const UniqueFile file = OpenForOneself(path);
  if (file == nullptr) {
    LOG_TRACE("%s: file: %ls not exist!!!\n", QUALIFIED_FUNCTION, path);
    LOG_TRACE("%s --\n", QUALIFIED_FUNCTION);
    return false;
  }

  // The first line is a title, whatever it holds.
  static_cast<void>(ReadLine(file.get()));
  while (const std::optional<std::wstring> line = ReadLine(file.get())) TakeLine(*line);
  if (std::ferror(file.get()) != 0) {
    // Half of the settings would start a service that nobody has configured.
    ResetSettings();
    LOG_ERROR("\t%s could not be read to its end, none of its settings is used", Narrow(m_filePath).c_str());
    return false;
  }
  m_loaded = true;
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
  const auto known = m_keys.find(key);
  const int number = known == m_keys.end() ? kUnknownKey : known->second;
  LOG_TRACE("\t get Config Var, %s : %s", Utf8FromWide(key).c_str(), Utf8FromWide(value).c_str());
  switch (number) {
    case kTraceLevel:
      m_traceLevel = LeadingNumber(value);
      break;
    case kRegistryLocation:
      CopyBounded(m_registryLocation, value);
      break;
    case kFirmwareFolder:
      CopyBounded(m_firmwareFolder, value);
      break;
    case kIpcType:
      CopyBounded(m_ipcType, value);
      break;
    case kRebootType:
      m_rebootType = LeadingNumber(value);
      break;
    case kEraseMode:
      m_eraseMode = LeadingNumber(value);
      break;
    default:
      break;
  }
}

CTString CConfigParser::GetIPCType() {
  LOG_TRACE("++ IPCType: %s", Utf8FromWide(m_ipcType).c_str());
  const wchar_t* const used = std::wcscmp(m_ipcType, kPcie) == 0 ? kPcie : kUsb;
  LOG_TRACE("++ use IPCType: %s", Utf8FromWide(used).c_str());
  return CTString(used);
}

void CConfigParser::SetIPCType(const char* type) {
  CopyBounded(m_ipcType, static_cast<const wchar_t*>(CTString(type)));
}

CTString CConfigParser::GetRegistryLocation() const {
  return CTString(m_registryLocation);
}

CTString CConfigParser::GetFirmwareFolder() const {
  return CTString(m_firmwareFolder);
}

bool CConfigParser::LoadResource(const wchar_t* path) {
  LOG_TRACE("Start LoadResource");
  const CTString file(path);
  if (!OpenDocument(file, VARIANT_FALSE, m_document)) {
    LOG_ERROR_WITH_WIDE_TEXT("Could not Open %S", static_cast<const wchar_t*>(file));
    return false;
  }
  ComPtr<IXMLDOMElement> root;
  HRESULT result = m_document->get_documentElement(root.GetAddressOf());
  if (SUCCEEDED(result)) result = root == nullptr ? E_FAIL : m_resources.Read(root.Get());
  if (FAILED(result)) {
    LOG_ERROR_WITH_WIDE_TEXT("Could not read the elements of %S: %x", static_cast<const wchar_t*>(file),
                             HexOf(result));
    return false;
  }
  m_resourceLoaded = true;
  return true;
}

bool CConfigParser::SaveConfig(const wchar_t* path) {
  LOG_TRACE("Start SaveConfig");
  const CTString file(path);
  if (!OpenDocument(file, VARIANT_TRUE, m_document)) {
    LOG_ERROR("Could not load %s", Narrow(file).c_str());
    return false;
  }
  if (FAILED(CreateDocument(VARIANT_TRUE, m_formattedDocument)) ||
      FAILED(FormatDocument(m_document.Get(), m_formattedDocument.Get()))) {
    LOG_ERROR_WITH_WIDE_TEXT("Failed to format the document %S", static_cast<const wchar_t*>(file));
    return false;
  }

  ComPtr<IXMLDOMNode> declaration;
  if (FAILED(FindDeclaration(m_formattedDocument.Get(), declaration)) || declaration == nullptr) {
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

  if (!SaveDocument(m_formattedDocument.Get(), file)) {
    LOG_ERROR_WITH_WIDE_TEXT("Could not save %S", static_cast<const wchar_t*>(file));
    return false;
  }
  return true;
}
