// A bare program that calls the system as "corvel_cmdline check" and "corvel_cmdline status" do: the floor
// beside which those are measured. What it finds, it prints without judging.

#include <windows.h>

#include <cfgmgr32.h>
#include <oleauto.h>
#include <share.h>
#include <shellapi.h>
#include <shlwapi.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "controller.h"
#include "hosts/common/facts.h"
#include "hosts/common/shared_names.h"

namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\WOW6432Node\\Quenta\\FlashService";

/// The libraries that the real one needs, by its own library too, are mapped for this one as well.
[[maybe_unused]] const void* volatile g_neighbours[] = {
    reinterpret_cast<const void*>(&::CM_Get_Device_ID_ListW), reinterpret_cast<const void*>(&::SysFreeString),
    reinterpret_cast<const void*>(&::StrToIntW)};

std::wstring Folder() {
  wchar_t path[MAX_PATH];
  ::GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::wstring(path, static_cast<std::size_t>(std::wcsrchr(path, L'\\') + 1 - path));
}

void LookForMutex(const wchar_t* name) {
  const HANDLE mutex = ::OpenMutexW(SYNCHRONIZE, FALSE, name);
  if (mutex != nullptr) ::CloseHandle(mutex);
}

/// The event of the requests, and the semaphore of the search for the port as anything else.
void LookForTakenNames() {
  const auto close = [](HANDLE opened) {
    if (opened != nullptr) ::CloseHandle(opened);
  };
  close(::OpenEventW(EVENT_ALL_ACCESS, FALSE, hosts::kRequestEventName));
  close(::OpenEventW(SYNCHRONIZE, FALSE, hosts::kPortSemaphoreName));
  close(::OpenMutexW(SYNCHRONIZE, FALSE, hosts::kPortSemaphoreName));
  close(::OpenWaitableTimerW(SYNCHRONIZE, FALSE, hosts::kPortSemaphoreName));
  close(::OpenFileMappingW(FILE_MAP_READ, FALSE, hosts::kPortSemaphoreName));
  close(::OpenJobObjectW(SYNCHRONIZE, FALSE, hosts::kPortSemaphoreName));
}

void LookAtPower() {
  SYSTEM_POWER_STATUS power{};
  ::GetSystemPowerStatus(&power);
}

void LookAtLog() {
  wchar_t path[MAX_PATH];
  ::GetShortPathNameW(Folder().c_str(), path, MAX_PATH);
}

/// As the follower of a job does, whether there is one or not.
void ReadLog() {
  const HANDLE log = ::CreateFileW((Folder() + hosts::kCommandLineLogName).c_str(), GENERIC_READ,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (log != INVALID_HANDLE_VALUE) ::CloseHandle(log);
}

void LookForService() {
  const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  const SC_HANDLE service =
      ::OpenServiceW(manager, hosts::kServiceName, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG);
  if (service != nullptr) ::CloseServiceHandle(service);
  ::CloseServiceHandle(manager);
}

/// @return the folder of the images.
std::wstring ReadConfiguration() {
  std::wstring folder;
  std::FILE* const file = ::_wfsopen((Folder() + hosts::kConfigurationName).c_str(), L"rt", _SH_DENYRW);
  if (file == nullptr) return folder;
  for (char line[512]; std::fgets(line, sizeof line, file) != nullptr;) {
    const char* const value = std::strstr(line, "Folder]=");
    if (value == nullptr) continue;
    const char* const begin = std::strchr(value, '=') + 1;
    folder.assign(begin, begin + std::strcspn(begin, "\r\n"));
  }
  std::fclose(file);
  return folder;
}

void WalkImages(const std::wstring& folder) {
  WIN32_FIND_DATAW entry{};
  const HANDLE search = ::FindFirstFileW((folder + L"\\*.fls").c_str(), &entry);
  if (search == INVALID_HANDLE_VALUE) return;
  while (::FindNextFileW(search, &entry)) continue;
  ::FindClose(search);
}

void LookAtImage(const std::wstring& path) {
  const HANDLE file =
      ::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  LARGE_INTEGER size{};
  ::GetFileSizeEx(file, &size);
  ::CloseHandle(file);
}

void LookAtFlashingLibrary() {
  const HMODULE library = ::LoadLibraryW((Folder() + hosts::kFlashingLibraryName).c_str());
  for (const char* name : hosts::kFlashingLibraryExports) ::GetProcAddress(library, name);
  ::FreeLibrary(library);
}

/// From the key up to one that is there.
void LookAtRegistry() {
  for (std::wstring path = kKey;; path.resize(path.rfind(L'\\'))) {
    HKEY key = nullptr;
    const LSTATUS status = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_ALL_ACCESS, &key);
    if (status == ERROR_SUCCESS) ::RegCloseKey(key);
    if (status == ERROR_SUCCESS || path.find(L'\\') == std::wstring::npos) return;
  }
}

