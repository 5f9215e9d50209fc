#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hosts/cmdline/colours.h"
#include "hosts/cmdline/commands.h"
#include "hosts/cmdline/finding.h"

namespace hosts {

/// All that a check found, and what it comes to.
struct CheckReport {
  std::vector<Finding> findings;
  bool strict = false;  ///< warnings count as errors

  /// What keeps a flash from beginning: the first error, or else, if they count too, the first warning; null
  /// when nothing does.
  const Finding* Obstacle() const;
};

/// Looks at everything that a flash needs, without touching the modem.
CheckReport Check(const CheckOptions& options);

/// A line per finding, with what to do, and the verdict at the end, for lines of so many columns.
std::string CheckText(const CheckReport& report, std::size_t columns, Colours colours = Colours::None);
nlohmann::ordered_json AsJson(const CheckReport& report);

}  // namespace hosts
