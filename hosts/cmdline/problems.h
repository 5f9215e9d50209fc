#pragma once

#include <nlohmann/json.hpp>

#include "hosts/common/problem.h"

namespace hosts {

/// Prints a problem of this program: as a JSON error object on standard output, followed by what else there
/// is to tell, or in words on standard error.
void Report(const Problem& problem, bool json,
            const nlohmann::ordered_json& details = nlohmann::ordered_json::object());

}  // namespace hosts
