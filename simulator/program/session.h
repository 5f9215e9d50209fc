#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "hosts/common/handshake.h"
#include "simulator/program/debug_log.h"
#include "simulator/program/scenarios/scenario.h"
#include "simulator/virtual_pc.h"

namespace simulator {

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
  hosts::Handshake values;
  ModemState modem = ModemState::Normal;
  int attempt = 0;
  std::chrono::milliseconds elapsed{0};  ///< virtual, since the flash was asked for
};

/// How a run went.
struct SessionReport {
  bool serviceStarted = false;
  /// False when a wait was given up; `difficulty` says which.
  bool finished = false;
  std::string difficulty;

  hosts::Handshake values;
  int attempts = 0;
  int workersBack = 0;
  int resets = 0;
  int mbimReboots = 0;
  int atCommands = 0;
  ModemState modem = ModemState::Normal;
  Memory memory = Memory::Untouched;
  MemoryComparison comparison;
  std::uint32_t itemsWritten = 0;
  std::uint64_t bytesWritten = 0;
  int imagesLeft = 0;

  std::chrono::milliseconds duration{0};  ///< virtual, from the request to the result
  std::chrono::milliseconds realDuration{0};
  std::filesystem::path logFile;
  std::vector<DebugRecord> log;
  std::vector<JournalEntry> journal;
};

/// Stage of a flash, in words for people.
std::string StageOf(const Snapshot& now);

/// Runs one flash in this process, once: the library reads its configuration only once per process.
/// @param show called whenever something changed, and now and then.
SessionReport RunSession(const SessionPlan& plan, const std::function<void(const Snapshot&)>& show);

}  // namespace simulator
