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
    EXPECT_TRUE(m_patch.Replace("AcquireSRWLockExclusive", &Acquire));
    EXPECT_TRUE(m_patch.Replace("ReleaseSRWLockExclusive", &Release));
  }
  ~LockTurns() {
    LetGo();
    m_patch.Restore();
    s_present = nullptr;
  }
  LockTurns(const LockTurns&) = delete;
  LockTurns& operator=(const LockTurns&) = delete;

  /// Runs `operation` on a thread of its own, up to where it gives back a lock for the `turn`th time.
  /// @return false when it ended without coming there.
  bool HoldInside(std::function<void()> operation, int turn = 1) {
    m_turnsLeft = turn;
    m_holder = std::thread([this, operation = std::move(operation)] {
      m_holderId = ::GetCurrentThreadId();
      operation();
      m_holderId = 0;
      ::SetEvent(m_holderEnded.get());
    });
    return FirstOf(m_held.get(), m_holderEnded.get());
  }

  /// Runs `operation` on another thread.
  /// @return true once it asks for the lock that the held thread owns; false when it ended without that.
  bool AsksForTheSameLock(std::function<void()> operation) {
    m_contender = std::thread([this, operation = std::move(operation)] {
      m_contenderId = ::GetCurrentThreadId();
      operation();
      ::SetEvent(m_contenderEnded.get());
    });
    return FirstOf(m_asked.get(), m_contenderEnded.get());
  }

  /// Lets the held thread go and both come to their end.
  void LetGo() {
    ::SetEvent(m_mayGo.get());
    if (m_holder.joinable()) m_holder.join();
    if (m_contender.joinable()) m_contender.join();
  }

 private:
  static constexpr DWORD kPatienceMs = 20000;

  static UniqueHandle NewEvent() { return UniqueHandle(::CreateEventW(nullptr, TRUE, FALSE, nullptr)); }
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
    if (::GetCurrentThreadId() == m_contenderId && lock == m_heldLock) ::SetEvent(m_asked.get());
  }
  void OnRelease(SRWLOCK* lock) {
    if (::GetCurrentThreadId() != m_holderId || --m_turnsLeft != 0) return;
    m_heldLock = lock;
    ::SetEvent(m_held.get());
    ::WaitForSingleObject(m_mayGo.get(), kPatienceMs);
  }

  static inline LockTurns* s_present = nullptr;

  simulator::ImportPatch m_patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  const UniqueHandle m_held = NewEvent();
  const UniqueHandle m_asked = NewEvent();
  const UniqueHandle m_mayGo = NewEvent();
  const UniqueHandle m_holderEnded = NewEvent();
  const UniqueHandle m_contenderEnded = NewEvent();
  std::atomic<DWORD> m_holderId{0};
  std::atomic<DWORD> m_contenderId{0};
  std::atomic<SRWLOCK*> m_heldLock{nullptr};
  std::atomic<int> m_turnsLeft{0};
  std::thread m_holder;
  std::thread m_contender;
};
