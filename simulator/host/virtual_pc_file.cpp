#include "virtual_pc_file.h"

#include <fstream>
#include <stdexcept>
#include <string>

namespace {

struct NamedFault {
  const char* name;
  void (*set)(VirtualPcOptions& pc);
};

constexpr std::uint32_t kSlowBytesPerSecond = 120'000;

const NamedFault kFaults[] = {
    {"request-not-heard",
     [](VirtualPcOptions& pc) {
       pc.faults.platform.push_back({"CreateEventW", Occurrence::Always()});
     }},
    {"download-refused",
     [](VirtualPcOptions& pc) { pc.faults.library.calls.push_back(ItemRefused(-1, Occurrence::Always())); }},
    {"download-refused-once",
     [](VirtualPcOptions& pc) { pc.faults.library.calls.push_back(ItemRefused(-1, Occurrence::Times(1))); }},
    {"no-worker",
     [](VirtualPcOptions& pc) {
       pc.faults.platform.push_back({"CreateThread", Occurrence::Always()});
     }},
    {"never-returns", [](VirtualPcOptions& pc) { pc.faults.modem.never_returns = true; }},
    {"slow-modem", [](VirtualPcOptions& pc) { pc.timing.bytes_per_second = kSlowBytesPerSecond; }},
};

constexpr ModemState kStates[] = {ModemState::kNormal, ModemState::kRestarting, ModemState::kFlashPort};

void SetFault(VirtualPcOptions& pc, const std::string& name) {
  for (const NamedFault& fault : kFaults) {
    if (name == fault.name) return fault.set(pc);
  }
  throw std::runtime_error("no such fault: " + name);
}

void SetState(VirtualPcOptions& pc, const std::string& name) {
  for (const ModemState state : kStates) {
    if (name != NameOf(state)) continue;
    pc.initial_state = state;
    return;
  }
  throw std::runtime_error("no such state: " + name);
}

void Take(VirtualPcOptions& pc, const std::string& key, const std::string& value) {
  if (key == "speed") {
    pc.speed = std::stod(value);
  } else if (key == "state") {
    SetState(pc, value);
  } else if (key == "fault") {
    SetFault(pc, value);
  } else {
    throw std::runtime_error("no such key: " + key);
  }
}

}  // namespace

VirtualPcOptions ReadVirtualPcFile(const std::filesystem::path& folder) {
  VirtualPcOptions pc;
  pc.folder = folder;
  std::ifstream file(folder / kVirtualPcFile);
  for (std::string line; std::getline(file, line);) {
    const std::size_t equals = line.find('=');
    Take(pc, line.substr(0, equals), equals == std::string::npos ? "" : line.substr(equals + 1));
  }
  return pc;
}
