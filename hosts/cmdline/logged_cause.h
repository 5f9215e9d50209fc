#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "hosts/flashlog/jobs.h"

namespace hosts {

/// Why a flash failed, as its debug log tells it.
struct LoggedCause {
  std::string message;   ///< of the record
  std::string meaning;   ///< empty when the record is unknown, and so is what to do
  std::string whatToDo;  ///< empty when the record is unknown

  std::string Text() const;
};

/// Of a flash; nothing when it has not failed, or no record tells why.
std::optional<LoggedCause> CauseOf(const flashlog::Job& job);
/// Of the last flash of a debug log; nothing when there is no log, too.
std::optional<LoggedCause> FindLoggedCause(const std::wstring& log);
/// null without one.
nlohmann::ordered_json AsJson(const std::optional<LoggedCause>& cause);

}  // namespace hosts
