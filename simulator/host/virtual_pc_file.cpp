#include "simulator/host/virtual_pc_file.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "simulator/program/scenarios/scenario_table.h"

namespace simulator {

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
    {"no-worker",
     [](VirtualPcOptions& pc) {
       pc.faults.platform.push_back({"CreateThread", Occurrence::Always()});
     }},
    {"folder-breaks-off",
     [](VirtualPcOptions& pc) {
       pc.faults.platform.push_back({"FindNextFileW", Occurrence::Always(), ERROR_READ_FAULT});
     }},
    {"slow-modem", [](VirtualPcOptions& pc) { pc.timing.bytesPerSecond = kSlowBytesPerSecond; }},
};

constexpr char kServiceStarts[] = "service-starts";
constexpr char kWatchFails[] = "watch-fails";
constexpr char kNameTaken[] = "name-taken";
constexpr char kBattery[] = "battery";
constexpr char kPowerRefused[] = "power-refused";
constexpr char kNoShortNames[] = "no-short-names";
/// What others take from the file.
constexpr const char* kForOthers[] = {kServiceStarts, kWatchFails,           kNameTaken,
                                      kBattery,       kPowerRefused,         kNoShortNames,
                                      kCallFails,     kCallFailsAfterEffect, kTellCalls};

constexpr ModemState kStates[] = {ModemState::Normal,      ModemState::Leaving, ModemState::Restarting,
                                  ModemState::FlashPort,   ModemState::Booted,  ModemState::Writing,
                                  ModemState::ChannelOpen, ModemState::Dead,    ModemState::Returning};

using Lines = std::vector<std::pair<std::string, std::string>>;

Lines ReadLines(const std::filesystem::path& path) {
  Lines lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const std::size_t equals = line.find('=');
    lines.emplace_back(line.substr(0, equals), equals == std::string::npos ? "" : line.substr(equals + 1));
  }
  return lines;
}

ModemState StateOf(const std::string& name) {
  for (const ModemState state : kStates) {
    if (name == NameOf(state)) return state;
  }
  throw std::runtime_error("no such state: " + name);
}

const NamedFault& FaultOf(const std::string& name) {
  for (const NamedFault& fault : kFaults) {
    if (name == fault.name) return fault;
  }
  throw std::runtime_error("no such fault: " + name);
}

Setup SetupOf(const std::string& name) {
  const Scenario* const scenario = FindScenario(name);
  if (scenario == nullptr) throw std::runtime_error("no such scenario: " + name);
  return scenario->setup;
}

}  // namespace

HostFaults ReadHostFaults(const std::filesystem::path& folder) {
  HostFaults faults;
  for (const auto& [key, value] : ReadLines(folder / kVirtualPcFile)) {
    if (key == kServiceStarts) faults.serviceStartsAt = std::stoi(value);
    if (key == kWatchFails) faults.watchFails = true;
    if (key == kNameTaken) faults.nameTaken.assign(value.begin(), value.end());
    if (key == kBattery) faults.battery = value;
    if (key == kPowerRefused) faults.powerRefused = true;
    if (key == kNoShortNames) faults.noShortNames = true;
  }
  return faults;
}

CallsOfLibrary ReadCallsOfLibrary(const std::filesystem::path& folder) {
  CallsOfLibrary calls;
  for (const auto& [key, value] : ReadLines(folder / kVirtualPcFile)) {
    if (key == kTellCalls) calls.areTold = true;
    if (key != kCallFails && key != kCallFailsAfterEffect) continue;
    CallFault fault;
    int number = 0;
    if (!(std::istringstream(value) >> fault.function >> number))
      throw std::runtime_error("no such call: " + value);
    fault.calls = Occurrence::Only(number);
    if (key == kCallFailsAfterEffect) fault.way = CallFault::Way::RefusedAfterEffect;
    calls.faults.push_back(fault);
  }
  return calls;
}

VirtualPcOptions ReadVirtualPcFile(const std::filesystem::path& folder) {
  Setup setup;
  double speed = 1.0;
  std::optional<ModemState> state;
  std::vector<NamedFault> faults;
  for (const auto& [key, value] : ReadLines(folder / kVirtualPcFile)) {
    if (key == "scenario") {
      setup = SetupOf(value);
    } else if (key == "speed") {
      speed = std::stod(value);
    } else if (key == "state") {
      state = StateOf(value);
    } else if (key == "fault") {
      faults.push_back(FaultOf(value));
    } else if (std::ranges::find(kForOthers, key) != std::end(kForOthers)) {
      // ReadHostFaults and ReadCallsOfLibrary take these.
    } else {
      throw std::runtime_error("no such key: " + key);
    }
  }
  VirtualPcOptions pc = PcOptions(setup, speed, folder);
  pc.initialState = state.value_or(pc.initialState);
  for (const NamedFault& fault : faults) fault.set(pc);
  return pc;
}

void WriteVirtualPcEnd(const std::filesystem::path& folder, const VirtualPcEnd& end) {
  std::ofstream(folder / kVirtualPcEndFile)
      << "modem=" << NameOf(end.modem) << "\nresets=" << end.resets << "\nmbim_reboots=" << end.mbimReboots
      << "\nat_commands=" << end.atCommands << "\npower_requests=" << end.powerRequests
      << "\nkept_awake=" << end.keptAwake << "\nitems_written=" << end.itemsWritten
      << "\nbytes_written=" << end.bytesWritten << "\nhits=" << end.hits
      << "\nelapsed_ms=" << end.elapsed.count() << "\n";
}

std::optional<VirtualPcEnd> ReadVirtualPcEnd(const std::filesystem::path& folder) {
  std::map<std::string, std::string> values;
  for (auto& [key, value] : ReadLines(folder / kVirtualPcEndFile)) values[key] = value;
  if (values.empty()) return std::nullopt;
  return VirtualPcEnd{
      .modem = StateOf(values["modem"]),
      .resets = std::stoi(values["resets"]),
      .mbimReboots = std::stoi(values["mbim_reboots"]),
      .atCommands = std::stoi(values["at_commands"]),
      .powerRequests = std::stoi(values["power_requests"]),
      .keptAwake = values["kept_awake"] == "1",
      .itemsWritten = static_cast<std::uint32_t>(std::stoul(values["items_written"])),
      .bytesWritten = std::stoull(values["bytes_written"]),
      .hits = static_cast<unsigned>(std::stoul(values["hits"])),
      .elapsed = std::chrono::milliseconds(std::stoll(values["elapsed_ms"])),
  };
}

void WriteToldCalls(const std::filesystem::path& folder, std::span<const MadeCall> calls) {
  std::ofstream file(folder / kToldCallsFile);
  for (const MadeCall& call : calls)
    file << call.function << ' ' << call.number << ' ' << call.place << ' ' << call.stage << '\n';
}

std::vector<MadeCall> ReadToldCalls(const std::filesystem::path& folder) {
  std::vector<MadeCall> calls;
  std::ifstream file(folder / kToldCallsFile);
  for (MadeCall call; file >> call.function >> call.number >> call.place >> call.stage;)
    calls.push_back(call);
  return calls;
}

}  // namespace simulator
