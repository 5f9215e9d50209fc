// An empty library that calls the system as the real one does until its supervisor waits: the floor beside
// which loading that one is measured.

#include <windows.h>

#include <cfgmgr32.h>
#include <oleauto.h>
#include <share.h>
#include <shlwapi.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

namespace {

/// As many records as the real one writes by then, of their mean length.
constexpr int kRecordsWhileLoading = 14;
constexpr int kRecordsOfSupervisor = 19;
constexpr DWORD kRecordBytes = 135;
constexpr int kRecordsWithoutFile = 4;

constexpr wchar_t kKeyMark[] = L"HKCU\\";

std::wstring g_folder;
std::wstring g_key;
HANDLE g_mutex = nullptr;
HANDLE g_log = nullptr;

/// The libraries that the real one needs are mapped for this one too.
[[maybe_unused]] const void* volatile g_neighbours[] = {
    reinterpret_cast<const void*>(&::CM_Get_Device_ID_ListW), reinterpret_cast<const void*>(&::SysFreeString),
    reinterpret_cast<const void*>(&::StrToIntW)};

void WriteRecords(int count) {
  static const std::string record(kRecordBytes, 'r');
  for (int i = 0; i < count; ++i) {
    ::WaitForSingleObject(g_mutex, INFINITE);
    DWORD written = 0;
    ::WriteFile(g_log, record.data(), kRecordBytes, &written, nullptr);
    DWORD high = 0;
    ::GetFileSize(g_log, &high);
    ::ReleaseMutex(g_mutex);
  }
}

/// Before the log has a name, each record tries to open it.
void LoseRecords() {
  for (int i = 0; i < kRecordsWithoutFile; ++i) {
    ::WaitForSingleObject(g_mutex, INFINITE);
    ::CreateFileA("", GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    // The real one keeps the text of the failure for a debugger.
    char text[256];
    ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, ::GetLastError(), 0,
                     text, sizeof text, nullptr);
    ::ReleaseMutex(g_mutex);
  }
}

std::wstring FolderOfHost() {
  wchar_t path[MAX_PATH];
  ::GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::wstring(path, static_cast<std::size_t>(std::wcsrchr(path, L'\\') + 1 - path));
}

void ReadConfiguration() {
  const std::wstring path = g_folder + L"CorvelConfig.ini";
  ::GetFileAttributesW(path.c_str());
  std::FILE* const file = ::_wfsopen(path.c_str(), L"rt", _SH_DENYRW);
  if (file == nullptr) return;
  for (char line[512]; std::fgets(line, sizeof line, file) != nullptr;) {
    const std::wstring wide(line, line + std::strcspn(line, "\r\n"));
    const std::size_t mark = wide.find(kKeyMark);
    if (mark != std::wstring::npos) g_key = wide.substr(mark + std::size(kKeyMark) - 1);
  }
  std::fclose(file);
}

HKEY OpenKey(REGSAM access) {
  HKEY key = nullptr;
  ::RegOpenKeyExW(HKEY_CURRENT_USER, g_key.c_str(), 0, access, &key);
  return key;
}

DWORD Read(HKEY key, const wchar_t* name) {
  DWORD value = 0;
  DWORD size = sizeof value;
  ::RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
  return value;
}

void Write(const wchar_t* name, DWORD value) {
  const HKEY key = OpenKey(KEY_ALL_ACCESS);
  Read(key, name);
  ::RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
  ::RegCloseKey(key);
}

void LookForDriver() {
  HKEY driver = nullptr;
  if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Services\\UDE", 0, KEY_READ, &driver) !=
      ERROR_SUCCESS) {
    return;
  }
  char name[1024];
  DWORD size = sizeof name;
  ::RegQueryValueExA(driver, "DisplayName", nullptr, nullptr, reinterpret_cast<BYTE*>(name), &size);
  ::RegCloseKey(driver);
}

DWORD WINAPI Supervise(void*) {
  LookForDriver();
  for (const wchar_t* name :
       {L"Time_Out", L"Flash_OnGoing", L"Flash_Progress", L"Flash_Result", L"Time_Out", L"Flash_OnGoing"}) {
    Write(name, 0);
  }
  Read(OpenKey(KEY_ALL_ACCESS), L"Retry_Times");
  WriteRecords(kRecordsOfSupervisor);

  const HANDLE change = ::CreateEventW(nullptr, FALSE, TRUE, L"RegistryNotify");
  ::RegNotifyChangeKeyValue(OpenKey(KEY_NOTIFY), TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET,
                            change, TRUE);
  const HKEY key = OpenKey(KEY_ALL_ACCESS);
  Read(key, L"Fls_Ready");
  ::RegCloseKey(key);
  ::WaitForSingleObject(change, INFINITE);
  return 0;
}

void Attach() {
  g_mutex = ::CreateMutexA(nullptr, FALSE, nullptr);
  g_folder = FolderOfHost();
  LoseRecords();
  ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  ::GetFileAttributesW(g_folder.c_str());
  g_log = ::CreateFileW((g_folder + L"bare.log").c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                        CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  ReadConfiguration();
  WriteRecords(kRecordsWhileLoading);
  HMODULE self = nullptr;
  ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const wchar_t*>(reinterpret_cast<const void*>(&Supervise)), &self);
  ::CloseHandle(::CreateThread(nullptr, 0, &Supervise, nullptr, 0, nullptr));
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) Attach();
  return TRUE;
}
