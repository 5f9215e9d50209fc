#pragma once

#include <cstddef>
#include <string>

#include "hosts/flashlog/log.h"

namespace hosts::flashlog {

/// The jobs of a log as a table for a terminal of so many columns; no line is longer.
std::string JobTable(const Log& log, std::size_t columns);

/// A text in lines of at most so many columns, with blanks in front: `first` in the first line, `next` in the
/// others. A word that is too long is broken.
std::string Wrapped(const std::string& text, std::size_t columns, const std::string& first,
                    const std::string& next);

}  // namespace hosts::flashlog
