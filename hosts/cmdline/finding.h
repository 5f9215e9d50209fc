#pragma once

#include <string>

#include "hosts/cmdline/exit_code.h"

namespace hosts {

enum class Verdict { Ok, Warning, Error };

/// What was found about one thing that a flash needs.
struct Finding {
  const char* subject;
  Verdict verdict;
  std::string message;
  std::string whatToDo;
  /// Of an error or a warning, for scripts.
  const char* code = "";
  /// What a flash ends with because of an error.
  ExitCode exitCode = ExitCode::NotReady;
};

}  // namespace hosts
