#include "hosts/cmdline/finding.h"

#include <algorithm>

namespace hosts {

const Finding* FirstOf(const std::vector<Finding>& findings, Verdict verdict) {
  const auto found = std::ranges::find(findings, verdict, &Finding::verdict);
  return found == findings.end() ? nullptr : &*found;
}

Problem ProblemOf(const Finding& error) {
  return {error.code, std::string("Not ready, ") + error.subject + ": " + error.message + ".",
          error.whatToDo};
}

}  // namespace hosts
