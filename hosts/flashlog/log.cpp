#include "hosts/flashlog/log.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <utility>

namespace hosts::flashlog {

namespace {

constexpr std::size_t kMarkSize = 2;

template <typename... Values>
std::string Formatted(const char* format, Values... values) {
  std::array<char, 64> text{};
  const int length = std::snprintf(text.data(), text.size(), format, values...);
  return {text.data(), static_cast<std::size_t>(std::max(length, 0))};
}

}  // namespace

Log::Log(std::string name, std::optional<PageLimits> page)
    : m_Name(std::move(name)),
      m_Reader([this](const Record& record) { TakeRecord(record); }),
      m_Tracker(page.has_value()) {
  if (page) m_Store.emplace(*page);
}

void Log::Take(std::string_view bytes) {
  m_BrokeOff.clear();
  m_Size += bytes.size();
  m_Head += bytes.substr(0, kMarkSize - m_Head.size());
  if (!IsUtf16()) m_Reader.Take(bytes);
}

void Log::Finish(bool goesOn) {
  m_Reader.Finish();
  m_Tracker.Finish(goesOn);
  if (!goesOn) return;
  m_Beginnings.push_back(Taken());
  m_Size = 0;
  m_Head.clear();
}

const std::vector<KeptRecord>& Log::Kept(std::size_t taken) {
  static const std::vector<KeptRecord> none;
  return m_Store ? m_Store->Records(taken) : none;
}

void Log::TakeRecord(const Record& record) {
  switch (record.flaw) {
    case Flaw::Foreign:
      ++m_Flaws.foreign;
      break;
    case Flaw::Malformed:
      ++m_Flaws.malformed;
      break;
    case Flaw::Truncated:
      ++m_Flaws.truncated;
      break;
    case Flaw::Cut:
      ++m_Flaws.cut;
      break;
    case Flaw::None:
      break;
  }
  if (record.flaw != Flaw::None) {
    m_Flaws.bytes += record.size;
    if (!m_Flaws.firstOffset) m_Flaws.firstOffset = record.offset;
  }
  if (record.flaw != Flaw::Foreign) {
    ++m_Records;
    if (!m_Begin) m_Begin = record.time;
    m_End = record.time;
  }
  const Place place = m_Tracker.Take(record);
  if (m_Store) m_Store->Take(record, place);
  if (m_Watcher) m_Watcher(record, place);
}

std::string TimeText(Milliseconds time) {
  return TimeTextToSeconds(time) + Formatted(".%03d", static_cast<int>(time % 1000));
}

std::string TimeTextToSeconds(Milliseconds time) {
  const std::chrono::sys_days day(std::chrono::floor<std::chrono::days>(
      std::chrono::sys_time<std::chrono::milliseconds>(std::chrono::milliseconds(time))));
  const std::chrono::year_month_day date(day);
  return Formatted("%04d-%02u-%02u ", static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                   static_cast<unsigned>(date.day())) +
         ClockText(time).substr(0, 8);
}

std::string ClockText(Milliseconds time) {
  const Milliseconds inDay = ((time % 86'400'000) + 86'400'000) % 86'400'000;
  return Formatted("%02d:%02d:%02d.%03d", static_cast<int>(inDay / 3'600'000),
                   static_cast<int>(inDay / 60'000 % 60), static_cast<int>(inDay / 1000 % 60),
                   static_cast<int>(inDay % 1000));
}

std::string DurationText(Milliseconds duration) {
  const Milliseconds tenths = (duration + 50) / 100;
  if (tenths < 1000)
    return Formatted("%d.%d s", static_cast<int>(tenths / 10), static_cast<int>(tenths % 10));
  const Milliseconds seconds = (duration + 500) / 1000;
  if (seconds < 3600) {
    return Formatted("%d min %02d s", static_cast<int>(seconds / 60), static_cast<int>(seconds % 60));
  }
  return Formatted("%d h %02d min", static_cast<int>(seconds / 3600), static_cast<int>(seconds / 60 % 60));
}

}  // namespace hosts::flashlog
