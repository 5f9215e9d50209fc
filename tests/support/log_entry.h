#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "support/test_log.h"

/// A record as its readers search for it: how grave it is, whose it is, what it says.
struct LogEntry {
  std::string level;
  std::string function;
  std::string message;
  friend bool operator==(const LogEntry&, const LogEntry&) = default;
};

inline void PrintTo(const LogEntry& entry, std::ostream* stream) {
  *stream << entry.level << " of " << entry.function << ": \"" << entry.message << '"';
}

inline std::vector<LogEntry> EntriesOf(const TestLog& log) {
  const std::vector<LogRecord> records = log.Records();
  std::vector<LogEntry> entries;
  entries.reserve(records.size());
  for (const LogRecord& record : records) {
    entries.push_back({record.level, record.function, record.message});
  }
  return entries;
}
