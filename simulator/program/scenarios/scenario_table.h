#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "simulator/program/scenarios/scenario.h"

// Everything that can happen to a flash: the rows of all groups.
namespace simulator {

const std::vector<Scenario>& Scenarios();
const Scenario* FindScenario(std::string_view name);
/// The answer for somebody who asks for a scenario of this name; empty when there is one.
std::string WhyNoScenario(const std::string& name);
/// Groups in the order of the table.
std::vector<std::string> ScenarioGroups();

}  // namespace simulator
