#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

#include "simulator/program/scenarios/scenario.h"
#include "simulator/program/session.h"

namespace simulator {

/// What a run came to: its report, and how it was asked for.
struct Outcome {
  Route route = Route::Mbim;
  double speed = 1.0;
  const Scenario* scenario = nullptr;  ///< null for a plain flash
  SessionReport session;
  std::vector<std::string> differences;  ///< from what the scenario expects

  /// All that the scenario expects; for a plain flash: the library reports success, and the modem's memory
  /// equals the images.
  bool IsGood() const;
};

std::string SummaryOf(const Outcome& outcome);
nlohmann::ordered_json JsonOf(const Outcome& outcome);
/// What stands in place of a summary when there is none.
nlohmann::ordered_json JsonOfError(const std::string& message);
/// Prints one document on standard output, the version of the simulator's documents first: it grows when a
/// field goes or changes its meaning; new fields may come without.
void PrintJson(const nlohmann::ordered_json& fields);

/// A file's name as the user of this machine knows it: under Wine the one of the system below.
std::string NameForPeople(const std::filesystem::path& path);

}  // namespace simulator
