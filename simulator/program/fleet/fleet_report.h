#pragma once

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "simulator/program/fleet/fleet.h"

namespace simulator {

/// What has become of a fleet so far.
class FleetTally {
 public:
  FleetTally(std::uint64_t seed, unsigned size) : m_Seed(seed), m_Size(size) {}

  void Add(const PcStory& story);

  /// Nobody is lost, and nothing has happened that may not.
  bool IsGood() const { return m_Lost.empty() && m_Troubles.empty(); }
  unsigned Done() const { return m_Done; }
  unsigned Size() const { return m_Size; }
  unsigned Lost() const { return static_cast<unsigned>(m_Lost.size()); }
  unsigned AtFirstAttempt() const;

  /// The table that can be watched while it grows: lines of about the same number and width.
  std::string Table(std::chrono::milliseconds elapsed) const;
  /// The table, and all that only the end tells.
  std::string Report(std::chrono::milliseconds elapsed, unsigned processes) const;
  nlohmann::ordered_json Json(std::chrono::milliseconds elapsed, unsigned processes, double speed) const;
  /// Durations of the requests as a picture. @return false when it cannot be written.
  bool DrawHistogram(const std::filesystem::path& file) const;

 private:
  /// Why a PC is in trouble or lost, and how it is run again alone.
  struct Case {
    unsigned pc;
    std::string what;
  };
  struct FaultCount {
    unsigned drawn = 0;
    unsigned flashedByFirstRequest = 0;
  };

  std::string Command(unsigned pc) const;
  double RealSecondsOfOne() const;

  const std::uint64_t m_Seed;
  const unsigned m_Size;
  unsigned m_Done = 0;
  std::int64_t m_RealMs = 0;
  unsigned m_Kills = 0;
  unsigned m_PowerCuts = 0;
  unsigned m_Standing = 0;
  std::map<std::string, unsigned> m_Ways;
  std::map<std::string, unsigned> m_Failures;
  std::map<std::string, FaultCount> m_Faults;
  std::vector<Case> m_Lost;
  std::vector<Case> m_Troubles;
  /// Of requests, in virtual milliseconds.
  std::vector<std::int64_t> m_Flashed;
  std::vector<std::int64_t> m_Failed;
};

/// What a single PC went through, for people.
std::string StoryOf(const PcStory& story);

}  // namespace simulator
