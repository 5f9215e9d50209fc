#include "hosts/cmdline/logged_cause.h"

#include <vector>

#include "hosts/cmdline/followed_log.h"
#include "hosts/flashlog/readable_text.h"

namespace hosts {

std::string LoggedCause::Text() const {
  return "Because of \"" + message + "\"" + (meaning.empty() ? "." : ": " + meaning);
}

std::optional<LoggedCause> CauseOf(const flashlog::Job& job) {
  if (job.state != flashlog::JobState::Failed || !job.firstError) return std::nullopt;
  LoggedCause cause{
      .message = flashlog::ReadableText(job.firstError->message), .meaning = {}, .whatToDo = {}};
  if (const Trouble* const trouble = job.firstError->trouble; trouble != nullptr) {
    cause.meaning = trouble->meaning;
    cause.whatToDo = trouble->whatToDo;
  }
  return cause;
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
