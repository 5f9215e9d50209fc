#pragma once

#include <string>

#include "hosts/cmdline/finding.h"

namespace hosts {

enum class Colours { None, Ansi };

/// A text that starts with a verdict's words, which get its colour. To be done when its lines are made:
/// colours have no width.
std::string WithVerdict(std::string text, const std::string& words, Verdict verdict, Colours colours);

}  // namespace hosts
