#include <windows.h>

#include <cstddef>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hosts/cmdline/commands.h"
#include "hosts/cmdline/problems.h"
#include "hosts/cmdline/surroundings.h"
#include "hosts/common/history_output.h"
#include "hosts/common/interruption.h"
#include "hosts/common/json_output.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/modem_presence.h"
#include "hosts/common/serving_notice.h"
#include "hosts/common/shared_names.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "toolkit/toolkit.h"

namespace hosts {

namespace {

constexpr DWORD kLookAtModemMs = 1000;
constexpr std::size_t kNameColumn = 16;
constexpr std::size_t kValueColumn = 11;

/// All that the verb shows, as it is at one moment.
struct Status {
  HandshakeKey key;
  Writer writer;
  Handshake values;
  ModemPresence modem;
  std::wstring folder;
  FolderImages images;
  /// What keeps the host of the key from its work, a sentence each.
  std::vector<std::string> hindrances;
  bool serviceStarts = false;

  /// Whether a job stands there that nobody will end.
  bool WasCutShort() const { return writer == Writer::Gone && values.IsJobRunning(); }
};

/// A service in another session alone knows of the names there.
std::vector<std::string> FindHindrances(const HandshakeKey& key, bool ofService) {
  std::vector<std::string> hindrances;
  if (IsServiceHindered(key)) {
    hindrances.emplace_back(
        "the flash service says that another program has a name that the library needs; the Windows event "
        "log "
        "tells which");
  }
  if (ofService) return hindrances;
  for (const TakenName& name : FindTakenNames(PortSearch::MayBeRunning)) hindrances.push_back(name.Message());
  return hindrances;
}

Status Look(const HandshakeKey& key, const std::wstring& folder, bool ofService) {
  // First: a host that ends between the two looks has written its result by then.
  const Writer writer = WriterOf(key);
  return {.key = key,
          .writer = writer,
          .values = ReadHandshake(key),
          .modem = LookForModem(),
          .folder = folder,
          .images = LookForImages(folder),
          .hindrances = FindHindrances(key, ofService)};
}

nlohmann::ordered_json AsJson(const Status& status) {
  nlohmann::ordered_json values;
  for (const HandshakeLine& line : Describe(status.values, status.writer)) {
    values[ToUtf8(line.name)] = {
        {"value", line.value ? nlohmann::ordered_json(*line.value) : nlohmann::ordered_json()},
        {"meaning", line.meaning}};
  }
  return {{"key", status.key.Text()},
          {"host_running", status.writer == Writer::Lives},
          {"values", values},
          {"modem",
           {{"mode", TokenOf(status.modem.mode)},
            {"at_port", status.modem.atPort},
            {"reset_driver", status.modem.resetDriver}}},
          {"images",
           {{"folder", ToUtf8(status.folder)},
            {"modem", ToUtf8(status.images.modem)},
            {"nvm", ToUtf8(status.images.nvm)}}},
          {"hindrances", status.hindrances}};
}

std::string Padded(std::string text, std::size_t width) {
  if (text.size() < width) text.resize(width, ' ');
  return text;
}

std::string OrDash(const std::wstring& text) {
  return text.empty() ? "-" : ToUtf8(text);
}

std::string FolderText(const Status& status) {
  if (status.serviceStarts) return "(not read: the flash service is starting)";
  return status.folder.empty() ? "(not configured)" : ToUtf8(status.folder);
}

void Print(const Status& status) {
  std::cout << status.key.Text() << "\n";
  for (const HandshakeLine& line : Describe(status.values, status.writer)) {
    std::cout << "  " << Padded(ToUtf8(line.name), kNameColumn)
              << Padded(line.value ? std::to_string(*line.value) : "-", kValueColumn) << line.meaning << "\n";
  }
  std::cout << "Host:        " << (status.writer == Writer::Lives ? "running" : "none running") << "\n";
  if (status.WasCutShort()) {
    std::cout << "             The flash was cut short. The modem may be left in flash mode;\n"
                 "             the next flash recovers it.\n";
  }
  for (const std::string& hindrance : status.hindrances) {
    std::cout << "Hindered:    " << hindrance << ".\n             " << AdviceOnTakenNames() << "\n";
  }
  std::cout << "Modem:       " << NameOf(status.modem.mode)
            << (status.modem.atPort ? ", AT port present" : "")
            << (status.modem.resetDriver ? ", reset driver present" : ", reset driver absent") << "\n"
            << "Folder:      " << FolderText(status) << "\n"
            << "Modem image: " << OrDash(status.images.modem) << "\n"
            << "NVM image:   " << OrDash(status.images.nvm) << std::endl;
}

/// Shows every change until the program is interrupted.
ExitCode Watch(const HandshakeKey& key, const std::wstring& folder, const StatusOptions& options) {
  const Interruption interruption;
  HandshakeWatch watch(key);
  nlohmann::ordered_json shown;
  const HANDLE signals[] = {interruption.Event(), watch.Event()};
  do {
    // Without a key there is no announcement of its values either; the look once a second finds it.
    watch.Arm();
    const Status now = Look(key, folder, options.service);
    nlohmann::ordered_json document = AsJson(now);
    if (document == shown) continue;
    if (options.json) {
      PrintJson(document, JsonLayout::OneLine);
    } else {
      Print(now);
    }
    shown = std::move(document);
    // The modem and the folder announce nothing: they are looked at once a second.
  } while (::WaitForMultipleObjects(2, signals, FALSE, kLookAtModemMs) != WAIT_OBJECT_0);
  return ExitCode::Interrupted;
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
  const HandshakeKey key = options.service ? configuration->ServiceKey() : CommandLineKey();
  const std::wstring folder = configuration ? configuration->FirmwareFolder() : std::wstring();
  if (options.watch) return Watch(key, folder, options);

  Status status = Look(key, folder, options.service);
  status.serviceStarts = serviceStarts;
  if (options.json) {
    PrintJson(AsJson(status));
  } else {
    Print(status);
  }
  return ExitCode::Success;
}

}  // namespace hosts
