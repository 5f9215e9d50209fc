#pragma once

#include <windows.h>

#include <atomic>
#include <chrono>
#include <stop_token>
#include <thread>

namespace campaign {

// A child's exit status, for who started it.
inline constexpr unsigned long kGoOnBehind = 4;  ///< its process serves no further case
inline constexpr unsigned long kHangs = 5;
inline constexpr std::chrono::seconds kCaseLimit{1200};

/// Ends the process when a case takes too long, whoever hangs.
class Watchdog {
 public:
  /// Another case begins. Any thread.
  void Pat() { m_End = (Clock::now() + kCaseLimit).time_since_epoch().count(); }

 private:
  using Clock = std::chrono::steady_clock;

  void Watch(const std::stop_token& stop) const {
    while (!stop.stop_requested()) {
      ::Sleep(100);
      if (Clock::now().time_since_epoch().count() > m_End) ::TerminateProcess(::GetCurrentProcess(), kHangs);
    }
  }

  std::atomic<Clock::rep> m_End{(Clock::now() + kCaseLimit).time_since_epoch().count()};
  std::jthread m_Thread{[this](const std::stop_token& stop) { Watch(stop); }};
};

}  // namespace campaign
