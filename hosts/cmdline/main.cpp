#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "setup.h"
#include "terminal.h"

namespace {

constexpr char kExitCodes[] =
    "Exit status: 0 flashed (or nothing wrong), 1 flash failed, 2 wrong usage, 3 no firmware images,\n"
    "4 not ready, 5 interrupted or timed out.";

struct Options {
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

CLI::App* AddFlash(CLI::App& program, FlashOptions& options) {
  CLI::App* const verb = AddVerb(program, "flash", "Flash the images of the configured folder", options.json);
  verb->add_option("--ipc", options.ipc, "Bus of the modem")
      ->check(CLI::IsMember({"usb", "pcie"}))
      ->capture_default_str();
  verb->add_option("--trace", options.trace, "0 writes no debug log")
      ->check(CLI::Range(0, 1))
      ->capture_default_str();
  verb->add_flag("--wait-for-controller", options.waitForController,
                 "Wait until another program sets Fls_Ready, instead of setting it");
  verb->add_option("--timeout", options.timeoutSeconds,
                   "Give up after that many seconds, 1 or more (default: no limit)")
      ->check(CLI::PositiveNumber);
  verb->add_flag("--quiet", options.quiet, "Show no progress");
  return verb;
}

CLI::App* AddStatus(CLI::App& program, StatusOptions& options) {
  CLI::App* const verb =
      AddVerb(program, "status", "Show the handshake, the modem and the images", options.json);
  verb->add_flag("--watch", options.watch, "Show every change until Ctrl+C; with --json one line each");
  verb->add_flag("--service", options.service, "Show the key of the service instead of the command line's");
  return verb;
}

CLI::App* AddCheck(CLI::App& program, CheckOptions& options) {
  return AddVerb(program, "check", "Tell whether a flash could begin, without touching the modem",
                 options.json);
}

/// @return the exit status of a parse that did not lead to a verb.
int Answer(const CLI::App& program, const CLI::ParseError& error, bool json) {
  // Help and version are no errors for the library either.
  if (error.get_exit_code() == 0) return program.exit(error);
  if (json) {
    Report({"wrong_usage", error.what(), "See corvel_cmdline --help."}, true);
  } else {
    program.exit(error);
  }
  return static_cast<int>(ExitCode::WrongUsage);
}

int Run(std::vector<std::string> words, bool json) {
  CLI::App program{"Flashes the built-in cellular modem, once."};
  program.name("corvel_cmdline");
  program.set_version_flag("--version", std::string("corvel_cmdline ") + CORVEL_VERSION);
  program.footer(kExitCodes);
  program.require_subcommand(1);
  Options options;
  const CLI::App* const flash = AddFlash(program, options.flash);
  const CLI::App* const status = AddStatus(program, options.status);
  AddCheck(program, options.check);

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

}  // namespace

int main() {
  const Utf8Terminal terminal;
  const std::vector<std::string> words = CommandLineWords();
  const bool json = std::ranges::find(words, "--json") != words.end();
  try {
    return Run(words, json);
  } catch (const std::exception& error) {
    Report({"internal", std::string("Something unforeseen went wrong: ") + error.what() + ".",
            "Run \"corvel_cmdline check\" and try again."},
           json);
    return static_cast<int>(ExitCode::NotReady);
  }
}
