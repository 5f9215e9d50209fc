#include "hosts/cmdline/problems.h"

namespace hosts {

void Report(const Problem& problem, bool json) {
  Report("corvel_cmdline", problem, json);
}

}  // namespace hosts
