#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include "common/handles.h"
#include "simulator/import_patch.h"

/// Shows that two operations of the library take turns on one of its slim locks: holds a thread that is about
/// to give the lock back, and looks whether another one comes in meanwhile. One at a time.
class LockTurns {
 public:
  LockTurns() {
    s_present = this;
    m_Patch.Replace("AcquireSRWLockExclusive", &Acquire);
    m_Patch.Replace("ReleaseSRWLockExclusive", &Release);
  }
  ~LockTurns() {
    LetGo();
    m_Patch.Restore();
    s_present = nullptr;
  }
  LockTurns(const LockTurns&) = delete;
  LockTurns& operator=(const LockTurns&) = delete;

  /// Runs `operation` on a thread of its own, up to where it gives back a lock for the `turn`th time.
  /// @return false when it ended without coming there.
  bool HoldInside(std::function<void()> operation, int turn = 1) {
    m_TurnsLeft = turn;
    m_Holder = std::thread([this, operation = std::move(operation)] {
      m_HolderId = ::GetCurrentThreadId();
      operation();
      m_HolderId = 0;
      ::SetEvent(m_HolderEnded.get());
    });
    return FirstOf(m_Held.get(), m_HolderEnded.get());
  }

  /// Runs `operation` on another thread.
  /// @return true once it asks for the lock that the held thread owns; false when it ended without that.
  bool AsksForTheSameLock(std::function<void()> operation) {
    m_Contender = std::thread([this, operation = std::move(operation)] {
      m_ContenderId = ::GetCurrentThreadId();
      operation();
      ::SetEvent(m_ContenderEnded.get());
    });
    return FirstOf(m_Asked.get(), m_ContenderEnded.get());
  }

  /// Lets the held thread go and both come to their end.
  void LetGo() {
    ::SetEvent(m_MayGo.get());
    if (m_Holder.joinable()) m_Holder.join();
    if (m_Contender.joinable()) m_Contender.join();
  }

 private:
  static constexpr DWORD kPatienceMs = 20000;

  static corvel::UniqueHandle NewEvent() {
    return corvel::UniqueHandle(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  }
  static bool FirstOf(HANDLE wanted, HANDLE end) {
    const std::array<HANDLE, 2> events{wanted, end};
    return ::WaitForMultipleObjects(2, events.data(), FALSE, kPatienceMs) == WAIT_OBJECT_0;
  }

  static void WINAPI Acquire(SRWLOCK* lock) {
    s_present->OnAcquire(lock);
    ::AcquireSRWLockExclusive(lock);
  }
  static void WINAPI Release(SRWLOCK* lock) {
    s_present->OnRelease(lock);
    ::ReleaseSRWLockExclusive(lock);
  }
  void OnAcquire(SRWLOCK* lock) {
    if (::GetCurrentThreadId() == m_ContenderId && lock == m_HeldLock) ::SetEvent(m_Asked.get());
  }
  void OnRelease(SRWLOCK* lock) {
    if (::GetCurrentThreadId() != m_HolderId || --m_TurnsLeft != 0) return;
    m_HeldLock = lock;
    ::SetEvent(m_Held.get());
    ::WaitForSingleObject(m_MayGo.get(), kPatienceMs);
  }

  static inline LockTurns* s_present = nullptr;

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  const corvel::UniqueHandle m_Held = NewEvent();
  const corvel::UniqueHandle m_Asked = NewEvent();
  const corvel::UniqueHandle m_MayGo = NewEvent();
  const corvel::UniqueHandle m_HolderEnded = NewEvent();
  const corvel::UniqueHandle m_ContenderEnded = NewEvent();
  std::atomic<DWORD> m_HolderId{0};
  std::atomic<DWORD> m_ContenderId{0};
  std::atomic<SRWLOCK*> m_HeldLock{nullptr};
  std::atomic<int> m_TurnsLeft{0};
  std::thread m_Holder;
  std::thread m_Contender;
};
