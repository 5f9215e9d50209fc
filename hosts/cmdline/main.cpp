#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hosts/cmdline/journal.h"
#include "hosts/cmdline/problems.h"
#include "hosts/cmdline/verbs.h"
#include "hosts/common/help_text.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/trusted_folders.h"
#include "hosts/common/wrong_usage.h"

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

/// The file that --log names; empty when it names none.
std::string LogIn(const std::vector<std::string>& words) {
  constexpr std::string_view kOption = "--log";
  for (auto word = words.begin(); word != words.end(); ++word) {
    if (*word == kOption && std::next(word) != words.end()) return *std::next(word);
    if (word->starts_with(std::string(kOption) + "=")) return word->substr(kOption.size() + 1);
  }
  return {};
}

/// The last that a log has of a run.
int Ended(ExitCode code) {
  const int status = static_cast<int>(code);
  Note("exit status " + std::to_string(status));
  return status;
}

void NoteBegin(const std::vector<std::string>& words) {
  std::string given;
  for (const std::string& word : words) given += " " + word;
  Note(std::string("corvel_cmdline " CORVEL_VERSION) + given);
}

/// @return the exit status of a parse that did not lead to a verb.
int Answer(const CLI::App& program, const CLI::ParseError& error, const std::vector<std::string>& words,
           bool json) {
  // Help and version are no errors for the library either.
  if (error.get_exit_code() == 0) return program.exit(error);
  const std::string log = LogIn(words);
  // One that cannot be written is less than what is told now.
  if (!log.empty() && OpenJournal(log) == ERROR_SUCCESS) NoteBegin(words);
  Report(WrongUsage(program, error), json);
  return Ended(ExitCode::WrongUsage);
}

/// @return the exit status when the log cannot be written.
std::optional<int> BeginLog(const std::string& log, const std::vector<std::string>& words, bool json) {
  if (log.empty()) return std::nullopt;
  if (const DWORD error = OpenJournal(log)) {
    Report({"log_unwritable", "The log " + log + " cannot be written: " + SystemErrorText(error) + ".",
            "Name a file with --log that you may write, or leave it out."},
           json);
    return static_cast<int>(ExitCode::NotReady);
  }
  NoteBegin(words);
  return std::nullopt;
}

int Run(const std::vector<std::string>& given, bool json) {
  CLI::App program{"Flashes the built-in cellular modem, once"};
  program.name("corvel_cmdline");
  WriteHelpForWindow(program);
  program.set_version_flag("-V,--version", std::string("corvel_cmdline ") + CORVEL_VERSION);
  VerbOptions options;
  AddVerbs(program, options);

  std::vector<std::string> words = WithHelpAsOption(program, given);
  try {
    // The parser takes them from the back.
    std::ranges::reverse(words);
    program.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    return Answer(program, error, given, json);
  }
  if (const auto status = BeginLog(options.log, given, json)) return *status;
  return Ended(RunVerb(program, options));
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
    return Ended(ExitCode::NotReady);
  }
}

}  // namespace

}  // namespace hosts

int main() {
  return hosts::RunProgram();
}
