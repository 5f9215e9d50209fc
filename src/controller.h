#pragma once

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

/// The system's own, declared once more as it is since Windows 7: some sets of its headers lack it.
extern "C" __declspec(dllimport) BOOL WINAPI QueryUnbiasedInterruptTime(PULONGLONG hundredNanoseconds);

/// @file
/// For controlling programs: asks the flash service for a flash and tells how it ends. Needs this header,
/// C++17 and advapi32 alone: neither the library nor a compiler that fits it, also in a program of 32 bits.

namespace corvel {

// The values under the key where a controlling program and the service meet, all of them REG_DWORD. Named
// here again, for a controlling program has no other header of the library.

/// 1 asks for a flash; the service sets it back to 0 last.
inline constexpr wchar_t kReadyValue[] = L"Fls_Ready";
/// How often a failed attempt is repeated; absent: 3.
inline constexpr wchar_t kRetryTimesValue[] = L"Retry_Times";
/// How long an attempt, or the modem's return, may take.
inline constexpr wchar_t kTimeOutValue[] = L"Time_Out";
/// 1 while a job is under way.
inline constexpr wchar_t kOnGoingValue[] = L"Flash_OnGoing";
/// How much of the images is written.
inline constexpr wchar_t kProgressValue[] = L"Flash_Progress";
/// A FlashResult.
inline constexpr wchar_t kResultValue[] = L"Flash_Result";

/// "Flash_Result" as the service writes it.
enum class FlashResult : std::uint32_t {
  Idle = 0,       ///< no flash since the service was started
  Flashing = 1,   ///< an attempt is under way
  Retrying = 2,   ///< an attempt failed, and the next one begins soon
  Failed = 3,     ///< the last attempt failed too, or there was no image
  Succeeded = 4,  ///< the modem runs its new firmware
};

/// Where the two meet: `[RegistryLocation]` of the service's configuration.
struct FlashKey {
  HKEY root = HKEY_LOCAL_MACHINE;  ///< predefined
  std::wstring path;               ///< without the root

  /// From its text.
  /// @param location such as "HKLM\SOFTWARE\Quenta\FlashService"; HKLM, HKCU and HKU are known.
  /// @return nothing when the root is another one or the path is missing.
  static std::optional<FlashKey> Parse(std::wstring_view location);
};

/// What stands under the key; empty where a value is absent or no number.
struct FlashValues {
  std::optional<std::uint32_t> ready;       ///< kReadyValue
  std::optional<std::uint32_t> retryTimes;  ///< kRetryTimesValue
  std::optional<std::uint32_t> timeOut;     ///< kTimeOutValue, in milliseconds
  std::optional<std::uint32_t> onGoing;     ///< kOnGoingValue
  std::optional<std::uint32_t> progress;    ///< kProgressValue, in percent
  std::optional<std::uint32_t> result;      ///< kResultValue, a FlashResult
  /// Why one of them could not be read although it may be there, as a Win32 error; 0 when all could be read.
  DWORD error = ERROR_SUCCESS;

  /// Whether the result is that one.
  bool Is(FlashResult code) const { return result == static_cast<std::uint32_t>(code); }
  /// A flash has begun and is not over; a dead service leaves it so.
  bool IsFlashing() const { return Is(FlashResult::Flashing) || Is(FlashResult::Retrying); }
  /// True from the first download attempt to the end of the job, pauses before a repetition included.
  bool IsJobRunning() const { return onGoing == 1u && IsFlashing(); }
  /// True from the request to its end: the library takes the flag back last, when the result is written.
  bool IsJobOpen() const { return ready == 1u || IsJobRunning(); }
  /// True while the library must not be cut off: the modem is brought into flash mode, written or waited
  /// for, or the result is written and the flag not yet taken back, so that the job would be done again.
  bool IsAttemptRunning() const {
    if (Is(FlashResult::Flashing)) return onGoing == 1u || ready == 1u;
    return ready == 1u && (Is(FlashResult::Failed) || Is(FlashResult::Succeeded));
  }
  /// Whether nobody has written anything else meanwhile.
  bool AreSameAs(const FlashValues& other) const {
    return ready == other.ready && retryTimes == other.retryTimes && timeOut == other.timeOut &&
           onGoing == other.onGoing && progress == other.progress && result == other.result;
  }
};

/// Reads all values, one after the other, in the 64-bit view of the registry.
/// @param path below the key; null for the key itself, which has to be open in that view.
FlashValues ReadFlashValues(HKEY key, const wchar_t* path = nullptr);

/// Signals an event whenever a value under a key changes. Arm first, then look, then wait: a change between
/// two looks is then never missed. Used by one thread, which has to live while a change is waited for.
class FlashKeyWatch {
 public:
  /// Watches nothing before the first call of Arm.
  explicit FlashKeyWatch(FlashKey location);

