#include <sstream>

#include "hosts/common/json_output.h"
#include "tests/hosts/cmdline_test.h"

namespace hosts {

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

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
  const bool isOfVerb = GetParam().arguments.size() == 2;
  EXPECT_EQ(result.output.find("Examples:\r\n  corvel_cmdline ") != std::string::npos, isOfVerb);
  for (const std::string& word : GetParam().words) EXPECT_THAT(result.output, HasSubstr(word));
  std::istringstream footer(result.output.substr(result.output.find("Exit status:")));
  for (std::string line; std::getline(footer, line);) EXPECT_LE(line.size(), 80u) << line;
}

INSTANTIATE_TEST_SUITE_P(
    Verbs, HelpTest,
    testing::Values(HelpCase{"Program",
                             {L"--help"},
                             {"flash", "status", "check", "images", "doctor", "completion", "--version"}},
                    HelpCase{"Flash",
                             {L"flash", L"--help"},
                             {"--ipc", "--trace", "--wait-for-controller", "--timeout", "--expect",
                              "--min-battery", "--json", "--quiet", "--images", "--no-progress", "--log",
                              "-v,--verbose"}},
                    HelpCase{"Status", {L"status", L"--help"}, {"--watch", "--json", "--no-progress"}},
                    HelpCase{"Check", {L"check", L"--help"}, {"--json", "--strict", "--expect", "--watch"}},
                    HelpCase{"Images", {L"images", L"--help"}, {"--json", "--no-digests"}},
                    HelpCase{"Doctor", {L"doctor", L"--help"}, {"--json", "--list", "--output"}},
                    HelpCase{"Completion", {L"completion", L"--help"}, {"powershell"}},
                    HelpCase{"HelpAsAVerb", {L"help"}, {"help VERB", "--version"}}),
    NameOf<HelpCase>);

