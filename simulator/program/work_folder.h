#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace simulator {

/// A folder with the running program and the libraries beside it: the library looks for its configuration,
/// the flashing library and a place for its log beside the program, so each run gets a program of its own.
class WorkFolder {
 public:
  /// @param folder empty for a temporary one.
  explicit WorkFolder(const std::filesystem::path& folder = {});
  ~WorkFolder();
  WorkFolder(const WorkFolder&) = delete;
  WorkFolder& operator=(const WorkFolder&) = delete;

  const std::filesystem::path& Path() const { return m_Path; }
  const std::filesystem::path& Program() const { return m_Program; }

  /// Leaves the debug log and what the run reported, or all of it, behind.
  void KeepLog() { m_Leave = Leave::Log; }
  void KeepAll() { m_Leave = Leave::All; }

 private:
  enum class Leave { Nothing, Log, All };

  std::filesystem::path m_Path;
  std::filesystem::path m_Program;
  Leave m_Leave = Leave::Nothing;
};

/// How a child program ended.
struct ChildResult {
  bool ended = false;        ///< false when it was stopped because it took too long
  bool interrupted = false;  ///< it was stopped, or ended itself, because of Ctrl+C
  unsigned long exitCode = 0;
};

/// Runs a program to its end. Its output goes where this one's goes, or into a file. Any thread.
/// @param interruption an event that stops the program; none for one that answers Ctrl+C itself.
ChildResult RunChild(const std::filesystem::path& program, const std::vector<std::wstring>& arguments,
                     std::chrono::milliseconds limit, const std::filesystem::path& output = {},
                     void* interruption = nullptr);

}  // namespace simulator