  /// Arms the event again after a change; while no change has come, it stays armed. A key that was made anew
  /// under the same name is taken up by the next call.
  /// @return the Win32 error, 0 when the event will be signalled at the next change; ERROR_FILE_NOT_FOUND
  /// while there is no key.
  DWORD Arm();
  /// Owned by this object; null when the system refused it, which Arm() reports.
  HANDLE Event() const { return m_Event.get(); }

 private:
  struct CloseKey {
    void operator()(HKEY key) const { ::RegCloseKey(key); }
  };
  struct CloseEvent {
    void operator()(HANDLE event) const { ::CloseHandle(event); }
  };

  bool IsArmed() const;
  DWORD Open();

  FlashKey m_Location;
  // In this order the key is closed first: that signals the event.
  std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseEvent> m_Event;
  std::unique_ptr<std::remove_pointer_t<HKEY>, CloseKey> m_Key;
  bool m_Armed = false;
};

/// How a request ended.
enum class FlashEnding {
  Succeeded,  ///< the modem runs its new firmware
  Failed,     ///< the service's log says why
  Unknown,    ///< somebody took the request back, or the service could not write its result: ask again
  NotTaken,   ///< no service took the request; it was taken back
  Silent,     ///< the service died; in the middle of a flash the request stands, for the next one to recover
  TimedOut,   ///< the caller's limit passed; a flash that has begun goes on
  Cancelled,  ///< by the caller; a flash that has begun goes on
  Refused,    ///< the registry refused; see the error
};

/// How a request ended.
struct FlashOutcome {
  FlashEnding ending = FlashEnding::Refused;  ///< which of the ways it was
  FlashValues values;                         ///< as they were at the end
  DWORD error = ERROR_SUCCESS;                ///< Win32 error of a refusal
};

/// What a caller asks for.
struct FlashRequest {
  /// How long to wait for the end; the longest job with three retries takes 558 s.
  std::chrono::milliseconds limit = std::chrono::minutes(15);
  /// Called by the calling thread whenever something has changed, and once before. May throw: the request
  /// then stays as it is.
  std::function<void(const FlashValues&)> onProgress = nullptr;
  /// An event of the caller's that ends the wait; null for none. When it is signalled already, nothing is
  /// asked for.
  HANDLE cancellation = nullptr;
};

/// Asks for one flash and waits for its end. The images lie in the service's folder already. Blocks; any
/// thread, but one request at a time for each key.
///
/// The request is taken back when nobody serves it, so that a service that is started tomorrow does not flash
/// unasked; a flash that has begun is left alone.
FlashOutcome Flash(const FlashKey& location, const FlashRequest& request = {});

// What follows is how it is done.

namespace detail {

/// A living service takes a request at once.
inline constexpr std::uint64_t kLongestToTakeMs = 10000;
/// What the service itself writes; only needed when somebody has removed it.
inline constexpr std::uint32_t kUsualTimeOutMs = 153000;

/// Milliseconds that the PC was awake: a service cannot answer while it sleeps.
inline std::uint64_t AwakeMs() {
  ULONGLONG hundredNanoseconds = 0;
  ::QueryUnbiasedInterruptTime(&hundredNanoseconds);
  return hundredNanoseconds / 10000;
}

inline std::optional<std::uint32_t> ReadNumber(HKEY key, const wchar_t* path, const wchar_t* name,
                                               DWORD& error) {
  DWORD value = 0;
  DWORD size = sizeof value;
  // RRF_SUBKEY_WOW6464KEY, which some sets of the system's headers lack: where the service looks, also when
  // this program is built for 32 bits.
  constexpr DWORD kSubkeyIn64BitView = 0x00010000;
  const DWORD flags = RRF_RT_REG_DWORD | (path != nullptr ? kSubkeyIn64BitView : 0);
  const LSTATUS status = ::RegGetValueW(key, path, name, flags, nullptr, &value, &size);
  if (status == ERROR_SUCCESS) return value;
  if (status != ERROR_FILE_NOT_FOUND && status != ERROR_UNSUPPORTED_TYPE) error = static_cast<DWORD>(status);
  return std::nullopt;
}

/// One request, from the raising of the flag to its end.
class Request {
 public:
  Request(const FlashKey& location, const FlashRequest& wishes)
      : m_Location(location),
        m_Wishes(wishes),
        m_Watch(location),
        m_Limit(
            static_cast<std::uint64_t>((std::max)(wishes.limit.count(), std::chrono::milliseconds::rep{0}))) {
  }
  ~Request() {
    if (m_Key != nullptr) ::RegCloseKey(m_Key);
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  FlashOutcome Run() {
    if (IsCancelledAlready())
      return {FlashEnding::Cancelled, ReadFlashValues(m_Location.root, m_Location.path.c_str()),
              ERROR_SUCCESS};
    if (const DWORD error = Raise()) return {FlashEnding::Refused, {}, error};
    m_Begin = m_LastChange = AwakeMs();
    for (;;) {
      if (const DWORD error = m_Watch.Arm()) return {FlashEnding::Refused, ReadFlashValues(m_Key), error};
      const FlashValues values = Look();
      // The service writes the result first and takes the flag back then.
      if (values.ready != 1u) return {EndingBy(values), values, values.error};
      if (const auto ending = AwaitChange(values)) return GiveUp(*ending);
    }
  }

 private:
  bool IsCancelledAlready() const {
    return m_Wishes.cancellation != nullptr &&
           ::WaitForSingleObject(m_Wishes.cancellation, 0) == WAIT_OBJECT_0;
  }

  DWORD Raise() {
    // The 64-bit view, where the service looks, also when this program is built for 32 bits.
    constexpr REGSAM kAccess = KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_NOTIFY | KEY_WOW64_64KEY;
    const LSTATUS opened = ::RegCreateKeyExW(m_Location.root, m_Location.path.c_str(), 0, nullptr, 0, kAccess,
                                             nullptr, &m_Key, nullptr);
    if (opened != ERROR_SUCCESS) return static_cast<DWORD>(opened);
    m_ResultBefore = ReadFlashValues(m_Key).result;
    return Write(1);
  }

  DWORD Write(DWORD ready) const {
    return static_cast<DWORD>(::RegSetValueExW(m_Key, kReadyValue, 0, REG_DWORD,
                                               reinterpret_cast<const BYTE*>(&ready), sizeof ready));
  }

  FlashValues Look() {
    const FlashValues values = ReadFlashValues(m_Key);
    m_ResultChanged = m_ResultChanged || values.result != m_ResultBefore;
    if (m_Wishes.onProgress) m_Wishes.onProgress(values);
    return values;
  }

  /// A result that stood there before the request says nothing about it.
  FlashEnding EndingBy(const FlashValues& values) const {
    if (values.error != ERROR_SUCCESS) return FlashEnding::Refused;
    if (!m_ResultChanged) return FlashEnding::Unknown;
    if (values.Is(FlashResult::Succeeded)) return FlashEnding::Succeeded;
    return values.Is(FlashResult::Failed) ? FlashEnding::Failed : FlashEnding::Unknown;
  }

  /// Only a change behind the request tells that somebody took it: the values may be those of a service that
  /// died long ago.
  std::uint64_t LongestSilence(const FlashValues& values) const {
    if (!m_IsTaken) return kLongestToTakeMs;
    return values.timeOut.value_or(0) != 0 ? *values.timeOut : kUsualTimeOutMs;
  }

  /// @return nothing when something has changed.
  std::optional<FlashEnding> AwaitChange(const FlashValues& values) {
    const std::uint64_t silenceEnds = m_LastChange + LongestSilence(values);
    const std::uint64_t limitEnds = m_Begin + m_Limit;
    const HANDLE events[] = {m_Watch.Event(), m_Wishes.cancellation};
    const DWORD count = m_Wishes.cancellation != nullptr ? 2 : 1;
    switch (::WaitForMultipleObjects(count, events, FALSE, MsUntil((std::min)(silenceEnds, limitEnds)))) {
      case WAIT_OBJECT_0:
        return NoteChange();
      case WAIT_OBJECT_0 + 1:
        return FlashEnding::Cancelled;
      case WAIT_TIMEOUT:
        // Somebody may have taken it just now, and must not have it taken away again.
        if (!m_IsTaken && !ReadFlashValues(m_Key).AreSameAs(values)) return NoteChange();
        if (!m_IsTaken) return FlashEnding::NotTaken;
        return silenceEnds <= limitEnds ? FlashEnding::Silent : FlashEnding::TimedOut;
      default:
        m_Error = ::GetLastError();
        return FlashEnding::Refused;
    }
  }

  std::optional<FlashEnding> NoteChange() {
    m_IsTaken = true;
    m_LastChange = AwakeMs();
    return std::nullopt;
  }

  static DWORD MsUntil(std::uint64_t end) {
    constexpr std::uint64_t kLongestWait = INFINITE - 1;
    const std::uint64_t now = AwakeMs();
    return end > now ? static_cast<DWORD>((std::min)(end - now, kLongestWait)) : 0;
  }

  /// A job that somebody does goes on without its request. If its service died in the middle of a flash, the
  /// next one recovers the modem because the request still stands.
  FlashOutcome GiveUp(FlashEnding ending) {
    const FlashValues values = ReadFlashValues(m_Key);
    // A deleted key can neither be read nor written any more.
    if (values.error != ERROR_SUCCESS) return {FlashEnding::Refused, values, values.error};
    const bool isServed = m_IsTaken && (ending != FlashEnding::Silent || values.IsFlashing());
    if (!isServed && values.ready == 1u && m_Error == ERROR_SUCCESS) m_Error = Write(0);
    return {ending, values, m_Error};
  }

  const FlashKey& m_Location;
  const FlashRequest& m_Wishes;
  FlashKeyWatch m_Watch;
  HKEY m_Key = nullptr;
  std::uint64_t m_Limit;
  std::optional<std::uint32_t> m_ResultBefore;
  bool m_ResultChanged = false;
  bool m_IsTaken = false;
  std::uint64_t m_Begin = 0;
  std::uint64_t m_LastChange = 0;
  DWORD m_Error = ERROR_SUCCESS;
};

}  // namespace detail

inline std::optional<FlashKey> FlashKey::Parse(std::wstring_view location) {
  const std::size_t separator = location.find(L'\\');
  if (separator == std::wstring_view::npos || separator + 1 == location.length()) return std::nullopt;
  const std::wstring_view name = location.substr(0, separator);
  FlashKey key;
  if (name == L"HKCU") {
    key.root = HKEY_CURRENT_USER;
  } else if (name == L"HKU") {
    key.root = HKEY_USERS;
  } else if (name != L"HKLM") {
    return std::nullopt;
  }
  key.path = location.substr(separator + 1);
  return key;
}

inline FlashValues ReadFlashValues(HKEY key, const wchar_t* path) {
  FlashValues values;
  values.ready = detail::ReadNumber(key, path, kReadyValue, values.error);
  values.retryTimes = detail::ReadNumber(key, path, kRetryTimesValue, values.error);
  values.timeOut = detail::ReadNumber(key, path, kTimeOutValue, values.error);
  values.onGoing = detail::ReadNumber(key, path, kOnGoingValue, values.error);
  values.progress = detail::ReadNumber(key, path, kProgressValue, values.error);
  values.result = detail::ReadNumber(key, path, kResultValue, values.error);
  return values;
}

inline FlashKeyWatch::FlashKeyWatch(FlashKey location)
    : m_Location(std::move(location)), m_Event(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

inline DWORD FlashKeyWatch::Arm() {
  if (IsArmed()) return ERROR_SUCCESS;
  m_Armed = false;
  if (m_Event == nullptr) return ERROR_NO_SYSTEM_RESOURCES;
  if (const DWORD error = Open()) return error;
  ::ResetEvent(m_Event.get());
  const auto error = static_cast<DWORD>(::RegNotifyChangeKeyValue(
      m_Key.get(), TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, m_Event.get(), TRUE));
  m_Armed = error == ERROR_SUCCESS;
  // A key that was deleted is of no more use, even when one of the same name is there again.
  if (!m_Armed) m_Key.reset();
  return error;
}

inline bool FlashKeyWatch::IsArmed() const {
  return m_Armed && ::WaitForSingleObject(m_Event.get(), 0) == WAIT_TIMEOUT;
}

inline DWORD FlashKeyWatch::Open() {
  if (m_Key != nullptr) return ERROR_SUCCESS;
  HKEY opened = nullptr;
  const LSTATUS status =
      ::RegOpenKeyExW(m_Location.root, m_Location.path.c_str(), 0, KEY_NOTIFY | KEY_WOW64_64KEY, &opened);
  m_Key.reset(opened);
  return static_cast<DWORD>(status);
}

inline FlashOutcome Flash(const FlashKey& location, const FlashRequest& request) {
  return detail::Request(location, request).Run();
}

}  // namespace corvel
