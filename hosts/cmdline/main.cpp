#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <exception>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "hosts/cmdline/commands.h"
#include "hosts/cmdline/problems.h"
#include "hosts/common/handshake.h"
#include "hosts/common/nearest_word.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/trusted_folders.h"

namespace hosts {

namespace {

constexpr char kExitCodes[] =
    "Exit status: 0 flashed (or nothing wrong), 1 flash failed, 2 wrong usage,\n"
    "3 no firmware images, 4 not ready, 5 interrupted or timed out.";

/// 30 days: more than anybody waits for a controlling program.
constexpr unsigned int kLongestTimeLimit = 30 * 24 * 60 * 60;

struct VerbOptions {
  FlashOptions flash;
  StatusOptions status;
  CheckOptions check;
};

CLI::App* AddVerb(CLI::App& program, const char* name, const char* description, bool& json) {
  CLI::App* const verb = program.add_subcommand(name, description);
  verb->footer(kExitCodes);
  verb->add_flag("--json", json, "Print JSON on standard output and nothing else");
  return verb;
}

/// @return what is wrong with a number of seconds; empty when it is one.
std::string ComplaintAboutSeconds(const std::string& text) {
  unsigned int seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (error == std::errc() && stop == end && seconds > 0 && seconds <= kLongestTimeLimit) return {};
  return "\"" + text + "\" is no number of seconds. Give a whole number from 1 to " +
         std::to_string(kLongestTimeLimit) + " (30 days), or leave it out for no limit.";
}

void AddExpect(CLI::App& verb, std::string& expect) {
  verb.add_option("--expect", expect,
                  "Take only images whose SHA-256 is in that file, as sha256sum writes it")
      ->type_name("FILE");
}

CLI::App* AddFlash(CLI::App& program, FlashOptions& options) {
  CLI::App* const verb =
      AddVerb(program, "flash", "Flash the images of the configured folder, which are deleted at the end",
              options.json);
  verb->add_option("--ipc", options.ipc, "Bus of the modem (default: [IPCTYPE] of the configuration)")
      ->check(CLI::IsMember({"usb", "pcie"}));
  verb->add_option("--trace", options.trace, "0 writes no debug log")
      ->check(CLI::Range(0, 1))
      ->capture_default_str();
  CLI::Option* const wait =
      verb->add_flag("--wait-for-controller", options.waitForController,
                     "Wait until another program sets " + ToUtf8(kReadyValue) + ", instead of setting it");
  verb->add_option("--timeout", options.timeoutSeconds,
                   "Give up after that many seconds, 1 or more (default: no limit)")
      ->type_name("SECONDS")
      ->check(ComplaintAboutSeconds);
  // What a controlling program brings meanwhile would be flashed unseen.
  AddExpect(*verb, options.expect);
  verb->get_option("--expect")->excludes(wait);
  verb->add_option("--min-battery", options.minBattery,
                   "Refuse on battery when it is charged to less than that many percent")
      ->type_name("PERCENT")
      ->check(CLI::Range(1u, 100u));
  verb->add_flag("--quiet", options.quiet, "Show no progress, and do not name the images at the start");
  return verb;
}

CLI::App* AddStatus(CLI::App& program, StatusOptions& options) {
  CLI::App* const verb =
      AddVerb(program, "status", "Show the handshake, the modem and the images", options.json);
  CLI::Option* const watch =
      verb->add_flag("--watch", options.watch, "Show every change until Ctrl+C; with --json one line each");
  CLI::Option* const service = verb->add_flag("--service", options.service,
                                              "Show the key of the service instead of the command line's");
  verb->add_flag("--history", options.history, "Show how the last flashes ended, the service's too")
      ->excludes(watch)
      ->excludes(service);
  return verb;
}

CLI::App* AddCheck(CLI::App& program, CheckOptions& options) {
  CLI::App* const verb =
      AddVerb(program, "check", "Tell whether a flash could begin, without touching the modem", options.json);
  verb->add_flag("--strict", options.strict, "Let warnings count as errors");
  AddExpect(*verb, options.expect);
  return verb;
}

std::vector<std::string> VerbNames(const CLI::App& program) {
  std::vector<std::string> names;
  for (const CLI::App* const verb : program.get_subcommands({})) names.push_back(verb->get_name());
  return names;
}

bool IsVerb(const CLI::App& program, const std::string& word) {
  return std::ranges::count(VerbNames(program), word) > 0;
}

std::vector<std::string> OptionNames(const CLI::App& program) {
  std::vector<std::string> names;
  for (const CLI::Option* const option : program.get_options()) {
    names.push_back("--" + option->get_lnames().front());
  }
  return names;
}

/// "help" and "help VERB" are "--help" and "VERB --help".
std::vector<std::string> WithHelpAsOption(const CLI::App& program, std::vector<std::string> words) {
  if (words.empty() || words.front() != "help") return words;
  words.erase(words.begin());
  if (words.empty() || IsVerb(program, words.front())) words.emplace_back("--help");
  return words;
}

std::string DidYouMean(const std::string& nearest, const std::string& otherwise) {
  return nearest.empty() ? otherwise : "Did you mean \"" + nearest + "\"?";
}

/// A word that is neither verb nor option where it stands.
Problem UnexpectedWord(const CLI::App& program, const std::string& word) {
  constexpr const char* kCode = "wrong_usage";
  const auto verbs = program.get_subcommands();
  const CLI::App& place = verbs.empty() ? program : *verbs.front();
  const std::string seeHelp =
      "See \"corvel_cmdline help" + (verbs.empty() ? "" : " " + place.get_name()) + "\".";
  if (word.starts_with("-")) {
    return {kCode, "\"" + word + "\" is no option of " + place.get_name() + ".",
            DidYouMean(NearestWord(word, OptionNames(place)), seeHelp)};
  }
  if (IsVerb(program, word)) return {kCode, "\"" + word + "\" is one verb too many.", seeHelp};
  return {kCode, "\"" + word + "\" is no verb.", DidYouMean(NearestWord(word, VerbNames(program)), seeHelp)};
}

Problem WrongUsage(const CLI::App& program, const CLI::ParseError& error) {
  const std::vector<std::string> unexpected = program.remaining(true);
  if (!unexpected.empty()) return UnexpectedWord(program, unexpected.front());
  std::string message = error.what();
  // The parser puts the option's name first.
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
    message = message.substr(0, message.find(':')) + " needs a value.";
  }
  return {"wrong_usage", std::move(message), "See \"corvel_cmdline help\"."};
}

/// @return the exit status of a parse that did not lead to a verb.
int Answer(const CLI::App& program, const CLI::ParseError& error, bool json) {
  // Help and version are no errors for the library either.
  if (error.get_exit_code() == 0) return program.exit(error);
  Report(WrongUsage(program, error), json);
  return static_cast<int>(ExitCode::WrongUsage);
}

int Run(std::vector<std::string> words, bool json) {
  CLI::App program{"Flashes the built-in cellular modem, once."};
  program.name("corvel_cmdline");
  program.set_version_flag("-V,--version", std::string("corvel_cmdline ") + CORVEL_VERSION);
  program.footer(std::string("\"corvel_cmdline help VERB\" tells the options of a verb.\n") + kExitCodes);
  program.require_subcommand(1);
  VerbOptions options;
  const CLI::App* const flash = AddFlash(program, options.flash);
  const CLI::App* const status = AddStatus(program, options.status);
  AddCheck(program, options.check);

  words = WithHelpAsOption(program, std::move(words));
  try {
    // The parser takes them from the back.
    std::ranges::reverse(words);
    program.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    return Answer(program, error, json);
  }
  if (flash->parsed()) return static_cast<int>(RunFlash(options.flash));
  if (status->parsed()) return static_cast<int>(RunStatus(options.status));
  return static_cast<int>(RunCheck(options.check));
}

int RunProgram() {
  const Utf8Terminal terminal;
  const std::vector<std::string> words = CommandLineWords();
  const bool json = std::ranges::find(words, "--json") != words.end();
  try {
    LoadFromTrustedFoldersOnly();
    return Run(words, json);
  } catch (const std::exception& error) {
    Report({"internal", std::string("Something unforeseen went wrong: ") + error.what() + ".",
            "Run \"corvel_cmdline check\" and try again."},
           json);
    return static_cast<int>(ExitCode::NotReady);
  }
}

}  // namespace

}  // namespace hosts

int main() {
  return hosts::RunProgram();
}
