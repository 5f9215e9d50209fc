#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "hosts/flashlog/jobs.h"

namespace hosts::flashlog {

/// What ended a job that failed: an error, or what its stages tell when no error does.
struct Ending {
  Milliseconds time = 0;
  std::uint64_t offset = 0;  ///< of the error, or of the record that the stage began with
  /// The error's; empty when no error tells.
  std::string function{};
  /// The error's message, or the stage in words.
  std::string message{};
  /// The stage that it ended in; nothing when an error tells.
  std::optional<StageKind> stage = std::nullopt;
  /// nullptr when nothing is known, then whatToDo is, too.
  const char* meaning = nullptr;
  const char* whatToDo = nullptr;

  bool IsError() const { return !function.empty(); }
};

/// Nothing of a job that has not failed.
std::optional<Ending> EndingOf(const Job& job);
/// Whether a job's first error is another one than what ended it.
bool BeganOtherwise(const Job& job, const Ending& ending);

}  // namespace hosts::flashlog
