#pragma once

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/handles.h"
#include "simulator/import_patch.h"

/// The device interfaces of a driver in place of the system's. Apart from the simulator's, which lives in
/// virtual time, it has real events and time limits. Each is an overlapped pipe and a request a read on it,
/// so that events, time limits and cancelling are the system's own; only the time limits are cut short.
class FakeDriver {
 public:
  /// What becomes of a request.
  enum class Answer { Never, AtOnce, AfterPending, Refusal, Failure };

  struct Interface {
    std::wstring path;
    std::vector<corvel::UniqueHandle> servers;
    Answer answer = Answer::Never;
  };
  struct Request {
    HANDLE device;
    DWORD code;
    OVERLAPPED* overlapped;
    bool hadBuffers;
  };

  FakeDriver() {
    s_driver = this;
    s_opened = s_closedTwice = 0;
    m_Patch.Replace("CreateFileW", &Create);
    m_Patch.Replace("CloseHandle", &Close);
    m_Patch.Replace("DeviceIoControl", &Control);
    m_Patch.Replace("GetOverlappedResultEx", &Result);
    m_Patch.Replace("CancelIoEx", &Cancel);
    m_Patch.Replace("WaitForSingleObject", &Wait);
    m_Patch.Replace("CreateEventExW", &CreateEventCall);
  }
  ~FakeDriver() {
    m_Patch.Restore();
    s_driver = nullptr;
  }
  FakeDriver(const FakeDriver&) = delete;
  FakeDriver& operator=(const FakeDriver&) = delete;

  /// A new interface. @return its path.
  std::wstring Offers(Answer answer) {
    static int count = 0;
    Interface added;
    added.path = L"\\\\.\\pipe\\corvel-ude-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                 std::to_wstring(++count);
    added.answer = answer;
    for (DWORD i = 0; i < kOpensPerInterface; ++i) {
      added.servers.push_back(corvel::OwnFileHandle(
          ::CreateNamedPipeW(added.path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_BYTE,
                             kOpensPerInterface, 64, 64, 0, nullptr)));
    }
    m_Interfaces.push_back(std::move(added));
    return m_Interfaces.back().path;
  }
  void RefusesEvents() { m_RefusesEvents = true; }
  /// Runs right before one of the library's events is closed.
  void BeforeAnEventCloses(std::function<void()> action) { m_BeforeAnEventCloses = std::move(action); }

  /// What a device was opened with.
  struct Opening {
    DWORD access;
    DWORD share;
    bool isSecured;
    DWORD creation;
    DWORD flags;
    bool operator==(const Opening&) const = default;
  };
  const std::vector<Opening>& Openings() const { return m_Openings; }
  /// What an event was made with.
  struct Event {
    bool isPlain;
    DWORD flags;
    DWORD access;
    bool operator==(const Event&) const = default;
  };
  const std::vector<Event>& Events() const { return m_Events; }
  /// How often one of those events was waited for without a limit.
  int EndlessWaits() const { return m_EndlessWaits; }
  /// Whether any wait for a result could have been interrupted.
  bool IsAlertable() const { return m_IsAlertable; }
  /// The driver does not hear a cancel: the request stays pending until the test completes it.
  void IgnoresCancel() { m_IgnoresCancel = true; }
  /// Runs while a request is sent.
  void WhileSending(std::function<void()> action) { m_WhileSending = std::move(action); }

  const std::vector<Request>& Requests() const { return m_Requests; }
  std::vector<DWORD> Codes() const {
    std::vector<DWORD> codes;
    for (const Request& request : m_Requests) codes.push_back(request.code);
    return codes;
  }
  const std::vector<std::wstring>& TriedPaths() const { return m_TriedPaths; }
  const std::vector<DWORD>& TimeLimits() const { return m_TimeLimits; }
  int Cancels() const { return m_Cancels; }
  int Opened() const { return s_opened; }
  int StillOpen() const { return static_cast<int>(m_PathOf.size()); }
  int ClosedTwice() const { return s_closedTwice; }
  /// The path that a device was opened by; empty once it is closed.
  std::wstring PathOf(HANDLE device) const {
    const auto found = m_PathOf.find(device);
    return found == m_PathOf.end() ? std::wstring() : found->second;
  }

 private:
  static constexpr DWORD kShortWaitMs = 20;
  static constexpr DWORD kOpensPerInterface = 3;
  static constexpr char kAnswer[] = "K";

  Interface* Find(std::wstring_view path) {
    for (Interface& one : m_Interfaces) {
      if (one.path == path) return &one;
    }
    return nullptr;
  }

  static HANDLE WINAPI Create(const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                              DWORD creation, DWORD flags, HANDLE fileTemplate) {
    s_driver->m_TriedPaths.push_back(path);
    s_driver->m_Openings.push_back({access, share, security != nullptr, creation, flags});
    const HANDLE device = ::CreateFileW(path, access, share, security, creation, flags, fileTemplate);
    if (device == INVALID_HANDLE_VALUE) return device;
    ++s_opened;
    s_driver->m_PathOf[device] = path;
    return device;
  }

