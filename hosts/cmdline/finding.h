#pragma once

#include <string>
#include <vector>

#include "hosts/cmdline/exit_code.h"
#include "hosts/common/problem.h"

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

/// The first of that verdict among the findings; null when there is none.
const Finding* FirstOf(const std::vector<Finding>& findings, Verdict verdict);
/// An error, or a warning that counts as one, in words for scripts and people.
Problem ProblemOf(const Finding& error);

}  // namespace hosts
