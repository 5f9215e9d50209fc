#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "simulator/program/scenarios/scenario.h"
#include "simulator/virtual_pc_options.h"

namespace simulator {

/// Numbers that look like chance and are the same everywhere for the same seed.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : m_State(seed) {}
  std::uint64_t Throw();
  /// From `first` to `last`, both included.
  int Between(int first, int last);
  std::chrono::milliseconds Seconds(int first, int last) {
    return std::chrono::seconds(Between(first, last));
  }
  /// How many times a thing goes wrong, from its first time on.
  Occurrence AFew() { return Occurrence::Times(Between(1, 3)); }

 private:
  std::uint64_t m_State;
};

/// The host's process ends in the middle of a job.
struct Interruption {
  enum class Kind {
    Kill,     ///< the process alone: the modem goes on
    PowerCut  ///< of the PC: the modem begins anew with what its memory holds
  };
  Kind kind = Kind::Kill;
  unsigned atCall = 1;  ///< call of the system, counted from the request on
  /// A modem that was cut off while it was written shows its flash port; otherwise it is away until it is
  /// reset.
  bool modemShowsFlashPort = true;
};

/// One PC of a fleet: what it is like, what is wrong with it, and what happens to it.
struct PcPlan {
  Route route = Route::Mbim;
  ImageSet images = ImageSet::NvmOnly;
  VirtualPcOptions pc;  ///< faults, timing, Mobile Broadband service; all else is filled in later
  std::vector<Interruption> interruptions;
  /// Names of the rows of the distribution that it has drawn.
  std::vector<std::string> drawn;
};

/// A row of the distribution: of ten thousand PCs that many have it.
struct FaultRate {
  const char* name;
  int perTenThousand;
  void (*put)(PcPlan& plan, Dice& dice);
};
std::span<const FaultRate> FaultRates();

/// The same for the same seed and number, whatever else is in the fleet.
PcPlan PlanOf(std::uint64_t seed, unsigned pc);

}  // namespace simulator
