#pragma once

#include <vector>

#include "simulator/program/scenarios/scenario.h"

// The groups of scenarios, a file each. What is expected of them follows from how the library is meant to
// work, not from a run of it.
namespace simulator {

const std::vector<Scenario>& Routes();
const std::vector<Scenario>& Downloads();
const std::vector<Scenario>& Hangs();
const std::vector<Scenario>& Boots();
const std::vector<Scenario>& Ports();
const std::vector<Scenario>& Writes();
const std::vector<Scenario>& Progresses();
const std::vector<Scenario>& Resets();
const std::vector<Scenario>& Returns();
const std::vector<Scenario>& Images();
const std::vector<Scenario>& Libraries();
const std::vector<Scenario>& Drivers();
const std::vector<Scenario>& MobileBroadbands();
const std::vector<Scenario>& AtPorts();
const std::vector<Scenario>& Configurations();

}  // namespace simulator
