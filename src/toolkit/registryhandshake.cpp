#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <string_view>

#include "common/facts.h"
#include "common/handles.h"
#include "common/log.h"
#include "common/text.h"
#include "common/win32error.h"
#include "config/configparser.h"
#include "toolkit/registrylocation.h"
#include "toolkit/toolkit.h"

using namespace corvel;

namespace {

// The procedure under whose name taking the location is logged.
constexpr char kGetLabelsLocation[] = "ToolKit::GetLabelsLocation";

constexpr int kUnreadable = -255;
constexpr int kFlagRaised = 1;
constexpr int kDefaultRetryTimes = 3;
constexpr DWORD kPauseAfterFailureMs = 5000;

constexpr wchar_t kChangeEventName[] = L"RegistryNotify";

struct RootPrefix {
  const wchar_t* prefix;
  HKEY root;
};

const RootPrefix kRoots[] = {
    {facts::kLocalMachineRoot, HKEY_LOCAL_MACHINE},   {facts::kUsersRoot, HKEY_USERS},
    {facts::kCurrentUserRoot, HKEY_CURRENT_USER},     {facts::kClassesRoot, HKEY_CLASSES_ROOT},
    {facts::kCurrentConfigRoot, HKEY_CURRENT_CONFIG},
};

constexpr int kError = 1;
constexpr int kTrace = 3;

/// What a setter writes and says.
struct Setter {
  const char* function;
  const wchar_t* valueName;
  const char* success;  ///< Format of one number; null says nothing.
  const char* failure;
  int failureLevel;
};

constexpr Setter kSetReadyFlag{"ToolKit::SetFlashReadyFlag", facts::kReadyFlagValue, nullptr,
                               "\t Could not set registry value", kTrace};
constexpr Setter kSetTimeOut{"ToolKit::SetFlashTimeOut", facts::kTimeOutValue, "\t Flash Time_Out: %d",
                             "\t WriteRegistry SetFlashTimeOut failed", kError};
constexpr Setter kSetProcess{"ToolKit::SetFlashProcess", facts::kProgressValue,
                             "\t WriteRegistry Flash_Progress: %d", "\t WriteRegistry SetFlashProcess failed",
                             kError};
constexpr Setter kSetOnGoing{"ToolKit::SetFlashOnGoingFlag", facts::kOnGoingValue,
                             "\t WriteRegistry Flash_OnGoing: %d",
                             "\t WriteRegistry SetFlashOnGoingFlag failed", kError};
constexpr Setter kSetResult{"ToolKit::SetFlashResult", facts::kResultValue,
                            "\t WriteRegistry Flash_Result: %d", "\t WriteRegistry SetFlashResult failed",
                            kError};

void Set(const Setter& setter, HKEY root, const wchar_t* subKey, int value) {
  const auto log = [&setter](int level, int line, const char* format, auto argument) {
    WriteLogRecord(level, kLogComponent, setter.function, __FILE__, line, format, argument);
  };
  if (!ToolKit::WriteRegistry(root, subKey, setter.valueName, value)) {
    log(setter.failureLevel, __LINE__, "%s", setter.failure);
  } else if (setter.success != nullptr) {
    log(kTrace, __LINE__, setter.success, value);
  }
}

/// The text in the ANSI code page for a log line, cut to 511 bytes. One buffer for the whole process: each
/// call overwrites the text of the one before, so a log line can hold only one.
const char* AnsiForLog(std::wstring_view text) {
  static char buffer[512];
  std::fill(std::begin(buffer), std::end(buffer), '\0');
  ::WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), buffer, sizeof buffer - 1,
                        nullptr, nullptr);
  return buffer;
}

UniqueRegistryKey OpenKey(HKEY root, const wchar_t* subKey, REGSAM access) {
  HKEY key = nullptr;
  const bool opened = ::RegOpenKeyExW(root, subKey, 0, access, &key) == ERROR_SUCCESS;
  return UniqueRegistryKey(opened ? key : nullptr);
}

void CreateKey(HKEY root, const wchar_t* subKey) {
  HKEY key = nullptr;
  if (::RegCreateKeyExW(root, subKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &key,
                        nullptr) == ERROR_SUCCESS) {
    ::RegCloseKey(key);
  }
}

struct QueriedNumber {
  LSTATUS status;
  int data;
};

/// Any value of up to four bytes, whatever its type; missing bytes are zero.
QueriedNumber QueryNumber(const UniqueRegistryKey& key, const wchar_t* valueName) {
  DWORD type = 0;
  DWORD data = 0;
  DWORD size = sizeof data;
  const LSTATUS status = ::RegQueryValueExW(key.get(), valueName, nullptr, &type,
                                            reinterpret_cast<unsigned char*>(&data), &size);
  return {status, static_cast<int>(data)};
}

