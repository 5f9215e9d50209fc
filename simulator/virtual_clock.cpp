#include "simulator/virtual_clock.h"

#include <cmath>
#include <thread>

#include "simulator/working_threads.h"

namespace simulator {

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

/// Moves an elastic clock on, a tick at a time. A tick is never worth more than its nominal length, so time
/// does not leap ahead of threads that were woken and have not had the processor yet.
class VirtualClock::Ticker {
 public:
  Ticker(double speed, std::int64_t frequency)
      : m_speed(speed), m_frequency(frequency), m_never(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    m_thread = std::jthread([this](const std::stop_token& stop) { Run(stop); });
  }
  ~Ticker() {
    m_thread.request_stop();
    m_thread.join();
    ::CloseHandle(m_never);
  }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

  Milliseconds Now() const { return Milliseconds(m_nowUs / kUsPerMs); }

 private:
  static constexpr DWORD kTickMs = 2;
  static constexpr std::int64_t kUsPerMs = 1000;

  void Run(const std::stop_token& stop) {
    for (std::int64_t last = Counter(); !stop.stop_requested();) {
      // Waiting for an object takes the way that the product's wakings take, which may be slow in places
      // where sleeping is not: time then slows down with them.
      ::WaitForSingleObject(m_never, kTickMs);
      const std::int64_t now = Counter();
      const std::int64_t realUs = (now - last) * 1'000'000 / m_frequency;
      last = now;
      m_nowUs +=
          working_threads::AnyAtWork() ? realUs : static_cast<std::int64_t>(kTickMs * kUsPerMs * m_speed);
    }
  }

  const double m_speed;
  const std::int64_t m_frequency;
  const HANDLE m_never;
  std::atomic<std::int64_t> m_nowUs{0};
  std::jthread m_thread;
};

VirtualClock::VirtualClock(double speed, Pace pace)
    : m_speed(speed), m_frequency(CounterFrequency()), m_start(Counter()), m_startTicks(::GetTickCount64()) {
  if (pace == Pace::Elastic) m_ticker = std::make_unique<Ticker>(m_speed, m_frequency);
}

VirtualClock::~VirtualClock() = default;

Milliseconds VirtualClock::Now() const {
  if (m_ticker) return m_ticker->Now();
  const double seconds = static_cast<double>(Counter() - m_start) / static_cast<double>(m_frequency);
  return Milliseconds(static_cast<std::int64_t>(seconds * 1000.0 * m_speed));
}

std::uint64_t VirtualClock::TickCount() const {
  return m_startTicks + static_cast<std::uint64_t>(Now().count());
}

DWORD VirtualClock::RealWait(DWORD virtualMilliseconds) const {
  if (virtualMilliseconds == 0 || virtualMilliseconds == INFINITE) return virtualMilliseconds;
  const double real = std::floor(static_cast<double>(virtualMilliseconds) / m_speed);
  // A speed below 1 must not turn a long wait into an endless one.
  return static_cast<DWORD>(std::clamp(real, 1.0, static_cast<double>(INFINITE - 1)));
}

void VirtualClock::Sleep(Milliseconds duration) const {
  if (duration <= Milliseconds::zero()) return;
  const working_threads::Rest rest;
  WaitInSlices(static_cast<DWORD>(duration.count()), [](DWORD real) {
    ::Sleep(real);
    return false;
  });
}

void VirtualClock::SleepUntil(Milliseconds moment) const {
  const auto left = moment - Now();
  // Less than a real millisecond is caught up with by a later wait, so that fast clocks stay fast.
  if (static_cast<double>(left.count()) >= m_speed) Sleep(left);
}

}  // namespace simulator
