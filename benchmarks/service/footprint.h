#pragma once

#include <cstdint>

namespace benchmarks {

/// What this process has taken so far.
struct Footprint {
  double processorNanoseconds = 0;
  /// How often a thread was given the processor, apart from the one that asks.
  std::uint64_t wakeUps = 0;
  /// At present.
  std::uint64_t privateBytes = 0;
};
/// Throws when the system does not tell.
Footprint FootprintOfThisProcess();

}  // namespace benchmarks
