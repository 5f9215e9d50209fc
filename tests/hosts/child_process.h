#pragma once

#include <windows.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hosts/common/owners.h"

namespace hosts {

/// A host that runs as a child, with pipes for its output. Ended by force when the test is over.
class ChildProcess {
 public:
  /// @param folder that it is started in; by default its own.
  ChildProcess(const std::filesystem::path& program, const std::vector<std::wstring>& arguments,
               const std::filesystem::path& folder = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Waits for the end. @return the exit status; nothing when it has not ended in time.
  std::optional<int> WaitForEnd(std::chrono::milliseconds limit = std::chrono::seconds(60));
  /// Waits until the program has written the text on standard output or standard error.
  bool Says(const std::string& text, std::chrono::milliseconds limit = std::chrono::seconds(60));
  /// Waits until it has written so many whole lines on standard output.
  bool SaysLines(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(60));
  /// Ends it as a crash would, and waits until it is gone.
  void Kill() const;
  /// Ctrl+C, for this program alone.
  bool Interrupt() const;

  std::string Output() { return m_Output.Text(); }
  std::string Errors() { return m_Errors.Text(); }

 private:
  static bool Await(const std::function<bool()>& isSo, std::chrono::milliseconds limit);

  /// What comes through one pipe, collected by a thread.
  class Collector {
   public:
    Collector();
    ~Collector();
    HANDLE WriteEnd() const { return m_Write.get(); }
    /// The child has its own copy of the write end by now.
    void Begin();
    void WaitForEnd();
    std::string Text();

   private:
    OwnedHandle m_Read;
    OwnedHandle m_Write;
    std::mutex m_Mutex;
    std::string m_Text;
    std::thread m_Thread;
  };

  Collector m_Output;
  Collector m_Errors;
  OwnedHandle m_Process;
};

/// How a program that was run to its end came out.
struct RunResult {
  std::optional<int> exitCode;
  std::string output;
  std::string errors;
};
RunResult RunToEnd(const std::filesystem::path& program, const std::vector<std::wstring>& arguments,
                   const std::filesystem::path& folder = {});

}  // namespace hosts
