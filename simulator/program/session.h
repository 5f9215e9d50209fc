#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "debug_log.h"
#include "handshake.h"
#include "scenario.h"
#include "virtual_pc.h"

/// One run of the library in a virtual PC.
struct SessionPlan {
  Setup setup;
  double speed = 1.0;
  /// The folder that the running program, the library and the flashing library lie in.
  std::filesystem::path folder;
  /// Key below HKEY_CURRENT_USER for the handshake. Removed afterwards.
  std::wstring key;
  /// How the run ends; what takes its time (abandoned workers, a modem that starts again) is waited for.
  /// Null: as soon as the library waits for the next request.
  const Expectation* awaited = nullptr;
};

/// What the controlling program sees at a moment.
struct Snapshot {
  Handshake values;
  ModemState modem = ModemState::kNormal;
  int attempt = 0;
  std::chrono::milliseconds elapsed{0};  ///< virtual, since the flash was asked for
};

/// How a run went.
struct SessionReport {
  bool service_started = false;
  /// False when a wait was given up; `difficulty` says which.
  bool finished = false;
  std::string difficulty;

  Handshake values;
  int attempts = 0;
  int workers_back = 0;
  int resets = 0;
  int mbim_reboots = 0;
  int at_commands = 0;
  ModemState modem = ModemState::kNormal;
  Memory memory = Memory::kUntouched;
  MemoryComparison comparison;
  std::uint32_t items_written = 0;
  std::uint64_t bytes_written = 0;
  int images_left = 0;

  std::chrono::milliseconds duration{0};  ///< virtual, from the request to the result
  std::chrono::milliseconds real_duration{0};
  std::filesystem::path log_file;
  std::vector<DebugRecord> log;
  std::vector<JournalEntry> journal;
};

/// Stage of a flash, in words for people.
std::string StageOf(const Snapshot& now);

/// Runs one flash in this process, once: the library reads its configuration only once per process.
/// @param show called whenever something changed, and now and then.
SessionReport RunSession(const SessionPlan& plan, const std::function<void(const Snapshot&)>& show);
