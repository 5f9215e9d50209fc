#include "simulator/program/scenarios/scenario.h"

namespace simulator {

const char* NameOf(Route route) {
  switch (route) {
    case Route::Mbim:
      return "mbim";
    case Route::At:
      return "at";
    case Route::Bbrst:
      return "bbrst";
    case Route::FlashPort:
      return "flash-port";
  }
  return "";
}

const char* NameOf(Memory memory) {
  switch (memory) {
    case Memory::Untouched:
      return "untouched";
    case Memory::Incomplete:
      return "incomplete";
    case Memory::Equal:
      return "equal to the images";
  }
  return "";
}

const char* LogText::LevelWord() const {
  switch (m_Level) {
    case Level::Trace:
      return "Trace";
    case Level::Warning:
      return "Warning";
    case Level::Error:
      return "Error";
  }
  return "";
}

Memory MemoryAfter(VirtualModem& modem, const MemoryComparison& comparison) {
  if (comparison.equal) return Memory::Equal;
  return modem.IsErased() ? Memory::Untouched : Memory::Incomplete;
}

VirtualPcOptions PcOptions(const Setup& setup, double speed, const std::filesystem::path& folder) {
  VirtualPcOptions pc;
  pc.speed = speed;
  if (speed > 1) pc.pace = Pace::Elastic;
  pc.folder = folder;
  if (setup.route == Route::Bbrst) pc.initialState = ModemState::Restarting;
  if (setup.route == Route::FlashPort) pc.initialState = ModemState::FlashPort;
  if (setup.faults != nullptr) setup.faults(pc);
  return pc;
}

std::optional<Route> RouteOfName(std::string_view name) {
  for (const Route route : kRoutes) {
    if (name == NameOf(route)) return route;
  }
  return std::nullopt;
}

}  // namespace simulator
