#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "exit_status.h"
#include "scenario.h"

/// What the program is asked to do.
struct Command {
  bool list = false;
  bool all = false;
  std::string group;  ///< with all: only this one
  std::string scenario;
  Route route = Route::kMbim;
  std::optional<double> speed;
  bool json = false;
  std::filesystem::path make_images;
  std::filesystem::path keep;
  unsigned jobs = 4;
  bool terminal = false;
  int width = 80;
  /// In its own work folder already: the registry key to use. Empty: not there yet.
  std::string in_place;

  const Scenario* ChosenScenario() const { return scenario.empty() ? nullptr : FindScenario(scenario); }
};

/// @return the command, or the exit status when the command line says all (help, version, wrong usage).
std::optional<Command> ParseCommandLine(int count, char** words, ExitStatus& status);
/// Whether the words ask for JSON, even if they are wrong otherwise.
bool AsksForJson(int count, char** words);
