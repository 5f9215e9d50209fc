// A whole virtual PC with a modem in it, around the real library: flashes it once, runs the scenarios, or a
// fleet of such PCs.

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "hosts/common/interruption.h"
#include "hosts/common/text.h"
#include "simulator/modem_simulator/command_line.h"
#include "simulator/modem_simulator/display.h"
#include "simulator/modem_simulator/fleet_program.h"
#include "simulator/program/judgement.h"
#include "simulator/program/report.h"
#include "simulator/program/scenarios/scenario_table.h"
#include "simulator/program/session.h"
#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"

namespace simulator {

namespace {

constexpr double kSpeedOfAll = 20;
/// The longest that a run takes in virtual time, and what its preparation takes in real time.
constexpr double kLongestRunSeconds = 3000;
constexpr double kPreparationSeconds = 60;

std::wstring NextKey() {
  static std::atomic<int> count{0};
  return L"Software\\Corvel\\Simulator\\" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
         std::to_wstring(++count);
}

std::chrono::milliseconds RealLimit(double speed) {
  const double seconds = kLongestRunSeconds / speed + kPreparationSeconds;
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

int List(bool json) {
  if (json) {
    auto rows = nlohmann::ordered_json::array();
    for (const Scenario& each : Scenarios()) {
      rows.push_back({{"name", each.name}, {"group", each.group}, {"description", each.description}});
    }
    PrintJson(nlohmann::ordered_json{{"scenarios", rows}});
    return 0;
  }
  for (const std::string& group : ScenarioGroups()) {
    std::cout << group << "\n";
    for (const Scenario& each : Scenarios()) {
      if (group == each.group) std::printf("  %-34s %s\n", each.name, each.description);
    }
    std::fflush(stdout);
  }
  return 0;
}

int MakeImages(const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  if (!MakeDefaultImages(folder / L"modem.fls", folder / L"nvm.fls")) {
    throw std::runtime_error("the images cannot be written");
  }
  return 0;
}

/// Runs the flash or the scenario here, in the work folder.
int RunInPlace(const Command& command) {
  const Scenario* const scenario = command.ChosenScenario();
  SessionPlan plan;
  if (scenario != nullptr) {
    plan.setup = scenario->setup;
    plan.awaited = &scenario->expected;
  } else {
    plan.setup.route = command.route;
  }
  plan.speed = command.speed.value_or(1.0);
  plan.folder = hosts::ProgramFolder();
  plan.key = hosts::ToWide(command.inPlace);

  DisplayStyle style = command.terminal ? DisplayStyle::Terminal : DisplayStyle::Plain;
  if (command.json) style = DisplayStyle::None;
  Display display(style, command.width, std::cout);
  Outcome outcome;
  outcome.route = plan.setup.route;
  outcome.speed = plan.speed;
  outcome.scenario = scenario;
  outcome.session = RunSession(plan, [&display](const Snapshot& now) { display.Show(now); });
  display.Finish();
  if (scenario != nullptr) outcome.differences = Differences(scenario->expected, outcome.session);

  if (command.json) {
    PrintJson(JsonOf(outcome));
  } else {
    std::cout << SummaryOf(outcome) << std::flush;
  }
  return static_cast<int>(outcome.IsGood() ? ExitStatus::Good : ExitStatus::NotGood);
}

std::vector<std::wstring> ArgumentsOf(const Command& command, const std::wstring& key) {
  std::vector<std::wstring> arguments{L"--in-place", key, L"--speed",
                                      std::to_wstring(command.speed.value_or(1.0))};
  if (command.scenario.empty()) {
    arguments.insert(arguments.end(), {L"--route", hosts::ToWide(NameOf(command.route))});
  } else {
    arguments.insert(arguments.end(), {L"--scenario", hosts::ToWide(command.scenario)});
  }
  if (command.json) arguments.emplace_back(L"--json");
  if (command.terminal)
    arguments.insert(arguments.end(), {L"--terminal", L"--width", std::to_wstring(command.width)});
  return arguments;
}

/// What to say of a child that did not end as it should; empty for one that did.
std::string TroubleOf(const ChildResult& child) {
  if (!child.ended) return "the virtual PC did not come to an end and was stopped";
  if (child.exitCode <= static_cast<DWORD>(ExitStatus::CouldNotRun)) return {};
  return "the virtual PC crashed with code " + std::to_string(child.exitCode);
}

/// Ctrl+C while nobody waits for it. The system's own answer is not the same everywhere.
BOOL WINAPI EndByCtrlC(DWORD) {
  ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(ExitStatus::Interrupted));
  return TRUE;
}

int ConcludeInterrupted(const Command& command) {
  if (command.json) {
    PrintJson(JsonOfError("interrupted"));
  } else {
    std::cerr << (command.terminal ? "\n" : "") << "modem_simulator: interrupted" << std::endl;
  }
  return static_cast<int>(ExitStatus::Interrupted);
}

/// Runs one flash or scenario in a process and folder of its own.
int RunOne(const Command& command) {
  const hosts::Interruption interruption;
  WorkFolder folder(command.keep);
  folder.KeepLog();
  if (!command.keep.empty()) folder.KeepAll();
  const std::wstring key = NextKey();
  const ChildResult child = RunChild(folder.Program(), ArgumentsOf(command, key),
                                     RealLimit(command.speed.value_or(1.0)), {}, interruption.Event());
  SessionKey::Remove(key);
  if (child.interrupted) return ConcludeInterrupted(command);
  const std::string trouble = TroubleOf(child);
  if (!trouble.empty()) throw std::runtime_error(trouble + "; debug log in " + NameForPeople(folder.Path()));
  return static_cast<int>(child.exitCode);
}

/// Runs scenarios side by side, each in a process of its own, and tells about each when it is over.
class ScenarioRun {
 public:
  ScenarioRun(const Command& command, std::vector<const Scenario*> scenarios)
      : m_Command(command), m_Scenarios(std::move(scenarios)), m_Results(m_Scenarios.size()) {}

