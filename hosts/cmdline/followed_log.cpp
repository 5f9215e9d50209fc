#include "hosts/cmdline/followed_log.h"

#include <optional>

#include "hosts/common/text.h"

namespace hosts {

FollowedLog::FollowedLog(const std::wstring& path)
    : m_Source(ToUtf8(path)), m_Log(ToUtf8(path), std::nullopt) {}

const std::vector<flashlog::Job>& FollowedLog::ReadOn() {
  using Outcome = flashlog::LogSource::Outcome;
  for (;;) {
    switch (m_Source.Read()) {
      case Outcome::Bytes:
        m_Log.Take(m_Source.Bytes());
        break;
      case Outcome::BeganAnew:
        m_Log.Finish(true);
        break;
      case Outcome::Nothing:
      case Outcome::Failed:
        return m_Log.Jobs();
    }
  }
}

}  // namespace hosts
