#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "flash_library.h"
#include "identity.h"
#include "json_output.h"
#include "service_body.h"
#include "service_control.h"
#include "terminal.h"
#include "text.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr int kBusy = 3;

constexpr char kExitCodes[] =
    "Exit status: 0 done, 1 failed, 2 wrong usage, 3 a flash is running and the service was not stopped.";

std::string Advice(DWORD error) {
  switch (error) {
    case ERROR_ACCESS_DENIED:
      return "Run this program as an administrator.";
    case ERROR_SERVICE_DOES_NOT_EXIST:
      return "Install it first: corvel_service install";
    case ERROR_SERVICE_EXISTS:
      return "It is installed already.";
    case ERROR_SERVICE_ALREADY_RUNNING:
      return "It is running already.";
    case ERROR_SERVICE_NOT_ACTIVE:
      return "It is not running.";
    case ERROR_INVALID_SERVICE_CONTROL:
      return "A flash is running. Wait for its end, or use --force and let the next flash recover the modem.";
    case ERROR_SERVICE_SPECIFIC_ERROR:
      return "Look at the Windows event log; is CorvelConfig.ini beside this program?";
    default:
      return "";
  }
}

int Conclude(const ControlResult& result, const std::string& success) {
  if (result.error == ERROR_SUCCESS) {
    if (*result.missing != '\0') {
      std::cerr << "corvel_service: This service manager does not offer " << result.missing << "."
                << std::endl;
    }
    std::cout << success << std::endl;
    return kDone;
  }
  std::cerr << "corvel_service: Could not " << result.step << ": " << SystemErrorText(result.error) << ".\n"
            << Advice(result.error) << std::endl;
  return result.error == ERROR_INVALID_SERVICE_CONTROL ? kBusy : kFailed;
}

int ShowStatus(bool json) {
  ServiceState state;
  const ControlResult result = QueryFlashService(state);
  if (result.error != ERROR_SUCCESS) return Conclude(result, "");
  // The library finds no configuration while another program has it open, and a service that starts must.
  const auto key = state.state == SERVICE_START_PENDING ? std::nullopt : FlashServiceKey();
  const Handshake values = key ? ReadHandshake(*key) : Handshake{};
  if (json) {
    PrintJson({{"installed", state.installed},
               {"state", state.installed ? NameOfState(state.state) : "not installed"},
               {"process_id", state.processId},
               {"exit_code", state.win32ExitCode},
               {"service_exit_code", state.serviceExitCode},
               {"flash_result", MeaningOfResult(values.result)}});
    return kDone;
  }
  std::cout << ToUtf8(kServiceName) << ": " << (state.installed ? NameOfState(state.state) : "not installed");
  if (state.processId != 0) std::cout << ", process " << state.processId;
  if (state.win32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR)
    std::cout << ", ended with " << state.serviceExitCode;
  std::cout << "\nLast flash: " << MeaningOfResult(values.result) << std::endl;
  return kDone;
}

/// Two supervisors would both take the next request.
int RunBesideNoService() {
  ServiceState state;
  if (QueryFlashService(state).error == ERROR_SUCCESS && state.state != SERVICE_STOPPED) {
    std::cerr << "corvel_service: The service is " << NameOfState(state.state)
              << ". Stop it first: corvel_service stop" << std::endl;
    return kFailed;
  }
  return RunInConsole();
}

/// Started without a verb: by the service manager, or by somebody who needs help.
int RunWithoutVerb(const CLI::App& program) {
  const unsigned long error = RunAsService();
  if (error == ERROR_SUCCESS) return kDone;
  if (error != ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) {
    std::cerr << "corvel_service: " << SystemErrorText(error) << "." << std::endl;
    return kFailed;
  }
  std::cerr << "corvel_service: This program was not started by the service manager; it needs a verb.\n\n"
            << program.help();
  return kWrongUsage;
}

int Run(std::vector<std::string> words) {
  CLI::App program{"Runs the modem flash library as a Windows service."};
  program.name("corvel_service");
  program.set_version_flag("--version", std::string("corvel_service ") + CORVEL_VERSION);
  program.footer(kExitCodes);
  program.require_subcommand(0, 1);

  std::function<int()> action = [&program] { return RunWithoutVerb(program); };
  const auto add = [&](const char* name, const char* description, std::function<int()> verbAction) {
    CLI::App* const verb = program.add_subcommand(name, description);
    verb->footer(kExitCodes);
    verb->callback([&action, verbAction = std::move(verbAction)] { action = verbAction; });
    return verb;
  };

  std::string start = "auto";
  add("install", "Install the service",
      [&] { return Conclude(InstallService(start == "auto"), "Installed."); })
      ->add_option("--start", start, "When the service starts")
      ->check(CLI::IsMember({"auto", "demand"}))
      ->capture_default_str();
  add("uninstall", "Stop the service and remove it", [] { return Conclude(UninstallService(), "Removed."); });
  add("start", "Start the service", [] { return Conclude(StartFlashService(), "Running."); });

  bool forced = false;
  add("stop", "Stop the service, unless a flash is running", [&] {
    return Conclude(StopFlashService(forced), "Stopped.");
  })->add_flag("--force", forced, "Stop it even then");

  bool json = false;
  add("status", "Show the service's state", [&] {
    return ShowStatus(json);
  })->add_flag("--json", json, "Print one JSON document and nothing else");

  bool console = false;
  add("run", "Run in this terminal until Ctrl+C", [] { return RunBesideNoService(); })
      ->add_flag("--console", console, "Needed, so that nobody does it by mistake")
      ->required();

  try {
    // The parser takes them from the back.
    std::ranges::reverse(words);
    program.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    return program.exit(error) == 0 ? kDone : kWrongUsage;
  }
  return action();
}

}  // namespace

int main() {
  const Utf8Terminal terminal;
  try {
    return Run(CommandLineWords());
  } catch (const std::exception& error) {
    std::cerr << "corvel_service: " << error.what() << "." << std::endl;
    return kFailed;
  }
}
