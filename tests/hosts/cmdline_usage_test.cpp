#include "cmdline_test.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

struct Case {
  const char* name;
  std::vector<std::wstring> arguments;
};
template <typename Param>
std::string NameOf(const testing::TestParamInfo<Param>& each) {
  return each.param.name;
}

struct HelpCase {
  const char* name;
  std::vector<std::wstring> arguments;
  std::vector<std::string> words;
};

class HelpTest : public CommandLineTest, public testing::WithParamInterface<HelpCase> {};

TEST_P(HelpTest, NamesOptionsAndExitStatusAndEndsWell) {
  const RunResult result = RunHost(GetParam().arguments);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_THAT(result.output, HasSubstr("Exit status: 0 flashed"));
  for (const std::string& word : GetParam().words) EXPECT_THAT(result.output, HasSubstr(word));
}

INSTANTIATE_TEST_SUITE_P(
    Verbs, HelpTest,
    testing::Values(HelpCase{"Program", {L"--help"}, {"flash", "status", "check", "--version"}},
                    HelpCase{"Flash",
                             {L"flash", L"--help"},
                             {"--ipc", "--trace", "--wait-for-controller", "--timeout", "--json", "--quiet"}},
                    HelpCase{"Status", {L"status", L"--help"}, {"--watch", "--json"}},
                    HelpCase{"Check", {L"check", L"--help"}, {"--json"}}),
    NameOf<HelpCase>);

TEST_F(CommandLineTest, TellsItsVersion) {
  const RunResult result = RunHost({L"--version"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "corvel_cmdline " CORVEL_VERSION "\r\n");
}

class WrongUsageTest : public CommandLineTest, public testing::WithParamInterface<Case> {};

TEST_P(WrongUsageTest, SaysSoOnStandardErrorAlone) {
  const RunResult result = RunHost(GetParam().arguments);
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_THAT(result.errors, Not(IsEmpty()));
}

TEST_P(WrongUsageTest, WithJsonPrintsOneErrorDocumentAndNothingElse) {
  Arguments arguments = GetParam().arguments;
  arguments.push_back(L"--json");
  const RunResult result = RunHost(arguments);
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(ErrorCode(result.output), "wrong_usage");
  EXPECT_THAT(result.errors, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, WrongUsageTest,
                         testing::Values(Case{"NoVerb", {}}, Case{"UnknownVerb", {L"blink"}},
                                         Case{"TwoVerbs", {L"status", L"check"}},
                                         Case{"UnknownOption", {L"flash", L"--fast"}},
                                         Case{"OptionOfAnotherVerb", {L"check", L"--watch"}},
                                         Case{"UnknownBus", {L"flash", L"--ipc", L"isa"}},
                                         Case{"BusNotInAscii", {L"flash", L"--ipc", L"\u00FC\u4E2D"}},
                                         Case{"TraceOutOfRange", {L"flash", L"--trace", L"2"}},
                                         Case{"TimeoutZero", {L"flash", L"--timeout", L"0"}},
                                         Case{"TimeoutNegative", {L"flash", L"--timeout", L"-1"}},
                                         Case{"TimeoutNoNumber", {L"flash", L"--timeout", L"soon"}},
                                         Case{"TimeoutWithoutValue", {L"flash", L"--timeout"}}),
                         NameOf<Case>);

}  // namespace
