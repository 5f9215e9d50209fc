#include "toolkit/toolkit.h"

#include <windows.h>

#include <algorithm>
#include <cstdarg>
#include <new>
#include <string>
#include <string_view>

#include "common/debuglogger.h"
#include "common/errortext.h"
#include "common/facts.h"
#include "common/fileio.h"
#include "common/fileretention.h"
#include "common/handles.h"
#include "common/log.h"
#include "common/programfolder.h"
#include "common/text.h"
#include "common/win32error.h"
#include "common/worker.h"
#include "config/configparser.h"
#include "toolkit/registrylocation.h"

using namespace corvel;

namespace {

constexpr int kLoggingOn = 3;
constexpr int kLoggingOff = 0;

std::string NextToken(const char* text, const char* delimiters, int& position) {
  if (text == nullptr || delimiters == nullptr || position < 0) return {};
  const std::string_view all(text);
  const std::string_view set(delimiters);
  const auto tokenAt = [&](std::size_t from) {
    return all.substr(from, all.find_first_of(set, from) - from);
  };

  std::size_t from = std::min(static_cast<std::size_t>(position), all.size());
  std::string_view token = tokenAt(from);
  if (token.empty() && from < all.size()) token = tokenAt(++from);
  if (token.empty()) {
    position = -1;
    return {};
  }
  const std::size_t next = all.find_first_not_of(set, from + token.size());
  position = static_cast<int>(next == std::string_view::npos ? all.size() : next);
  return std::string(token);
}

/// A library that serves nobody keeps no configuration: a host asks for that, ends, and is started anew.
bool StartedNobody() {
  CConfigParser::ReleaseInstance();
  return false;
}

}  // namespace

ToolKit* ToolKit::m_Instance = nullptr;
HKEY__* ToolKit::hMainKey = HKEY_LOCAL_MACHINE;
wchar_t ToolKit::mMainKey[512]{};
wchar_t ToolKit::mStrKey[512]{};
wchar_t ToolKit::mRegitstryLocation[512]{};
unsigned long ToolKit::mRetry_times = 3;
unsigned long ToolKit::g_retry_times = 0;
UpdateFirmwareResult ToolKit::mFlashResult = FirmwareNotUpdated;
bool ToolKit::m_MBIM_Modem_presence = false;
bool ToolKit::m_MBIM_Modem_monitor = false;
CTString ToolKit::m_ModemFlsFile;
CTString ToolKit::m_NVMFlsFile;
bool ToolKit::g_bIsFiveBranch = true;
int ToolKit::m_EraseMode = 2;

ToolKit* ToolKit::GetInstance() {
  LOG_TRACE("CFirmwareCore::GetInstance ++");
  if (m_Instance == nullptr) {
    m_Instance = new (std::nothrow) ToolKit;
    if (m_Instance == nullptr) LOG_ERROR("CFirmwareCore::Initialize() failed");
  }
  LOG_TRACE("CFirmwareCore::GetInstance --");
  return m_Instance;
}

void ToolKit::ReleaseInstance() {
  delete m_Instance;
  m_Instance = nullptr;
}

bool ToolKit::Initialize() try {
  LOG_TRACE("\t Initialize ++");
  if (m_Instance == nullptr) {
    LOG_TRACE("\t to LoadConfig");
    GetInstance();
    CDebugLogger::SetLevel(kLoggingOn);
    if (!LoadConfig(nullptr)) {
      LOG_ERROR("\t Load Config failed, Initialize --");
      return false;
    }

    if (CConfigParser::ConfiguredTraceLevel() < 1) {
      LOG_TRACE("\t Log Turn OFF");
      CDebugLogger::SetLevel(kLoggingOff);
    } else {
      CDebugLogger::SetLevel(kLoggingOn);
    }

    LOG_TRACE("\t to GetLabelsLocation");
    corvel::TakeRegistryLocation();

    LOG_TRACE("\t to create MainThreadImplementation");
    // The supervisor never ends, so its code must never go: a host may well free the library.
    PinThisModule();
    const UniqueHandle supervisor = StartWorker([] { MainThreadImplementation(nullptr); });
    if (supervisor == nullptr) {
      LOG_ERROR("\t CreateThread error: %d, Initialize --\n", LastErrorNumber());
      return StartedNobody();
    }
  }
  LOG_TRACE("\t Initialize --");
  return true;
} catch (...) {
  // Out of memory: there is no thread. One that watched another key than the configured one would be worse.
  return StartedNobody();
}

