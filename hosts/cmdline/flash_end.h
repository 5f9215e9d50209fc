#pragma once

#include <cstddef>
#include <string>

#include "hosts/cmdline/colours.h"

namespace hosts {

/// How a flash ended, in sentences.
struct FlashEnd {
  bool flashed = false;
  std::string verdict{};
  std::string result{};
  std::string whatToDo{};
  std::string log{};  ///< path; empty without one
};

/// For lines of so many columns.
std::string FlashEndText(const FlashEnd& end, std::size_t columns, Colours colours = Colours::None);

}  // namespace hosts
