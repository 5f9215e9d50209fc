#include "hosts/flashlog/ending.h"

#include <algorithm>

#include "hosts/flashlog/log.h"

namespace hosts::flashlog {

namespace {

constexpr int kFailed = 3;

Ending OfError(const Reason& reason) {
  const Trouble* const trouble = reason.trouble;
  return {.time = reason.time,
          .offset = reason.offset,
          .function = reason.function,
          .message = reason.message,
          .meaning = trouble == nullptr ? nullptr : trouble->meaning,
          .whatToDo = trouble == nullptr ? nullptr : trouble->whatToDo};
}

/// Pauses and tidying up end no job.
const Stage* LastStage(const Job& job) {
  const auto last = std::ranges::find_if(job.stages.rbegin(), job.stages.rend(), [](const Stage& stage) {
    return stage.kind != StageKind::Pause && stage.kind != StageKind::TidyUp;
  });
  return last == job.stages.rend() ? nullptr : &*last;
}

std::string InWords(const Stage& stage) {
  std::string text = NameOf(stage.kind);
  if (stage.attempt != 0) text += " in attempt " + std::to_string(stage.attempt);
  text += " ended after " + DurationText(stage.end - stage.begin);
  if (stage.limit != 0) text += " of " + std::to_string(stage.limit / 1000) + " s";
  return text + ", and no error tells why";
}

void Advise(Ending& ending, const char* meaning, const char* whatToDo) {
  ending.meaning = meaning;
  ending.whatToDo = whatToDo;
}

/// What is known of a job whose last attempt has no error of its own.
void AdviseByStage(Ending& ending, const Job& job, const Stage* stage) {
  if (stage != nullptr && stage->kind == StageKind::Return) {
    // The errors behind a wait that ran out only follow from it, and tell the most of it.
    const Trouble* const trouble = FindTrouble("ToolKit::", "Flash OK, but wait Modem re-arrived failed");
    if (trouble != nullptr) return Advise(ending, trouble->meaning, trouble->whatToDo);
  }
  const std::optional<int> result =
      job.attempts.empty() || job.attempts.back().outcome == AttemptOutcome::Succeeded
          ? std::nullopt
          : job.attempts.back().result;
  const ResultAdvice* const advice = result ? FindResultAdvice(AttemptResultAdvice(), *result)
                                            : FindResultAdvice(FlashResultAdvice(), kFailed);
  if (advice != nullptr) Advise(ending, advice->meaning, advice->whatToDo);
}

Ending OfStages(const Job& job) {
  const Stage* const stage = LastStage(job);
  Ending ending{.time = job.end, .offset = job.offset, .message = "no error tells why"};
  if (stage != nullptr) {
    ending.time = stage->end;
    ending.offset = stage->offset;
    ending.message = InWords(*stage);
    ending.stage = stage->kind;
  }
  AdviseByStage(ending, job, stage);
  return ending;
}

}  // namespace

std::optional<Ending> EndingOf(const Job& job) {
  if (job.state != JobState::Failed) return std::nullopt;
  return job.lastCause ? OfError(*job.lastCause) : OfStages(job);
}

bool BeganOtherwise(const Job& job, const Ending& ending) {
  return job.firstError && !(ending.IsError() && job.firstError->offset == ending.offset);
}

}  // namespace hosts::flashlog
