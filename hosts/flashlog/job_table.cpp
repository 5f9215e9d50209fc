#include "hosts/flashlog/job_table.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "hosts/common/text_layout.h"
#include "hosts/flashlog/ending.h"
#include "hosts/flashlog/readable_text.h"

namespace hosts::flashlog {

namespace {

/// In a narrower window a job's facts stand below each other.
constexpr std::size_t kTableColumns = 64;
constexpr std::size_t kLeastColumns = 24;
constexpr std::size_t kWidestText = 100;

std::string Left(std::string text, std::size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

std::string Right(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

std::string Counted(std::uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string SizeText(std::uint64_t bytes) {
  if (bytes < 10'000) return std::to_string(bytes) + " bytes";
  if (bytes < 10'000'000) return std::to_string((bytes + 500) / 1000) + " kB";
  return std::to_string((bytes + 500'000) / 1'000'000) + " MB";
}

std::string StageText(const Stage& stage) {
  std::string text = std::string(NameOf(stage.kind)) + " " + DurationText(stage.end - stage.begin);
  if (stage.limit != 0) text += " of " + std::to_string(stage.limit / 1000) + " s";
  return text;
}

/// Stages of one attempt, or of what lies between and behind the attempts. Those without any length are left
/// out.
std::string StagesText(const std::vector<Stage>& stages) {
  constexpr Milliseconds kShortest = 50;
  std::string text;
  for (const Stage& stage : stages) {
    if (stage.end - stage.begin < kShortest && stage.limit == 0) continue;
    text += (text.empty() ? "" : ", ") + StageText(stage);
  }
  return text;
}

const char* OutcomeText(AttemptOutcome outcome) {
  switch (outcome) {
    case AttemptOutcome::Running:
      return "not ended";
    case AttemptOutcome::Succeeded:
      return "written";
    case AttemptOutcome::Failed:
      return "failed";
    case AttemptOutcome::Overran:
      return "given up";
    case AttemptOutcome::NotStarted:
      break;
  }
  return "not started";
}

std::string AttemptText(const Attempt& attempt) {
  return "Attempt " + std::to_string(attempt.number) + " " + OutcomeText(attempt.outcome) + " after " +
         DurationText(attempt.end - attempt.begin);
}

class Printer {
 public:
  explicit Printer(std::size_t columns) : m_Columns(std::max(columns, kLeastColumns)) {}

  void Print(const Log& log) {
    Line(Shortened(log.Name()));
    Line(Summary(log));
    if (!log.BrokeOff().empty()) Line(BreakText(log), "  ");
    if (log.Flaws().Sum() != 0) Line(FlawText(log.Flaws()));
    m_Text += '\n';
    if (log.Jobs().empty()) return Line("There is no flash in it.");
    const bool asTable = m_Columns >= kTableColumns;
    if (asTable) Line("  #  Start                      Took  Attempts  Result");
    for (const Job& job : log.Jobs()) {
      if (asTable) {
        PrintRow(job);
      } else {
        PrintHeading(job);
      }
      PrintStages(job);
      PrintReason(job);
    }
  }

  const std::string& Text() const { return m_Text; }

 private:
  /// The end of a path tells more than its beginning.
  std::string Shortened(const std::string& name) const {
    constexpr std::string_view kDots = "...";
    const std::size_t letters = LettersOf(name);
    if (letters <= m_Columns) return name;
    return std::string(kDots) + name.substr(BytesOfLetters(name, letters + kDots.size() - m_Columns));
  }

  static std::string Summary(const Log& log) {
    std::string text = Counted(log.Jobs().size(), "flash", "flashes") + ", " +
                       Counted(log.Records(), "record", "records") + ", " + SizeText(log.Size());
    if (log.Begin()) text += ", " + TimeTextToSeconds(*log.Begin()) + " to " + TimeTextToSeconds(log.End());
    return text;
  }

  static std::string BreakText(const Log& log) {
    return "Not read beyond byte " + std::to_string(log.Size()) + ": " + log.BrokeOff() + ".";
  }

  static std::string FlawText(const FlawCounts& flaws) {
    std::string text;
    const auto add = [&text](std::uint64_t count, const char* one, const char* many) {
      if (count != 0) text += (text.empty() ? "Not in order: " : ", ") + Counted(count, one, many);
    };
    add(flaws.foreign, "foreign line", "foreign lines");
    add(flaws.malformed, "malformed record", "malformed records");
    add(flaws.truncated, "truncated record", "truncated records");
    add(flaws.cut, "record too long", "records too long");
    return text + "; " + SizeText(flaws.bytes) + ", the first at byte " +
           std::to_string(flaws.firstOffset.value_or(0));
  }

  static std::string ResultText(const Job& job) {
    std::string text = NameOf(job.state);
    if (job.state != JobState::Succeeded && !job.attempts.empty())
      text += " at " + std::to_string(job.highestProgress) + " %";
    if (job.beginMissing) text += ", its beginning is missing";
    return text;
  }

  void PrintRow(const Job& job) {
    Line(Right(std::to_string(job.number), 3) + "  " + Left(TimeTextToSeconds(job.begin), 19) +
         Right(DurationText(job.end - job.begin), 12) + Right(std::to_string(job.attempts.size()), 10) +
         "  " + ResultText(job));
  }

  void PrintHeading(const Job& job) {
    Line(std::to_string(job.number) + "  " + ResultText(job), "   ");
    Paragraph(TimeTextToSeconds(job.begin) + ", " + DurationText(job.end - job.begin) + ", " +
              Counted(job.attempts.size(), "attempt", "attempts"));
  }

  /// An attempt is told with its stages; what lies before and behind it stands in a line of its own.
  void PrintStages(const Job& job) {
    auto next = job.stages.begin();
    const auto take = [&](int attempt) {
      const auto first = next;
      while (next != job.stages.end() && next->attempt == attempt) ++next;
      return StagesText({first, next});
    };
    std::string between = take(0);
    if (!between.empty()) Paragraph("First " + between);
    for (const Attempt& attempt : job.attempts) {
      const std::string text = take(attempt.number);
      Paragraph(AttemptText(attempt) + (text.empty() ? "" : ": " + text));
      between = take(0);
      if (!between.empty()) Paragraph("Then " + between);
    }
  }

  void PrintReason(const Job& job) {
    if (const auto ending = EndingOf(job)) return PrintEnding(job, *ending);
    if (!job.firstError) return;
    PrintFirstError(*job.firstError);
    const Trouble* const trouble = job.firstError->trouble;
    if (trouble != nullptr)
      PrintAdvice(trouble->meaning, job.state == JobState::Succeeded ? nullptr : trouble->whatToDo);
  }

  void PrintEnding(const Job& job, const Ending& ending) {
    Paragraph("Failed at " + ClockText(ending.time) + ", byte " + std::to_string(ending.offset) + ": " +
              ReadableText(ending.message));
    PrintAdvice(ending.meaning, ending.whatToDo);
    if (BeganOtherwise(job, ending)) PrintFirstError(*job.firstError);
  }

  void PrintFirstError(const Reason& reason) {
    Paragraph("First error at " + ClockText(reason.time) + ", byte " + std::to_string(reason.offset) + ": " +
              ReadableText(reason.message));
  }

  void PrintAdvice(const char* meaning, const char* whatToDo) {
    if (meaning != nullptr) Paragraph(std::string("Means: ") + meaning, "       ");
    if (whatToDo != nullptr) Paragraph(std::string("Do:    ") + whatToDo, "       ");
  }

  void Line(const std::string& text, const std::string& next = "") {
    m_Text += Wrapped(text, m_Columns, "", next);
  }

  /// Text that belongs to a job.
  void Paragraph(const std::string& text, const std::string& hanging = "  ") {
    const std::string indent = m_Columns >= kTableColumns ? "     " : "   ";
    m_Text += Wrapped(text, std::min(m_Columns, kWidestText), indent, indent + hanging);
  }

  std::size_t m_Columns;
  std::string m_Text;
};

}  // namespace

std::string JobTable(const Log& log, std::size_t columns) {
  Printer printer(columns);
  printer.Print(log);
  return printer.Text();
}

}  // namespace hosts::flashlog
