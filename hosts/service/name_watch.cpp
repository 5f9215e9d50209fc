#include "hosts/service/name_watch.h"

#include <algorithm>
#include <cwctype>
#include <utility>

#include "hosts/common/event_log.h"
#include "hosts/common/text.h"
#include "messages.h"

namespace hosts {

namespace {

/// As long as the library itself pauses before it tries again.
constexpr DWORD kLookAgainMs = 5000;

std::string AsSentences(const TakenName& name) {
  std::string message = name.Message();
  message.front() = static_cast<char>(std::towupper(static_cast<wint_t>(message.front())));
  return message + ". " + AdviceOnTakenNames();
}

}  // namespace

std::vector<std::string> NameWatch::Look(const HandshakeKey& key, const Handshake& values) {
  m_TakenEvent = m_Event.Take();
  // Between two jobs nobody searches a port.
  if (!values.IsJobRunning()) {
    m_TakenSemaphore = LookAtSemaphore(kPortSemaphoreName, PortSearch::IsNotRunning);
  }
  const std::vector<TakenName> before = std::exchange(m_Told, TakenNames());
  std::vector<std::string> news;
  for (const TakenName& name : m_Told) {
    if (std::ranges::find(before, name) != before.end()) continue;
    news.push_back(AsSentences(name));
    WriteEvent(MSG_NAME_TAKEN, ToWide(news.back()));
  }
  if (m_Told.empty()) {
    m_Notice.reset();
    if (!before.empty()) WriteEvent(MSG_NAMES_FREE);
  } else if (!m_Notice) {
    m_Notice.emplace(key);
  }
  return news;
}

DWORD NameWatch::PeriodMs() const {
  return m_Told.empty() ? INFINITE : kLookAgainMs;
}

std::vector<TakenName> NameWatch::TakenNames() const {
  std::vector<TakenName> taken;
  if (m_TakenEvent) taken.push_back(*m_TakenEvent);
  if (m_TakenSemaphore) taken.push_back(*m_TakenSemaphore);
  return taken;
}

}  // namespace hosts