TEST_F(CommandLineTest, TellsItsVersion) {
  const RunResult result = RunHost({L"--version"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "corvel_cmdline " CORVEL_VERSION "\r\n");
}

TEST_F(CommandLineTest, TellsItsVersionByTheShortOptionToo) {
  const RunResult result = RunHost({L"-V"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "corvel_cmdline " CORVEL_VERSION "\r\n");
}

TEST_F(CommandLineTest, TellsTheSameWithHelpAsAVerb) {
  EXPECT_EQ(RunHost({L"help"}).output, RunHost({L"--help"}).output);
  EXPECT_EQ(RunHost({L"help", L"flash"}).output, RunHost({L"flash", L"--help"}).output);
}

TEST_F(CommandLineTest, TellsOfSecondsWithoutTheParsersWords) {
  const RunResult result = RunHost({L"flash", L"--help"});
  EXPECT_THAT(result.output,
              HasSubstr("--timeout SECONDS           Give up after that many seconds, 1 or more "
                        "(default: no limit)"));
}

TEST_F(CommandLineTest, TakesATimeLimitOfThirtyDays) {
  workspace.Remove(L"firmware");
  EXPECT_EQ(RunHost({L"flash", L"--timeout", L"2592000"}).exitCode, 3);
}

TEST_F(CommandLineTest, PrintsACompletionThatKnowsEachVerbAndOption) {
  const RunResult result = RunHost({L"completion", L"powershell"});
  EXPECT_EQ(result.exitCode, 0);
  for (const char* word :
       {"    'flash' = @(\r\n", "      ,@('flash', 'Flash the images of the configured folder, ",
        "      ,@('--images', 'Flash copies of", "    'doctor' = @(\r\n",
        "    'flash --ipc' = @(\r\n      ,@('usb', 'Bus of the modem",
        "    'flash --expect' = @(\r\n    )\r\n",
        // Nothing ends the text before its end.
        "''s"}) {
    EXPECT_THAT(result.output, HasSubstr(word));
  }
  EXPECT_THAT(result.output, HasSubstr("Register-ArgumentCompleter -Native"));
}

TEST_F(CommandLineTest, TellsItsStepsOnlyWhenAskedTo) {
  workspace.MakeVirtualPc({"speed=200"});
  workspace.Remove(L"firmware\\nvm.fls");
  EXPECT_THAT(RunHost({L"flash", L"--no-progress"}).errors,
              testing::AllOf(testing::Not(HasSubstr("corvel_cmdline: folder: ")),
                             testing::Not(HasSubstr("writing"))));
  workspace.PutImages();
  EXPECT_THAT(RunHost({L"flash", L"-v"}).errors,
              testing::AllOf(HasSubstr("corvel_cmdline: folder: "),
                             HasSubstr("corvel_cmdline: Asked for the flash under ")));
}

TEST_F(CommandLineTest, LogsWhatItTellsToTheEndOfAFile) {
  workspace.Remove(L"firmware");
  const std::wstring log = workspace.File(L"told.log").wstring();
  EXPECT_EQ(RunHost({L"flash", L"--log", log}).exitCode, 3);
  EXPECT_EQ(RunHost({L"check", L"--log", log}).exitCode, 3);
  EXPECT_EQ(RunHost({L"flash", L"--timeout", L"0", L"--log", log}).exitCode, 2);
  const std::string told = workspace.Content(L"told.log");
  EXPECT_THAT(
      told, testing::ContainsRegex("20\\d\\d-\\d+-\\d+ \\d+:\\d+:\\d+.\\d+  corvel_cmdline .* flash --log "));
  EXPECT_THAT(told,
              testing::AllOf(HasSubstr(" is no folder. Make the folder and "), HasSubstr("(no_folder)\r\n"),
                             HasSubstr(" check --log "), HasSubstr("  exit status 3\r\n"),
                             HasSubstr(" (wrong_usage)\r\n"), testing::EndsWith("  exit status 2\r\n")));
}

TEST_F(CommandLineTest, SaysSoWhenItCannotLog) {
  const RunResult result = RunHost({L"check", L"--json", L"--log", workspace.ImageFolder().wstring()});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "log_unwritable");
}

struct WrongUsageCase {
  const char* name;
  std::vector<std::wstring> arguments;
  std::string message;
  std::string whatToDo;
};

class WrongUsageTest : public CommandLineTest, public testing::WithParamInterface<WrongUsageCase> {};

TEST_P(WrongUsageTest, SaysSoOnStandardErrorAlone) {
  const RunResult result = RunHost(GetParam().arguments);
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_EQ(result.errors, "corvel_cmdline: " + GetParam().message + "\r\n" + GetParam().whatToDo + "\r\n");
}

TEST_F(CommandLineTest, WithJsonPrintsWrongUsageAsOneErrorDocumentAndNothingElse) {
  const RunResult result = RunHost({L"falsh", L"--json"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_EQ(Document(result.output), nlohmann::json({{"version", kDocumentVersion},
                                                     {"error",
                                                      {{"code", "wrong_usage"},
                                                       {"message", "\"falsh\" is no verb."},
                                                       {"what_to_do", "Did you mean \"flash\"?"}}}}));
}

TEST_F(CommandLineTest, WithJsonPrintsAWrongValueAsAnErrorDocumentToo) {
  const RunResult result = RunHost({L"flash", L"--json", L"--timeout", L"0"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_EQ(ErrorCode(result.output), "wrong_usage");
}

constexpr char kSeeHelp[] = "See \"corvel_cmdline help\".";
constexpr char kSeeHelpOfFlash[] = "See \"corvel_cmdline help flash\".";

std::string NoSeconds(const std::string& word) {
  return "--timeout: \"" + word +
         "\" is no number of seconds. Give a whole number from 1 to 2592000 (30 days), or leave it out for "
         "no limit.";
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongUsageTest,
    testing::Values(
        WrongUsageCase{"NoVerb", {}, "A verb is missing.", kSeeHelp},
        WrongUsageCase{"UnknownVerb", {L"blink"}, "\"blink\" is no verb.", kSeeHelp},
        WrongUsageCase{"MistypedVerb", {L"falsh"}, "\"falsh\" is no verb.", "Did you mean \"flash\"?"},
        WrongUsageCase{"VerbInCapitals", {L"STATUS"}, "\"STATUS\" is no verb.", "Did you mean \"status\"?"},
        WrongUsageCase{
            "HelpOfAMistypedVerb", {L"help", L"chek"}, "\"chek\" is no verb.", "Did you mean \"check\"?"},
        WrongUsageCase{"TwoVerbs",
                       {L"status", L"check"},
                       "\"check\" is one verb too many.",
                       "See \"corvel_cmdline help status\"."},
        WrongUsageCase{"UnknownOption",
                       {L"flash", L"--fast"},
                       "\"--fast\" is no option of flash.",
                       "See \"corvel_cmdline help flash\"."},
        WrongUsageCase{"MistypedOption",
                       {L"flash", L"--wiat-for-controller"},
                       "\"--wiat-for-controller\" is no option of flash.",
                       "Did you mean \"--wait-for-controller\"?"},
        WrongUsageCase{"OptionOfAnotherVerb",
                       {L"check", L"--history"},
                       "\"--history\" is no option of check.",
                       "See \"corvel_cmdline help check\"."},
        WrongUsageCase{
            "UnknownShell", {L"completion", L"csh"}, "SHELL cannot be \"csh\".", "Give powershell."},
        WrongUsageCase{
            "NoShell", {L"completion"}, "SHELL is missing.", "See \"corvel_cmdline help completion\"."},
        WrongUsageCase{"ListOfNoArchive",
                       {L"doctor", L"--list", L"--output", L"x.zip"},
                       "--output cannot stand beside --list.",
                       "Leave one of them out."},
        WrongUsageCase{
            "UnknownBus", {L"flash", L"--ipc", L"isa"}, "--ipc cannot be \"isa\".", "Give usb or pcie."},
        WrongUsageCase{"BusNotInAscii",
                       {L"flash", L"--ipc", L"\u00FC\u4E2D"},
                       "--ipc cannot be \"\xC3\xBC\xE4\xB8\xAD\".",
                       "Give usb or pcie."},
        WrongUsageCase{"TraceOutOfRange",
                       {L"flash", L"--trace", L"2"},
                       "--trace: \"2\" is no number from 0 to 1.",
                       kSeeHelpOfFlash},
        WrongUsageCase{"TimeoutZero", {L"flash", L"--timeout", L"0"}, NoSeconds("0"), kSeeHelpOfFlash},
        WrongUsageCase{"TimeoutNegative", {L"flash", L"--timeout", L"-1"}, NoSeconds("-1"), kSeeHelpOfFlash},
        WrongUsageCase{
            "TimeoutNoNumber", {L"flash", L"--timeout", L"soon"}, NoSeconds("soon"), kSeeHelpOfFlash},
        WrongUsageCase{"TimeoutWithAUnit", {L"flash", L"--timeout", L"5s"}, NoSeconds("5s"), kSeeHelpOfFlash},
        WrongUsageCase{
            "TimeoutTooLong", {L"flash", L"--timeout", L"2592001"}, NoSeconds("2592001"), kSeeHelpOfFlash},
        WrongUsageCase{"TimeoutBeyondAnyNumber",
                       {L"flash", L"--timeout", L"4294967296"},
                       NoSeconds("4294967296"),
                       kSeeHelpOfFlash},
        WrongUsageCase{
            "TimeoutWithoutValue", {L"flash", L"--timeout"}, "--timeout needs a value.", kSeeHelpOfFlash}),
    NameOf<WrongUsageCase>);

}  // namespace

}  // namespace hosts
