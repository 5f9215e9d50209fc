#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "hosts/cmdline/commands.h"

namespace hosts {

/// The options of each verb, as they were given.
struct VerbOptions {
  FlashOptions flash;
  StatusOptions status;
  CheckOptions check;
  ImagesOptions images;
  DoctorOptions doctor;
  std::string shell;  ///< to complete the command line in

  // Of all verbs.
  std::string log;  ///< file; empty: none
  bool verbose = false;
};

/// Gives the program its verbs with their options, which end up in `options`, and their help.
void AddVerbs(CLI::App& program, VerbOptions& options);
/// Does what the parsed verb asks for.
ExitCode RunVerb(const CLI::App& program, const VerbOptions& options);

}  // namespace hosts
