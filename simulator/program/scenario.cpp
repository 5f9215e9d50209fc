#include "scenario.h"

#include <algorithm>

const char* NameOf(Route route) {
  switch (route) {
    case Route::kMbim:
      return "mbim";
    case Route::kAt:
      return "at";
    case Route::kBbrst:
      return "bbrst";
    case Route::kFlashPort:
      return "flash-port";
  }
  return "";
}

const char* NameOf(Memory memory) {
  switch (memory) {
    case Memory::kUntouched:
      return "untouched";
    case Memory::kIncomplete:
      return "incomplete";
    case Memory::kEqual:
      return "equal to the images";
  }
  return "";
}

const char* LogText::LevelWord() const {
  switch (m_level) {
    case Level::kTrace:
      return "Trace";
    case Level::kWarning:
      return "Warning";
    case Level::kError:
      return "Error";
  }
  return "";
}

Memory MemoryAfter(VirtualModem& modem, const MemoryComparison& comparison) {
  if (comparison.equal) return Memory::kEqual;
  return modem.IsErased() ? Memory::kUntouched : Memory::kIncomplete;
}

VirtualPcOptions PcOptions(const Setup& setup, double speed, const std::filesystem::path& folder) {
  VirtualPcOptions pc;
  pc.speed = speed;
  if (speed > 1) pc.pace = Pace::kElastic;
  pc.folder = folder;
  if (setup.route == Route::kBbrst) pc.initial_state = ModemState::kRestarting;
  if (setup.route == Route::kFlashPort) pc.initial_state = ModemState::kFlashPort;
  if (setup.faults != nullptr) setup.faults(pc);
  return pc;
}

std::optional<Route> RouteOfName(std::string_view name) {
  for (const Route route : kRoutes) {
    if (name == NameOf(route)) return route;
  }
  return std::nullopt;
}

const Scenario* FindScenario(std::string_view name) {
  const auto& all = Scenarios();
  const auto found =
      std::ranges::find(all, name, [](const Scenario& each) { return std::string_view(each.name); });
  return found == all.end() ? nullptr : &*found;
}

std::string WhyNoScenario(const std::string& name) {
  if (FindScenario(name) != nullptr) return {};
  // The word behind an option without a value is the next option.
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
