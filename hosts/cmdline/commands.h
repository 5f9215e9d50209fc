#pragma once

#include <string>

#include "hosts/cmdline/exit_code.h"

namespace hosts {

struct FlashOptions {
  std::string ipc;  ///< "usb" or "pcie"; empty: as the configuration says
  int trace = 1;
  bool waitForController = false;
  unsigned int timeoutSeconds = 0;  ///< 0: no limit
  std::string expect;               ///< file of the images' digests; empty: any image will do
  unsigned int minBattery = 0;      ///< percent; 0: any charge will do
  bool json = false;
  bool quiet = false;
};

struct StatusOptions {
  bool watch = false;
  bool service = false;
  bool history = false;
  bool json = false;
};

struct CheckOptions {
  std::string expect;  ///< as for a flash
  bool json = false;
  bool strict = false;  ///< warnings count as errors
};

/// One flash, start to end.
ExitCode RunFlash(const FlashOptions& options);
/// What the handshake, the modem and the firmware folder look like.
ExitCode RunStatus(const StatusOptions& options);
/// Whether a flash could begin, without touching the modem.
ExitCode RunCheck(const CheckOptions& options);

}  // namespace hosts
