#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "simulator/program/scenarios/scenario.h"
#include "simulator/program/session.h"

namespace simulator {

/// Who asks for the flash.
enum class Asker {
  Host,       ///< the command-line host itself
  Controller  ///< a controlling program, which brings the images while the host waits for it
};

/// What is to be flashed by the command-line host, and how.
struct CommandLinePlan {
  Setup setup;
  /// Name of the scenario that the setup is from; empty for a sound PC of the setup's route.
  std::string scenario;
  double speed = 1.0;
  Asker asker = Asker::Host;
  /// Made new; holds the host, what it needs and what it leaves.
  std::filesystem::path folder;
  /// Words behind "flash".
  std::vector<std::wstring> options;
  /// Where the host's output goes; empty: where this program's goes.
  std::filesystem::path output;
};

/// How a run of the command-line host went.
struct CommandLineReport {
  unsigned long exitCode = 0;
  /// As for a run of the service; the modem as it is when nobody touches it any more.
  SessionReport session;
};

/// Flashes once with corvel_cmdline.exe in a virtual PC, with the key of the command line for itself: only
/// one run at a time. Throws when it cannot be set up.
CommandLineReport FlashByCommandLine(const CommandLinePlan& plan);

}  // namespace simulator
