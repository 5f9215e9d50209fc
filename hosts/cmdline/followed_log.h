#pragma once

#include <string>
#include <vector>

#include "hosts/flashlog/log.h"
#include "hosts/flashlog/log_source.h"

namespace hosts {

/// The flashes of a debug log that a host may still be writing to.
class FollowedLog {
 public:
  /// @param path of the log, which need not be there.
  explicit FollowedLog(const std::wstring& path);

  /// Reads what has come since the last time. @return all flashes so far, the newest last.
  const std::vector<flashlog::Job>& ReadOn();

 private:
  flashlog::LogSource m_Source;
  flashlog::Log m_Log;
};

}  // namespace hosts
