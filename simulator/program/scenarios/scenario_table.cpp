#include "simulator/program/scenarios/scenario_table.h"

#include <algorithm>

#include "simulator/program/scenarios/groups.h"

namespace simulator {

const std::vector<Scenario>& Scenarios() {
  static const std::vector<Scenario> all = [] {
    std::vector<Scenario> rows;
    for (const auto* group : {&Routes(), &Downloads(), &Hangs(), &Boots(), &Ports(), &Writes(), &Progresses(),
                              &Resets(), &Returns(), &Images(), &Libraries(), &Drivers(), &MobileBroadbands(),
                              &AtPorts(), &Configurations()}) {
      rows.insert(rows.end(), group->begin(), group->end());
    }
    return rows;
  }();
  return all;
}

const Scenario* FindScenario(std::string_view name) {
  const auto& all = Scenarios();
  const auto found =
      std::ranges::find(all, name, [](const Scenario& each) { return std::string_view(each.name); });
  return found == all.end() ? nullptr : &*found;
}

std::string WhyNoScenario(const std::string& name) {
  if (FindScenario(name) != nullptr) return {};
  // The word after an option without a value is the next option.
  if (name.empty() || name.front() == '-') return "the name of a scenario is missing; --list shows them";
  return "no scenario is called " + name + "; --list shows them";
}

std::vector<std::string> ScenarioGroups() {
  std::vector<std::string> groups;
  for (const Scenario& each : Scenarios()) {
    if (std::ranges::find(groups, each.group) == groups.end()) groups.emplace_back(each.group);
  }
  return groups;
}

}  // namespace simulator
