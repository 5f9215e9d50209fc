// The smallest correct controlling program: asks the flash service for one flash and waits for its end.
//
//   controller KEY [SECONDS]     for example: controller HKLM\SOFTWARE\Quenta\FlashService 900
//
// The images lie in the service's folder already. Exit status: 0 flashed, 1 failed, 2 wrong usage,
// 3 the time limit passed (is the service running?), 4 the registry refused.

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr DWORD kFailed = 3;
constexpr DWORD kSucceeded = 4;
constexpr ULONGLONG kDefaultLimitSeconds = 900;
constexpr ULONGLONG kLongestWaitMs = 3600000;

struct Key {
  HKEY root = nullptr;
  std::wstring path;
};

Key ParseKey(const std::wstring& text) {
  const std::size_t separator = text.find(L'\\');
  const std::wstring root = text.substr(0, separator);
  Key key;
  if (separator != std::wstring::npos) key.path = text.substr(separator + 1);
  if (root == L"HKLM") key.root = HKEY_LOCAL_MACHINE;
  if (root == L"HKCU") key.root = HKEY_CURRENT_USER;
  return key;
}

DWORD Read(HKEY key, const wchar_t* name) {
  DWORD value = 0;
  DWORD size = sizeof value;
  ::RegGetValueW(key, nullptr, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
  return value;
}

bool Write(HKEY key, const wchar_t* name, DWORD value) {
  return ::RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value) ==
         ERROR_SUCCESS;
}

/// The service has dealt with the request when it took the flag back; the result was written before that.
bool IsOver(HKEY key) {
  return Read(key, L"Fls_Ready") == 0;
}

/// Waits for the end. @return false when the time limit passed first, or the key was deleted.
bool AwaitEnd(HKEY key, HANDLE changed, ULONGLONG limitMs) {
  const ULONGLONG begin = ::GetTickCount64();
  for (;;) {
    // Arm first, then look, then wait: a change between the look and the wait ends the wait.
    if (::RegNotifyChangeKeyValue(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET, changed, TRUE) != ERROR_SUCCESS) {
      return false;
    }
    if (IsOver(key)) return true;
    std::printf("Flash_Result %lu, %lu %%\n", Read(key, L"Flash_Result"), Read(key, L"Flash_Progress"));
    std::fflush(stdout);
    const ULONGLONG passed = ::GetTickCount64() - begin;
    if (passed >= limitMs) return false;
    ::WaitForSingleObject(changed, static_cast<DWORD>(std::min(limitMs - passed, kLongestWaitMs)));
  }
}

}  // namespace

int wmain(int count, wchar_t** words) {
  const Key location = count >= 2 ? ParseKey(words[1]) : Key{};
  if (location.root == nullptr || location.path.empty()) {
    std::fprintf(stderr, "usage: controller HKLM\\KEY [SECONDS]\n");
    return 2;
  }
  const ULONGLONG limitMs = (count >= 3 ? std::wcstoull(words[2], nullptr, 10) : kDefaultLimitSeconds) * 1000;

  HKEY key = nullptr;
  const HANDLE changed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (changed == nullptr ||
      ::RegCreateKeyExW(location.root, location.path.c_str(), 0, nullptr, 0,
                        KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_NOTIFY, nullptr, &key,
                        nullptr) != ERROR_SUCCESS ||
      !Write(key, L"Fls_Ready", 1)) {
    std::fprintf(stderr, "The registry key cannot be written: run as an administrator.\n");
    return 4;
  }

  const bool over = AwaitEnd(key, changed, limitMs);
  const DWORD result = Read(key, L"Flash_Result");
  // Nobody took the request: take it back, so that a service started tomorrow does not flash unasked.
  if (!over && result != 1 && result != 2) Write(key, L"Fls_Ready", 0);
  ::RegCloseKey(key);
  ::CloseHandle(changed);

  if (!over) {
    std::fprintf(stderr, "No end in time; the last result was %lu.\n", result);
    return 3;
  }
  std::printf("Flash_Result %lu: %s\n", result,
              result == kSucceeded ? "flashed"
              : result == kFailed  ? "failed"
                                   : "not flashed");
  return result == kSucceeded ? 0 : 1;
}
