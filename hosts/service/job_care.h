#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "hosts/common/handshake.h"
#include "hosts/common/power.h"
#include "hosts/common/stall_watch.h"
#include "hosts/service/name_watch.h"

namespace hosts {

/// What a host that serves does around the jobs of its library: keeps the PC awake while one is open, looks
/// after the names that the library shares with everybody, and finds a job that stands still. All of it is
/// left in the event log. For one thread.
class JobCare {
 public:
  struct News {
    /// In words for a terminal.
    std::vector<std::string> texts;
    bool standsStill = false;
  };

  News Look(const HandshakeKey& key, const Handshake& values);
  /// When to look again if nothing else gives cause to.
  DWORD PeriodMs() const;

 private:
  void KeepAwake(bool isJobOpen, News& news);
  void LookForStall(const HandshakeKey& key, const Handshake& values, News& news);

  NameWatch m_Names;
  std::optional<StayAwake> m_Awake;
  StallWatch m_Stalls;
};

}  // namespace hosts
