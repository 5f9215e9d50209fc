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
    m_library.Replace("AcquireSRWLockExclusive", &AcquireSlim);
    m_library.Replace("ReleaseSRWLockExclusive", &ReleaseSlim);
    m_library.Replace("EnterCriticalSection", &EnterSection);
    m_library.Replace("LeaveCriticalSection", &LeaveSection);
  }
  ~LockProbe() {
    m_library.Restore();
    s_probe = nullptr;
  }
  LockProbe(const LockProbe&) = delete;
  LockProbe& operator=(const LockProbe&) = delete;

  /// Holds `first` at the `time`th lock that it gives back, the first being 1.
  /// @return true when `second` had to wait there.
  bool Excludes(const std::function<void()>& first, std::function<void()> second, int time = 1) {
    m_second = std::move(second);
    m_first = ::GetCurrentThreadId();
    m_left = time;
    first();
    m_first = 0;
    if (m_other.joinable()) m_other.join();
    return m_met;
  }

  /// Runs `second` on another thread until it meets a lock or ends. For a caller that holds a lock by itself.
  /// @return true when it met one. Call Join when the lock was given back.
  bool IsMetBy(std::function<void()> second) {
    m_second = std::move(second);
    Interfere();
    return m_met;
  }
  void Join() { m_other.join(); }

 private:
  static constexpr DWORD kRealTimeLimitMs = 10000;

  /// On the first thread, which holds a lock.
  void Interfere() {
    m_other = std::thread([this] {
      m_otherId = ::GetCurrentThreadId();
      m_second();
      ::SetEvent(m_metOrDone.get());
    });
    ::WaitForSingleObject(m_metOrDone.get(), kRealTimeLimitMs);
  }
  void BeforeRelease() {
    if (::GetCurrentThreadId() == m_first && --m_left == 0) Interfere();
  }
  void Meet() {
    if (::GetCurrentThreadId() != m_otherId) return;
    m_met = true;
    ::SetEvent(m_metOrDone.get());
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

  simulator::ImportPatch m_library{::GetModuleHandleW(L"toolkit_internals.dll")};
  UniqueHandle m_metOrDone{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::function<void()> m_second;
  std::thread m_other;
  std::atomic<DWORD> m_first{0};
  std::atomic<DWORD> m_otherId{0};
  int m_left = 0;
  std::atomic<bool> m_met{false};
};