  int Run() {
    std::vector<std::jthread> workers;
    for (unsigned i = 0; i < m_Command.jobs; ++i) workers.emplace_back([this] { Work(); });
    workers.clear();
    if (m_Interrupted) return ConcludeInterrupted(m_Command);
    Report();
    return static_cast<int>(m_Failed == 0 ? ExitStatus::Good : ExitStatus::NotGood);
  }

 private:
  void Work() {
    for (std::size_t i = m_Next++; i < m_Scenarios.size() && !m_Interrupted; i = m_Next++) {
      try {
        m_Results[i] = RunScenario(*m_Scenarios[i]);
      } catch (const std::exception& error) {
        m_Results[i] = JsonOfError(error.what());
        m_Results[i]["scenario"] = m_Scenarios[i]->name;
      }
      if (!m_Interrupted) Tell(m_Results[i]);
    }
  }

  nlohmann::ordered_json RunScenario(const Scenario& scenario) {
    Command one = m_Command;
    one.all = false;
    one.scenario = scenario.name;
    one.json = true;
    one.terminal = false;
    WorkFolder folder(m_Command.keep.empty() ? std::filesystem::path() : m_Command.keep / scenario.name);
    if (!m_Command.keep.empty()) folder.KeepAll();
    const std::wstring key = NextKey();
    const auto output = folder.Path() / L"report.json";
    const ChildResult child = RunChild(folder.Program(), ArgumentsOf(one, key), RealLimit(*one.speed), output,
                                       m_Interruption.Event());
    SessionKey::Remove(key);
    if (child.interrupted) {
      m_Interrupted = true;
      return {};
    }

    std::ifstream file(output);
    auto report = nlohmann::ordered_json::parse(file, nullptr, false);
    const std::string trouble = TroubleOf(child);
    if (!trouble.empty() || report.is_discarded()) {
      report = JsonOfError(trouble.empty() ? "the virtual PC left no report" : trouble);
    }
    // That of the whole stands for it.
    report.erase("version");
    report["scenario"] = scenario.name;
    if (!report.value("good", false) && m_Command.keep.empty()) {
      folder.KeepLog();
      report["debug_log"] = NameForPeople(folder.Path() / L"FlashServiceDebugLogger_DLL.log");
    }
    return report;
  }

