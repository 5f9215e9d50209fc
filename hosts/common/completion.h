#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace hosts {

/// Has a program or a verb take the name of the shell that is to complete.
CLI::Option& AddShell(CLI::App& place, const char* name, std::string& shell);

/// A script that lets PowerShell complete the verbs and options of the program; `how` is what the program is
/// told to print it.
std::string PowerShellCompletion(const CLI::App& program, const std::string& how);

}  // namespace hosts
