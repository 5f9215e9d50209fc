#include <windows.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "flash_library.h"
#include "identity.h"
#include "service_body.h"
#include "service_control.h"
#include "text.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr int kBusy = 3;

constexpr char kExitCodes[] =
    "Exit status: 0 done, 1 failed, 2 wrong usage, 3 a flash is running and the service was not stopped.";

std::string Advice(const ControlResult& result) {
  switch (result.error) {
    case ERROR_ACCESS_DENIED:
      return "Run this program as an administrator.";
    case ERROR_SERVICE_DOES_NOT_EXIST:
      return "Install it first: corvel_service install";
    case ERROR_SERVICE_EXISTS:
      return "It is installed already.";
    case ERROR_INVALID_SERVICE_CONTROL:
    case ERROR_SERVICE_CANNOT_ACCEPT_CTRL:
      return "A flash is running. Wait for its end, or use --force and let the next flash recover the modem.";
    case ERROR_SERVICE_SPECIFIC_ERROR:
      return "Look at the Windows event log; is CorvelConfig.ini beside this program?";
    default:
      return "";
  }
}

int Conclude(const ControlResult& result, const std::string& success) {
  if (result.error == ERROR_SUCCESS) {
    std::cout << success << std::endl;
    return kDone;
  }
  std::cerr << "corvel_service: Could not " << result.step << ": " << SystemErrorText(result.error) << ".\n"
            << Advice(result) << std::endl;
  const bool busy =
      result.error == ERROR_INVALID_SERVICE_CONTROL || result.error == ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
  return busy ? kBusy : kFailed;
}

int ShowStatus(bool json) {
  ServiceState state;
  const ControlResult result = QueryFlashService(state);
  if (result.error != ERROR_SUCCESS) return Conclude(result, "");
  const Handshake values = ReadHandshake(FlashServiceKey());
  if (json) {
    const nlohmann::ordered_json document{
        {"installed", state.installed},
        {"state", state.installed ? NameOfState(state.state) : "not installed"},
        {"process_id", state.processId},
        {"exit_code", state.win32ExitCode},
        {"service_exit_code", state.serviceExitCode},
        {"flash_result", MeaningOfResult(values.result)}};
    std::cout << document.dump(2) << std::endl;
    return kDone;
  }
  std::cout << ToUtf8(kServiceName) << ": " << (state.installed ? NameOfState(state.state) : "not installed");
  if (state.processId != 0) std::cout << ", process " << state.processId;
  if (state.win32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR)
    std::cout << ", ended with " << state.serviceExitCode;
  std::cout << "\nLast flash: " << MeaningOfResult(values.result) << std::endl;
  return kDone;
}

/// Started without a verb: by the service manager, or by somebody who needs help.
int RunWithoutVerb(const CLI::App& program) {
  const unsigned long error = RunAsService();
  if (error == ERROR_SUCCESS) return kDone;
  if (error != ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) {
    std::cerr << "corvel_service: " << SystemErrorText(error) << std::endl;
    return kFailed;
  }
  std::cerr << "corvel_service: This program was not started by the service manager; it needs a verb.\n\n"
            << program.help();
  return kWrongUsage;
}

}  // namespace

int main(int count, char** words) try {
  CLI::App program{"Runs the modem flash library as a Windows service."};
  program.name("corvel_service");
  program.set_version_flag("--version", std::string("corvel_service ") + CORVEL_VERSION);
  program.footer(kExitCodes);
  program.require_subcommand(0, 1);
  int status = kDone;

  std::string start = "auto";
  CLI::App* const install = program.add_subcommand("install", "Install the service");
  install->add_option("--start", start, "When the service starts")
      ->check(CLI::IsMember({"auto", "demand"}))
      ->capture_default_str();
  install->callback([&] { status = Conclude(InstallService(start == "auto"), "Installed."); });

  program.add_subcommand("uninstall", "Stop the service and remove it")->callback([&] {
    status = Conclude(UninstallService(), "Removed.");
  });
  program.add_subcommand("start", "Start the service")->callback([&] {
    status = Conclude(StartFlashService(), "Running.");
  });

  bool forced = false;
  CLI::App* const stop = program.add_subcommand("stop", "Stop the service, unless a flash is running");
  stop->add_flag("--force", forced, "Stop it even then");
  stop->callback([&] { status = Conclude(StopFlashService(forced), "Stopped."); });

  bool json = false;
  CLI::App* const state = program.add_subcommand("status", "Show the service's state");
  state->add_flag("--json", json, "Print one JSON document and nothing else");
  state->callback([&] { status = ShowStatus(json); });

  bool console = false;
  CLI::App* const run = program.add_subcommand("run", "Run in this terminal until Ctrl+C");
  run->add_flag("--console", console, "Needed, so that nobody does it by mistake")->required();
  run->callback([&] { status = RunInConsole(); });

  try {
    program.parse(count, words);
  } catch (const CLI::ParseError& error) {
    const int code = program.exit(error);
    return code == 0 ? kDone : kWrongUsage;
  }
  return program.get_subcommands().empty() ? RunWithoutVerb(program) : status;
} catch (const std::exception& error) {
  std::cerr << "corvel_service: " << error.what() << std::endl;
  return kFailed;
}
