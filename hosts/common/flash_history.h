#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "hosts/common/finished_job.h"

namespace hosts {

/// One job as the history keeps it.
struct HistoryEntry {
  std::string time;  ///< of its end, local: "2026-11-15 23:04:11"
  std::string host;  ///< who flashed: "service", "console" or "cmdline"
  FinishedJob job;
};

/// What can be read of the history.
struct HistoryReading {
  DWORD error = ERROR_SUCCESS;
  std::vector<HistoryEntry> entries;  ///< oldest first
};

/// The last jobs of the hosts in a folder, one line of text each. The file stays small: the oldest lines go.
/// Hosts may write it at the same time, in one process or in several; a line that a crash has torn is passed
/// over and spoils no other.
class FlashHistory {
 public:
  explicit FlashHistory(std::wstring path) : m_Path(std::move(path)) {}
  /// The one beside the running program.
  FlashHistory();

  const std::wstring& Path() const { return m_Path; }

  /// Adds a job that has just ended. Waits a moment for another writer.
  /// @return the Win32 error, 0 on success; what the file held before is still there then.
  DWORD Append(const std::string& host, const FinishedJob& job) const;
  /// A file that is not there holds nothing.
  HistoryReading Read() const;

 private:
  std::wstring m_Path;
};

}  // namespace hosts
