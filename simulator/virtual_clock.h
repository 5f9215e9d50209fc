#pragma once

#include <windows.h>

#include <chrono>
#include <cstdint>

using Milliseconds = std::chrono::milliseconds;

/// Time of the virtual PC: `speed` times as fast as the real one. Any thread.
class VirtualClock {
 public:
  explicit VirtualClock(double speed);

  double Speed() const { return m_speed; }
  /// Virtual time since this clock was made.
  Milliseconds Now() const;
  /// A tick count that began with the system's and runs at the virtual speed.
  std::uint64_t TickCount() const;
  /// Real milliseconds of a virtual wait: divided by the speed, at least 1; 0 and INFINITE stay.
  DWORD RealWait(DWORD virtual_milliseconds) const;

  void Sleep(Milliseconds duration) const;
  void SleepUntil(Milliseconds moment) const;

 private:
  double m_speed;
  std::int64_t m_frequency = 0;
  std::int64_t m_start = 0;
  std::uint64_t m_start_ticks = 0;
};
