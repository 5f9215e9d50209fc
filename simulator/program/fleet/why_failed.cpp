#include "simulator/program/fleet/why_failed.h"

#include <optional>

#include "hosts/flashlog/ending.h"
#include "hosts/flashlog/log.h"
#include "hosts/flashlog/readable_text.h"

namespace simulator {

using namespace hosts::flashlog;

namespace {

/// An error's message; of a stage its name alone, for how long it took differs each time. An attempt without
/// an error of its own has often none because an earlier one has used up what it needed.
std::string InWords(const Job& job, const Ending& ending) {
  if (!ending.stage) return ending.message;
  const std::string stage = std::string("no error tells why, last stage: ") + NameOf(*ending.stage);
  const bool beganOtherwise = BeganOtherwise(job, ending) && !job.firstError->IsConsequence();
  return beganOtherwise ? stage + "; first error: " + job.firstError->message : stage;
}

std::string Without(std::string text, std::string_view part) {
  if (part.empty()) return text;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at))
    text.erase(at, part.size());
  return text;
}

}  // namespace

std::string WhyFailed(std::string_view log, std::string_view folder) {
  Log read("", std::nullopt);
  read.Take(log);
  read.Finish();
  if (read.Jobs().empty()) return "the log has no flash";
  const Job& job = read.Jobs().back();
  const std::optional<Ending> ending = EndingOf(job);
  if (!ending) return std::string("the log has no failure; its last flash: ") + NameOf(job.state);
  return ReadableText(Without(InWords(job, *ending), folder));
}

}  // namespace simulator
