#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hosts/common/completion.h"
#include "hosts/common/help_text.h"
#include "hosts/common/history_output.h"
#include "hosts/common/json_output.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/nearest_word.h"
#include "hosts/common/problem.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/shared_names.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/text_layout.h"
#include "hosts/common/trusted_folders.h"
#include "hosts/common/who_flashes.h"
#include "hosts/common/wrong_usage.h"
#include "hosts/service/first_configuration.h"
#include "hosts/service/flash_library.h"
#include "hosts/service/identity.h"
#include "hosts/service/permissions.h"
#include "hosts/service/service_body.h"
#include "hosts/service/service_control.h"
#include "hosts/service/service_text.h"

namespace hosts {

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr int kBusy = 3;
constexpr int kNotReady = 4;

constexpr char kProgram[] = "corvel_service";
constexpr char kExitCodes[] =
    "Exit status: 0 done, or nothing was to do; 1 failed; 2 wrong usage; 3 a flash is running and the "
    "service was not stopped; 4 of status: not ready; 5 of run: ended because a flash stood still.";
constexpr char kRestartWhenStuckHelp[] =
    "End the process when nothing changes in a flash for longer than Time_Out; the service manager starts it "
    "anew";

std::string AdviceOnServiceCode(DWORD code) {
  switch (code) {
    case kFailedNoLibrary:
      return "Look at the Windows event log; is CorvelToolKit.dll beside this program, and of its version?";
    case kFailedNoConfiguration:
      return "Look at the Windows event log; is CorvelConfig.ini beside this program? Has another program it "
             "open?";
    case kEndedBecauseStuck:
      return "The service manager starts it anew. Look at the Windows event log and at the end of the kept "
             "debug log.";
    case kFailedNoResources:
      return "Look at the Windows event log; close other programs, or start the PC anew, and try again.";
    default:
      return "Look at the Windows event log.";
  }
}

std::string Advice(const ControlResult& result) {
  switch (result.error) {
    case ERROR_ACCESS_DENIED:
      return "Run this program as an administrator.";
    case ERROR_SERVICE_DOES_NOT_EXIST:
      return "Install it first: corvel_service install";
    case ERROR_SERVICE_EXISTS:
      return "It is installed already, but for another program or with another --start, or restricted: "
             "uninstall it first, or give the options that it has.";
    case ERROR_SERVICE_NOT_ACTIVE:
      return "It ended at once. Look at the Windows event log.";
    case ERROR_SERVICE_CANNOT_ACCEPT_CTRL:
      return "It is stopping. Try again when it has stopped.";
    case ERROR_INVALID_SERVICE_CONTROL:
      return "A flash is running. Wait for its end, or use --force and let the next flash recover the modem.";
    case ERROR_SERVICE_SPECIFIC_ERROR:
      return AdviceOnServiceCode(result.serviceCode);
    case ERROR_SERVICE_MARKED_FOR_DELETE:
      return "It goes when nobody looks at it any more: close the Services window, and try again.";
    case ERROR_SERVICE_REQUEST_TIMEOUT:
      return "It did not answer in time. Look at the Windows event log, and try again.";
    default:
      return "Look at the Windows event log, and try again.";
  }
}

std::string ReasonText(const ControlResult& result) {
  if (result.error != ERROR_SERVICE_SPECIFIC_ERROR) return SystemErrorText(result.error);
  return MeaningOfServiceCode(result.serviceCode) + " (" + std::to_string(result.serviceCode) + ")";
}

std::string FailureText(const ControlResult& result) {
  return std::string("Could not ") + result.step + ": " + ReasonText(result) + ".";
}

/// Tells something in the program's name, for a window of any width.
void Tell(const std::string& text) {
  const std::string line = std::string(kProgram) + ": " + text;
  std::cerr << Wrapped(line, TextColumns(::GetStdHandle(STD_ERROR_HANDLE)), "", "  ") << std::flush;
}

int Conclude(const ControlResult& result, const std::string& success) {
  if (result.error == ERROR_SUCCESS) {
    if (*result.missing != '\0')
      Tell(std::string("This service manager does not offer ") + result.missing + ".");
    std::cout << success << std::endl;
    return kDone;
  }
  Report(kProgram, {"", FailureText(result), Advice(result)}, false);
  return result.error == ERROR_INVALID_SERVICE_CONTROL ? kBusy : kFailed;
}

/// For a verb that finds all as it is to be.
int HadNothingToDo(const char* why) {
  std::cout << why << std::endl;
  return kDone;
}

int Install(const InstallOptions& options) {
  const ControlResult result = InstallService(options);
  const bool wasThere = result.error == ERROR_SERVICE_EXISTS && IsInstalledLikeThis(options);
  if (wasThere && options.restricted) {
    const ControlResult restricted = RestrictInstalledService();
    if (restricted.error != ERROR_SUCCESS) return Conclude(restricted, "");
  }
  // Also of an installation that was there: whoever installs it again wants it as it is to be.
  if (wasThere || result.error == ERROR_SUCCESS) {
    for (const std::string& warning : ProtectInstallation()) Tell(warning);
  }
  return wasThere ? HadNothingToDo("It is installed already.") : Conclude(result, "Installed.");
}

/// The one that an option asks for, and none that would disturb a flash by the command line: its files go
/// next.
struct Removal {
  bool unlessFlashing = false;
  bool releaseKey = false;
  bool purge = false;
  /// Where the programs are; empty: where this one is.
  std::string programs;

