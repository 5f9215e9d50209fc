#include "hosts/common/completion.h"

#include "hosts/common/help_text.h"

namespace hosts {

namespace {

constexpr char kShell[] = "powershell";
constexpr char kBegin[] =
    "  param($word, $command, $cursor)\n"
    "  $places = @{\n";
constexpr char kBetween[] =
    "  }\n"
    "  # What may follow an option; files, which PowerShell completes itself, where nothing stands.\n"
    "  $values = @{\n";
constexpr char kEnd[] =
    "  }\n"
    "  $words = @($command.CommandElements | Where-Object { $_.Extent.EndOffset -lt $cursor } |\n"
    "    ForEach-Object { \"$_\" })\n"
    "  $place = $words | Select-Object -Skip 1 | Where-Object { $_ -and $places.ContainsKey($_) } |\n"
    "    Select-Object -First 1\n"
    "  if (-not $place) { $place = '' }\n"
    "  $option = \"$place $($words[-1])\"\n"
    "  if ($values.ContainsKey($option)) { $places = $values; $place = $option }\n"
    "  $places[$place] | Where-Object { $_[0] -like \"$word*\" } | ForEach-Object {\n"
    "    [System.Management.Automation.CompletionResult]::new($_[0], $_[0], 'ParameterValue', $_[1])\n"
    "  }\n"
    "}\n";

/// A text between quotation marks that nothing in it means anything to.
std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char letter : text) quoted += letter == '\'' ? std::string("''") : std::string(1, letter);
  return quoted + "'";
}

/// A word with its explanation. The comma in front keeps the pair one element of the list.
std::string Word(const std::string& word, const std::string& what) {
  return "      ,@(" + Quoted(word) + ", " + Quoted(what) + ")\n";
}

std::string VerbWords(const CLI::App& program) {
  std::string words;
  for (const CLI::App* const verb : program.get_subcommands({})) {
    words += Word(verb->get_name(), verb->get_description());
  }
  return words;
}

std::string ValueWords(const CLI::Option& option) {
  std::string words;
  for (const std::string& value : ValuesOf(option)) words += Word(value, option.get_description());
  return words;
}

/// With the values of what stands by itself, such as the shell's name.
std::string OptionWords(const CLI::App& place) {
  std::string words;
  for (const CLI::Option* const option : place.get_options()) {
    const bool isHidden = option->get_group().empty();
    if (isHidden) continue;
    for (const std::string& name : option->get_lnames())
      words += Word("--" + name, option->get_description());
    if (option->get_positional()) words += ValueWords(*option);
  }
  return words;
}

std::string Place(const std::string& name, const std::string& words) {
  return "    " + Quoted(name) + " = @(\n" + words + "    )\n";
}

/// Behind which options of a verb a value stands, and which. A program's own options stand behind no verb.
std::string PlacesOfValues(const std::string& verb, const CLI::App& place) {
  const std::string before = verb + " --";
  std::string places;
  for (const CLI::Option* const option : place.get_options()) {
    if (option->get_items_expected_max() == 0 || option->get_group().empty()) continue;
    for (const std::string& name : option->get_lnames()) {
      places += Place(before + name, ValueWords(*option));
    }
  }
  return places;
}

std::string Head(const std::string& program, const std::string& how) {
  std::string head = "# Completes what " + program + " may be told. In a PowerShell profile:\n";
  head += "#   " + program + " " + how + " " + kShell + " | Out-String | Invoke-Expression\n";
  head += "Register-ArgumentCompleter -Native -CommandName '" + program + "', '" + program +
          ".exe' -ScriptBlock {\n";
  return head;
}

}  // namespace

CLI::Option& AddShell(CLI::App& place, const char* name, std::string& shell) {
  return *place.add_option(name, shell, "Only powershell is known")->check(CLI::IsMember({kShell}));
}

std::string PowerShellCompletion(const CLI::App& program, const std::string& how) {
  const std::string verbs = VerbWords(program);
  const std::string help = verbs.empty() ? "" : Word("help", "Tell the options of a verb");
  std::string script =
      Head(program.get_name(), how) + kBegin + Place("", verbs + help + OptionWords(program));
  if (!verbs.empty()) script += Place("help", verbs);
  std::string values = PlacesOfValues("", program);
  for (const CLI::App* const verb : program.get_subcommands({})) {
    script += Place(verb->get_name(), OptionWords(*verb));
    values += PlacesOfValues(verb->get_name(), *verb);
  }
  return script + kBetween + values + kEnd;
}

}  // namespace hosts
