// The example of a controlling program, against a service that the test plays.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "hosts/common/text.h"
#include "simulator/host/kept_key.h"
#include "tests/hosts/child_process.h"

namespace hosts {

using testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

constexpr int kNotFlashed = 1;
constexpr int kWrongUsage = 2;
constexpr int kNoEnd = 3;
constexpr std::chrono::seconds kTimeToTake{10};
/// What a busy PC may add, and what is still far from the controlling program's own limit.
constexpr std::chrono::seconds kLongestExtra{40};

class ControllerExampleTest : public testing::Test {
 protected:
  std::filesystem::path Program() const { return ProgramFolder() + L"controller_example.exe"; }
  std::vector<std::wstring> Arguments(const std::wstring& seconds) const {
    return {ToWide(key.Location().Text()), seconds};
  }
  /// A controlling program that has asked for a flash, and has seen that none has begun.
  std::unique_ptr<ChildProcess> Ask(const std::wstring& seconds = L"600") const {
    auto controller = std::make_unique<ChildProcess>(Program(), Arguments(seconds));
    EXPECT_TRUE(controller->Says("Flash_Result 0"));
    return controller;
  }
  /// @param ready what it leaves of its request.
  void ExpectToGiveUp(ChildProcess& controller, const std::string& why, std::uint32_t ready) const {
    EXPECT_EQ(controller.WaitForEnd(), kNoEnd);
    EXPECT_THAT(controller.Errors(), HasSubstr(why));
    EXPECT_EQ(key.Read().ready, ready);
  }

  simulator::KeptKey key{
      {.root = HKEY_CURRENT_USER,
       .rootName = L"HKCU",
       .path = L"Software\\Corvel\\Test\\" + std::to_wstring(::GetCurrentProcessId()) + L"\\Controller"}};
};

TEST_F(ControllerExampleTest, GivesTheServiceTenSecondsAndTakesTheRequestBack) {
  const auto begin = std::chrono::steady_clock::now();
  ChildProcess controller(Program(), Arguments(L"600"));
  ExpectToGiveUp(controller, "Nobody took the request", 0);
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, kTimeToTake - 1s);
  EXPECT_LE(took, kTimeToTake + kLongestExtra);
}

/// A service that died in the middle of a flash leaves such a result.
TEST_F(ControllerExampleTest, TakesTheRequestBackWhateverAnOldResultSays) {
  for (const std::uint32_t old : {1u, 2u, 4u}) {
    key.Write(L"Flash_Result", old);
    key.Write(L"Flash_OnGoing", 1);
    SCOPED_TRACE(old);
    ChildProcess controller(Program(), Arguments(L"1"));
    ExpectToGiveUp(controller, "Nobody took the request", 0);
  }
}

TEST_F(ControllerExampleTest, LeavesAFlashAloneWhenItsTimeIsUp) {
  const auto controller = Ask(L"5");
  key.Write(L"Flash_Result", 1);
  ExpectToGiveUp(*controller, "The time limit passed", 1);
}

/// The request stands, so that the service recovers the modem when it is started again.
TEST_F(ControllerExampleTest, SeesThatTheServiceDiedInTheMiddleOfAFlash) {
  key.Write(L"Time_Out", 500);
  const auto controller = Ask();
  key.Write(L"Flash_Result", 2);
  ExpectToGiveUp(*controller, "The service fell silent", 1);
}

TEST_F(ControllerExampleTest, TakesTheRequestBackWhenTheServiceDiedBeforeTheFlash) {
  key.Write(L"Time_Out", 500);
  const auto controller = Ask();
  // The same value again is a sign of life, too.
  key.Write(L"Flash_Result", 0);
  ExpectToGiveUp(*controller, "The service fell silent", 0);
}

TEST_F(ControllerExampleTest, EndsWithTheFlagAndTellsTheResult) {
  const auto controller = Ask();
  key.Write(L"Flash_Result", 3);
  key.Write(L"Fls_Ready", 0);
  EXPECT_EQ(controller->WaitForEnd(), kNotFlashed);
  EXPECT_THAT(controller->Output(), HasSubstr("Flash_Result 3: failed"));
}

TEST_F(ControllerExampleTest, RefusesABadNumberOfSecondsBeforeItAsksForAnything) {
  for (const wchar_t* seconds :
       {L"", L"0", L"-1", L"+5", L" 5", L"5s", L"ten", L"1000001", L"18446744073709551617"}) {
    const RunResult result = RunToEnd(Program(), Arguments(seconds));
    EXPECT_EQ(result.exitCode, kWrongUsage) << ToUtf8(seconds);
    EXPECT_THAT(result.errors, HasSubstr("SECONDS: 1 to 1000000"));
  }
  EXPECT_FALSE(key.Exists());
}

}  // namespace

}  // namespace hosts
