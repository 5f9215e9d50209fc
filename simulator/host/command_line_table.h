#pragma once

#include <string>
#include <vector>

#include "simulator/host/command_line_run.h"
#include "simulator/program/scenarios/scenario.h"

namespace simulator {

/// The outcome that a scenario must have when the command line runs it.
struct CommandLineExpectation {
  unsigned long exitCode = 0;
  Expectation expected;
  /// Why it is not the service's outcome; empty where only the texts differ.
  std::string reason;
};

/// The service's outcome of the scenario with the differences of the command line.
CommandLineExpectation ExpectedOfCommandLine(const Scenario& scenario, Asker asker);
/// Scenarios that the host refuses before it asks for anything, and whose images a controlling program may
/// bring later all the same.
std::vector<const Scenario*> ScenariosOfController();
/// Names in the table that no scenario has.
std::vector<std::string> StrayNamesOfCommandLine();

}  // namespace simulator
