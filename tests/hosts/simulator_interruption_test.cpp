// Ctrl+C during the demo programs.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "hosts/common/text.h"
#include "tests/hosts/child_process.h"

namespace hosts {

using testing::HasSubstr;
using testing::Not;

namespace {

constexpr int kEndedByCtrlC = 130;

std::filesystem::path Program(const wchar_t* name) {
  return std::filesystem::path(ProgramFolder()) / name;
}

TEST(SimulatorInterruptionTest, EndsTheSimulatorAndThePcThatItRuns) {
  ChildProcess simulator(Program(L"modem_simulator.exe"), {L"--speed", L"1"});
  ASSERT_TRUE(simulator.Says("attempt 1"));
  ASSERT_TRUE(simulator.Interrupt());
  EXPECT_EQ(simulator.WaitForEnd(), kEndedByCtrlC);
  EXPECT_THAT(simulator.Errors(), HasSubstr("modem_simulator: interrupted"));
}

TEST(SimulatorInterruptionTest, EndsARunOfAllScenariosWithoutAReport) {
  ChildProcess simulator(Program(L"modem_simulator.exe"),
                         {L"--all", L"--group", L"routes", L"--jobs", L"1", L"--speed", L"50"});
  ASSERT_TRUE(simulator.Says("ok "));
  ASSERT_TRUE(simulator.Interrupt());
  EXPECT_EQ(simulator.WaitForEnd(), kEndedByCtrlC);
  EXPECT_THAT(simulator.Output(), Not(HasSubstr("scenarios, ")));
}

}  // namespace

}  // namespace hosts
