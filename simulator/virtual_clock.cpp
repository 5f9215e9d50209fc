#include "simulator/virtual_clock.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>

#include "simulator/threads/working_threads.h"

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
      : m_Speed(speed), m_Frequency(frequency), m_Never(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    m_Thread = std::jthread([this](const std::stop_token& stop) { Run(stop); });
  }
  ~Ticker() {
    m_Thread.request_stop();
    m_Thread.join();
    ::CloseHandle(m_Never);
  }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

  Milliseconds Now() const { return Milliseconds(m_NowUs / kUsPerMs); }

 private:
  static constexpr DWORD kTickMs = 2;
  static constexpr std::int64_t kUsPerMs = 1000;

  void Run(const std::stop_token& stop) {
    for (std::int64_t last = Counter(); !stop.stop_requested();) {
      // Waiting for an object takes the way that the product's wakings take, which may be slow in places
      // where sleeping is not: time then slows down with them.
      ::WaitForSingleObject(m_Never, kTickMs);
      const std::int64_t now = Counter();
      const std::int64_t realUs = (now - last) * 1'000'000 / m_Frequency;
      last = now;
      m_NowUs +=
          working_threads::AnyAtWork() ? realUs : static_cast<std::int64_t>(kTickMs * kUsPerMs * m_Speed);
    }
  }

  const double m_Speed;
  const std::int64_t m_Frequency;
  const HANDLE m_Never;
  std::atomic<std::int64_t> m_NowUs{0};
  std::jthread m_Thread;
};

VirtualClock::VirtualClock(double speed, Pace pace)
    : m_Speed(speed), m_Frequency(CounterFrequency()), m_Start(Counter()), m_StartTicks(::GetTickCount64()) {
  if (pace == Pace::Elastic) m_Ticker = std::make_unique<Ticker>(m_Speed, m_Frequency);
}

VirtualClock::VirtualClock(double speed, const std::wstring& name) : VirtualClock(speed) {
  m_SharedStart = std::make_unique<SharedData<std::int64_t>>(name + L"-clock", m_Start);
  m_Start = m_SharedStart->Take();
  m_SharedStart->PutBack(m_Start);
}

VirtualClock::~VirtualClock() = default;

Milliseconds VirtualClock::Now() const {
  if (m_Ticker) return m_Ticker->Now();
  const double seconds = static_cast<double>(Counter() - m_Start) / static_cast<double>(m_Frequency);
  return Milliseconds(static_cast<std::int64_t>(seconds * 1000.0 * m_Speed));
}

std::uint64_t VirtualClock::TickCount() const {
  return m_StartTicks + static_cast<std::uint64_t>(Now().count());
}

DWORD VirtualClock::RealWait(DWORD virtualMilliseconds) const {
  if (virtualMilliseconds == 0 || virtualMilliseconds == INFINITE) return virtualMilliseconds;
  const double real = std::floor(static_cast<double>(virtualMilliseconds) / m_Speed);
  // A speed below 1 must not turn a long wait into an endless one.
  return static_cast<DWORD>(std::clamp(real, 1.0, static_cast<double>(INFINITE - 1)));
}

void VirtualClock::Pause(Milliseconds duration) const {
  if (duration <= Milliseconds::zero()) return;
  const working_threads::Rest rest;
  WaitInSlices(static_cast<DWORD>(duration.count()), [](DWORD real) {
    ::Sleep(real);
    return false;
  });
}

void VirtualClock::PauseUntil(Milliseconds moment) const {
  const auto left = moment - Now();
  // Less than a real millisecond is caught up with by a later wait, so that fast clocks stay fast.
  if (static_cast<double>(left.count()) >= m_Speed) Pause(left);
}

}  // namespace simulator
