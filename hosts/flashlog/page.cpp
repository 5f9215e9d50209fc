#include "hosts/flashlog/page.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "hosts/flashlog/ending.h"
#include "hosts/flashlog/json_report.h"
#include "hosts/flashlog/number_text.h"
#include "hosts/flashlog/page_template.h"
#include "hosts/flashlog/readable_text.h"

namespace hosts::flashlog {

namespace {

using nlohmann::ordered_json;

/// Texts that many records share, each told once.
class TextTable {
 public:
  std::size_t IndexOf(const std::string& text) {
    const auto [place, isNew] = m_Indices.try_emplace(text, m_Indices.size());
    if (isNew) m_Texts.push_back(ReadableText(text));
    return place->second;
  }
  const ordered_json& Texts() const { return m_Texts; }

 private:
  std::unordered_map<std::string, std::size_t> m_Indices;
  ordered_json m_Texts = ordered_json::array();
};

/// The records of a log as columns of small numbers. A log of many megabytes has more than a hundred thousand
/// records that its page must hold, and the ones of a flash are much as those of the flash before.
class RecordColumns {
 public:
  explicit RecordColumns(TextTable& messages) : m_Messages(messages) {}

  void Add(const KeptRecord& record) {
    const std::uint64_t offset = record.before + record.offset;
    m_Holes.Add(offset - m_LastEnd);
    m_LastEnd = offset + record.size;
    m_Jobs.Add(static_cast<std::uint64_t>(record.place.job));
    if (record.leftOut != 0) {
      m_Shapes.Add(kGap);
      m_Gaps.Add(record.leftOut);
      m_Gaps.Add(record.size);
      return;
    }
    m_Shapes.Add(ShapeOf(record));
    m_Times.AddStep(record.time, m_LastTime);
    m_Threads.Add(ThreadOf(record));
  }

  ordered_json AsJson(Milliseconds begin) const {
    return {{"begin", begin},
            {"holes", m_Holes.Text()},
            {"jobs", m_Jobs.Text()},
            {"shapes", m_Shapes.Text()},
            {"gaps", m_Gaps.Text()},
            {"times", m_Times.Text()},
            {"threads", m_Threads.Text()},
            {"site_table", m_SiteTable},
            {"shape_table", m_ShapeTable.Text()},
            {"thread_table", m_ThreadTable.Text()}};
  }

  void BeginAt(Milliseconds time) { m_LastTime = time; }

 private:
  static constexpr std::size_t kGap = 0;

  /// Where a record comes from and what it is, which comes back with each record of that place.
  std::size_t SiteOf(const KeptRecord& record) {
    const auto key = std::tuple(record.source, record.line, record.function, record.level, record.flaw,
                                record.place.stage, record.place.trouble);
    const auto [place, isNew] = m_SiteIndices.try_emplace(key, m_SiteIndices.size());
    if (isNew) {
      const Trouble* const trouble = record.place.trouble;
      m_SiteTable.push_back({ReadableText(record.source), record.line, ReadableText(record.function),
                             NameOf(record.level), NameOf(record.flaw), record.place.stage ? 1 : 0,
                             trouble == nullptr ? -1 : static_cast<int>(trouble - AllTroubles().data())});
    }
    return place->second;
  }

  /// All of a record but its time and its thread. @return from 1 on.
  std::size_t ShapeOf(const KeptRecord& record) {
    const Shape shape{SiteOf(record), m_Messages.IndexOf(record.message), record.size, record.messageCut};
    const auto [place, isNew] = m_ShapeIndices.try_emplace(shape, m_ShapeIndices.size() + 1);
    if (isNew) {
      m_ShapeTable.Add(shape[0]);
      m_ShapeTable.AddStep(shape[1], m_LastText);
      m_ShapeTable.Add(shape[2]);
      m_ShapeTable.Add(shape[3]);
    }
    return place->second;
  }

  std::size_t ThreadOf(const KeptRecord& record) {
    const auto [place, isNew] =
        m_ThreadIndices.try_emplace(std::pair(record.process, record.thread), m_ThreadIndices.size());
    if (isNew) {
      m_ThreadTable.AddStep(record.process, m_LastProcess);
      m_ThreadTable.AddStep(record.thread, m_LastThread);
    }
    return place->second;
  }

  using Site = std::tuple<std::string, std::uint32_t, std::string, Level, Flaw, bool, const Trouble*>;
  /// Site, text, size, and what is cut of the message.
  using Shape = std::array<std::uint64_t, 4>;

