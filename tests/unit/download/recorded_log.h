#pragma once

#include <string>
#include <vector>

/// Sends the debug log to a file of this process's own and reads it back.
class RecordedLog {
 public:
  RecordedLog();
  /// Closes and deletes the file.
  ~RecordedLog();
  RecordedLog(const RecordedLog&) = delete;
  RecordedLog& operator=(const RecordedLog&) = delete;

  /// The messages so far, without what the log adds to each.
  std::vector<std::string> Messages() const;
  bool Holds(const std::string& message) const;

 private:
  std::string m_path;
};