enum class ReadyFlag { Raised, NotRaised, Unknown };

/// A look at the ready flag that leaves no trace. It asks for the same access as ReadRegistry: seeing what
/// that cannot read would keep the monitor turning.
ReadyFlag LookAtReadyFlag(HKEY root, const wchar_t* subKey) {
  const UniqueRegistryKey key = OpenKey(root, subKey, KEY_ALL_ACCESS);
  if (key == nullptr) return ReadyFlag::Unknown;
  const QueriedNumber flag = QueryNumber(key, facts::kReadyFlagValue);
  if (flag.status == ERROR_FILE_NOT_FOUND) return ReadyFlag::NotRaised;
  if (flag.status != ERROR_SUCCESS) return ReadyFlag::Unknown;
  return flag.data == kFlagRaised ? ReadyFlag::Raised : ReadyFlag::NotRaised;
}

/// One change notification: an event that the system signals when the key or what is below it changes.
class RegistryWatch {
 public:
  bool MakeEvent() {
    m_Event.reset(::CreateEventW(nullptr, FALSE, TRUE, kChangeEventName));
    return m_Event != nullptr;
  }
  bool Open(HKEY root, const wchar_t* subKey) {
    m_Key = OpenKey(root, subKey, KEY_NOTIFY);
    return m_Key != nullptr;
  }
  bool Arm() {
    return ::RegNotifyChangeKeyValue(m_Key.get(), TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET,
                                     m_Event.get(), TRUE) == ERROR_SUCCESS;
  }
  /// Waits until something changes or the ready flag is seen raised. @return false when waiting failed.
  ///
  /// Arming has reset the event, however it was made: a flag raised before that is seen only by looking now,
  /// and one raised from here on signals the event. A look that fails says nothing about the flag, and no
  /// change may follow any more, so it is repeated.
  bool Wait(HKEY root, const wchar_t* subKey) {
    for (;;) {
      const ReadyFlag flag = LookAtReadyFlag(root, subKey);
      if (flag == ReadyFlag::Raised) return true;
      const DWORD limit = flag == ReadyFlag::Unknown ? kPauseAfterFailureMs : INFINITE;
      const DWORD ended = ::WaitForSingleObject(m_Event.get(), limit);
      if (ended != WAIT_TIMEOUT) return ended != WAIT_FAILED;
    }
  }
  void Close() {
    m_Event.reset();
    m_Key.reset();
  }

 private:
  // In this order the event is closed first: closing an armed key signals it, and others may share it.
  UniqueRegistryKey m_Key;
  UniqueHandle m_Event;
};

}  // namespace

void corvel::TakeRegistryLocation() {
  const CTString location = CConfigParser::ConfiguredRegistryLocation();
  // Without a separator the position is -1, and both parts are the whole text; that is intended.
  const int separator = location.Find(L"\\", 0);
  const CTString mainKey = location.SubStr(0, separator);
  const CTString subKey = location.SubStr(separator + 1, -1);

  // From here on nothing asks for memory.
  CopyBounded(ToolKit::mRegitstryLocation, static_cast<const wchar_t*>(location));
  CopyBounded(ToolKit::mMainKey, static_cast<const wchar_t*>(mainKey));
  CopyBounded(ToolKit::mStrKey, static_cast<const wchar_t*>(subKey));
  LOG_TRACE_AS(kGetLabelsLocation, "mMainKey:%s", AnsiForLog(ToolKit::mMainKey));
  LOG_TRACE_AS(kGetLabelsLocation, "mStrKey:%s", AnsiForLog(ToolKit::mStrKey));

  for (const RootPrefix& known : kRoots) {
    if (std::wcscmp(ToolKit::mMainKey, known.prefix) == 0) ToolKit::hMainKey = known.root;
  }
  LOG_TRACE_AS(kGetLabelsLocation, "hMainKey:0x%x",
               static_cast<unsigned int>(reinterpret_cast<ULONG_PTR>(ToolKit::hMainKey)));
}

void ToolKit::GetLabelsLocation() try { corvel::TakeRegistryLocation(); } catch (...) {
  // Out of memory: the location stays as it is.
}

