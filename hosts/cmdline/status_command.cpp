#include <windows.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "modem_presence.h"
#include "setup.h"
#include "text.h"
#include "toolkit/toolkit.h"

namespace {

constexpr DWORD kLookAtModemMs = 1000;

/// All that the verb shows, as it is at one moment.
struct Status {
  HandshakeKey key;
  Handshake values;
  ModemPresence modem;
  std::wstring folder;
  FolderImages images;
};

Status Look(const HandshakeKey& key, const std::wstring& folder) {
  return {.key = key,
          .values = ReadHandshake(key),
          .modem = LookForModem(),
          .folder = folder,
          .images = LookForImages(folder)};
}

nlohmann::ordered_json AsJson(const Status& status) {
  nlohmann::ordered_json values;
  for (const HandshakeLine& line : Describe(status.values)) {
    values[line.name] = {
        {"value", line.value ? nlohmann::ordered_json(*line.value) : nlohmann::ordered_json()},
        {"meaning", line.meaning}};
  }
  return {{"key", status.key.Text()},
          {"values", values},
          {"modem",
           {{"mode", NameOf(status.modem.mode)},
            {"at_port", status.modem.atPort},
            {"reset_driver", status.modem.resetDriver}}},
          {"images",
           {{"folder", ToUtf8(status.folder)},
            {"modem", ToUtf8(status.images.modem)},
            {"nvm", ToUtf8(status.images.nvm)}}}};
}

void Print(const Status& status) {
  std::cout << status.key.Text() << "\n";
  for (const HandshakeLine& line : Describe(status.values)) {
    const std::string value = line.value ? std::to_string(*line.value) : "-";
    std::cout << "  " << line.name << std::string(16 - std::string_view(line.name).size(), ' ') << value
              << std::string(value.size() < 8 ? 8 - value.size() : 1, ' ') << line.meaning << "\n";
  }
  std::cout << "Modem:       " << NameOf(status.modem.mode)
            << (status.modem.atPort ? ", AT port present" : "")
            << (status.modem.resetDriver ? ", reset driver present" : ", reset driver absent") << "\n"
            << "Folder:      " << (status.folder.empty() ? "(not configured)" : ToUtf8(status.folder)) << "\n"
            << "Modem image: " << (status.images.modem.empty() ? "-" : ToUtf8(status.images.modem)) << "\n"
            << "NVM image:   " << (status.images.nvm.empty() ? "-" : ToUtf8(status.images.nvm)) << std::endl;
}

void Show(const Status& status, bool json) {
  if (json) {
    std::cout << AsJson(status).dump(2) << std::endl;
  } else {
    Print(status);
  }
}

bool Same(const Status& one, const Status& other) {
  return AsJson(one) == AsJson(other);
}

/// Shows every change until the program is interrupted.
void Watch(const HandshakeKey& key, const std::wstring& folder, bool json) {
  HandshakeWatch watch(key);
  Status shown = Look(key, folder);
  Show(shown, json);
  for (;;) {
    watch.Arm();
    const Status now = Look(key, folder);
    if (!Same(now, shown)) Show(now, json);
    shown = now;
    // The modem and the folder announce nothing: they are looked at once a second.
    ::WaitForSingleObject(watch.Event(), kLookAtModemMs);
  }
}

}  // namespace

ExitCode RunStatus(const StatusOptions& options) {
  const HandshakeKey commandLineKey = CommandLineKey();
  // Looking must not empty the log of a run that is going on.
  ToolKit::TurnLoggingOff();
  const auto configuration = ConfigurationFile::Read(ConfigurationPath());
  if (options.service && !configuration) {
    Report({"no_configuration", "The configuration " + ToUtf8(ConfigurationPath()) + " cannot be read.",
            "Put CorvelConfig.ini beside this program, or leave --service out."},
           options.json);
    return ExitCode::NotReady;
  }
  const HandshakeKey key = options.service ? configuration->ServiceKey() : commandLineKey;
  const std::wstring folder = configuration ? configuration->FirmwareFolder() : std::wstring();
  if (options.watch) {
    Watch(key, folder, options.json);
  } else {
    Show(Look(key, folder), options.json);
  }
  return ExitCode::Flashed;
}
