#pragma once

#include <string>
#include <vector>

#include "exit_code.h"
#include "setup.h"

enum class Verdict { Ok, Warning, Error };

/// What was found about one thing that a flash needs.
struct Finding {
  const char* subject;
  Verdict verdict;
  std::string message;
  std::string whatToDo;
  /// Of an error: its code for scripts, and what a flash ends with because of it.
  const char* code = "";
  ExitCode exitCode = ExitCode::NotReady;
};

/// Looks at configuration, images, flashing library and registry, and touches none of them.
std::vector<Finding> LookBeforeFlash();
/// The first error among the findings; null when there is none.
const Finding* FirstError(const std::vector<Finding>& findings);
/// The error in words for scripts and people.
Problem ProblemOf(const Finding& error);
