#include "hosts/cmdline/problems.h"

#include "hosts/cmdline/journal.h"
#include "hosts/common/json_output.h"

namespace hosts {

void Report(const Problem& problem, bool json, const nlohmann::ordered_json& details) {
  Note(problem.message + " " + problem.whatToDo + " (" + problem.code + ")");
  if (json) return PrintJson(AsJson(problem, details));
  Report("corvel_cmdline", problem, false);
}

}  // namespace hosts