void ReadHandshake() {
  for (const wchar_t* name : {corvel::kReadyValue, corvel::kRetryTimesValue, corvel::kTimeOutValue,
                              corvel::kOnGoingValue, corvel::kProgressValue, corvel::kResultValue}) {
    DWORD value = 0;
    DWORD size = sizeof value;
    ::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
  }
}

void LookForModem() {
  ULONG length = 0;
  ::CM_Get_Device_ID_List_SizeW(&length, nullptr, CM_GETIDLIST_FILTER_PRESENT);
  std::vector<wchar_t> list(length + 1);
  ::CM_Get_Device_ID_ListW(nullptr, list.data(), length, CM_GETIDLIST_FILTER_PRESENT);
  GUID resetClass = hosts::kResetClass;
  ::CM_Get_Device_Interface_List_SizeW(&length, &resetClass, nullptr, CM_GET_DEVICE_INTERFACE_LIST_PRESENT);
}

void PrintLines(int count) {
  for (int i = 0; i < count; ++i) std::printf("%-26s %s\n", "what it is", "how it is found to be");
  std::fflush(stdout);
}

void Check() {
  LookForMutex(L"Global\\corvel_cmdline flash");
  LookForService();
  ReadConfiguration();
  for (int key = 0; key < 2; ++key) LookForMutex(L"Global\\corvel_service for a key");
  const std::wstring images = ReadConfiguration();
  ::GetFileAttributesW(images.c_str());
  ::GetFileAttributesW(images.c_str());
  for (int walk = 0; walk < 3; ++walk) WalkImages(images);
  LookAtImage(images + L"\\modem.fls");
  LookAtImage(images + L"\\nvm.fls");
  LookAtFlashingLibrary();
  LookAtRegistry();
  LookForModem();
  LookAtPower();
  LookAtLog();
  LookForTakenNames();
  PrintLines(10);
}

void ShowStatus() {
  // Whether it is starting, and who writes.
  for (int look = 0; look < 2; ++look) LookForService();
  const std::wstring images = ReadConfiguration();
  for (int key = 0; key < 2; ++key) LookForMutex(L"Global\\corvel_service for a key");
  ReadHandshake();
  LookForModem();
  ::GetFileAttributesW(images.c_str());
  ::GetFileAttributesW(images.c_str());
  WalkImages(images);
  LookForTakenNames();
  ReadLog();
  PrintLines(12);
}

}  // namespace

int main() {
  ::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
  const UINT former = ::GetConsoleOutputCP();
  ::SetConsoleOutputCP(CP_UTF8);
  int count = 0;
  wchar_t** const words = ::CommandLineToArgvW(::GetCommandLineW(), &count);
  const bool checks = count > 1 && std::wcscmp(words[1], L"check") == 0;
  ::LocalFree(words);
  if (checks) {
    Check();
  } else {
    ShowStatus();
  }
  ::SetConsoleOutputCP(former);
  return 0;
}
