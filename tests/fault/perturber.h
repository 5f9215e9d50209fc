#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string_view>

#include "simulator/call_hooks.h"
#include "simulator/program/fleet/pc_plan.h"
#include "simulator/threads/working_threads.h"

namespace campaign {

/// Holds threads of the library up at calls of theirs, some of the time while virtual time passes.
class Perturber {
 public:
  static void Begin(std::uint64_t seed) {
    s_seed = seed;
    s_calls = 0;
    s_heldUp = 0;
    s_isOn = true;
  }
  static void End() { s_isOn = false; }
  /// Calls since the beginning that were held up while virtual time passed.
  static unsigned HeldUp() { return s_heldUp; }

  static void See(const simulator::SeenCall& call) noexcept {
    const std::string_view function = call.function;
    if (function == "RegNotifyChangeKeyValue") s_watch = call.arguments[3];
    if (const HANDLE over = s_over;
        over != nullptr && function == "RegSetValueExW" &&
        std::wstring_view(reinterpret_cast<const wchar_t*>(call.arguments[1])) == L"Fls_Ready") {
      ++s_ends;
      ::SetEvent(over);
    }
    if (const unsigned at = s_exitAt; at != 0 && ++s_callsToExit == at) {
      ::SetEvent(s_exits);
      ::Sleep(INFINITE);
    }
    if (!s_isOn) return;
    simulator::Dice dice(s_seed + ++s_calls);
    const int lot = dice.Between(1, 1000);
    if (lot > 60) return;
    if (lot > 10) {
      ::Sleep(static_cast<DWORD>(dice.Between(0, 3)));
      return;
    }
    ++s_heldUp;
    const simulator::working_threads::Rest rest;
    ::Sleep(static_cast<DWORD>(dice.Between(1, 30)));
  }

  /// Windows signals a watch whose key is deleted; not every system does.
  static void SignalWatch() { ::SetEvent(reinterpret_cast<HANDLE>(s_watch.load())); }

  /// Signals an event whenever the library is about to take the flag back; null for none.
  static void TellOfEnds(HANDLE over) {
    s_ends = 0;
    s_over = over;
  }
  /// How often that was, since the event is there.
  static unsigned Ends() { return s_ends; }

  /// @return an event that is signalled when that many calls have begun; the thread that makes the last one
  /// stays in it.
  static HANDLE StopAt(unsigned calls) {
    s_exits = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    s_callsToExit = 0;
    s_exitAt = calls;
    return s_exits;
  }

 private:
  static inline std::atomic<bool> s_isOn{false};
  static inline std::atomic<std::uint64_t> s_seed{0};
  static inline std::atomic<std::uint64_t> s_calls{0};
  static inline std::atomic<unsigned> s_heldUp{0};
  static inline std::atomic<unsigned> s_ends{0};
  static inline std::atomic<std::uint64_t> s_watch{0};
  static inline std::atomic<unsigned> s_exitAt{0};
  static inline std::atomic<unsigned> s_callsToExit{0};
  static inline HANDLE s_exits = nullptr;
  static inline std::atomic<HANDLE> s_over{nullptr};
};

}  // namespace campaign
