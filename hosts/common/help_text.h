#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <string>
#include <vector>

namespace hosts {

/// Help of a program and of its verbs, for lines of so many columns. To be given to a program before its
/// verbs are made, which take it over.
class HelpText : public CLI::FormatterBase {
 public:
  explicit HelpText(std::size_t columns) : m_Columns(columns) {}

  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override;

 private:
  std::string Row(const std::string& name, const std::string& what) const;
  std::string OptionRows(const CLI::App& app, bool positional) const;
  std::string VerbRows(const CLI::App& app) const;

  std::size_t m_Columns;
};

/// As wide as the window that the help will stand in.
void WriteHelpForWindow(CLI::App& program);

/// The values of an option that knows only a few; empty of others.
std::vector<std::string> ValuesOf(const CLI::Option& option);

}  // namespace hosts
