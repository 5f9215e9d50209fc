// Every scenario of the service, run by the command-line host.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "simulator/host/command_line_table.h"
#include "simulator/program/judgement.h"
#include "simulator/program/scenarios/scenario_table.h"
#include "support/temporary_folder.h"

namespace simulator {

/// A failed test names the scenario by its name.
void PrintTo(const Scenario* scenario, std::ostream* out) {
  *out << scenario->name;
}

namespace {

using testing::IsEmpty;

constexpr double kSpeed = 200;

void ExpectAsTheTableSays(const Scenario& scenario, Asker asker) {
  const TemporaryFolder folder;
  const CommandLineReport report = FlashByCommandLine({.setup = scenario.setup,
                                                       .scenario = scenario.name,
                                                       .speed = kSpeed,
                                                       .asker = asker,
                                                       .folder = folder.Path() / L"run",
                                                       .options = {L"--json"},
                                                       .output = folder.File(L"output.txt")});
  const CommandLineExpectation all = ExpectedOfCommandLine(scenario, asker);
  EXPECT_THAT(Differences(all.expected, report.session), IsEmpty()) << all.reason;
  EXPECT_EQ(report.exitCode, all.exitCode) << folder.Content(L"output.txt");
}

class CommandLineScenarioTest : public testing::TestWithParam<const Scenario*> {};

TEST_P(CommandLineScenarioTest, EndsAsTheTableSays) {
  ExpectAsTheTableSays(*GetParam(), Asker::Host);
}

class ControllerScenarioTest : public testing::TestWithParam<const Scenario*> {};

TEST_P(ControllerScenarioTest, EndsAsTheTableSaysWhenTheImagesComeLater) {
  ExpectAsTheTableSays(*GetParam(), Asker::Controller);
}

std::string TestName(const testing::TestParamInfo<const Scenario*>& scenario) {
  std::string name = scenario.param->name;
  std::ranges::replace(name, '-', '_');
  return name;
}

/// Whether the command line ends as the service does, but for the words of its log.
bool EndsAsTheService(const Scenario& scenario) {
  return ExpectedOfCommandLine(scenario, Asker::Host).reason.empty();
}

/// What no scenario with an end of its own has: a job with a second attempt, a modem that stays away, and
/// both other ways into flash mode.
bool IsTheFirstOfItsKind(const Scenario& scenario) {
  constexpr std::array<std::string_view, 4> kNames{"download-fails-once", "return-never", "route-at",
                                                   "route-flash-port"};
  return std::ranges::find(kNames, scenario.name) != kNames.end();
}

template <typename Predicate>
std::vector<const Scenario*> ScenariosThat(Predicate fits) {
  std::vector<const Scenario*> scenarios;
  for (const Scenario& each : Scenarios()) {
    if (fits(each)) scenarios.push_back(&each);
  }
  return scenarios;
}

bool IsOneOfMany(const Scenario& scenario) {
  return EndsAsTheService(scenario) && !IsTheFirstOfItsKind(scenario);
}

INSTANTIATE_TEST_SUITE_P(OneOfMany, CommandLineScenarioTest, testing::ValuesIn(ScenariosThat(IsOneOfMany)),
                         TestName);
INSTANTIATE_TEST_SUITE_P(OfItsOwn, CommandLineScenarioTest,
                         testing::ValuesIn(ScenariosThat(std::not_fn(IsOneOfMany))), TestName);
INSTANTIATE_TEST_SUITE_P(All, ControllerScenarioTest, testing::ValuesIn(ScenariosOfController()), TestName);

TEST(CommandLineRunTest, LeavesAFolderThatCanBeEmptiedWhileItsProgramsAreInUseElsewhere) {
  const std::wstring library = hosts::ProgramFolder() + L"\\CorvelToolKit.dll";
  const hosts::OwnedHandle user(::CreateFileW(library.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  ASSERT_NE(user.get(), INVALID_HANDLE_VALUE);
  const TemporaryFolder folder;
  const std::filesystem::path run = folder.Path() / L"run";
  FlashByCommandLine({.setup = FindScenario("route-flash-port")->setup,
                      .scenario = "route-flash-port",
                      .speed = kSpeed,
                      .folder = run,
                      .options = {L"--json"},
                      .output = folder.File(L"output.txt")});

  std::error_code error;
  std::filesystem::remove_all(run, error);

  EXPECT_FALSE(error) << error.message();
}

TEST(CommandLineTableTest, NamesOnlyScenariosThatThereAre) {
  EXPECT_THAT(StrayNamesOfCommandLine(), IsEmpty());
}

}  // namespace

}  // namespace simulator
