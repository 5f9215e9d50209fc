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
  std::string why{};  ///< empty when it is not known, or nothing is wrong
  std::string whatToDo{};
  std::string log{};        ///< path; empty without one
  std::string toShowLog{};  ///< what is to be typed for that; empty when nothing went wrong
};

/// For lines of so many columns.
std::string FlashEndText(const FlashEnd& end, std::size_t columns, Colours colours = Colours::None);

}  // namespace hosts
