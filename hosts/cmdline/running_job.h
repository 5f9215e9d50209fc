#pragma once

#include <windows.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "hosts/cmdline/followed_log.h"
#include "hosts/common/handshake.h"

namespace hosts {

/// What a job does at a time, by the handshake alone: for people, as a progress line says it.
std::string StageByHandshake(const Handshake& values);

/// A step of a job with its begin and how long it may take.
struct TimedStep {
  flashlog::Milliseconds begin = 0;  ///< local time, as debug logs have it
  flashlog::Milliseconds limit = 0;  ///< 0: it has none

  /// "since 10:00:35, 15 s at most".
  std::string Text() const;
  /// Seconds that are left of the limit, 0 when it is over; nothing without one.
  std::optional<long long> SecondsLeft(flashlog::Milliseconds now) const;
};

/// A job that is going on.
struct RunningJob {
  /// For scripts ("flash_port"; empty when only the handshake tells) and for people.
  std::string stageToken;
  std::string stage;
  int attempt = 1;
  /// How many attempts there may be.
  std::uint64_t mostAttempts = 1;
  std::uint32_t percent = 0;
  /// Without a debug log nobody but the job itself knows them.
  std::optional<TimedStep> stageTimes;
  std::optional<TimedStep> attemptTimes;

  std::string Text() const;
  nlohmann::ordered_json AsJson() const;
};

/// Follows the jobs of a host by its debug log, as it grows, and by the handshake.
class JobFollower {
 public:
  /// @param log that the host writes; it need not be there.
  explicit JobFollower(const std::wstring& log);

  /// @return nothing while no job is running.
  std::optional<RunningJob> Look(const Handshake& values, Writer writer);

 private:
  FollowedLog m_Log;
};

/// The present moment as debug logs would have it.
flashlog::Milliseconds LocalTime();

}  // namespace hosts
