#include "hosts/service/job_care.h"

#include <algorithm>

#include "hosts/common/event_log.h"
#include "hosts/common/text.h"
#include "messages.h"

namespace hosts {

JobCare::News JobCare::Look(const HandshakeKey& key, const Handshake& values) {
  News news{.texts = m_Names.Look(key, values)};
  KeepAwake(values.IsJobOpen(), news);
  LookForStall(key, values, news);
  return news;
}

DWORD JobCare::PeriodMs() const {
  const auto left = m_Stalls.Left();
  // "Time_Out" may be anything that a registry value holds, and the look comes a millisecond behind it.
  const auto untilStall = std::chrono::milliseconds(INFINITE);
  return std::min(m_Names.PeriodMs(),
                  static_cast<DWORD>(std::min(left.value_or(untilStall), untilStall).count()));
}

void JobCare::KeepAwake(bool isJobOpen, News& news) {
  if (!isJobOpen) return m_Awake.reset();
  if (m_Awake) return;
  m_Awake.emplace();
  if (m_Awake->Refusal().empty()) return;
  news.texts.push_back(m_Awake->Refusal());
  WriteEvent(MSG_NOT_KEPT_AWAKE, ToWide(m_Awake->Refusal()));
}

void JobCare::LookForStall(const HandshakeKey& key, const Handshake& values, News& news) {
  // A request that is not heard stands still, too, but neither restarting the service nor its end would help:
  // the event log says what does. The time counts from when the library can hear.
  if (m_Names.KeepsRequestsUnheard()) {
    m_Stalls = {};
    return;
  }
  if (!m_Stalls.Look(values)) return;
  news.standsStill = true;
  news.texts.push_back(
      "A flash stands still: nothing has changed under " + key.Text() + " for longer than " +
      ToUtf8(kTimeOutValue) + ", with " + ToUtf8(kResultValue) + " " +
      std::to_string(values.result.value_or(0)) + " (" + MeaningOfResult(values.result) + ") and " +
      std::to_string(values.progress.value_or(0)) +
      " % written. The last records of the debug log tell where. If it does not go on, stop the "
      "service (corvel_service stop --force) and start it again: the request still stands, and the "
      "modem is recovered.");
  WriteEvent(MSG_JOB_STANDS_STILL, ToWide(news.texts.back()));
}

}  // namespace hosts
