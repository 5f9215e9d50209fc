#pragma once

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <mutex>

namespace simulator {

/// A lock that holds no object of the system, ever. The standard library's, where it stands on POSIX threads,
/// makes an event and heap memory behind each mutex when threads first meet there, and never gives them back:
/// a test that counts what the product leaves behind would count the simulator's locks with it.
class Lock {
 public:
  Lock() = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // The names are those that std::lock_guard and std::unique_lock ask for.
  void lock() noexcept { ::AcquireSRWLockExclusive(&m_Lock); }
  bool try_lock() noexcept { return ::TryAcquireSRWLockExclusive(&m_Lock) != FALSE; }
  void unlock() noexcept { ::ReleaseSRWLockExclusive(&m_Lock); }

 private:
  friend class Condition;
  SRWLOCK m_Lock = SRWLOCK_INIT;
};

/// A condition under such a lock. May wake without a reason, as every condition variable may.
class Condition {
 public:
  Condition() = default;
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void NotifyAll() noexcept { ::WakeAllConditionVariable(&m_Condition); }

  void Wait(std::unique_lock<Lock>& lock) { WaitMilliseconds(lock, INFINITE); }
  template <class Predicate>
  void Wait(std::unique_lock<Lock>& lock, Predicate holds) {
    while (!holds()) Wait(lock);
  }

  /// @return false when the time passed without a wake.
  bool WaitFor(std::unique_lock<Lock>& lock, std::chrono::nanoseconds time) {
    // Rounded up, so that the moment has come when the wait ends; a part at a time when it is far away.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(time).count();
    return WaitMilliseconds(lock, static_cast<DWORD>(std::clamp<long long>(left, 0, INFINITE - 1)));
  }

  /// @return what `holds` says in the end, at the latest when the time has passed.
  template <class Predicate>
  bool WaitFor(std::unique_lock<Lock>& lock, std::chrono::nanoseconds time, Predicate holds) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!holds()) {
      if (!WaitFor(lock, end - std::chrono::steady_clock::now()) && std::chrono::steady_clock::now() >= end) {
        return holds();
      }
    }
    return true;
  }

 private:
  bool WaitMilliseconds(std::unique_lock<Lock>& lock, DWORD time) {
    return ::SleepConditionVariableSRW(&m_Condition, &lock.mutex()->m_Lock, time, 0) != FALSE;
  }

  CONDITION_VARIABLE m_Condition = CONDITION_VARIABLE_INIT;
};

}  // namespace simulator
