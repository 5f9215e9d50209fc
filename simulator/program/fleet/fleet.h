#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "simulator/program/fleet/pc_life.h"
#include "simulator/program/fleet/pc_plan.h"

namespace simulator {

/// What a PC of the fleet went through.
struct PcStory {
  unsigned pc = 0;
  PcPlan plan;
  std::vector<RequestEnd> requests;
  unsigned kills = 0;
  unsigned powerCuts = 0;
  /// What may not happen at all, in words: a process that crashed or came to no end, a success that is none.
  std::string trouble;
  std::chrono::milliseconds realDuration{0};

  /// Its modem runs with the images of its last request.
  bool IsFlashed() const;
  bool IsGood() const { return IsFlashed() && trouble.empty(); }
};

struct FleetOrder {
  std::uint64_t seed = 0;
  unsigned first = 0;  ///< number of the first PC
  unsigned count = 0;
  unsigned processes = 1;
  double speed = 1.0;
  /// Where a single PC leaves its log and what else it has; empty: nowhere.
  std::filesystem::path keep;
};

/// Runs the PCs of a fleet, several at a time, each in processes, a folder and a registry key of its own.
class Fleet {
 public:
  /// @param interruption an event that stops everything, or null.
  Fleet(FleetOrder order, void* interruption) : m_Order(std::move(order)), m_Interruption(interruption) {}

  /// @param tell called after each PC, one call at a time. @return false when it was interrupted.
  bool Run(const std::function<void(PcStory)>& tell);

 private:
  void Work();

  const FleetOrder m_Order;
  void* const m_Interruption;
  const std::function<void(PcStory)>* m_Tell = nullptr;
  std::mutex m_Telling;
  std::atomic<unsigned> m_Next{0};
  std::atomic<bool> m_IsInterrupted{false};
  std::atomic<bool> m_HasFailed{false};
  std::string m_Failure;
};

}  // namespace simulator
