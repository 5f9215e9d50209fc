#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "common/debuglogger.h"
#include "common/text.h"
#include "simulator/import_patch.h"
#include "support/temporary_folder.h"

struct LogRecord {
  std::string level;
  std::string file;
  std::string function;
  std::string message;
};

/// The records of a debug log, in their order. The simulator judges a whole log of one run; a unit test looks
/// at what was added since it began.
inline std::vector<LogRecord> ReadLog(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string all{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const std::string end = "##\r\n";

  std::vector<LogRecord> records;
  for (std::size_t from = 0, to = 0; (to = all.find(end, from)) != std::string::npos;
       from = to + end.size()) {
    // Date, time, process and thread, component, level, file, line, function; the rest is the message.
    constexpr std::size_t kFields = 8;
    std::vector<std::string> fields;
    fields.reserve(kFields);
    std::size_t begin = from;
    while (fields.size() < kFields) {
      const std::size_t tab = all.find('\t', begin);
      fields.push_back(all.substr(begin, tab - begin));
      begin = tab + 1;
    }
    records.push_back({fields[4], fields[5], fields[7], all.substr(begin, to - begin)});
  }
  return records;
}

/// The message with its level: "E:" in front is an error, "W:" a warning, "O:" anything else that is no
/// trace.
inline std::string Marked(const LogRecord& record) {
  return (record.level == "Trace" ? "" : record.level.substr(0, 1) + ":") + record.message;
}
inline std::vector<std::string> MarkedMessagesOf(const std::vector<LogRecord>& records) {
  std::vector<std::string> marked;
  marked.reserve(records.size());
  for (const LogRecord& record : records) marked.push_back(Marked(record));
  return marked;
}

/// The function fields of the records, in their order.
inline std::vector<std::string> FunctionsOf(const std::vector<LogRecord>& records) {
  std::vector<std::string> functions;
  functions.reserve(records.size());
  for (const LogRecord& record : records) functions.push_back(record.function);
  return functions;
}
/// The function field of the record that tells this (see Marked); empty when there is none.
inline std::string FunctionOf(const std::vector<LogRecord>& records, const std::string& told) {
  for (const LogRecord& record : records) {
    if (Marked(record) == told) return record.function;
  }
  return {};
}

/// The debug log, turned on and written to a file of the test's own.
///
/// The library flushes no file meanwhile: closing a log would, and each flush waits for a disk that others
/// may keep busy. Tests of flushing put a function of their own in its place.
class TestLog {
 public:
  TestLog() {
    m_Patch.Replace("FlushFileBuffers", &LeaveUnflushed);
    CDebugLogger::SetLevel(3);
    CDebugLogger::GetInstance()->SetFileName(corvel::AnsiFromWide(m_Folder.File(L"test.log")).c_str());
  }
  ~TestLog() {
    CDebugLogger::GetInstance()->SetFileName("");
    CDebugLogger::ReleaseInstance();
  }

  /// What the file holds, byte for byte.
  std::string Text() const { return m_Folder.Content(L"test.log"); }
  bool Contains(const std::string& text) const { return Text().find(text) != std::string::npos; }
  /// True once there is a file, even an empty one.
  bool Exists() const { return m_Folder.Holds(L"test.log"); }
  std::string Path() const { return m_Folder.File("test.log"); }

  std::vector<LogRecord> Records() const { return ReadLog(m_Folder.File(L"test.log")); }
  /// The messages with their levels, as Marked gives them.
  std::vector<std::string> Said() const { return MarkedMessagesOf(Records()); }
  /// The level word of the record with this message; empty when there is none.
  std::string LevelOf(const std::string& message) const {
    for (const LogRecord& record : Records()) {
      if (record.message == message) return record.level;
    }
    return {};
  }
  /// How many records tell this (see Marked).
  std::ptrdiff_t Count(const std::string& told) const {
    const std::vector<std::string> all = Said();
    return std::count(all.begin(), all.end(), told);
  }

 private:
  static BOOL WINAPI LeaveUnflushed(HANDLE) { return TRUE; }

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  TemporaryFolder m_Folder;
};
