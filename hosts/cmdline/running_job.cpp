#include "hosts/cmdline/running_job.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace hosts {

namespace {

using flashlog::Milliseconds;

constexpr std::uint32_t kComplete = 100;
/// What the library does when nobody has set how often it may try again.
constexpr std::uint32_t kUsualRetries = 3;
/// 1970 counted from 1601, in milliseconds.
constexpr Milliseconds kEpoch = 11'644'473'600'000;

nlohmann::ordered_json StepAsJson(const std::optional<TimedStep>& step) {
  if (!step) return nullptr;
  const nlohmann::ordered_json limit =
      step->limit == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(step->limit / 1000);
  return {{"since", flashlog::TimeText(step->begin)}, {"limit_seconds", limit}};
}

/// The job that the log ends in; the handshake may tell of a job that an untraced host runs.
const flashlog::Job* RunningOf(const std::vector<flashlog::Job>& jobs) {
  if (jobs.empty()) return nullptr;
  const flashlog::Job& last = jobs.back();
  return last.state == flashlog::JobState::Running && !last.stages.empty() ? &last : nullptr;
}

}  // namespace

std::string StageByHandshake(const Handshake& values) {
  const std::uint32_t percent = std::min(values.progress.value_or(0), kComplete);
  if (values.Is(FlashResult::Succeeded)) return "flashed";
  if (values.Is(FlashResult::Failed)) return "failed";
  if (values.Is(FlashResult::Idle) || !values.result) return "waiting to begin";
  if (percent == kComplete) return "awaiting the modem";
  if (values.Is(FlashResult::Retrying)) return "pausing to retry";
  return percent == 0 ? "into flash mode" : "writing";
}

std::string TimedStep::Text() const {
  const std::string since =
      "since " + flashlog::ClockText(begin).substr(0, std::string_view("00:00:00").size());
  return limit == 0 ? since : since + ", " + std::to_string(limit / 1000) + " s at most";
}

std::optional<long long> TimedStep::SecondsLeft(Milliseconds now) const {
  if (limit == 0) return std::nullopt;
  return std::max<long long>(0, (begin + limit - now) / 1000);
}

std::string RunningJob::Text() const {
  std::string text = stage;
  if (stageTimes) text += " " + stageTimes->Text();
  text += "; attempt " + std::to_string(attempt) + " of " + std::to_string(mostAttempts);
  if (attemptTimes) text += " " + attemptTimes->Text();
  return text;
}

nlohmann::ordered_json RunningJob::AsJson() const {
  return {{"stage", stageToken.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(stageToken)},
          {"stage_name", stage},
          {"stage_times", StepAsJson(stageTimes)},
          {"attempt", attempt},
          {"most_attempts", mostAttempts},
          {"attempt_times", StepAsJson(attemptTimes)},
          {"percent", percent}};
}

JobFollower::JobFollower(const std::wstring& log) : m_Log(log) {}

std::optional<RunningJob> JobFollower::Look(const Handshake& values, Writer writer) {
  // Also while nothing runs: what is read then need not be read when a job begins.
  const std::vector<flashlog::Job>& jobs = m_Log.ReadOn();
  if (writer == Writer::Gone || !values.IsJobRunning()) return std::nullopt;
  RunningJob job{.stageToken = {},
                 .stage = StageByHandshake(values),
                 .mostAttempts = std::uint64_t{values.retryTimes.value_or(kUsualRetries)} + 1,
                 .percent = std::min(values.progress.value_or(0), kComplete),
                 .stageTimes = std::nullopt,
                 .attemptTimes = std::nullopt};
  const flashlog::Job* const logged = RunningOf(jobs);
  if (logged == nullptr) return job;
  const flashlog::Stage& stage = logged->stages.back();
  job.stageToken = flashlog::TokenOf(stage.kind);
  job.stage = flashlog::NameOf(stage.kind);
  job.stageTimes = TimedStep{.begin = stage.begin, .limit = stage.limit};
  if (logged->attempts.empty()) return job;
  const flashlog::Attempt& attempt = logged->attempts.back();
  job.attempt = attempt.number;
  if (attempt.outcome == flashlog::AttemptOutcome::Running) {
    job.attemptTimes = TimedStep{.begin = attempt.begin, .limit = attempt.limit};
  }
  return job;
}

Milliseconds LocalTime() {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  FILETIME time{};
  ::SystemTimeToFileTime(&now, &time);
  const std::uint64_t ticks = (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
  return static_cast<Milliseconds>(ticks / 10'000) - kEpoch;
}

}  // namespace hosts
