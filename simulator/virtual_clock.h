#pragma once

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "simulator/shared_data.h"

namespace simulator {

using Milliseconds = std::chrono::milliseconds;

/// How time passes in the virtual PC.
enum class Pace {
  Steady,  ///< always `speed` times as fast as the real time
  /// So fast only while all threads of the product wait; while one of them works, as fast as the real time.
  /// Computing then takes as long as it takes, even on a loaded machine, and no time limit is missed for it.
  Elastic
};

/// Time of the virtual PC: `speed` times as fast as the real one. Any thread.
class VirtualClock {
 public:
  explicit VirtualClock(double speed, Pace pace = Pace::Steady);
  /// A steady clock that began with the first one of that name, in whichever process of the session.
  VirtualClock(double speed, const std::wstring& name);
  ~VirtualClock();

  double Speed() const { return m_Speed; }
  /// Virtual time since this clock began.
  Milliseconds Now() const;
  /// A tick count that began with the system's and runs at the virtual speed.
  std::uint64_t TickCount() const;
  /// Real milliseconds of a virtual wait: divided by the speed, at least 1; 0 and INFINITE stay.
  DWORD RealWait(DWORD virtualMilliseconds) const;

  void Pause(Milliseconds duration) const;
  void PauseUntil(Milliseconds moment) const;

  /// Waits for up to a virtual time in slices of real time. `wait` waits so many real milliseconds and tells
  /// whether what it waits for came.
  template <typename Wait>
  void WaitInSlices(DWORD virtualMilliseconds, const Wait& wait) const {
    if (virtualMilliseconds == 0 || virtualMilliseconds == INFINITE) {
      static_cast<void>(wait(virtualMilliseconds));
      return;
    }
    const Milliseconds end = Now() + Milliseconds(virtualMilliseconds);
    for (Milliseconds left = end - Now(); left > Milliseconds::zero(); left = end - Now()) {
      if (wait(RealWait(static_cast<DWORD>(left.count())))) return;
    }
  }

 private:
  class Ticker;

  double m_Speed;
  std::int64_t m_Frequency = 0;
  std::int64_t m_Start = 0;
  std::uint64_t m_StartTicks = 0;
  std::unique_ptr<Ticker> m_Ticker;                         ///< of an elastic clock
  std::unique_ptr<SharedData<std::int64_t>> m_SharedStart;  ///< of one that has a name
};

}  // namespace simulator
