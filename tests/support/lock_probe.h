#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <thread>

#include "common/handles.h"
#include "simulator/import_patch.h"

/// Shows that one operation of the library has to wait for a lock that another one holds. Holds the first
/// where it is about to give a lock back, lets another thread run the second, and sees whether that one meets
/// the lock. Covers the slim locks and the critical sections that the library takes.
class LockProbe {
 public:
  LockProbe() {
    s_probe = this;
    m_Library.Replace("AcquireSRWLockExclusive", &AcquireSlim);
    m_Library.Replace("ReleaseSRWLockExclusive", &ReleaseSlim);
    m_Library.Replace("EnterCriticalSection", &EnterSection);
    m_Library.Replace("LeaveCriticalSection", &LeaveSection);
  }
  ~LockProbe() {
    m_Library.Restore();
    s_probe = nullptr;
  }
  LockProbe(const LockProbe&) = delete;
  LockProbe& operator=(const LockProbe&) = delete;

  /// Holds `first` at the `time`th lock that it gives back, the first being 1.
  /// @return true when `second` had to wait there.
  bool Excludes(const std::function<void()>& first, std::function<void()> second, int time = 1) {
    m_Second = std::move(second);
    m_First = ::GetCurrentThreadId();
    m_Left = time;
    first();
    m_First = 0;
    if (m_Other.joinable()) m_Other.join();
    return m_Met;
  }

  /// Runs `second` on another thread until it meets a lock or ends. For a caller that holds a lock itself.
  /// @return true when it met one. Call Join when the lock was given back.
  bool IsMetBy(std::function<void()> second) {
    m_Second = std::move(second);
    Interfere();
    return m_Met;
  }
  void Join() { m_Other.join(); }

 private:
  static constexpr DWORD kRealTimeLimitMs = 10000;

  /// On the first thread, which holds a lock.
  void Interfere() {
    m_Other = std::thread([this] {
      m_OtherId = ::GetCurrentThreadId();
      m_Second();
      ::SetEvent(m_MetOrDone.get());
    });
    ::WaitForSingleObject(m_MetOrDone.get(), kRealTimeLimitMs);
  }
  void BeforeRelease() {
    if (::GetCurrentThreadId() == m_First && --m_Left == 0) Interfere();
  }
  void Meet() {
    if (::GetCurrentThreadId() != m_OtherId) return;
    m_Met = true;
    ::SetEvent(m_MetOrDone.get());
  }

  static void WINAPI AcquireSlim(SRWLOCK* lock) {
    if (::TryAcquireSRWLockExclusive(lock)) return;
    s_probe->Meet();
    ::AcquireSRWLockExclusive(lock);
  }
  static void WINAPI ReleaseSlim(SRWLOCK* lock) {
    s_probe->BeforeRelease();
    ::ReleaseSRWLockExclusive(lock);
  }
  static void WINAPI EnterSection(CRITICAL_SECTION* section) {
    if (::TryEnterCriticalSection(section)) return;
    s_probe->Meet();
    ::EnterCriticalSection(section);
  }
  static void WINAPI LeaveSection(CRITICAL_SECTION* section) {
    s_probe->BeforeRelease();
    ::LeaveCriticalSection(section);
  }

  static inline LockProbe* s_probe = nullptr;

  simulator::ImportPatch m_Library{::GetModuleHandleW(L"toolkit_internals.dll")};
  corvel::UniqueHandle m_MetOrDone{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::function<void()> m_Second;
  std::thread m_Other;
  std::atomic<DWORD> m_First{0};
  std::atomic<DWORD> m_OtherId{0};
  int m_Left = 0;
  std::atomic<bool> m_Met{false};
};
