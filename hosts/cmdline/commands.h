#pragma once

#include <string>
#include <vector>

#include "hosts/cmdline/exit_code.h"

namespace hosts {

struct FlashOptions {
  std::string ipc;  ///< "usb" or "pcie"; empty: as the configuration says
  int trace = 1;
  bool waitForController = false;
  unsigned int timeoutSeconds = 0;  ///< 0: no limit
  std::string expect;               ///< file of the images' digests; empty: any image will do
  unsigned int minBattery = 0;      ///< percent; 0: any charge will do
  std::vector<std::string> images;  ///< to copy into the configured folder; empty: what is there is flashed
  bool json = false;
  bool quiet = false;
  bool progress = true;
};

struct StatusOptions {
  bool watch = false;
  bool service = false;
  bool history = false;
  bool json = false;
  bool progress = true;
};

struct CheckOptions {
  std::string expect;  ///< as for a flash
  bool json = false;
  bool strict = false;  ///< warnings count as errors
  bool watch = false;   ///< until a flash could begin
};

struct ImagesOptions {
  bool digests = true;
  bool json = false;
};

struct DoctorOptions {
  std::string output;  ///< of the archive; empty: a dated one in the current folder
  bool list = false;   ///< only tell what would go in
  bool json = false;
};

/// One flash, start to end.
ExitCode RunFlash(const FlashOptions& options);
/// What the handshake, the modem and the firmware folder look like.
ExitCode RunStatus(const StatusOptions& options);
/// What the firmware folder holds, and what of it a flash would take.
ExitCode RunImages(const ImagesOptions& options);
/// Puts all that support asks for into one archive.
ExitCode RunDoctor(const DoctorOptions& options);
/// Whether a flash could begin, without touching the modem.
ExitCode RunCheck(const CheckOptions& options);

}  // namespace hosts