  static BOOL WINAPI Close(HANDLE handle) {
    s_driver->m_PathOf.erase(handle);
    if (s_driver->m_OpenEvents.erase(handle) != 0 && s_driver->m_BeforeAnEventCloses)
      s_driver->m_BeforeAnEventCloses();
    const BOOL closed = ::CloseHandle(handle);
    if (!closed) ++s_closedTwice;
    return closed;
  }

  static BOOL WINAPI Control(HANDLE device, DWORD code, void* input, DWORD inputSize, void* output,
                             DWORD outputSize, DWORD* bytes, OVERLAPPED* overlapped) {
    return s_driver->Take({device, code, overlapped, input != nullptr || inputSize != 0 || bytes != nullptr},
                          output, outputSize);
  }

  BOOL Take(const Request& request, void* output, DWORD outputSize) {
    m_Requests.push_back(request);
    if (const auto action = std::exchange(m_WhileSending, nullptr)) action();
    Interface* target = Find(PathOf(request.device));
    if (target == nullptr) {
      ::SetLastError(ERROR_INVALID_HANDLE);
      return FALSE;
    }
    switch (target->answer) {
      case Answer::Refusal:
        ::SetLastError(ERROR_INVALID_FUNCTION);
        return FALSE;
      case Answer::AtOnce:
        Reply(*target);
        return Begin(request, output, outputSize);
      case Answer::AfterPending: {
        const BOOL begun = Begin(request, output, outputSize);
        Reply(*target);
        ::SetLastError(ERROR_IO_PENDING);
        return begun;
      }
      case Answer::Failure: {
        const BOOL begun = Begin(request, output, outputSize);
        target->servers.clear();
        ::SetLastError(ERROR_IO_PENDING);
        return begun;
      }
      case Answer::Never:
        break;
    }
    return m_IgnoresCancel ? LeavePending(request) : Begin(request, output, outputSize);
  }

  BOOL Begin(const Request& request, void* output, DWORD outputSize) {
    static char nobodysByte;
    return ::ReadFile(request.device, outputSize == 0 ? &nobodysByte : output, std::max<DWORD>(outputSize, 1),
                      nullptr, request.overlapped);
  }

  /// As a driver that has the request and has not completed it.
  static BOOL LeavePending(const Request& request) {
    ::ResetEvent(request.overlapped->hEvent);
    request.overlapped->Internal = STATUS_PENDING;
    ::SetLastError(ERROR_IO_PENDING);
    return FALSE;
  }

  static void Reply(const Interface& target) {
    for (const corvel::UniqueHandle& server : target.servers) {
      OVERLAPPED overlapped{};
      const corvel::UniqueHandle done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
      overlapped.hEvent = done.get();
      const bool begun =
          ::WriteFile(server.get(), kAnswer, 1, nullptr, &overlapped) || ::GetLastError() == ERROR_IO_PENDING;
      DWORD written = 0;
      // An end that nobody opened takes nothing.
      if (begun) ::GetOverlappedResult(server.get(), &overlapped, &written, TRUE);
    }
  }

  static BOOL WINAPI Result(HANDLE device, OVERLAPPED* overlapped, DWORD* bytes, DWORD milliseconds,
                            BOOL alertable) {
    s_driver->m_TimeLimits.push_back(milliseconds);
    s_driver->m_IsAlertable = s_driver->m_IsAlertable || alertable;
    return ::GetOverlappedResultEx(device, overlapped, bytes, std::min(milliseconds, kShortWaitMs),
                                   alertable);
  }

  static BOOL WINAPI Cancel(HANDLE device, OVERLAPPED* overlapped) {
    ++s_driver->m_Cancels;
    return s_driver->m_IgnoresCancel ? TRUE : ::CancelIoEx(device, overlapped);
  }

  static DWORD WINAPI Wait(HANDLE handle, DWORD milliseconds) {
    const bool endless = milliseconds == INFINITE;
    if (endless && s_driver->m_OpenEvents.contains(handle)) ++s_driver->m_EndlessWaits;
    return ::WaitForSingleObject(handle, endless ? INFINITE : std::min(milliseconds, kShortWaitMs));
  }

  static HANDLE WINAPI CreateEventCall(SECURITY_ATTRIBUTES* security, const wchar_t* name, DWORD flags,
                                       DWORD access) {
    if (!s_driver->m_RefusesEvents) {
      s_driver->m_Events.push_back({security == nullptr && name == nullptr, flags, access});
      const HANDLE event = ::CreateEventExW(security, name, flags, access);
      s_driver->m_OpenEvents.insert(event);
      return event;
    }
    ::SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return nullptr;
  }

  static inline FakeDriver* s_driver = nullptr;
  static inline std::atomic<int> s_opened{0};
  static inline std::atomic<int> s_closedTwice{0};

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  std::vector<Interface> m_Interfaces;
  std::vector<Request> m_Requests;
  std::vector<std::wstring> m_TriedPaths;
  std::vector<DWORD> m_TimeLimits;
  std::vector<Opening> m_Openings;
  std::vector<Event> m_Events;
  std::set<HANDLE> m_OpenEvents;
  std::function<void()> m_BeforeAnEventCloses;
  int m_EndlessWaits = 0;
  bool m_IsAlertable = false;
  std::map<HANDLE, std::wstring> m_PathOf;
  std::function<void()> m_WhileSending;
  int m_Cancels = 0;
  bool m_RefusesEvents = false;
  bool m_IgnoresCancel = false;
};
