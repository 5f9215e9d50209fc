#pragma once

#include <windows.h>

#include <atomic>

#include "simulator/import_patch.h"

/// The library's clock: it moves only when the thread that made it sleeps. Other threads that sleep wait
/// for it to pass, and are woken when it goes away. The simulator's clock runs with the real one, only
/// faster: a test that reads exact times off needs one that stands still.
class ManualClock {
 public:
  ManualClock() {
    s_owner = ::GetCurrentThreadId();
    s_passed = 0;
    s_ticks = true;
    m_Patch.Replace("Sleep", &Sleep);
    m_Patch.Replace("GetTickCount64", &TickCount);
  }
  ~ManualClock() {
    m_Patch.Restore();
    s_owner = 0;
    while (s_sleepers > 0) ::SwitchToThread();
  }
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  /// Milliseconds since the clock was made.
  ULONGLONG Passed() const { return s_passed; }
  void Advance(DWORD milliseconds) { s_passed += milliseconds; }
  /// The tick count stands still; sleeping still takes its time.
  void StopsTicking() { s_ticks = false; }

 private:
  static constexpr ULONGLONG kTicksAtStart = 1'000'000;

  static void WINAPI Sleep(DWORD milliseconds) {
    if (::GetCurrentThreadId() == s_owner) {
      s_passed += milliseconds;
      ::SwitchToThread();
      return;
    }
    ++s_sleepers;
    const DWORD owner = s_owner;
    const ULONGLONG end = s_passed + milliseconds;
    while (owner != 0 && s_owner == owner && s_passed < end) ::Sleep(1);
    --s_sleepers;
  }
  static ULONGLONG WINAPI TickCount() { return s_ticks ? kTicksAtStart + s_passed : kTicksAtStart; }

  static inline std::atomic<DWORD> s_owner{0};
  static inline std::atomic<int> s_sleepers{0};
  static inline std::atomic<ULONGLONG> s_passed{0};
  static inline std::atomic<bool> s_ticks{true};

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};
