#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string_view>

#include "simulator/call_hooks.h"

namespace simulator {

/// Sees from the calls of the service whether it waits for a request: it waits without an end on the event
/// that it has armed only when it has looked and nothing is asked for.
class ServiceWatch {
 public:
  static void See(const SeenCall& call) noexcept {
    const std::string_view function = call.function;
    if (function == "RegNotifyChangeKeyValue") s_event = call.arguments[3];
    if (function == "WaitForSingleObject" && call.arguments[0] == s_event &&
        static_cast<DWORD>(call.arguments[1]) == INFINITE) {
      s_waits = true;
    }
  }
  static bool Waits() { return s_waits; }
  /// To be called before something is asked for.
  static void Forget() { s_waits = false; }

 private:
  static inline std::atomic<std::uint64_t> s_event{0};
  static inline std::atomic<bool> s_waits{false};
};

}  // namespace simulator
