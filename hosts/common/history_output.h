#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "hosts/common/flash_history.h"

namespace hosts {

/// A line per job, oldest first, for lines of so many columns.
std::string HistoryText(const std::vector<HistoryEntry>& entries, std::size_t columns);

/// Shows the history beside the program, oldest job first. @return false when it cannot be read; that is
/// told under the program's name, as every problem is.
bool ShowHistory(const char* program, bool json);

}  // namespace hosts
