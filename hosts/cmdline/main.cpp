#include <CLI/CLI.hpp>
#include <exception>
#include <string>

#include "commands.h"
#include "setup.h"

namespace {

constexpr char kExitCodes[] =
    "Exit status: 0 flashed (or nothing wrong), 1 flash failed, 2 wrong usage, 3 no firmware images,\n"
    "4 not ready, 5 interrupted or timed out.";

void AddJson(CLI::App& verb, bool& json) {
  verb.add_flag("--json", json, "Print one JSON document on standard output and nothing else");
}

bool AsksForJson(int count, char** words) {
  for (int i = 1; i < count; ++i) {
    if (std::string(words[i]) == "--json") return true;
  }
  return false;
}

}  // namespace

int main(int count, char** words) try {
  CLI::App program{"Flashes the built-in cellular modem, once."};
  program.name("corvel_cmdline");
  program.set_version_flag("--version", std::string("corvel_cmdline ") + CORVEL_VERSION);
  program.footer(kExitCodes);
  program.require_subcommand(1);

  ExitCode code = ExitCode::WrongUsage;

  FlashOptions flash;
  CLI::App* const flashVerb = program.add_subcommand("flash", "Flash the images of the configured folder");
  flashVerb->add_option("--ipc", flash.ipc, "Bus of the modem")
      ->check(CLI::IsMember({"usb", "pcie"}))
      ->capture_default_str();
  flashVerb->add_option("--trace", flash.trace, "0 writes no debug log")
      ->check(CLI::Range(0, 1))
      ->capture_default_str();
  flashVerb->add_flag("--wait-for-controller", flash.waitForController,
                      "Wait until another program sets Fls_Ready, instead of setting it");
  flashVerb->add_option("--timeout", flash.timeoutSeconds,
                        "Give up after that many seconds (default: no limit)");
  flashVerb->add_flag("--quiet", flash.quiet, "Show no progress");
  AddJson(*flashVerb, flash.json);
  flashVerb->footer(kExitCodes);
  flashVerb->callback([&] { code = RunFlash(flash); });

  StatusOptions status;
  CLI::App* const statusVerb =
      program.add_subcommand("status", "Show the handshake, the modem and the images");
  statusVerb->add_flag("--watch", status.watch, "Go on and show every change");
  statusVerb->add_flag("--service", status.service,
                       "Show the key of the service instead of the command line's");
  AddJson(*statusVerb, status.json);
  statusVerb->footer(kExitCodes);
  statusVerb->callback([&] { code = RunStatus(status); });

  CheckOptions check;
  CLI::App* const checkVerb =
      program.add_subcommand("check", "Tell whether a flash could begin, without touching the modem");
  AddJson(*checkVerb, check.json);
  checkVerb->footer(kExitCodes);
  checkVerb->callback([&] { code = RunCheck(check); });

  try {
    program.parse(count, words);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return program.exit(error);
    if (AsksForJson(count, words)) {
      Report({"wrong_usage", error.what(), "See corvel_cmdline --help."}, true);
    } else {
      program.exit(error);
    }
    return static_cast<int>(ExitCode::WrongUsage);
  }
  return static_cast<int>(code);
} catch (const std::exception& error) {
  Report({"internal", error.what(), "Free memory and try again."}, AsksForJson(count, words));
  return static_cast<int>(ExitCode::NotReady);
}