bool ToolKit::Initialize_CmdLine() {
  LOG_TRACE("++ Initialize_CmdLine");
  if (m_Instance == nullptr) {
    GetInstance();
    hMainKey = HKEY_LOCAL_MACHINE;
    CopyBounded(mMainKey, facts::kLocalMachineRoot);
    CopyBounded(mStrKey, facts::kCommandLineKey);
  }
  LOG_TRACE("-- Initialize_CmdLine");
  return true;
}

bool ToolKit::LoadConfig(const wchar_t* path) try {
  CDebugLogger::SetLevel(kLoggingOn);
  CConfigParser* const config = CConfigParser::GetInstance();
  return config != nullptr && config->LoadConfig(path);
} catch (...) {
  // Out of memory: not loaded.
  return false;
}

bool ToolKit::IsConfigLoaded() try {
  CConfigParser* const config = CConfigParser::GetInstance();
  return config != nullptr && config->IsLoaded();
} catch (...) {
  // Out of memory: not loaded.
  return false;
}

void ToolKit::CloseConfig() {
  CConfigParser::ReleaseInstance();
}

void ToolKit::TurnLoggingOn() {
  CDebugLogger::SetLevel(kLoggingOn);
}

void ToolKit::TurnLoggingOff() {
  CDebugLogger::SetLevel(kLoggingOff);
}

void ToolKit::SetDebugLoggerFileName(const char* name) try {
  CDebugLogger* const logger = CDebugLogger::GetInstance();
  if (logger != nullptr) logger->SetFileName(name);
} catch (...) {
  // Out of memory: the logger reports no failure.
}

void ToolKit::OutputDebug(int level, const char* module, const char* function, const char* file, int line,
                          const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  WriteLogRecordOf(level, module, function, file, line, format, arguments);
  va_end(arguments);
}

CTString ToolKit::GetInstallationDir() try { return ProgramFolder(); } catch (...) {
  // Out of memory.
  return {};
}

bool ToolKit::GetDataDir(CTString& folder, bool) {
  TakeProgramFolder(folder);
  return false;
}

bool ToolKit::GetLocalAppDataDir(CTString& folder) {
  TakeProgramFolder(folder);
  return false;
}

bool ToolKit::GetProgramDataDir(CTString& folder) {
  TakeProgramFolder(folder);
  return false;
}

bool ToolKit::GetLocalDataToolkitDir(CTString& folder) {
  return TakeProgramFolder(folder);
}

bool ToolKit::MakeDirectory(const char* path) try {
  std::string prefix;
  int position = 0;
  for (std::string part = NextToken(path, "\\", position); !part.empty();
       part = NextToken(path, "\\", position)) {
    prefix += prefix.empty() ? part : '\\' + part;
    if (CFileIo::Exists(prefix.c_str())) continue;
    if (!::CreateDirectoryA(prefix.c_str(), nullptr)) {
      LOG_ERROR("CreateDirectory(%s) failed: %s", prefix.c_str(), GetWin32ErrorStr(::GetLastError()));
      return false;
    }
  }
  return true;
} catch (...) {
  // Out of memory: the folders made so far stay, as after any failure.
  return false;
}

const char* ToolKit::GetWin32ErrorStr(unsigned long error) {
  return Win32ErrorText(error);
}

std::string ToolKit::Tokenize(const char* text, const char* delimiters, int& position) try {
  return NextToken(text, delimiters, position);
} catch (...) {
  // Out of memory: whoever asks for one token after the other is at the end.
  position = -1;
  return {};
}

bool ToolKit::IsFileOfType(CTString path, CTString extension) try {
  const int dot = path.ReverseFind(L".", -1);
  if (dot < 0) return false;
  CTString ending = path.SubStr(dot, -1);
  ending.MakeLower();
  extension.MakeLower();
  return ending == extension;
} catch (...) {
  // Out of memory: not known to be one.
  return false;
}

int ToolKit::GetEraseMode() {
  return m_EraseMode;
}

HKEY__* ToolKit::GetHKEYRegistryMainKey() {
  return hMainKey;
}

const wchar_t* ToolKit::GetRegistryMainKey() {
  return mMainKey;
}

const wchar_t* ToolKit::GetRegistryStrKey() {
  return mStrKey;
}

CTString ToolKit::GetModemFlsFile() try { return m_ModemFlsFile; } catch (...) {
  // Out of memory.
  return {};
}

CTString ToolKit::GetNVMFlsFile() try { return m_NVMFlsFile; } catch (...) {
  // Out of memory.
  return {};
}

int ToolKit::GetMaxModemDownloadLogNum() {
  return kMostDownloadLogs;
}
