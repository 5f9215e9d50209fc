// Shows the command-line host flash a modem: corvel_cmdline.exe in a virtual PC, and after it the modem's
// memory compared with the images, byte for byte.

#include <fcntl.h>
#include <io.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hosts/common/interruption.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "simulator/host/command_line_table.h"
#include "simulator/program/exit_status.h"
#include "simulator/program/judgement.h"
#include "simulator/program/report.h"
#include "simulator/program/scenarios/scenario_table.h"

namespace simulator {

namespace {

constexpr char kFooter[] =
    "Exit status: 0 the host's exit status is 0 and the modem's memory equals the images, or all\n"
    "expectations of the scenario hold; 1 not so; 2 wrong usage; 3 it could not be run; 130 ended by Ctrl+C.";
constexpr double kSlowest = 0.1;
constexpr double kFastest = 1000;
/// What the host says when Ctrl+C has ended it. Without a time limit it says so for no other reason.
constexpr unsigned long kHostInterrupted = 5;

struct RunOptions {
  std::string route = NameOf(Route::Mbim);
  std::string scenario;
  double speed = 1.0;
  std::string folder;
  bool json = false;
};

void AddOptions(CLI::App& program, RunOptions& options) {
  std::vector<std::string> routes;
  routes.reserve(std::size(kRoutes));
  for (const Route each : kRoutes) routes.emplace_back(NameOf(each));
  CLI::Option* const scenario =
      program
          .add_option("--scenario", options.scenario,
                      "One of the things that can go wrong, with what the command line makes of it checked")
          ->check(WhyNoScenario);
  program.add_option("--route", options.route, "How the modem gets into flash mode")
      ->check(CLI::IsMember(routes))
      ->excludes(scenario)
      ->capture_default_str();
  program.add_option("--speed", options.speed, "How many times as fast as real time the virtual PC runs")
      ->check(CLI::Range(kSlowest, kFastest))
      ->capture_default_str();
  program.add_option("--keep", options.folder, "Folder of the run; it is emptied first")
      ->default_str("cmdline_simulator beside the program");
  program.add_flag("--json", options.json, "Print one JSON document, with the host's own in it");
}

CommandLinePlan PlanOf(const RunOptions& options, const Scenario* scenario) {
  CommandLinePlan plan;
  if (scenario != nullptr) {
    plan.setup = scenario->setup;
    plan.scenario = scenario->name;
  } else {
    plan.setup.route = *RouteOfName(options.route);
  }
  plan.speed = options.speed;
  plan.folder = std::filesystem::absolute(
      options.folder.empty() ? std::filesystem::path(hosts::ProgramFolder()) / L"cmdline_simulator"
                             : std::filesystem::path(hosts::ToWide(options.folder)));
  if (options.json) {
    plan.options = {L"--json", L"--quiet"};
    plan.output = plan.folder / L"corvel_cmdline.json";
  }
  return plan;
}

/// The summary, with what the host itself printed in it.
nlohmann::ordered_json JsonOf(const Outcome& outcome, unsigned long exitCode, bool good,
                              const CommandLinePlan& plan) {
  nlohmann::ordered_json json = JsonOf(outcome);
  json["good"] = good;
  json["exit_code"] = exitCode;
  const auto own = nlohmann::ordered_json::parse(std::ifstream(plan.output), nullptr, false);
  json["corvel_cmdline"] = own.is_discarded() ? nullptr : own;
  return json;
}

ExitStatus Flash(const RunOptions& options) {
  const Scenario* const scenario = options.scenario.empty() ? nullptr : FindScenario(options.scenario);
  const CommandLinePlan plan = PlanOf(options, scenario);
  // Ctrl+C is for the host to answer, which has the same console.
  const hosts::Interruption unheard;
  const CommandLineReport report = FlashByCommandLine(plan);
  Outcome outcome{.route = plan.setup.route,
                  .speed = options.speed,
                  .scenario = scenario,
                  .session = report.session,
                  .differences = {}};
  unsigned long expectedExitCode = 0;
  if (scenario != nullptr) {
    const CommandLineExpectation all = ExpectedOfCommandLine(*scenario, plan.asker);
    expectedExitCode = all.exitCode;
    outcome.differences = Differences(all.expected, report.session);
  }
  const bool good = outcome.IsGood() && report.exitCode == expectedExitCode;
  if (options.json) {
    PrintJson(JsonOf(outcome, report.exitCode, good, plan));
  } else {
    std::cout << "\n"
              << SummaryOf(outcome) << "  exit status    " << report.exitCode << " of corvel_cmdline"
              << (report.exitCode == expectedExitCode ? "" : ", which is NOT EXPECTED") << std::endl;
  }
  if (report.exitCode == kHostInterrupted) return ExitStatus::Interrupted;
  return good ? ExitStatus::Good : ExitStatus::NotGood;
}

ExitStatus Run(std::vector<std::string> words) {
  CLI::App program{"Flashes a simulated modem with corvel_cmdline.exe, in a virtual PC."};
  program.name("cmdline_simulator");
  program.set_version_flag("--version", std::string("cmdline_simulator ") + CORVEL_VERSION);
  program.footer(kFooter);
  RunOptions options;
  AddOptions(program, options);
  const bool json = std::ranges::find(words, "--json") != words.end();
  try {
    // The parser takes them from the back.
    std::ranges::reverse(words);
    program.parse(std::move(words));
    return Flash(options);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0 && json) {
      PrintJson(JsonOfError(error.what()));
      return ExitStatus::WrongUsage;
    }
    return program.exit(error) == 0 ? ExitStatus::Good : ExitStatus::WrongUsage;
  } catch (const std::exception& error) {
    if (json) {
      PrintJson(JsonOfError(error.what()));
    } else {
      std::cerr << "cmdline_simulator: " << error.what() << std::endl;
    }
    return ExitStatus::CouldNotRun;
  }
}

}  // namespace

}  // namespace simulator

int main() try {
  // Lines end as the reader's own do, whichever system reads them.
  ::_setmode(::_fileno(stdout), _O_BINARY);
  ::_setmode(::_fileno(stderr), _O_BINARY);
  return static_cast<int>(simulator::Run(hosts::CommandLineWords()));
} catch (const std::exception& error) {
  std::cerr << "cmdline_simulator: " << error.what() << std::endl;
  return static_cast<int>(simulator::ExitStatus::CouldNotRun);
}
