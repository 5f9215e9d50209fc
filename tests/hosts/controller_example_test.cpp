// The example of a controlling program, against a service that the test plays.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "hosts/common/text.h"
#include "simulator/host/kept_key.h"
#include "tests/hosts/child_process.h"

namespace hosts {

using testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

constexpr int kWrongUsage = 2;
constexpr int kUsualSeconds = 600;
/// What a busy PC may add, and what is still far from the controlling program's own limit.
constexpr std::chrono::seconds kLongestExtra{40};

using Words = std::vector<std::string>;

/// What every controlling program does, in whatever language it is written.
nlohmann::json Cases() {
  return nlohmann::json::parse(std::ifstream(TEST_DATA "/controller_cases.json"));
}

/// One of them. Values are written as "Name=1".
struct ControllerCase {
  explicit ControllerCase(const nlohmann::json& document)
      : name(document.at("name").get<std::string>()),
        leftBehind(document.value("left_behind", Words())),
        seconds(document.value("seconds", kUsualSeconds)),
        steps(document.at("steps").get<Words>()),
        exitCode(document.at("exit").get<int>()),
        says(document.at("says").get<Words>()),
        prints(document.value("prints", Words())),
        flag(document.at("flag").get<std::uint32_t>()),
        lasts(document.value("ms", 0)) {}

  std::string name;
  Words leftBehind;
  int seconds;
  Words steps;  ///< of the service, one after each look of the controlling program
  int exitCode;
  Words says;
  Words prints;                     ///< line by line; empty: not looked at
  std::uint32_t flag;               ///< that it leaves
  std::chrono::milliseconds lasts;  ///< the wait for the end, at least
};

void PrintTo(const ControllerCase& each, std::ostream* out) {
  *out << each.name;
}

std::vector<ControllerCase> AllCases() {
  std::vector<ControllerCase> cases;
  const nlohmann::json document = Cases();
  for (const nlohmann::json& each : document.at("cases")) cases.emplace_back(each);
  return cases;
}

std::filesystem::path Program() {
  return ProgramFolder() + L"controller_example.exe";
}

class ControllerExampleTest : public testing::TestWithParam<ControllerCase> {
 protected:
  void Write(const std::string& assignment) const {
    const std::size_t equals = assignment.find('=');
    key.Write(ToWide(assignment.substr(0, equals)), std::stoul(assignment.substr(equals + 1)));
  }
  /// The service writes, the controlling program looks and tells what it sees, the service writes again.
  void PlayService(ChildProcess& controller) const {
    std::size_t looks = 0;
    for (const std::string& step : GetParam().steps) {
      ASSERT_TRUE(controller.SaysLines(++looks)) << step;
      Write(step);
    }
  }

  simulator::KeptKey key{
      {.root = HKEY_CURRENT_USER,
       .rootName = L"HKCU",
       .path = L"Software\\Corvel\\Test\\" + std::to_wstring(::GetCurrentProcessId()) + L"\\Controller"}};
};

TEST_P(ControllerExampleTest, DoesWhatEveryControllingProgramDoes) {
  const ControllerCase& expected = GetParam();
  for (const std::string& value : expected.leftBehind) Write(value);
  ChildProcess controller(Program(), {ToWide(key.Location().Text()), std::to_wstring(expected.seconds)});
  PlayService(controller);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(controller.WaitForEnd(), expected.exitCode) << controller.Errors();
  const auto took = std::chrono::steady_clock::now() - begin;
  for (const std::string& text : expected.says) {
    EXPECT_THAT(controller.Output() + controller.Errors(), HasSubstr(text));
  }
  std::string printed;
  for (const std::string& line : expected.prints) printed += line + "\r\n";
  if (!printed.empty()) {
    EXPECT_EQ(controller.Output(), printed);
  }
  EXPECT_EQ(key.Read().ready, expected.flag);
  // It has begun to wait a little before this test has.
  EXPECT_GE(took, expected.lasts * 9 / 10 - 100ms);
  EXPECT_LE(took, expected.lasts + kLongestExtra);
}

INSTANTIATE_TEST_SUITE_P(Case, ControllerExampleTest, testing::ValuesIn(AllCases()),
                         [](const auto& test) { return test.param.name; });

TEST(ControllerExampleUsageTest, RefusesBadWordsBeforeItAsksForAnything) {
  const nlohmann::json cases = Cases();
  const std::wstring key =
      L"Software\\Corvel\\Test\\" + std::to_wstring(::GetCurrentProcessId()) + L"\\Unused";
  const auto expectRefusal = [](const std::wstring& place, const std::wstring& seconds) {
    const RunResult result = RunToEnd(Program(), {place, seconds});
    EXPECT_EQ(result.exitCode, kWrongUsage) << ToUtf8(place) << " " << ToUtf8(seconds);
    EXPECT_EQ(result.errors, "usage: controller HKLM\\KEY [SECONDS]\r\nSECONDS: 1 to 1000000\r\n");
  };
  for (const std::string& seconds : cases.at("refused_seconds").get<Words>()) {
    expectRefusal(L"HKCU\\" + key, ToWide(seconds));
  }
  for (const std::string& place : cases.at("refused_keys").get<Words>()) expectRefusal(ToWide(place), L"1");
  HKEY opened = nullptr;
  EXPECT_EQ(::RegOpenKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &opened), ERROR_FILE_NOT_FOUND);
}

}  // namespace

}  // namespace hosts
