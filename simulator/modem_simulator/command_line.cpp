#include "simulator/modem_simulator/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "hosts/common/text.h"
#include "simulator/program/report.h"
#include "simulator/program/scenarios/scenario_table.h"

namespace simulator {

namespace {

constexpr char kFooter[] =
    "Exit status: 0 flashed and the modem's memory equals the images, or all expectations of the\n"
    "scenarios hold, or no PC of the fleet is lost; 1 not so; 2 wrong usage; 3 the virtual PC could not run; "
    "130 ended by Ctrl+C.";
constexpr double kSlowest = 0.1;
constexpr double kFastest = 1000;

void AddFleetOptions(CLI::App& program, Command& command, std::string& histogram) {
  CLI::Option* const fleet =
      program.add_option("--fleet", command.fleet, "Run that many PCs with drawn faults")
          ->check(CLI::Range(1, 1'000'000));
  CLI::Option* const pc =
      program.add_option("--pc", command.pc, "Run this PC of a fleet alone, from number 0 on");
  fleet->excludes(pc);
  program.add_option("--seed", command.seed, "What the PCs of a fleet draw their faults by")
      ->capture_default_str();
  program
      .add_option("--processes", command.processes,
                  "With --fleet: how many PCs at a time (default: two per processor)")
      ->needs(fleet)
      ->check(CLI::Range(1, 64));
  program.add_option("--histogram", histogram, "With --fleet: draw the durations into this SVG file")
      ->needs(fleet);
  for (const char* const other : {"--all", "--scenario", "--route"}) {
    fleet->excludes(program.get_option(other));
    pc->excludes(program.get_option(other));
  }
  program.add_option("--interruptions", command.interruptions)->group("");
  program.add_flag("--repaired", command.repaired)->group("");
  program.add_option("--requests", command.requests)->group("");
}

void AddOptions(CLI::App& program, Command& command, std::string& route, std::string& images,
                std::string& keep) {
  std::vector<std::string> routes;
  routes.reserve(std::size(kRoutes));
  for (const Route each : kRoutes) routes.emplace_back(NameOf(each));

  program.add_flag("--list", command.list, "List the scenarios");
  CLI::Option* const scenario =
      program.add_option("--scenario", command.scenario, "Run one scenario")->check(WhyNoScenario);
  CLI::Option* const all =
      program.add_flag("--all", command.all, "Run all scenarios, each in a process of its own");
  program.add_option("--group", command.group, "With --all: only the scenarios of this group")
      ->needs(all)
      ->check(CLI::IsMember(ScenarioGroups()));
  program.add_option("--jobs", command.jobs, "With --all: how many run at a time")
      ->needs(all)
      ->check(CLI::Range(1, 64))
      ->capture_default_str();
  all->excludes(scenario);
  program.add_option("--route", route, "How the modem gets into flash mode")
      ->check(CLI::IsMember(routes))
      ->excludes(scenario)
      ->excludes(all)
      ->capture_default_str();
  program
      .add_option("--speed", command.speed,
                  "How many times as fast as real time the virtual PC runs (default 1, with --all 20,"
                  " with --fleet 100)")
      ->check(CLI::Range(kSlowest, kFastest));
  program.add_flag("--json", command.json, "Print the summary as JSON, and nothing else on standard output");
  program.add_option("--make-images", images, "Only write the default images into this folder");
  program.add_option("--keep", keep, "Work in this folder, and leave everything there (it is emptied first)");
  program.add_flag("--terminal", command.terminal, "Standard output ends at a terminal: show one live line");
  program.add_option("--width", command.width, "Columns of the terminal")
      ->check(CLI::Range(20, 1000))
      ->capture_default_str();
  program.add_option("--in-place", command.inPlace)->group("");
}

}  // namespace

std::optional<Command> ParseCommandLine(int count, char** words, ExitStatus& status) {
  CLI::App program{"Flashes a simulated modem with the real library, in a virtual PC."};
  program.name("modem_simulator");
  program.set_version_flag("--version", std::string("modem_simulator ") + CORVEL_VERSION);
  program.footer(kFooter);

  Command command;
  std::string route = NameOf(Route::Mbim);
  std::string images;
  std::string keep;
  std::string histogram;
  AddOptions(program, command, route, images, keep);
  AddFleetOptions(program, command, histogram);
  try {
    program.parse(count, words);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      program.exit(error);
      status = ExitStatus::Good;
      return std::nullopt;
    }
    if (AsksForJson(count, words)) {
      PrintJson(JsonOfError(error.what()));
    } else {
      program.exit(error);
    }
    status = ExitStatus::WrongUsage;
    return std::nullopt;
  }
  command.route = *RouteOfName(route);
  command.makeImages = hosts::ToWide(images);
  command.keep = hosts::ToWide(keep);
  command.histogram = hosts::ToWide(histogram);
  return command;
}

bool AsksForJson(int count, char** words) {
  return std::any_of(words, words + count, [](const char* word) { return std::string(word) == "--json"; });
}

}  // namespace simulator
