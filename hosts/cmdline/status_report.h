#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "hosts/cmdline/running_job.h"
#include "hosts/cmdline/surroundings.h"
#include "hosts/common/handshake.h"
#include "hosts/common/modem_presence.h"

namespace hosts {

/// All that "status" shows, as it is at one moment.
struct Status {
  HandshakeKey key;
  Writer writer;
  Handshake values;
  ModemPresence modem;
  std::wstring folder;
  FolderImages images;
  /// What keeps the host of the key from its work, a sentence each.
  std::vector<std::string> hindrances;
  std::optional<RunningJob> job = std::nullopt;
  bool serviceStarts = false;

  /// Whether a job stands there that nobody will end.
  bool WasCutShort() const { return writer == Writer::Gone && values.IsJobRunning(); }
};

/// For lines of so many columns.
std::string StatusText(const Status& status, std::size_t columns);
nlohmann::ordered_json AsJson(const Status& status);
/// The part of that which the key holds.
nlohmann::ordered_json HandshakeAsJson(const HandshakeKey& key, const Handshake& values, Writer writer);

}  // namespace hosts
