#include "hosts/flashlog/page.h"

#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "hosts/flashlog/json_report.h"
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

/// The records of a log as columns of small numbers: most are differences to the record before. A log of many
/// megabytes has tens of thousands of records that its page must hold.
class RecordColumns {
 public:
  explicit RecordColumns(TextTable& messages) : m_Messages(messages) {}

  void Add(const KeptRecord& record) {
    m_Offsets.push_back(record.offset - m_LastEnd);
    m_LastEnd = record.offset + record.size;
    m_Times.push_back(record.time - m_LastTime);
    m_LastTime = record.time;
    m_Jobs.push_back(record.place.job);
    if (record.leftOut != 0) {
      // A gap has no site; its size follows the count.
      m_Sites.push_back(-1);
      m_Threads.push_back(record.leftOut);
      m_TextIndices.push_back(record.size);
      return;
    }
    m_Sites.push_back(static_cast<std::int64_t>(SiteOf(record)));
    m_Threads.push_back(ThreadOf(record));
    m_TextIndices.push_back(m_Messages.IndexOf(record.message));
    m_Sizes.push_back(record.size);
    if (record.messageCut != 0) m_Cut[std::to_string(m_Sites.size() - 1)] = record.messageCut;
  }

  ordered_json AsJson(Milliseconds begin) const {
    return {{"begin", begin},
            {"offsets", m_Offsets},
            {"times", m_Times},
            {"jobs", m_Jobs},
            {"sites", m_Sites},
            {"threads", m_Threads},
            {"sizes", m_Sizes},
            {"texts", m_TextIndices},
            {"site_table", m_SiteTable},
            {"cut", m_Cut},
            {"thread_table", m_ThreadTable}};
  }

  void BeginAt(Milliseconds time) { m_LastTime = time; }

 private:
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

  std::size_t ThreadOf(const KeptRecord& record) {
    const auto [place, isNew] =
        m_ThreadIndices.try_emplace(std::pair(record.process, record.thread), m_ThreadIndices.size());
    if (isNew) m_ThreadTable.push_back({record.process, record.thread});
    return place->second;
  }

  using Site = std::tuple<std::string, std::uint32_t, std::string, Level, Flaw, bool, const Trouble*>;

  TextTable& m_Messages;
  std::map<Site, std::size_t> m_SiteIndices;
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::size_t> m_ThreadIndices;
  std::uint64_t m_LastEnd = 0;
  Milliseconds m_LastTime = 0;
  std::vector<std::uint64_t> m_Offsets;
  std::vector<Milliseconds> m_Times;
  std::vector<int> m_Jobs;
  std::vector<std::int64_t> m_Sites;
  std::vector<std::uint64_t> m_Threads;
  std::vector<std::uint64_t> m_TextIndices;
  std::vector<std::uint64_t> m_Sizes;
  ordered_json m_SiteTable = ordered_json::array();
  ordered_json m_ThreadTable = ordered_json::array();
  ordered_json m_Cut = ordered_json::object();
};

/// Stages, attempts and moments as rows of numbers; times count from the job's start.
ordered_json Timeline(const Job& job) {
  auto stages = ordered_json::array();
  for (const Stage& stage : job.stages) {
    stages.push_back({static_cast<int>(stage.kind), stage.attempt, stage.begin - job.begin,
                      stage.end - stage.begin, stage.limit, stage.offset});
  }
  auto attempts = ordered_json::array();
  for (const Attempt& attempt : job.attempts) {
    attempts.push_back({attempt.number, attempt.begin - job.begin, attempt.end - attempt.begin, attempt.limit,
                        TokenOf(attempt.outcome), attempt.offset});
  }
  auto moments = ordered_json::array();
  for (const Moment& moment : job.moments) {
    moments.push_back({static_cast<int>(moment.kind), moment.time - job.begin, moment.offset});
  }
  std::vector<Milliseconds> progress;
  ProgressPoint last{.time = job.begin, .percent = 0};
  for (const ProgressPoint& point : job.progress) {
    progress.push_back(point.time - last.time);
    progress.push_back(point.percent - last.percent);
    last = point;
  }
  return {{"number", job.number},
          {"command_line", job.byCommandLine},
          {"begin_missing", job.beginMissing},
          {"version", ReadableText(job.version)},
          {"begin", job.begin},
          {"length", job.end - job.begin},
          {"state", TokenOf(job.state)},
          {"state_name", NameOf(job.state)},
          {"highest", job.highestProgress},
          {"result", job.result ? ordered_json(*job.result) : ordered_json()},
          {"errors", job.errors},
          {"warnings", job.warnings},
          {"records", job.records},
          {"offset", job.offset},
          {"reason", job.firstError ? ordered_json(job.firstError->offset) : ordered_json()},
          {"stages", stages},
          {"attempts", attempts},
          {"moments", moments},
          {"progress", progress}};
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
  auto jobs = ordered_json::array();
  for (const Job& job : log.Jobs()) jobs.push_back(Timeline(job));
  for (const KeptRecord& record : log.Kept(ForScript(jobs).size())) columns.Add(record);
  const ordered_json report = AsJson(log);
  return {{"name", report["name"]}, {"size", report["size"]},          {"count", report["records"]},
          {"end", log.End()},       {"flaws", report["flaws"]},        {"broke_off", report["broke_off"]},
          {"jobs", jobs},           {"records", columns.AsJson(begin)}};
}

ordered_json StageNames() {
  auto names = ordered_json::array();
  for (int kind = 0; kind < kStageKinds; ++kind) {
    names.push_back({TokenOf(static_cast<StageKind>(kind)), NameOf(static_cast<StageKind>(kind))});
  }
  return names;
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
