// The example of a controlling program, against a service that the test plays.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
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
  RunResult Run(const std::wstring& seconds) const { return RunToEnd(Program(), Arguments(seconds)); }

  simulator::KeptKey key{
      {.root = HKEY_CURRENT_USER,
       .rootName = L"HKCU",
       .path = L"Software\\Corvel\\Test\\" + std::to_wstring(::GetCurrentProcessId()) + L"\\Controller"}};
};

TEST_F(ControllerExampleTest, GivesTheServiceTenSecondsAndTakesTheRequestBack) {
  const auto begin = std::chrono::steady_clock::now();
  const RunResult result = Run(L"600");
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(result.exitCode, kNoEnd);
  EXPECT_THAT(result.errors, HasSubstr("Nobody took the request"));
  EXPECT_EQ(key.Read().ready, 0u);
  EXPECT_GE(took, kTimeToTake - 1s);
  EXPECT_LE(took, kTimeToTake + kLongestExtra);
}

/// A service that died in the middle of a flash leaves such a result.
TEST_F(ControllerExampleTest, TakesTheRequestBackWhateverAnOldResultSays) {
  for (const std::uint32_t old : {1u, 2u, 4u}) {
    key.Write(L"Flash_Result", old);
    key.Write(L"Flash_OnGoing", 1);
    const RunResult result = Run(L"1");
    EXPECT_EQ(result.exitCode, kNoEnd);
    EXPECT_THAT(result.errors, HasSubstr("Nobody took the request"));
    EXPECT_EQ(key.Read().ready, 0u) << "with " << old;
  }
}

TEST_F(ControllerExampleTest, LeavesAFlashAloneWhenItsTimeIsUp) {
  ChildProcess controller(Program(), Arguments(L"5"));
  ASSERT_TRUE(controller.Says("Flash_Result 0"));
  key.Write(L"Flash_Result", 1);
  EXPECT_EQ(controller.WaitForEnd(), kNoEnd);
  EXPECT_THAT(controller.Errors(), HasSubstr("The time limit passed"));
  EXPECT_EQ(key.Read().ready, 1u);
}

/// The request stands, so that the service recovers the modem when it is started again.
TEST_F(ControllerExampleTest, SeesThatTheServiceDiedInTheMiddleOfAFlash) {
  key.Write(L"Time_Out", 500);
  ChildProcess controller(Program(), Arguments(L"600"));
  ASSERT_TRUE(controller.Says("Flash_Result 0"));
  key.Write(L"Flash_Result", 2);
  EXPECT_EQ(controller.WaitForEnd(), kNoEnd);
  EXPECT_THAT(controller.Errors(), HasSubstr("The service fell silent"));
  EXPECT_EQ(key.Read().ready, 1u);
}

TEST_F(ControllerExampleTest, TakesTheRequestBackWhenTheServiceDiedBeforeTheFlash) {
  key.Write(L"Time_Out", 500);
  ChildProcess controller(Program(), Arguments(L"600"));
  ASSERT_TRUE(controller.Says("Flash_Result 0"));
  // The same value again is a sign of life, too.
  key.Write(L"Flash_Result", 0);
  EXPECT_EQ(controller.WaitForEnd(), kNoEnd);
  EXPECT_THAT(controller.Errors(), HasSubstr("The service fell silent"));
  EXPECT_EQ(key.Read().ready, 0u);
}

TEST_F(ControllerExampleTest, EndsWithTheFlagAndTellsTheResult) {
  ChildProcess controller(Program(), Arguments(L"600"));
  ASSERT_TRUE(controller.Says("Flash_Result 0"));
  key.Write(L"Flash_Result", 3);
  key.Write(L"Fls_Ready", 0);
  EXPECT_EQ(controller.WaitForEnd(), kNotFlashed);
  EXPECT_THAT(controller.Output(), HasSubstr("Flash_Result 3: failed"));
}

TEST_F(ControllerExampleTest, RefusesABadNumberOfSecondsBeforeItAsksForAnything) {
  for (const wchar_t* seconds :
       {L"", L"0", L"-1", L"+5", L" 5", L"5s", L"ten", L"1000001", L"18446744073709551617"}) {
    const RunResult result = Run(seconds);
    EXPECT_EQ(result.exitCode, kWrongUsage) << ToUtf8(seconds);
    EXPECT_THAT(result.errors, HasSubstr("SECONDS: 1 to 1000000"));
  }
  EXPECT_FALSE(key.Exists());
}

}  // namespace

}  // namespace hosts
