#pragma once

#include <string>
#include <vector>

#include "hosts/cmdline/finding.h"
#include "hosts/common/problem.h"

namespace hosts {

/// The code of the finding that the PC runs on its battery.
inline constexpr char kOnBattery[] = "on_battery";

/// What is left alone because another host needs it with nobody else beside it.
struct LeftAlone {
  bool configuration = false;  ///< and with it the images, which nobody can name then
  bool images = false;
};

/// What is asked of images and PC beyond what every flash needs.
struct Demands {
  std::string expect = {};      ///< file of the images' digests, in UTF-8
  unsigned int minBattery = 0;  ///< percent, on battery
};

/// Looks at configuration, images, flashing library, registry and power, and changes nothing.
std::vector<Finding> LookBeforeFlash(const Demands& demands, const LeftAlone& leftAlone = {});
/// The first of that verdict among the findings; null when there is none.
const Finding* FirstOf(const std::vector<Finding>& findings, Verdict verdict);
/// An error, or a warning that counts as one, in words for scripts and people.
Problem ProblemOf(const Finding& error);

}  // namespace hosts
