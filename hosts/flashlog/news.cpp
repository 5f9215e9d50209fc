#include "hosts/flashlog/news.h"

#include "hosts/common/text_layout.h"
#include "hosts/flashlog/ending.h"
#include "hosts/flashlog/readable_text.h"

namespace hosts::flashlog {

namespace {

/// In a narrower window the rest of a line has nearly all of the width.
constexpr std::size_t kNarrowest = 60;

}  // namespace

std::string News::Behind(const Log& log, const Record& record, const Place& place) {
  std::string lines;
  const bool isError = record.level == Level::Error &&
                       (place.trouble == nullptr || place.trouble->kind != TroubleKind::Harmless);
  if (isError) lines += Line(record.time, "error: " + ReadableText(record.message));
  if (log.Jobs().empty()) return lines;
  const Job& job = log.Jobs().back();
  if (log.Jobs().size() != m_Jobs) {
    lines += Line(job.begin, "flash " + std::to_string(job.number) + " begins");
    m_Jobs = log.Jobs().size();
    m_Stages = 0;
    m_State = JobState::Running;
  }
  for (; m_Stages < job.stages.size(); ++m_Stages) {
    const Stage& stage = job.stages[m_Stages];
    std::string text = NameOf(stage.kind);
    if (stage.attempt != 0) text += ", attempt " + std::to_string(stage.attempt);
    lines += Line(stage.begin, text);
  }
  if (job.state != m_State) {
    m_State = job.state;
    lines += Line(job.end, "flash " + std::to_string(job.number) + " " + NameOf(job.state));
    lines += Why(job);
  }
  return lines;
}

std::string News::Why(const Job& job) const {
  const auto ending = EndingOf(job);
  if (!ending) return "";
  std::string lines = Line(job.end, "failed by: " + ReadableText(ending->message));
  if (ending->meaning != nullptr) lines += Line(job.end, std::string("means: ") + ending->meaning);
  if (ending->whatToDo != nullptr) lines += Line(job.end, std::string("do: ") + ending->whatToDo);
  return lines;
}

std::string News::Line(Milliseconds time, const std::string& text) const {
  // What does not fit stands below what was said, not below its time.
  const std::string first = ClockText(time) + "  ";
  const bool isNarrow = m_Columns < kNarrowest;
  const std::string blanks(isNarrow ? 2 : first.size(), ' ');
  const std::string name = m_Name.empty() ? "" : m_Name + (isNarrow ? " " : "  ");
  return Wrapped(name + text, m_Columns, first, blanks);
}

}  // namespace hosts::flashlog
