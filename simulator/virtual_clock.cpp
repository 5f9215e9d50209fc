#include "virtual_clock.h"

#include <algorithm>
#include <cmath>

namespace {

std::int64_t Counter() {
  LARGE_INTEGER counter{};
  ::QueryPerformanceCounter(&counter);
  return counter.QuadPart;
}

std::int64_t CounterFrequency() {
  LARGE_INTEGER frequency{};
  ::QueryPerformanceFrequency(&frequency);
  return frequency.QuadPart;
}

}  // namespace

VirtualClock::VirtualClock(double speed)
    : m_speed(speed),
      m_frequency(CounterFrequency()),
      m_start(Counter()),
      m_start_ticks(::GetTickCount64()) {}

Milliseconds VirtualClock::Now() const {
  const double seconds = static_cast<double>(Counter() - m_start) / static_cast<double>(m_frequency);
  return Milliseconds(static_cast<std::int64_t>(seconds * 1000.0 * m_speed));
}

std::uint64_t VirtualClock::TickCount() const {
  return m_start_ticks + static_cast<std::uint64_t>(Now().count());
}

DWORD VirtualClock::RealWait(DWORD virtual_milliseconds) const {
  if (virtual_milliseconds == 0 || virtual_milliseconds == INFINITE) return virtual_milliseconds;
  const double real = std::floor(static_cast<double>(virtual_milliseconds) / m_speed);
  // A speed below 1 must not turn a long wait into an endless one.
  return static_cast<DWORD>(std::clamp(real, 1.0, static_cast<double>(INFINITE - 1)));
}

void VirtualClock::Sleep(Milliseconds duration) const {
  if (duration > Milliseconds::zero()) ::Sleep(RealWait(static_cast<DWORD>(duration.count())));
}

void VirtualClock::SleepUntil(Milliseconds moment) const {
  const auto left = moment - Now();
  // Less than a real millisecond is caught up with by a later wait, so that fast clocks stay fast.
  if (static_cast<double>(left.count()) >= m_speed) Sleep(left);
}
