#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hosts/flashlog/job_tracker.h"
#include "hosts/flashlog/log_reader.h"
#include "hosts/flashlog/record_store.h"

namespace hosts::flashlog {

/// How many pieces of a log have a flaw of each kind.
struct FlawCounts {
  std::uint64_t foreign = 0;
  std::uint64_t malformed = 0;
  std::uint64_t truncated = 0;
  std::uint64_t cut = 0;
  std::uint64_t bytes = 0;  ///< of all of them
  /// Of the first one, in the log that it stood in.
  std::optional<std::uint64_t> firstOffset = std::nullopt;

  std::uint64_t Sum() const { return foreign + malformed + truncated + cut; }
};

/// One log: its jobs, its counts and, when they are wanted, its records.
class Log {
 public:
  using Watcher = std::function<void(const Record&, const Place&)>;

  /// @param name what people know the log by
  /// @param page what a page of it is to have; without one neither records nor curves of the progress are
  /// kept.
  Log(std::string name, std::optional<PageLimits> page);
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  /// Tells of each record as it is read.
  void Watch(Watcher watcher) { m_Watcher = std::move(watcher); }

  void Take(std::string_view bytes);
  /// There is no more. @param goesOn the log began anew: a job that has not ended will not any more.
  void Finish(bool goesOn = false);
  /// What comes next cannot be read. @param why in the system's words; bytes that come all the same take it
  /// back.
  void BreakOff(std::string why) { m_BrokeOff = std::move(why); }

  const std::string& Name() const { return m_Name; }
  /// Bytes that it has; those from before it began anew are no longer in it.
  std::uint64_t Size() const { return m_Size; }
  /// Where it began, each time, in the bytes of all times.
  const std::vector<std::uint64_t>& Beginnings() const { return m_Beginnings; }
  /// Bytes of all times.
  std::uint64_t Taken() const { return m_Beginnings.back() + m_Size; }
  /// Whether it is text of two bytes a letter, as a copy may be. No record can be found in it.
  bool IsUtf16() const { return m_Head == "\xFF\xFE" || m_Head == "\xFE\xFF"; }
  /// Why it could not be read beyond its size; empty when it was read to its end.
  const std::string& BrokeOff() const { return m_BrokeOff; }
  std::uint64_t Records() const { return m_Records; }
  const FlawCounts& Flaws() const { return m_Flaws; }
  /// Of the first and the last record; nothing without any.
  std::optional<Milliseconds> Begin() const { return m_Begin; }
  Milliseconds End() const { return m_End; }
  const std::vector<Job>& Jobs() const { return m_Tracker.Jobs(); }
  /// @param taken what else of the log takes bytes of its page.
  const std::vector<KeptRecord>& Kept(std::size_t taken = 0);

 private:
  void TakeRecord(const Record& record);

  std::string m_Name;
  LogReader m_Reader;
  JobTracker m_Tracker;
  std::optional<RecordStore> m_Store;
  Watcher m_Watcher;
  std::uint64_t m_Size = 0;
  /// Its first bytes, which may be a mark of how its letters are written.
  std::string m_Head;
  std::vector<std::uint64_t> m_Beginnings{0};
  std::string m_BrokeOff;
  std::uint64_t m_Records = 0;
  FlawCounts m_Flaws;
  std::optional<Milliseconds> m_Begin;
  Milliseconds m_End = 0;
};

/// "2026-11-15 23:04:11.042", or without its last places.
std::string TimeText(Milliseconds time);
std::string TimeTextToSeconds(Milliseconds time);
/// "23:04:11.042".
std::string ClockText(Milliseconds time);
/// "0.4 s", "27.8 s", "3 min 05 s", "2 h 03 min".
std::string DurationText(Milliseconds duration);

}  // namespace hosts::flashlog
