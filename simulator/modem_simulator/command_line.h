#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "simulator/program/exit_status.h"
#include "simulator/program/scenarios/scenario.h"
#include "simulator/program/scenarios/scenario_table.h"

namespace simulator {

/// What the program is asked to do.
struct Command {
  bool list = false;
  bool all = false;
  std::string group;  ///< with all: only this one
  std::string scenario;
  Route route = Route::Mbim;
  std::optional<double> speed;
  bool json = false;
  std::filesystem::path makeImages;
  std::filesystem::path keep;
  unsigned jobs = 4;
  bool terminal = false;
  int width = 80;
  unsigned fleet = 0;          ///< number of PCs
  std::optional<unsigned> pc;  ///< this one of the fleet alone
  std::uint64_t seed = 1;
  unsigned processes = 0;  ///< 0: two per processor
  std::filesystem::path histogram;
  unsigned interruptions = 0;  ///< of a PC's process: how many came before
  bool repaired = false;       ///< of a PC's process: nothing is wrong any more
  int requests = 1;            ///< of a PC's process: how many it makes
  /// In its own work folder already: the registry key to use. Empty: not there yet.
  std::string inPlace;

  const Scenario* ChosenScenario() const { return scenario.empty() ? nullptr : FindScenario(scenario); }
};

/// @return the command, or the exit status when the command line says all (help, version, wrong usage).
std::optional<Command> ParseCommandLine(int count, char** words, ExitStatus& status);
/// Whether the words ask for JSON, even if they are wrong otherwise.
bool AsksForJson(int count, char** words);

}  // namespace simulator