  TextTable& m_Messages;
  std::map<Site, std::size_t> m_SiteIndices;
  std::map<Shape, std::size_t> m_ShapeIndices;
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::size_t> m_ThreadIndices;
  std::uint64_t m_LastEnd = 0;
  Milliseconds m_LastTime = 0;
  std::uint64_t m_LastText = 0;
  std::uint32_t m_LastProcess = 0;
  std::uint32_t m_LastThread = 0;
  RareChanges m_Holes;  ///< bytes in front of a record that no record has
  RareChanges m_Jobs;
  RepeatedOrder m_Shapes;
  NumberText m_Gaps;
  NumberText m_Times;
  RareChanges m_Threads;
  ordered_json m_SiteTable = ordered_json::array();
  NumberText m_ShapeTable;
  NumberText m_ThreadTable;
};

/// Of limits, which are whole seconds.
std::uint64_t Seconds(Milliseconds time) {
  return static_cast<std::uint64_t>(time / 1000);
}

std::string StageNumbers(const Job& job) {
  NumberText numbers;
  Milliseconds end = job.begin;
  std::uint64_t offset = job.offset;
  for (const Stage& stage : job.stages) {
    numbers.Add(static_cast<std::uint64_t>(stage.kind));
    numbers.Add(static_cast<std::uint64_t>(stage.attempt));
    numbers.AddSigned(stage.begin - end);
    numbers.AddSigned(stage.end - stage.begin);
    numbers.Add(Seconds(stage.limit));
    numbers.AddStep(stage.offset, offset);
    end = stage.end;
  }
  return numbers.Text();
}

std::string AttemptNumbers(const Job& job) {
  NumberText numbers;
  Milliseconds begin = job.begin;
  std::uint64_t offset = job.offset;
  for (const Attempt& attempt : job.attempts) {
    numbers.AddStep(attempt.begin, begin);
    numbers.AddSigned(attempt.end - attempt.begin);
    numbers.Add(Seconds(attempt.limit));
    numbers.Add(static_cast<std::uint64_t>(attempt.outcome));
    numbers.AddStep(attempt.offset, offset);
  }
  return numbers.Text();
}

std::string MomentNumbers(const Job& job) {
  NumberText numbers;
  Milliseconds time = job.begin;
  std::uint64_t offset = job.offset;
  for (const Moment& moment : job.moments) {
    // The page does not draw items.
    if (moment.kind == MomentKind::Item) continue;
    numbers.Add(static_cast<std::uint64_t>(moment.kind));
    numbers.AddStep(moment.time, time);
    numbers.AddStep(moment.offset, offset);
  }
  return numbers.Text();
}

/// @param most points that the curve may have; the last one is always among them.
std::string CurveNumbers(const Job& job, std::size_t most) {
  NumberText numbers;
  ProgressPoint last{.time = job.begin, .percent = 0};
  const std::size_t count = job.progress.size();
  const std::size_t step = (count + most - 1) / most;
  for (std::size_t i = 0; i < count; ++i) {
    if ((count - 1 - i) % std::max<std::size_t>(step, 1) != 0) continue;
    numbers.AddStep(job.progress[i].time, last.time);
    numbers.AddStep(job.progress[i].percent, last.percent);
  }
  return numbers.Text();
}

/// Of an error its place, which leads to all else; otherwise what its record does not tell.
ordered_json EndingData(const Job& job, const Ending& ending) {
  ordered_json data{{"offset", job.before + ending.offset}};
  if (ending.IsError()) return data;
  data["time"] = ending.time;
  data["said"] = ReadableText(ending.message);
  data["meaning"] = ending.meaning == nullptr ? "" : ending.meaning;
  data["what_to_do"] = ending.whatToDo == nullptr ? "" : ending.whatToDo;
  return data;
}

/// Times count from the job's start; its own offset counts from the first byte of all times, so that none
/// comes twice, and the other ones from it.
ordered_json Timeline(const Job& job, std::size_t curvePoints) {
  const std::uint64_t offset = job.before + job.offset;
  ordered_json timeline{{"number", job.number},
                        {"version", ReadableText(job.version)},
                        {"begin", job.begin},
                        {"length", job.end - job.begin},
                        {"state", TokenOf(job.state)},
                        {"highest", job.highestProgress},
                        {"errors", job.errors},
                        {"warnings", job.warnings},
                        {"offset", offset},
                        {"reason", ordered_json()},
                        {"stages", StageNumbers(job)},
                        {"attempts", AttemptNumbers(job)},
                        {"moments", MomentNumbers(job)},
                        {"progress", CurveNumbers(job, curvePoints)}};
  if (job.firstError) timeline["reason"] = job.before + job.firstError->offset;
  if (const auto ending = EndingOf(job)) timeline["ending"] = EndingData(job, *ending);
  if (job.byCommandLine) timeline["command_line"] = true;
  if (job.beginMissing) timeline["begin_missing"] = true;
  return timeline;
}

ordered_json Timelines(const std::vector<Job>& jobs) {
  // Of many flashes each is drawn less finely.
  constexpr std::size_t kMostPoints = 200'000;
  constexpr std::size_t kLeastPoints = 16;
  const std::size_t points = std::max(kMostPoints / std::max<std::size_t>(jobs.size(), 1), kLeastPoints);
  auto timelines = ordered_json::array();
  for (const Job& job : jobs) timelines.push_back(Timeline(job, points));
  return timelines;
}

/// No text of a log may end the element that the data lies in.
std::string ForScript(const ordered_json& document) {
  const std::string text = document.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
  std::string safe;
  safe.reserve(text.size());
  for (const char letter : text) {
    if (letter == '<') {
      safe += "\\u003c";
    } else {
      safe += letter;
    }
  }
  return safe;
}

ordered_json LogData(Log& log, TextTable& messages) {
  RecordColumns columns(messages);
  const Milliseconds begin = log.Begin().value_or(0);
  columns.BeginAt(begin);
  const ordered_json jobs = Timelines(log.Jobs());
  for (const KeptRecord& record : log.Kept(ForScript(jobs).size())) columns.Add(record);
  const ordered_json report = AsJson(log);
  return {{"name", report["name"]},           {"size", report["size"]}, {"beginnings", log.Beginnings()},
          {"count", report["records"]},       {"end", log.End()},       {"flaws", report["flaws"]},
          {"broke_off", report["broke_off"]}, {"jobs", jobs},           {"records", columns.AsJson(begin)}};
}

ordered_json StageNames() {
  auto names = ordered_json::array();
  for (int kind = 0; kind < kStageKinds; ++kind) {
    names.push_back({TokenOf(static_cast<StageKind>(kind)), NameOf(static_cast<StageKind>(kind))});
  }
  return names;
}

ordered_json StateNames() {
  ordered_json names;
  for (const JobState state :
       {JobState::Running, JobState::Succeeded, JobState::Failed, JobState::NoImages, JobState::CutShort}) {
    names[TokenOf(state)] = NameOf(state);
  }
  return names;
}

/// In the order of their numbers.
ordered_json OutcomeTokens() {
  auto tokens = ordered_json::array();
  for (const AttemptOutcome outcome :
       {AttemptOutcome::Running, AttemptOutcome::Succeeded, AttemptOutcome::Failed, AttemptOutcome::Overran,
        AttemptOutcome::NotStarted}) {
    tokens.push_back(TokenOf(outcome));
  }
  return tokens;
}

ordered_json Troubles() {
  auto rows = ordered_json::array();
  for (const Trouble& trouble : AllTroubles()) {
    rows.push_back({NameOf(trouble.kind), trouble.meaning, trouble.whatToDo});
  }
  return rows;
}

/// Puts a text in the place of its mark in the template.
void Replace(std::string& page, std::string_view mark, std::string_view text) {
  const std::size_t place = page.find(mark);
  page.replace(place, mark.size(), text);
}

}  // namespace

std::string Page(const std::vector<Log*>& logs) {
  TextTable messages;
  auto data = ordered_json::array();
  for (Log* const log : logs) data.push_back(LogData(*log, messages));
  const ordered_json document{{"version", kReportVersion},
                              {"program", CORVEL_VERSION},
                              {"stages", StageNames()},
                              {"states", StateNames()},
                              {"outcomes", OutcomeTokens()},
                              {"troubles", Troubles()},
                              {"logs", data},
                              {"messages", messages.Texts()}};
  std::string page(PageHtml());
  Replace(page, "/*style*/", PageCss());
  Replace(page, "/*script*/", PageJs());
  Replace(page, "/*data*/", ForScript(document));
  return page;
}

}  // namespace hosts::flashlog
