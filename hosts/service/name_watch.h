#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "hosts/common/handshake.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/shared_names.h"

namespace hosts {

/// Looks after the names that the library shares with everybody, for a host that serves: keeps the event, and
/// tells the event log and the other hosts of a name that another program has taken. For one thread.
class NameWatch {
 public:
  NameWatch() { m_TakenEvent = m_Event.Take(); }

  /// Looks again and leaves word of what has changed.
  /// @return what is new, in words for a terminal; empty when nothing is.
  std::vector<std::string> Look(const HandshakeKey& key, const Handshake& values);
  /// Whether the library hears of no request, by the last look.
  bool KeepsRequestsUnheard() const { return m_TakenEvent.has_value(); }
  /// When to look again if nothing else gives cause to.
  DWORD PeriodMs() const;

 private:
  std::vector<TakenName> TakenNames() const;

  HeldRequestEvent m_Event;
  std::optional<TakenName> m_TakenEvent;
  std::optional<TakenName> m_TakenSemaphore;
  /// What was told last.
  std::vector<TakenName> m_Told;
  std::optional<HinderedNotice> m_Notice;
};

}  // namespace hosts
