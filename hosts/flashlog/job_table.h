#pragma once

#include <cstddef>
#include <string>

#include "hosts/flashlog/log.h"

namespace hosts::flashlog {

/// The jobs of a log as a table for a terminal of so many columns; no line is longer.
std::string JobTable(const Log& log, std::size_t columns);

}  // namespace hosts::flashlog
