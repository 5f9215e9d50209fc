#include "hosts/common/problem.h"

#include <iostream>

#include "hosts/common/json_output.h"

namespace hosts {

nlohmann::ordered_json AsJson(const Problem& problem, const nlohmann::ordered_json& details) {
  nlohmann::ordered_json document{
      {"error", {{"code", problem.code}, {"message", problem.message}, {"what_to_do", problem.whatToDo}}}};
  document.update(details);
  return document;
}

void Report(const char* program, const Problem& problem, bool json) {
  if (json) return PrintJson(AsJson(problem));
  std::cerr << program << ": " << problem.message << "\n" << problem.whatToDo << std::endl;
}

}  // namespace hosts