int ToolKit::ReadRegistry(HKEY__* root, const wchar_t* subKey, const wchar_t* valueName, int) {
  UniqueRegistryKey key = OpenKey(root, subKey, KEY_ALL_ACCESS);
  if (key == nullptr) {
    LOG_TRACE("\t Reg OpenKeyEx failed");
    ::RegCloseKey(root);
    return kUnreadable;
  }

  const QueriedNumber value = QueryNumber(key, valueName);
  const bool read = value.status == ERROR_SUCCESS;
  if (read) {
    LOG_TRACE("\t Read regedit %s successfully, data:%d", AnsiForLog(valueName), value.data);
  } else {
    LOG_TRACE("\t Read regedit failed");
  }

  // Intended: the root that was passed in is closed, and the sub-key stays open.
  ::RegCloseKey(root);
  static_cast<void>(key.release());
  return read ? value.data : kUnreadable;
}

bool ToolKit::WriteRegistry(HKEY__* root, const wchar_t* subKey, const wchar_t* valueName, int data) {
  UniqueRegistryKey key = OpenKey(root, subKey, KEY_ALL_ACCESS);
  if (key == nullptr) {
    LOG_TRACE("\t RegOpenKeyEx failed, try to create it, GetLastError():%d", LastErrorNumber());
    CreateKey(root, subKey);
    LOG_TRACE("\t RegCreateKeyEx, GetLastError():%d", LastErrorNumber());
    key = OpenKey(root, subKey, KEY_ALL_ACCESS);
  }
  if (key == nullptr) {
    LOG_ERROR("\t Could not find or create registry key, GetLastError():%d", LastErrorNumber());
    return false;
  }

  const QueriedNumber old = QueryNumber(key, valueName);
  if (old.status == ERROR_SUCCESS) LOG_TRACE("\t Read regedit successfully, data:%d", old.data);
  const auto value = static_cast<DWORD>(data);
  const LSTATUS status = ::RegSetValueExW(key.get(), valueName, 0, REG_DWORD,
                                          reinterpret_cast<const unsigned char*>(&value), sizeof value);
  if (status != ERROR_SUCCESS) LOG_TRACE("\t RegSetValueEx failed, WriteRegistry --");
  return status == ERROR_SUCCESS;
}

int ToolKit::GetFlashReadyFlag(HKEY__* root, const wchar_t* subKey) {
  return ReadRegistry(root, subKey, facts::kReadyFlagValue, REG_DWORD);
}

int ToolKit::GetFlashRetryTimes(HKEY__* root, const wchar_t* subKey) {
  const int times = ReadRegistry(root, subKey, facts::kRetryTimesValue, REG_DWORD);
  return times == kUnreadable ? kDefaultRetryTimes : times;
}

void ToolKit::SetFlashReadyFlag(HKEY__* root, const wchar_t* subKey, int value) {
  Set(kSetReadyFlag, root, subKey, value);
}

void ToolKit::SetFlashTimeOut(HKEY__* root, const wchar_t* subKey, int milliseconds) {
  Set(kSetTimeOut, root, subKey, milliseconds);
}

void ToolKit::SetFlashProcess(HKEY__* root, const wchar_t* subKey, int percent) {
  Set(kSetProcess, root, subKey, percent);
}

void ToolKit::SetFlashOnGoingFlag(HKEY__* root, const wchar_t* subKey, int value) {
  Set(kSetOnGoing, root, subKey, value);
}

void ToolKit::SetFlashResult(HKEY__* root, const wchar_t* subKey, int code) {
  Set(kSetResult, root, subKey, code);
}

bool ToolKit::MonitorFlashReadyFlag() {
  int flag = kUnreadable;
  while (flag != kFlagRaised) {
    LOG_TRACE("MonitorFlashReadyFlag ++");
    RegistryWatch watch;
    if (!watch.MakeEvent()) {
      LOG_ERROR("\t CreateEvent FAIL, monitor again after 5s");
      ::Sleep(kPauseAfterFailureMs);
      continue;
    }
    if (!watch.Open(hMainKey, mStrKey)) {
      watch.Close();
      LOG_ERROR("\t RegOpenKeyEx FAIL, monitor again after 5s");
      ::Sleep(kPauseAfterFailureMs);
      continue;
    }
    if (!watch.Arm()) {
      watch.Close();
      LOG_ERROR("\t RegNotifyChangeKeyValue FAIL, monitor again after 5s");
      ::Sleep(kPauseAfterFailureMs);
      continue;
    }

    LOG_TRACE("\t WaitForSingleObject, wait registry to be changed...");
    if (watch.Wait(hMainKey, mStrKey)) LOG_TRACE("\t Registry is changed");
    flag = GetFlashReadyFlag(hMainKey, mStrKey);
    LOG_TRACE("\t flash flag changed to %d", flag);
    watch.Close();
  }
  LOG_TRACE("MonitorFlashReadyFlag --");
  return true;
}
