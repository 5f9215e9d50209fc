#include "hosts/cmdline/logged_cause.h"

#include <vector>

#include "hosts/cmdline/followed_log.h"
#include "hosts/flashlog/ending.h"
#include "hosts/flashlog/readable_text.h"

namespace hosts {

std::string LoggedCause::Text() const {
  const std::string told = isQuoted ? "\"" + message + "\"." : message + ".";
  return "Why: " + told + (meaning.empty() ? "" : " " + meaning);
}

std::optional<LoggedCause> CauseOf(const flashlog::Job& job) {
  const std::optional<flashlog::Ending> ending = flashlog::EndingOf(job);
  if (!ending) return std::nullopt;
  return LoggedCause{.message = flashlog::ReadableText(ending->message),
                     .isQuoted = ending->IsError(),
                     .meaning = ending->meaning == nullptr ? "" : ending->meaning,
                     .whatToDo = ending->whatToDo == nullptr ? "" : ending->whatToDo};
}

std::optional<LoggedCause> FindLoggedCause(const std::wstring& log) {
  FollowedLog followed(log);
  const std::vector<flashlog::Job>& jobs = followed.ReadOn();
  return jobs.empty() ? std::nullopt : CauseOf(jobs.back());
}

nlohmann::ordered_json AsJson(const std::optional<LoggedCause>& cause) {
  if (!cause) return nullptr;
  return {{"message", cause->message}, {"meaning", cause->meaning}, {"what_to_do", cause->whatToDo}};
}

}  // namespace hosts
