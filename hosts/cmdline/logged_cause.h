#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "hosts/flashlog/jobs.h"

namespace hosts {

/// Why a flash failed, as its debug log tells it.
struct LoggedCause {
  std::string message;   ///< of the record; or, when none tells, what the flash was doing
  bool isQuoted = true;  ///< the message is a record's
  std::string meaning;   ///< empty when nothing is known
  std::string whatToDo;  ///< empty when nothing is known

  std::string Text() const;
};

/// Of a flash; nothing when it has not failed.
std::optional<LoggedCause> CauseOf(const flashlog::Job& job);
/// Of the last flash of a debug log; nothing when there is no log, too.
std::optional<LoggedCause> FindLoggedCause(const std::wstring& log);
/// null without one.
nlohmann::ordered_json AsJson(const std::optional<LoggedCause>& cause);

}  // namespace hosts