  std::wstring Folder() const { return programs.empty() ? ProgramFolder() : ToWide(programs) + L'\\'; }
};

/// Of the hosts that the service manager does not know.
std::optional<std::string> WhoFlashesUnmanaged(const std::wstring& folder) {
  if (const auto commandLine = FindFlashingCommandLine()) {
    return commandLine->message + ". " + commandLine->whatToDo;
  }
  const auto configuration = LibraryConfiguration::Read(folder + kConfigurationName);
  if (!configuration) return std::nullopt;
  const HandshakeKey key = configuration->ServiceKey();
  if (!IsServedBy(Server::Service, key) || !ReadHandshake(key).IsJobOpen()) return std::nullopt;
  return "A flash service is flashing; its key is " + key.Text() + ". Wait for its end.";
}

void Clean(const Removal& removal) {
  // First: configuration and history tell of them.
  for (const auto release : {ReleaseHandshakeKey, ReleaseCommandLineKey}) {
    const std::string left = release(removal.Folder());
    if (!left.empty()) Tell(left);
  }
  if (removal.purge) DeleteWhatHostsLeave(removal.Folder());
}

int Uninstall(const Removal& removal) {
  if (removal.unlessFlashing) {
    if (const auto why = WhoFlashesUnmanaged(removal.Folder())) {
      Tell(*why);
      return kBusy;
    }
  }
  const ControlResult result = UninstallService();
  const bool gone = result.error == ERROR_SUCCESS || result.error == ERROR_SERVICE_DOES_NOT_EXIST;
  if (gone && (removal.purge || removal.releaseKey)) Clean(removal);
  if (result.error == ERROR_SERVICE_DOES_NOT_EXIST) return HadNothingToDo("It is not installed.");
  return Conclude(result, "Removed.");
}

int Refuse(const std::string& why) {
  Tell(why);
  return kFailed;
}

/// As the options give it.
struct FirstConfiguration {
  std::string registryKey;
  std::string bus;
  std::string images;
  bool remember = false;
};

int WriteFirstConfiguration(const FirstConfiguration& wanted) try {
  const std::wstring bus = wanted.bus.empty() ? L"" : wanted.bus == "pcie" ? L"PCIE" : L"USB";
  const Configured configured =
      Configure({.registryKey = ToWide(wanted.registryKey), .bus = bus, .images = ToWide(wanted.images)});
  if (configured == Configured::Before) {
    // A new one says what the installer was told.
    if (wanted.remember) RememberForInstaller();
    return HadNothingToDo("It is configured already.");
  }
  std::cout << "Configured." << std::endl;
  return kDone;
} catch (const std::invalid_argument& error) {
  Tell(std::string(error.what()) + ".");
  return kWrongUsage;
}

/// Why a service may not begin to serve beside the other hosts; nothing when it may.
std::optional<std::string> WhyNotBeside(const std::optional<HandshakeKey>& servedAlready) {
  if (const auto commandLine = FindFlashingCommandLine()) {
    return commandLine->message + ". " + commandLine->whatToDo;
  }
  if (!servedAlready) return std::nullopt;
  return "Another flash service serves " + servedAlready->Text() + " already: both would take each request.";
}

/// Of a service that does not run: one that does, or is about to, needs its configuration and its notice.
std::optional<std::string> WhyNotToStart() {
  ServiceState state;
  if (QueryFlashService(state).error != ERROR_SUCCESS || !state.installed || state.state != SERVICE_STOPPED) {
    return std::nullopt;
  }
  const auto key = FlashServiceKey();
  return WhyNotBeside(key && IsServedBy(Server::Service, *key) ? key : std::nullopt);
}

int Start() {
  if (const auto why = WhyNotToStart()) return Refuse(*why);
  const ControlResult result = StartFlashService();
  if (result.error == ERROR_SERVICE_ALREADY_RUNNING) return HadNothingToDo("It is running already.");
  return Conclude(result, "Running.");
}

int Stop(bool forced) {
  const ControlResult result = StopFlashService(forced);
  if (result.error == ERROR_SERVICE_DOES_NOT_EXIST) return HadNothingToDo("It is not installed.");
  if (result.error == ERROR_SERVICE_NOT_ACTIVE) return HadNothingToDo("It is not running.");
  return Conclude(result, "Stopped.");
}

/// What is wrong with the service, for its status; nothing while it can flash.
std::optional<Problem> ProblemOf(const ServiceState& state, bool configured, bool hindered) {
  if (state.HasFailed()) {
    const ControlResult failure{
        .error = state.win32ExitCode, .step = "run", .serviceCode = state.serviceExitCode};
    return Problem{"service_failed", "The service ended: " + ReasonText(failure) + ".", Advice(failure)};
  }
  if (!configured) {
    return Problem{"no_configuration",
                   "The configuration " + ToUtf8(ProgramFolder()) + "CorvelConfig.ini cannot be read.",
                   "Put it beside this program, or close whatever holds it open."};
  }
  if (hindered) {
    return Problem{"name_taken",
                   "The service is kept from its work: another program has a name of the system's that the "
                   "library needs.",
                   "Look at the Windows event log for the name. " + AdviceOnTakenNames()};
  }
  return std::nullopt;
}

nlohmann::ordered_json AsJson(const ServiceState& state, const std::string& flashResult) {
  return {{"installed", state.installed},
          {"state", state.installed ? NameOfState(state.state) : "not installed"},
          {"process_id", state.processId},
          {"exit_code", state.win32ExitCode},
          {"service_exit_code", state.serviceExitCode},
          {"flash_result", flashResult}};
}

std::string MeaningOfLastFlash(const HandshakeKey& key) {
  // First: a host that ends between the two looks has written its result by then.
  const Writer writer = WriterOf(key);
  return MeaningOfResult(ReadHandshake(key).result, writer);
}

int ShowStatus(bool json) {
  ServiceState state;
  const ControlResult result = QueryFlashService(state);
  if (result.error != ERROR_SUCCESS) {
    Report(kProgram, {"no_service_manager", FailureText(result), Advice(result)}, json);
    return kNotReady;
  }
  // The library finds no configuration while another program has it open, and a service that starts must.
  const bool starting = state.state == SERVICE_START_PENDING;
  const auto key = starting ? std::nullopt : FlashServiceKey();
  const std::string flashResult = key ? MeaningOfLastFlash(*key) : "unknown";
  const std::optional<Problem> problem = ProblemOf(state, key || starting, key && IsServiceHindered(*key));
  if (json) {
    PrintJson(problem ? AsJson(*problem, AsJson(state, flashResult)) : AsJson(state, flashResult));
  } else {
    std::cout << ServiceStatusText(state, flashResult, TextColumns(::GetStdHandle(STD_OUTPUT_HANDLE)))
              << std::flush;
    if (problem) Report(kProgram, *problem, false);
  }
  return problem ? kNotReady : kDone;
}

/// Two supervisors would both take the next request.
int RunBesideNoOtherHost(WhenStuck whenStuck) {
  ServiceState state;
  if (QueryFlashService(state).error == ERROR_SUCCESS && state.state != SERVICE_STOPPED) {
    return Refuse(std::string("The service is ") + NameOfState(state.state) +
                  ". Stop it first: corvel_service stop");
  }
  // Given before the library serves, and before the look at the command line, which looks for it: of two that
  // are started at one moment, one sees the other.
  const auto key = FlashServiceKey();
  std::optional<ServingNotice> notice;
  if (key) notice.emplace(Server::Service, *key);
  if (const auto why = WhyNotBeside(notice && notice->HasPredecessor() ? key : std::nullopt)) {
    return Refuse(*why);
  }
  return RunInConsole(whenStuck);
}

/// Started without a verb: by the service manager, or by somebody who needs help.
int RunWithoutVerb(const CLI::App& program, WhenStuck whenStuck) {
  const unsigned long error = RunAsService(whenStuck);
  if (error == ERROR_SUCCESS) return kDone;
  if (error != ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) {
    Tell(SystemErrorText(error) + ".");
    return kFailed;
  }
  Tell("This program was not started by the service manager; it needs a verb.");
  std::cerr << "\n" << program.help();
  return kWrongUsage;
}

/// "help" and "help VERB" say the same as the option.
void TakeHelpForAnOption(std::vector<std::string>& words) {
  if (words.empty() || words.front() != "help") return;
  words.erase(words.begin());
  words.emplace_back("--help");
}

/// @return what is wrong with a first word that is neither a verb nor an option; nothing when it is one.
std::optional<Problem> UnknownVerb(const CLI::App& program, const std::vector<std::string>& words) {
  const std::vector<std::string> verbs = VerbNames(program);
  if (words.empty() || words.front().starts_with("-") ||
      std::ranges::find(verbs, words.front()) != verbs.end()) {
    return std::nullopt;
  }
  const std::string nearest = NearestWord(words.front(), verbs);
  return Problem{"wrong_usage", "\"" + words.front() + "\" is no verb.",
                 nearest.empty() ? "See \"corvel_service help\"." : "Did you mean \"" + nearest + "\"?"};
}

/// @return the exit status of a parse that did not lead to a verb.
int Answer(const CLI::App& program, const CLI::ParseError& error, bool json) {
  // Help and version are no errors for the library either.
  if (error.get_exit_code() == 0) return program.exit(error);
  Report(kProgram, WrongUsage(program, error), json);
  return kWrongUsage;
}

/// What the verbs are told by their options, and the verb that was chosen.
struct Options {
  std::function<int()> action;
  bool json = false;
  bool restartsWhenStuck = false;
  std::string start = "auto";
  bool restricted = false;
  Removal removal;
  FirstConfiguration configuration;
  bool forced = false;
  bool history = false;
  bool console = false;
  std::string shell;

