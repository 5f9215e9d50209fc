#include "hosts/common/help_text.h"

#include <windows.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <vector>

#include "hosts/common/terminal.h"
#include "hosts/common/text_layout.h"

namespace hosts {

namespace {

/// Where the explanations begin; in a narrower window each stands beneath its name.
constexpr std::size_t kWhatColumn = 30;
constexpr std::size_t kNarrowest = 60;
/// Of what is read like prose.
constexpr std::size_t kWidestText = 80;

std::string Joined(const std::vector<std::string>& words, const char* between) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : between) + word;
  return text;
}

/// "PERCENT" of "PERCENT:UINT in [1 - 100]", and "usb | pcie" of "TEXT:{usb,pcie}".
std::string ValueText(const CLI::Option& option) {
  const std::vector<std::string> values = ValuesOf(option);
  if (!values.empty()) return Joined(values, " | ");
  const std::string type = option.get_type_name();
  return type.substr(0, type.find(':'));
}

std::string NameText(const CLI::Option& option) {
  if (option.get_positional()) return option.get_name();
  std::string text = option.get_name(false, true);
  if (option.get_items_expected_max() == 0) return text;
  text += " " + ValueText(option);
  if (option.get_expected_max() > 1) text += " ...";
  return text;
}

std::string WhatText(const CLI::Option& option) {
  std::string text = option.get_description();
  if (!option.get_default_str().empty()) text += " (default: " + option.get_default_str() + ")";
  if (option.get_required()) text += " (needed)";
  std::vector<std::string> others;
  for (const CLI::Option* const other : option.get_excludes()) others.push_back(other->get_name());
  std::ranges::sort(others);
  if (!others.empty()) text += " (not beside " + Joined(others, ", ") + ")";
  return text;
}

/// "SHELL", or "[FILE...]" of what may be left out and may come again.
std::string PlaceText(const CLI::Option& option) {
  const std::string text = option.get_name() + (option.get_items_expected_max() > 1 ? "..." : "");
  return option.get_required() ? text : "[" + text + "]";
}

std::string UsageText(const CLI::App& app, const std::string& name) {
  std::string text = "Usage: " + name + " [OPTIONS]";
  for (const CLI::Option* const option : app.get_options()) {
    if (option->get_positional()) text += " " + PlaceText(*option);
  }
  if (app.get_subcommands({}).empty()) return text;
  return text + (app.get_require_subcommand_min() == 0 ? " [VERB]" : " VERB");
}

/// Examples are set in, and go on further in: what is to be typed is seen to be one line.
std::string FooterText(const std::string& footer, std::size_t columns) {
  std::istringstream lines(footer);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    const bool isExample = line.starts_with("  ");
    text +=
        Wrapped(isExample ? line.substr(2) : line, columns, isExample ? "  " : "", isExample ? "      " : "");
  }
  return text;
}

}  // namespace

std::string HelpText::make_help(const CLI::App* app, std::string name, CLI::AppFormatMode) const {
  const std::size_t narrow = std::min(m_Columns, kWidestText);
  return Wrapped(app->get_description() + ".", narrow, "", "") +
         Wrapped(UsageText(*app, name), m_Columns, "", "  ") + OptionRows(*app, true) +
         OptionRows(*app, false) + VerbRows(*app) + "\n" + FooterText(app->get_footer(), narrow);
}

std::string HelpText::Row(const std::string& name, const std::string& what) const {
  const std::string first = "  " + name;
  if (m_Columns < kNarrowest)
    return Wrapped(name, m_Columns, "  ", "    ") + Wrapped(what, m_Columns, "      ", "      ");
  const std::string blanks(kWhatColumn, ' ');
  if (first.size() + 1 > kWhatColumn) return first + "\n" + Wrapped(what, m_Columns, blanks, blanks);
  return Wrapped(what, m_Columns, first + blanks.substr(first.size()), blanks);
}

std::string HelpText::OptionRows(const CLI::App& app, bool positional) const {
  std::string rows;
  for (const CLI::Option* const option : app.get_options()) {
    const bool isShown = !option->get_group().empty() && option->get_positional() == positional;
    if (isShown) rows += Row(NameText(*option), WhatText(*option));
  }
  return rows.empty() ? rows : (positional ? "\nWords:\n" : "\nOptions:\n") + rows;
}

std::string HelpText::VerbRows(const CLI::App& app) const {
  std::string rows;
  for (const CLI::App* const verb : app.get_subcommands({}))
    rows += Row(verb->get_name(), verb->get_description());
  return rows.empty() ? rows : "\nVerbs:\n" + rows;
}

void WriteHelpForWindow(CLI::App& program) {
  program.formatter(std::make_shared<HelpText>(TextColumns(::GetStdHandle(STD_OUTPUT_HANDLE))));
}

std::vector<std::string> ValuesOf(const CLI::Option& option) {
  // Behind the type, between braces.
  const std::string type = option.get_type_name();
  const std::size_t begin = type.find('{');
  const std::size_t end = type.find('}');
  if (begin == std::string::npos || end == std::string::npos) return {};
  std::istringstream list(type.substr(begin + 1, end - begin - 1));
  std::vector<std::string> values;
  for (std::string value; std::getline(list, value, ',');) values.push_back(value);
  return values;
}

}  // namespace hosts
