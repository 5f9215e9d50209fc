#pragma once

#include <string>

#include "hosts/cmdline/finding.h"

namespace hosts {

enum class Colours { None, Ansi };

/// A text that begins with a verdict, which gets its colour. To be done when its lines are made: colours have
/// no width.
inline std::string WithVerdict(std::string text, const std::string& begin, Verdict verdict, Colours colours) {
  if (colours == Colours::None || !text.starts_with(begin)) return text;
  const char* const colour = verdict == Verdict::Ok        ? "\x1b[32m"
                             : verdict == Verdict::Warning ? "\x1b[33m"
                                                           : "\x1b[31m";
  return colour + begin + "\x1b[0m" + text.substr(begin.size());
}

}  // namespace hosts