  WhenStuck AfterStandstill() const { return restartsWhenStuck ? WhenStuck::EndProcess : WhenStuck::GoOn; }
};

struct Example {
  std::string_view verb;
  const char* lines;
};
constexpr Example kExamples[] = {
    {"install",
     "  corvel_service install --restart-when-stuck\n"
     "  corvel_service install --start demand --restrict\n"},
    {"uninstall",
     "  corvel_service uninstall\n"
     "  corvel_service uninstall --unless-flashing --purge\n"},
    {"configure",
     "  corvel_service configure --bus usb --images D:\\Firmware\n"
     "  corvel_service configure --registry-key HKLM\\SOFTWARE\\Quenta\\FlashService\n"},
    {"start", "  corvel_service start\n"},
    {"stop",
     "  corvel_service stop\n"
     "  corvel_service stop --force\n"},
    {"status",
     "  corvel_service status --json\n"
     "  corvel_service status --history\n"},
    {"run", "  corvel_service run --console\n"},
    {"completion", "  corvel_service completion powershell | Out-String | Invoke-Expression\n"},
};

std::string FooterOf(std::string_view verb) {
  const auto* const found = std::ranges::find(kExamples, verb, &Example::verb);
  if (found == std::end(kExamples)) throw std::logic_error("a verb without an example");
  return std::string("Examples:\n") + found->lines + "\n" + kExitCodes;
}

CLI::App& AddVerb(CLI::App& program, Options& options, const char* name, const char* description,
                  std::function<int()> action) {
  CLI::App* const verb = program.add_subcommand(name, description);
  verb->footer(FooterOf(name));
  verb->callback([&options, action = std::move(action)] { options.action = action; });
  return *verb;
}

void AddRestartWhenStuck(CLI::App& verb, Options& options) {
  verb.add_flag(kRestartWhenStuckOption, options.restartsWhenStuck, kRestartWhenStuckHelp);
}

void AddInstall(CLI::App& program, Options& options) {
  CLI::App& install = AddVerb(program, options, "install", "Install the service", [&options] {
    return Install({.automatic = options.start == "auto",
                    .restartsWhenStuck = options.restartsWhenStuck,
                    .restricted = options.restricted});
  });
  install.add_option("--start", options.start, "When the service starts")
      ->check(CLI::IsMember({"auto", "demand"}))
      ->capture_default_str();
  AddRestartWhenStuck(install, options);
  install.add_flag("--restrict", options.restricted,
                   "Leave the service only the privileges that it needs, and give it an "
                   "identity of its own for permissions");
}

void AddUninstall(CLI::App& program, Options& options) {
  CLI::App& uninstall = AddVerb(program, options, "uninstall", "Stop the service and remove it",
                                [&options] { return Uninstall(options.removal); });
  uninstall.add_flag("--unless-flashing", options.removal.unlessFlashing,
                     "Not while a command line or a service in a terminal flashes either");
  uninstall.add_flag("--release-key", options.removal.releaseKey,
                     "Delete the key of the handshake if install made it, else leave it to whom it was left; "
                     "and the command line's, if there were flashes");
  uninstall.add_flag("--purge", options.removal.purge, "That, and delete configuration, logs and history");
  uninstall.add_option("--programs", options.removal.programs,
                       "The folder where these find the configuration; otherwise the program's own");
}

void AddConfigure(CLI::App& program, Options& options) {
  CLI::App& configure = AddVerb(program, options, "configure", "Make CorvelConfig.ini where there is none",
                                [&options] { return WriteFirstConfiguration(options.configuration); });
  configure.add_option("--registry-key", options.configuration.registryKey,
                       "Where the controlling program is met");
  configure.add_option("--bus", options.configuration.bus, "How the modem is connected")
      ->check(CLI::IsMember({"usb", "pcie"}));
  configure.add_option("--images", options.configuration.images, "The folder of the firmware images");
  configure.add_flag("--remember", options.configuration.remember,
                     "Of one that is there, note for the installer what it says of these three");
}

void AddStop(CLI::App& program, Options& options) {
  AddVerb(program, options, "stop", "Stop the service, unless a flash is running", [&options] {
    return Stop(options.forced);
  }).add_flag("--force", options.forced, "Stop it even then");
}

void AddStatus(CLI::App& program, Options& options) {
  CLI::App& status = AddVerb(program, options, "status", "Show the service's state", [&options] {
    if (options.history) return ShowHistory(kProgram, options.json) ? kDone : kNotReady;
    return ShowStatus(options.json);
  });
  status.add_flag("--json", options.json, "Print one JSON document and nothing else");
  status.add_flag("--history", options.history, "Show how the last flashes ended, the command line's too");
}

void AddRun(CLI::App& program, Options& options) {
  CLI::App& run = AddVerb(program, options, "run", "Run in this terminal until Ctrl+C",
                          [&options] { return RunBesideNoOtherHost(options.AfterStandstill()); });
  run.add_flag("--console", options.console, "Needed, so that nobody does it by mistake")->required();
  AddRestartWhenStuck(run, options);
}

void AddCompletion(CLI::App& program, Options& options) {
  CLI::App& completion =
      AddVerb(program, options, "completion",
              "Print a script that lets a shell complete this program's verbs and options", [&program] {
                std::cout << PowerShellCompletion(program, "completion") << std::flush;
                return kDone;
              });
  AddShell(completion, "SHELL", options.shell).required();
}

void DescribeProgram(CLI::App& program, Options& options) {
  program.name("corvel_service");
  WriteHelpForWindow(program);
  program.set_version_flag("-V,--version", std::string("corvel_service ") + CORVEL_VERSION);
  program.footer(kExitCodes);
  program.require_subcommand(0, 1);
  // For the service manager, which starts the program as it was installed.
  program.add_flag(kRestartWhenStuckOption, options.restartsWhenStuck)->group("");
  options.action = [&] { return RunWithoutVerb(program, options.AfterStandstill()); };

  AddInstall(program, options);
  AddUninstall(program, options);
  AddConfigure(program, options);
  AddVerb(program, options, "start", "Start the service", Start);
  AddStop(program, options);
  AddStatus(program, options);
  AddRun(program, options);
  AddCompletion(program, options);
}

int Run(std::vector<std::string> words, bool json) {
  CLI::App program{"Runs the modem flash library as a Windows service"};
  Options options;
  options.json = json;
  DescribeProgram(program, options);

  TakeHelpForAnOption(words);
  if (const auto problem = UnknownVerb(program, words)) {
    Report(kProgram, *problem, json);
    return kWrongUsage;
  }
  try {
    // The parser takes them from the back.
    std::ranges::reverse(words);
    program.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    return Answer(program, error, json);
  }
  return options.action();
}

int RunProgram() {
  const Utf8Terminal terminal;
  std::vector<std::string> words = CommandLineWords();
  const bool json = std::ranges::find(words, "--json") != words.end();
  try {
    LoadFromTrustedFoldersOnly();
    return Run(std::move(words), json);
  } catch (const std::exception& error) {
    Report(kProgram, {"internal", std::string(error.what()) + ".", "Try again."}, json);
    return kFailed;
  }
}

}  // namespace

}  // namespace hosts

int main() {
  return hosts::RunProgram();
}
