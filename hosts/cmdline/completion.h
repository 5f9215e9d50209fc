#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace hosts {

/// A script that lets PowerShell complete the verbs and options of the program.
std::string PowerShellCompletion(const CLI::App& program);

}  // namespace hosts
