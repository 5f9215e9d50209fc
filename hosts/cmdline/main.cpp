#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "hosts/cmdline/journal.h"
#include "hosts/cmdline/problems.h"
#include "hosts/cmdline/verbs.h"
#include "hosts/common/nearest_word.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/trusted_folders.h"

namespace hosts {

namespace {

bool IsVerb(const CLI::App& program, const std::string& word) {
  return std::ranges::count(VerbNames(program), word) > 0;
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
  VerbOptions options;
  AddVerbs(program, options);

  std::string given;
  for (const std::string& word : words) given += " " + word;
  words = WithHelpAsOption(program, std::move(words));
  try {
    // The parser takes them from the back.
    std::ranges::reverse(words);
    program.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    return Answer(program, error, json);
  }
  if (!options.log.empty()) {
    if (const DWORD error = OpenJournal(options.log)) {
      Report(
          {"log_unwritable", "The log " + options.log + " cannot be written: " + SystemErrorText(error) + ".",
           "Name a file with --log that you may write, or leave it out."},
          json);
      return static_cast<int>(ExitCode::NotReady);
    }
  }
  Note(std::string("corvel_cmdline " CORVEL_VERSION) + given);
  const int status = static_cast<int>(RunVerb(program, options));
  Note("exit status " + std::to_string(status));
  return status;
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
