#include "hosts/flashlog/json_report.h"

#include "hosts/flashlog/ending.h"
#include "hosts/flashlog/readable_text.h"

namespace hosts::flashlog {

namespace {

using nlohmann::ordered_json;

ordered_json Seconds(Milliseconds duration) {
  return static_cast<double>(duration) / 1000;
}

ordered_json SecondsOrNull(Milliseconds limit) {
  return limit == 0 ? ordered_json() : Seconds(limit);
}

ordered_json NumberOrNull(const std::optional<int>& number) {
  return number ? ordered_json(*number) : ordered_json();
}

ordered_json AsJson(const Attempt& attempt) {
  return {{"number", attempt.number},
          {"start", TimeText(attempt.begin)},
          {"duration_s", Seconds(attempt.end - attempt.begin)},
          {"limit_s", SecondsOrNull(attempt.limit)},
          {"outcome", TokenOf(attempt.outcome)},
          {"result", NumberOrNull(attempt.result)},
          {"offset", attempt.offset}};
}

ordered_json AsJson(const Stage& stage) {
  return {{"stage", TokenOf(stage.kind)},
          {"attempt", stage.attempt == 0 ? ordered_json() : ordered_json(stage.attempt)},
          {"start", TimeText(stage.begin)},
          {"duration_s", Seconds(stage.end - stage.begin)},
          {"limit_s", SecondsOrNull(stage.limit)},
          {"offset", stage.offset}};
}

ordered_json AsJson(const Reason& reason) {
  const bool known = reason.trouble != nullptr;
  return {{"time", TimeText(reason.time)},
          {"offset", reason.offset},
          {"function", ReadableText(reason.function)},
          {"message", ReadableText(reason.message)},
          {"meaning", known ? ordered_json(reason.trouble->meaning) : ordered_json()},
          {"what_to_do", known ? ordered_json(reason.trouble->whatToDo) : ordered_json()}};
}

ordered_json TextOrNull(const char* text) {
  return text == nullptr ? ordered_json() : ordered_json(text);
}

ordered_json AsJson(const Ending& ending) {
  return {{"time", TimeText(ending.time)},
          {"offset", ending.offset},
          {"function", ending.IsError() ? ordered_json(ReadableText(ending.function)) : ordered_json()},
          {"message", ReadableText(ending.message)},
          {"meaning", TextOrNull(ending.meaning)},
          {"what_to_do", TextOrNull(ending.whatToDo)}};
}

int Count(const Job& job, MomentKind kind) {
  int count = 0;
  for (const Moment& moment : job.moments) count += moment.kind == kind ? 1 : 0;
  return count;
}

template <typename Item>
ordered_json AsArray(const std::vector<Item>& items) {
  auto array = ordered_json::array();
  for (const Item& item : items) array.push_back(AsJson(item));
  return array;
}

}  // namespace

ordered_json AsJson(const Job& job) {
  const auto ending = EndingOf(job);
  return {{"number", job.number},
          {"host", job.byCommandLine ? "command_line" : "service"},
          {"library_version", job.version.empty() ? ordered_json() : ordered_json(ReadableText(job.version))},
          {"start", TimeText(job.begin)},
          {"begin_missing", job.beginMissing},
          {"duration_s", Seconds(job.end - job.begin)},
          {"state", TokenOf(job.state)},
          {"result", NumberOrNull(job.result)},
          {"progress", job.highestProgress},
          {"attempts", AsArray(job.attempts)},
          {"stages", AsArray(job.stages)},
          {"retries", Count(job, MomentKind::Retry)},
          {"resets", Count(job, MomentKind::Reset)},
          {"errors", job.errors},
          {"warnings", job.warnings},
          {"records", job.records},
          {"offset", job.offset},
          {"end_offset", job.endOffset},
          {"failed_by", ending ? AsJson(*ending) : ordered_json()},
          {"first_error", job.firstError ? AsJson(*job.firstError) : ordered_json()}};
}

ordered_json AsJson(const Log& log) {
  return {{"name", ReadableText(log.Name())},
          {"size", log.Size()},
          {"records", log.Records()},
          {"start", log.Begin() ? ordered_json(TimeText(*log.Begin())) : ordered_json()},
          {"end", log.Begin() ? ordered_json(TimeText(log.End())) : ordered_json()},
          {"broke_off", log.BrokeOff().empty() ? ordered_json() : ordered_json(log.BrokeOff())},
          {"flaws",
           {{"foreign", log.Flaws().foreign},
            {"malformed", log.Flaws().malformed},
            {"truncated", log.Flaws().truncated},
            {"cut", log.Flaws().cut}}},
          {"flawed_bytes", log.Flaws().bytes},
          {"first_flaw_offset",
           log.Flaws().firstOffset ? ordered_json(*log.Flaws().firstOffset) : ordered_json()},
          {"jobs", AsArray(log.Jobs())}};
}

ordered_json LogsAsJson(const std::vector<const Log*>& logs) {
  auto array = ordered_json::array();
  for (const Log* const log : logs) array.push_back(AsJson(*log));
  return {{"logs", array}};
}

}  // namespace hosts::flashlog