  void Tell(const nlohmann::ordered_json& report) {
    const std::lock_guard lock(m_Mutex);
    const bool good = report.value("good", false);
    if (!good) ++m_Failed;
    if (m_Command.json) return;
    std::printf("%-6s %-34s result %-4s attempts %d  resets %d  %6.1f s\n", good ? "ok" : "FAILED",
                report["scenario"].get<std::string>().c_str(), ResultOf(report).c_str(),
                report.value("attempts", 0), report.value("baseband_resets", 0),
                report.value("duration_s", 0.0));
    if (report.contains("error")) std::printf("       %s\n", report["error"].get<std::string>().c_str());
    for (const auto& difference : report.value("differences", std::vector<std::string>{})) {
      std::printf("       %s\n", difference.c_str());
    }
    if (!good) std::printf("       debug log: %s\n", report.value("debug_log", std::string()).c_str());
    std::fflush(stdout);
  }

  static std::string ResultOf(const nlohmann::ordered_json& report) {
    if (!report.contains("result") || report["result"].is_null()) return "none";
    return report["result"].dump();
  }

  void Report() const {
    if (m_Command.json) {
      const nlohmann::ordered_json all{{"good", m_Failed == 0},
                                       {"run", m_Scenarios.size()},
                                       {"failed", m_Failed},
                                       {"scenarios", m_Results}};
      PrintJson(all);
      return;
    }
    std::printf("%zu scenarios, %d failed\n", m_Scenarios.size(), m_Failed);
    std::fflush(stdout);
  }

  const Command& m_Command;
  const std::vector<const Scenario*> m_Scenarios;
  std::vector<nlohmann::ordered_json> m_Results;
  const hosts::Interruption m_Interruption;
  std::atomic<bool> m_Interrupted{false};
  std::atomic<std::size_t> m_Next{0};
  std::mutex m_Mutex;
  int m_Failed = 0;
};

int RunAll(Command command) {
  command.speed = command.speed.value_or(kSpeedOfAll);
  std::vector<const Scenario*> chosen;
  for (const Scenario& each : Scenarios()) {
    if (command.group.empty() || command.group == each.group) chosen.push_back(&each);
  }
  return ScenarioRun(command, std::move(chosen)).Run();
}

int Execute(const Command& command) {
  if (command.list) return List(command.json);
  if (!command.makeImages.empty()) return MakeImages(command.makeImages);
  if (!command.inPlace.empty() && command.pc) RunLifeOf(command);
  if (!command.inPlace.empty()) return RunInPlace(command);
  if (command.fleet > 0 || command.pc) return RunFleet(command);
  return command.all ? RunAll(command) : RunOne(command);
}

}  // namespace

}  // namespace simulator

int main(int count, char** words) try {
  // Lines end as the reader's own do, whichever system reads them.
  ::_setmode(::_fileno(stdout), _O_BINARY);
  ::_setmode(::_fileno(stderr), _O_BINARY);
  ::SetConsoleCtrlHandler(simulator::EndByCtrlC, TRUE);
  simulator::ExitStatus status = simulator::ExitStatus::Good;
  const auto command = simulator::ParseCommandLine(count, words, status);
  if (!command) return static_cast<int>(status);
  return simulator::Execute(*command);
} catch (const std::exception& error) {
  if (simulator::AsksForJson(count, words)) {
    simulator::PrintJson(simulator::JsonOfError(error.what()));
  } else {
    std::cerr << "modem_simulator: " << error.what() << std::endl;
  }
  return static_cast<int>(simulator::ExitStatus::CouldNotRun);
}
