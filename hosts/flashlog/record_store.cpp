#include "hosts/flashlog/record_store.h"

#include <algorithm>
#include <utility>

namespace hosts::flashlog {

namespace {

/// Longer messages are cut; the file has them.
constexpr std::size_t kLongestMessage = 2000;

bool IsOther(const KeptRecord& record) {
  return record.leftOut == 0 && !record.IsImportant();
}

void LeaveOut(const KeptRecord& record, std::vector<KeptRecord>& records) {
  const std::uint64_t count = record.leftOut == 0 ? 1 : record.leftOut;
  const std::uint64_t end = record.offset + record.size;
  if (!records.empty() && records.back().leftOut != 0) {
    records.back().leftOut += count;
    records.back().size = end - records.back().offset;
    return;
  }
  KeptRecord gap;
  gap.leftOut = count;
  gap.offset = record.offset;
  gap.size = record.size;
  gap.time = record.time;
  gap.place.job = record.place.job;
  records.push_back(std::move(gap));
}

}  // namespace

void RecordStore::Take(const Record& record, const Place& place) {
  const std::size_t length = std::min(record.message.size(), kLongestMessage);
  m_Records.push_back({.offset = record.offset,
                       .size = record.size,
                       .time = record.time,
                       .process = record.process,
                       .thread = record.thread,
                       .level = record.level,
                       .line = record.line,
                       .source = std::string(record.source),
                       .function = std::string(record.function),
                       .message = std::string(record.message.substr(0, length)),
                       .messageCut = record.message.size() - length,
                       .flaw = record.flaw,
                       .place = place});
  if (IsOther(m_Records.back())) ++m_Others;
  // Not with each record: going through all of them costs.
  if (m_Others > m_MostOthers + m_MostOthers / 2 + 1000) Thin();
}

const std::vector<KeptRecord>& RecordStore::Records() {
  Thin();
  return m_Records;
}

void RecordStore::Thin() {
  if (m_Others <= m_MostOthers) return;
  std::size_t excess = m_Others - m_MostOthers;
  std::vector<KeptRecord> kept;
  for (KeptRecord& record : m_Records) {
    const bool drop = excess > 0 && IsOther(record);
    if (drop) --excess;
    if (drop || record.leftOut != 0) {
      LeaveOut(record, kept);
    } else {
      kept.push_back(std::move(record));
    }
  }
  m_Records = std::move(kept);
  m_Others = m_MostOthers;
}

}  // namespace hosts::flashlog
