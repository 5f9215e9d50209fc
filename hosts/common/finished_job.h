#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "hosts/common/handshake.h"

namespace hosts {

/// A flash that has come to its end, in whichever way.
struct FinishedJob {
  bool flashed = false;
  std::uint32_t result = 0;    ///< Flash_Result
  std::uint32_t progress = 0;  ///< percentage of the images that were written
  long long seconds = 0;       ///< from the request to the end

  /// In words, for people.
  std::string Text() const;
};

/// Follows the handshake from look to look and finds the ends of jobs. One thread at a time.
class JobWatch {
 public:
  /// @return the job that has ended since the look before. Each job is found once, also one that began and
  /// ended between two looks, provided that it did not end as the one before it.
  std::optional<FinishedJob> Look(
      const Handshake& values, std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

 private:
  /// What stood there at a look.
  struct Seen {
    std::chrono::steady_clock::time_point at;
    std::optional<std::uint32_t> result;
  };

  /// When the running job began; nothing while none is running.
  std::optional<std::chrono::steady_clock::time_point> m_Begin;
  /// Nothing before the first look.
  std::optional<Seen> m_Last;
};

}  // namespace hosts
