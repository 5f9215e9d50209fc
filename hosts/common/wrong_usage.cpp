#include "hosts/common/wrong_usage.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "hosts/common/nearest_word.h"

namespace hosts {

namespace {

constexpr char kCode[] = "wrong_usage";

/// Where a word stands that was not expected: behind a verb or in front of all.
const CLI::App& PlaceOf(const CLI::App& program) {
  const auto verbs = program.get_subcommands();
  return verbs.empty() ? program : *verbs.front();
}

std::string SeeHelp(const CLI::App& program) {
  if (VerbNames(program).empty()) return "See \"" + program.get_name() + " --help\".";
  const CLI::App& place = PlaceOf(program);
  const std::string verb = &place == &program ? "" : " " + place.get_name();
  return "See \"" + program.get_name() + " help" + verb + "\".";
}

std::string DidYouMean(const std::string& nearest, const std::string& otherwise) {
  return nearest.empty() ? otherwise : "Did you mean \"" + nearest + "\"?";
}

/// A word that is neither verb nor option where it stands.
Problem UnexpectedWord(const CLI::App& program, const std::string& word) {
  const std::string seeHelp = SeeHelp(program);
  if (word.starts_with("-")) {
    const CLI::App& place = PlaceOf(program);
    return {kCode, "\"" + word + "\" is no option of " + place.get_name() + ".",
            DidYouMean(NearestWord(word, OptionNames(place)), seeHelp)};
  }
  const std::vector<std::string> verbs = VerbNames(program);
  if (std::ranges::count(verbs, word) > 0) return {kCode, "\"" + word + "\" is one verb too many.", seeHelp};
  return {kCode, "\"" + word + "\" is no verb.", DidYouMean(NearestWord(word, verbs), seeHelp)};
}

/// A text around a separator; nothing when it has none.
std::optional<std::pair<std::string, std::string>> Split(const std::string& text,
                                                         const std::string& separator) {
  const std::size_t at = text.find(separator);
  if (at == std::string::npos) return std::nullopt;
  return std::pair(text.substr(0, at), text.substr(at + separator.size()));
}

std::string Replaced(std::string text, const std::string& what, const std::string& by) {
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
    text.replace(at, what.size(), by);
  }
  return text;
}

/// The parser says "--ipc: isa not in {usb,pcie}".
std::optional<Problem> ValueThatIsNone(const std::string& told) {
  const auto parts = Split(told, " not in {");
  const auto option = parts ? Split(parts->first, ": ") : std::nullopt;
  if (!option) return std::nullopt;
  const std::string known = parts->second.substr(0, parts->second.rfind('}'));
  return Problem{kCode, option->first + " cannot be \"" + option->second + "\".",
                 "Give " + Replaced(known, ",", " or ") + "."};
}

/// The parser says "--output excludes --list".
std::optional<Problem> OptionBesideAnother(const std::string& told) {
  const auto options = Split(told, " excludes ");
  if (!options) return std::nullopt;
  return Problem{kCode, options->first + " cannot stand beside " + options->second + ".",
                 "Leave one of them out."};
}

/// The parser says "SHELL is required", and "A subcommand is required".
std::optional<Problem> MissingWord(const CLI::App& program, const std::string& told) {
  const auto parts = Split(told, " is required");
  if (!parts) return std::nullopt;
  const std::string what = program.get_subcommands().empty() ? "A verb" : parts->first;
  return Problem{kCode, what + " is missing.", SeeHelp(program)};
}

/// What the parser says of it, the option's name first, as a sentence.
std::string Sentence(const CLI::ParseError& error) {
  const std::string told = error.what();
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
    return told.substr(0, told.find(':')) + " needs a value.";
  }
  return told.ends_with(".") ? told : told + ".";
}

}  // namespace

Problem WrongUsage(const CLI::App& program, const CLI::ParseError& error) {
  const std::vector<std::string> unexpected = program.remaining(true);
  if (!unexpected.empty()) return UnexpectedWord(program, unexpected.front());
  const std::string told = error.what();
  if (auto problem = ValueThatIsNone(told)) return *std::move(problem);
  if (auto problem = OptionBesideAnother(told)) return *std::move(problem);
  if (auto problem = MissingWord(program, told)) return *std::move(problem);
  return {kCode, Sentence(error), SeeHelp(program)};
}

std::vector<std::string> VerbNames(const CLI::App& program) {
  std::vector<std::string> names;
  for (const CLI::App* const verb : program.get_subcommands({})) names.push_back(verb->get_name());
  return names;
}

std::vector<std::string> OptionNames(const CLI::App& verb) {
  std::vector<std::string> names;
  for (const CLI::Option* const option : verb.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

CLI::Validator NumberFrom(int least, int most) {
  return CLI::Validator(
      [range = CLI::Range(least, most), least, most](std::string& text) {
        if (range(text).empty()) return std::string();
        return "\"" + text + "\" is no number from " + std::to_string(least) + " to " + std::to_string(most) +
               ".";
      },
      "");
}

}  // namespace hosts
