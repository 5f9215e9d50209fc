#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "hosts/cmdline/commands.h"
#include "hosts/cmdline/journal.h"
#include "hosts/cmdline/problems.h"
#include "hosts/cmdline/status_display.h"
#include "hosts/cmdline/status_report.h"
#include "hosts/cmdline/surroundings.h"
#include "hosts/common/history_output.h"
#include "hosts/common/interruption.h"
#include "hosts/common/json_output.h"
#include "hosts/common/kept_logs.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/modem_presence.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/shared_names.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "toolkit/toolkit.h"

namespace hosts {

namespace {

constexpr DWORD kLookAtModemMs = 1000;

/// A service in another session alone knows of the names there.
std::vector<std::string> FindHindrances(const HandshakeKey& key, bool ofService) {
  std::vector<std::string> hindrances;
  if (IsServiceHindered(key)) {
    hindrances.emplace_back(
        "the flash service says that another program has a name that the library needs; the Windows event "
        "log tells which");
  }
  if (ofService) return hindrances;
  for (const TakenName& name : FindTakenNames(PortSearch::MayBeRunning)) hindrances.push_back(name.Message());
  return hindrances;
}

/// Where a look finds what it shows.
struct Place {
  HandshakeKey key;
  std::wstring folder;
  bool ofService = false;
};

Status Look(const Place& place, JobFollower& follower) {
  // First: a host that ends between the two looks has written its result by then.
  const Writer writer = WriterOf(place.key);
  Status status{.key = place.key,
                .writer = writer,
                .values = ReadHandshake(place.key),
                .modem = LookForModem(),
                .folder = place.folder,
                .images = LookForImages(place.folder),
                .hindrances = FindHindrances(place.key, place.ofService)};
  status.job = follower.Look(status.values, writer);
  return status;
}

StatusForm FormOfWatch(const StatusOptions& options) {
  if (options.json) return StatusForm::Json;
  const bool live = options.progress && IsLiveTerminal(::GetStdHandle(STD_OUTPUT_HANDLE)) &&
                    IsLiveTerminal(::GetStdHandle(STD_ERROR_HANDLE));
  return live ? StatusForm::LiveText : StatusForm::Text;
}

std::wstring LogOf(const Place& place) {
  return place.ofService ? ServiceLogPath() : LogPath();
}

/// Shows every change until the program is interrupted.
ExitCode Watch(const Place& place, const StatusOptions& options) {
  JobFollower follower(LogOf(place));
  StatusDisplay display(FormOfWatch(options));
  const Interruption interruption;
  HandshakeWatch changes(place.key);
  const HANDLE signals[] = {interruption.Event(), changes.Event()};
  do {
    // Without a key there is no announcement of its values either; the look once a second finds it.
    changes.Arm();
    display.Show(Look(place, follower));
    // The modem, the folder and the log announce nothing: they are looked at once a second.
  } while (::WaitForMultipleObjects(2, signals, FALSE, kLookAtModemMs) != WAIT_OBJECT_0);
  display.Finish();
  return ExitCode::Interrupted;
}

/// Whether a watch is to follow the service, though nobody said so: it runs, and no command line does. A
/// script has to say what it wants.
bool FollowsServiceUnasked(const StatusOptions& options, const LibraryConfiguration& configuration) {
  if (!options.watch || options.json || WriterOf(CommandLineKey()) == Writer::Lives) return false;
  return WriterOf(configuration.ServiceKey()) == Writer::Lives;
}

ExitCode ShowStatus(const Place& place, const StatusOptions& options, bool serviceStarts) {
  JobFollower follower(LogOf(place));
  Status status = Look(place, follower);
  status.serviceStarts = serviceStarts;
  if (options.json) {
    PrintJson(AsJson(status));
  } else {
    PrintStatus(status);
  }
  return ExitCode::Success;
}

}  // namespace

ExitCode RunStatus(const StatusOptions& options) {
  // Looking must not empty the log of a run that is going on.
  ToolKit::TurnLoggingOff();
  if (options.history) {
    return ShowHistory("corvel_cmdline", options.json) ? ExitCode::Success : ExitCode::NotReady;
  }
  const bool serviceStarts = IsServiceStarting();
  if (options.service && serviceStarts) {
    Report({kServiceStarts, "The flash service is starting and reads its configuration.",
            "Try again in a moment."},
           options.json);
    return ExitCode::NotReady;
  }
  const auto configuration = serviceStarts ? std::nullopt : LibraryConfiguration::Read(ConfigurationPath());
  if (options.service && !configuration) {
    Report({"no_configuration", "The configuration " + ToUtf8(ConfigurationPath()) + " cannot be read.",
            "Put CorvelConfig.ini beside this program, or leave --service out."},
           options.json);
    return ExitCode::NotReady;
  }
  const bool unasked = !options.service && configuration && FollowsServiceUnasked(options, *configuration);
  if (unasked) Tell("The flash service runs: what follows is of its key, as with --service.");
  const bool ofService = options.service || unasked;
  const Place place{.key = ofService ? configuration->ServiceKey() : CommandLineKey(),
                    .folder = configuration ? configuration->FirmwareFolder() : std::wstring(),
                    .ofService = ofService};
  return options.watch ? Watch(place, options) : ShowStatus(place, options, serviceStarts);
}

}  // namespace hosts
