#pragma once

#include <chrono>
#include <optional>

#include "hosts/common/handshake.h"

namespace hosts {

/// Finds a job in which nothing changes for longer than the library itself would let it: "Time_Out". One
/// thread at a time.
class StallWatch {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// Looks at the handshake. @return true once for each stall.
  bool Look(const Handshake& values, Milliseconds now = AwakeTime());
  /// How long after the last look nothing must have changed for the next one to find a stall; nothing while
  /// there is none to be found.
  std::optional<Milliseconds> Left() const { return m_Left; }

  /// Time since the PC was started, without that of its sleep: in its sleep no job can go on.
  static Milliseconds AwakeTime();

 private:
  struct Seen {
    Handshake values;
    Milliseconds since;
  };

  /// Nothing while no job is open.
  std::optional<Seen> m_Seen;
  std::optional<Milliseconds> m_Left;
  bool m_Told = false;
};

}  // namespace hosts
