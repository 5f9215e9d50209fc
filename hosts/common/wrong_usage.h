#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "hosts/common/problem.h"

namespace hosts {

/// What is wrong with a command line that the parser refused, and what to do: in sentences, where the parser
/// has words of its own.
Problem WrongUsage(const CLI::App& program, const CLI::ParseError& error);

/// Tells a number that is out of its range in a sentence, and shows nothing of it in the help.
CLI::Validator NumberFrom(int least, int most);

/// All that may be written at a place of the command line.
std::vector<std::string> VerbNames(const CLI::App& program);
std::vector<std::string> OptionNames(const CLI::App& verb);

}  // namespace hosts
