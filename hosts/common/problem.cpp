#include "hosts/common/problem.h"

#include <iostream>

#include "hosts/common/json_output.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text_layout.h"

namespace hosts {

nlohmann::ordered_json AsJson(const Problem& problem, const nlohmann::ordered_json& details) {
  nlohmann::ordered_json document{
      {"error", {{"code", problem.code}, {"message", problem.message}, {"what_to_do", problem.whatToDo}}}};
  document.update(details);
  return document;
}

std::string ProblemText(const char* program, const Problem& problem, std::size_t columns) {
  return Wrapped(std::string(program) + ": " + problem.message, columns, "", "  ") +
         Wrapped(problem.whatToDo, columns, "", "");
}

void Report(const char* program, const Problem& problem, bool json) {
  if (json) return PrintJson(AsJson(problem));
  std::cerr << ProblemText(program, problem, TextColumns(::GetStdHandle(STD_ERROR_HANDLE))) << std::flush;
}

}  // namespace hosts
