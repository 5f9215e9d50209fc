#pragma once

#include <nlohmann/json.hpp>
#include <vector>

#include "hosts/flashlog/log.h"

namespace hosts::flashlog {

/// Of the document's form; page and document have the same one. It grows when a field goes or changes.
inline constexpr int kReportVersion = 1;

nlohmann::ordered_json AsJson(const Job& job);
nlohmann::ordered_json AsJson(const Log& log);
/// All that is known of some logs, without their records.
nlohmann::ordered_json LogsAsJson(const std::vector<const Log*>& logs);

}  // namespace hosts::flashlog
