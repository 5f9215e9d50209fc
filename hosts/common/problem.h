#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>

namespace hosts {

/// What went wrong, in words for scripts and people.
struct Problem {
  std::string code;
  std::string message;
  std::string whatToDo;
};

/// The error object of a problem, followed by what else there is to tell.
nlohmann::ordered_json AsJson(const Problem& problem,
                              const nlohmann::ordered_json& details = nlohmann::ordered_json::object());
/// What is wrong and why, and behind it what to do, for lines of so many columns.
std::string ProblemText(const char* program, const Problem& problem, std::size_t columns);
/// Prints a problem of a program: as a JSON error object on standard output, or in words on standard error.
void Report(const char* program, const Problem& problem, bool json);

}  // namespace hosts
