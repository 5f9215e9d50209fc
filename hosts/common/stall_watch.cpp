#include "hosts/common/stall_watch.h"

#include <tuple>

#include "hosts/common/power_calls.h"

namespace hosts {

namespace {

/// What the library writes.
constexpr std::uint32_t kUsualTimeOutMs = 153000;
constexpr ULONGLONG kTicksPerMillisecond = 10000;

StallWatch::Milliseconds LimitOf(const Handshake& values) {
  const std::uint32_t timeOut = values.timeOut.value_or(0);
  return StallWatch::Milliseconds(timeOut == 0 ? kUsualTimeOutMs : timeOut);
}

bool AreEqual(const Handshake& left, const Handshake& right) {
  const auto all = [](const Handshake& values) {
    return std::tie(values.ready, values.retryTimes, values.timeOut, values.onGoing, values.progress,
                    values.result, values.error);
  };
  return all(left) == all(right);
}

}  // namespace

bool StallWatch::Look(const Handshake& values, Milliseconds now) {
  if (!values.IsJobOpen()) {
    m_Seen.reset();
    m_Left.reset();
    return false;
  }
  if (!m_Seen || !AreEqual(m_Seen->values, values)) {
    m_Seen = Seen{.values = values, .since = now};
    m_Told = false;
  }
  const Milliseconds quiet = now - m_Seen->since;
  const Milliseconds limit = LimitOf(values);
  const bool found = quiet > limit && !m_Told;
  m_Told = m_Told || found;
  m_Left = m_Told ? std::nullopt : std::optional(limit - quiet + Milliseconds(1));
  return found;
}

StallWatch::Milliseconds StallWatch::AwakeTime() {
  ULONGLONG ticks = 0;
  ::QueryUnbiasedInterruptTime(&ticks);
  return Milliseconds(ticks / kTicksPerMillisecond);
}

}  // namespace hosts
