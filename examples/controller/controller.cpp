// The smallest correct controlling program: asks the flash service for one flash and waits for its end.
//
//   controller KEY [SECONDS]     for example: controller HKLM\SOFTWARE\Quenta\FlashService 900
//
// The images lie in the service's folder already. Exit status: 0 flashed, 1 failed, 2 wrong usage,
// 3 no end (no service took the request, it fell silent, or the time limit passed), 4 the registry refused.

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <string>

namespace {

constexpr DWORD kFlashing = 1;
constexpr DWORD kRetrying = 2;
constexpr DWORD kFailed = 3;
constexpr DWORD kSucceeded = 4;
constexpr ULONGLONG kDefaultLimitSeconds = 900;
constexpr ULONGLONG kLongestLimitSeconds = 1000000;
/// A living service takes a request at once.
constexpr ULONGLONG kLongestToTakeMs = 10000;
/// What the service itself writes; only needed when somebody has removed it.
constexpr DWORD kUsualTimeOutMs = 153000;

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

/// @return 0 for anything but a whole number of seconds from 1 to 1000000.
ULONGLONG ParseSeconds(const std::wstring& text) {
  if (text.empty() || text.size() > 7 || text.find_first_not_of(L"0123456789") != std::wstring::npos)
    return 0;
  const ULONGLONG seconds = std::wcstoull(text.c_str(), nullptr, 10);
  return seconds <= kLongestLimitSeconds ? seconds : 0;
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

bool IsFlashing(HKEY key) {
  const DWORD result = Read(key, L"Flash_Result");
  return result == kFlashing || result == kRetrying;
}

/// How long a living service may be silent.
ULONGLONG LongestSilenceMs(HKEY key, bool taken) {
  if (!taken) return kLongestToTakeMs;
  const DWORD timeOut = Read(key, L"Time_Out");
  return timeOut != 0 ? timeOut : kUsualTimeOutMs;
}

enum class Ending { Over, NotTaken, Silent, PastLimit, KeyLost };

/// Waits for the end of a request that stands. Only a change that comes after the request tells that somebody
/// took it: "Flash_Result" may be one that a service left which ended long ago.
Ending AwaitEnd(HKEY key, HANDLE changed, ULONGLONG limitMs) {
  const ULONGLONG begin = ::GetTickCount64();
  ULONGLONG lastChange = begin;
  bool taken = false;
  for (;;) {
    // Arm first, then look, then wait: a change between the look and the wait ends the wait.
    if (::RegNotifyChangeKeyValue(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET, changed, TRUE) != ERROR_SUCCESS) {
      return Ending::KeyLost;
    }
    if (IsOver(key)) return Ending::Over;
    std::printf("Flash_Result %lu, %lu %%\n", Read(key, L"Flash_Result"), Read(key, L"Flash_Progress"));
    std::fflush(stdout);
    const ULONGLONG now = ::GetTickCount64();
    const ULONGLONG silenceEnds = lastChange + LongestSilenceMs(key, taken);
    const ULONGLONG ends = std::min(silenceEnds, begin + limitMs);
    const DWORD wait = ends > now ? static_cast<DWORD>(ends - now) : 0;
    if (::WaitForSingleObject(changed, wait) == WAIT_OBJECT_0) {
      taken = true;
      lastChange = ::GetTickCount64();
      continue;
    }
    if (!taken) return Ending::NotTaken;
    return silenceEnds <= begin + limitMs ? Ending::Silent : Ending::PastLimit;
  }
}

const char* TextOf(Ending ending) {
  switch (ending) {
    case Ending::NotTaken:
      return "Nobody took the request: is the service running?";
    case Ending::Silent:
      return "The service fell silent: it has died.";
    case Ending::PastLimit:
      return "The time limit passed; the flash goes on.";
    default:
      return "The registry key was deleted.";
  }
}

/// Gives the request up, without an end. @return the exit status.
int GiveUp(HKEY key, Ending ending) {
  // Taken back when nobody serves it, so that a service started tomorrow does not flash unasked. A flash that
  // has begun is left: if its service died, the next one recovers the modem because the request still stands.
  const bool nobody = ending == Ending::NotTaken || (ending == Ending::Silent && !IsFlashing(key));
  if (nobody) Write(key, L"Fls_Ready", 0);
  std::fprintf(stderr, "%s The last result was %lu.\n", TextOf(ending), Read(key, L"Flash_Result"));
  return 3;
}

int TellResult(HKEY key) {
  const DWORD result = Read(key, L"Flash_Result");
  std::printf("Flash_Result %lu: %s\n", result,
              result == kSucceeded ? "flashed"
              : result == kFailed  ? "failed"
                                   : "not flashed");
  return result == kSucceeded ? 0 : 1;
}

}  // namespace

int wmain(int count, wchar_t** words) {
  const Key location = count >= 2 ? ParseKey(words[1]) : Key{};
  const ULONGLONG limitSeconds = count >= 3 ? ParseSeconds(words[2]) : kDefaultLimitSeconds;
  if (count > 3 || location.root == nullptr || location.path.empty() || limitSeconds == 0) {
    std::fprintf(stderr, "usage: controller HKLM\\KEY [SECONDS]\nSECONDS: 1 to %llu\n", kLongestLimitSeconds);
    return 2;
  }

  HKEY key = nullptr;
  const HANDLE changed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  // The 64-bit view, where the service looks, also when this program is built for 32 bits.
  if (changed == nullptr ||
      ::RegCreateKeyExW(location.root, location.path.c_str(), 0, nullptr, 0,
                        KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_NOTIFY | KEY_WOW64_64KEY, nullptr, &key,
                        nullptr) != ERROR_SUCCESS ||
      !Write(key, L"Fls_Ready", 1)) {
    std::fprintf(stderr, "The registry key cannot be written: run as an administrator.\n");
    return 4;
  }

  const Ending ending = AwaitEnd(key, changed, limitSeconds * 1000);
  const int status = ending == Ending::Over ? TellResult(key) : GiveUp(key, ending);
  ::RegCloseKey(key);
  ::CloseHandle(changed);
  return status;
}
