#include <windows.h>

#include <cstdarg>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <spdlog/pattern_formatter.h>

#include "benchmarks/bare_log.h"
#include "benchmarks/catch.h"
#include "benchmarks/sampler.h"
#include "benchmarks/scratch_folder.h"
#include "common/debuglogger.h"
#include "common/log.h"
#include "common/logrecord.h"
#include "toolkit/toolkit.h"

namespace benchmarks {

namespace {

constexpr char kFunction[] = "CFirmwareDownloader::DownloadFirmwareImplementation";
constexpr char kFile[] = "firmwaredownloader.cpp";
constexpr int kTrace = 3;
constexpr int kLine = 339;
constexpr int kThreads = 4;
constexpr int kRecordsPerThread = 100;

std::string ComposeRecord(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string record =
      corvel::ComposeLogRecord(kTrace, corvel::kLogComponent, kFunction, kFile, kLine, format, arguments);
  va_end(arguments);
  return record;
}

/// The library's log, written into a scratch file.
class LibraryLog {
 public:
  explicit LibraryLog(const ScratchFolder& folder) {
    CDebugLogger::GetInstance()->SetFileName((folder / L"library.log").string().c_str());
    CDebugLogger::SetLevel(kTrace);
  }
  ~LibraryLog() {
    CDebugLogger::SetLevel(0);
    CDebugLogger::ReleaseInstance();
  }
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;

  static void Write(const std::string& message) {
    ToolKit::OutputDebug(kTrace, corvel::kLogComponent, kFunction, kFile, kLine, "%s", message.c_str());
  }
};

void OnThreads(const Work& work) {
  std::vector<std::jthread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&work] {
      for (int record = 0; record < kRecordsPerThread; ++record) work();
    });
  }
}

/// Another library's formatter, told to lay a record out in the same way.
class PeerFormatter {
 public:
  PeerFormatter()
      : m_Formatter("#%Y-%m-%d\t%H:%M:%S.%e\t%P~%t\t%n\t%l\t%s\t%#\t%!\t%v##\r\n",
                    spdlog::pattern_time_type::local, "") {}

  void Format(const std::string& message) {
    m_Text.clear();
    fmt::format_to(std::back_inserter(m_Text), "{}", message);
    const spdlog::details::log_msg record(spdlog::source_loc{kFile, kLine, kFunction}, corvel::kLogComponent,
                                          spdlog::level::trace, {m_Text.data(), m_Text.size()});
    m_Record.clear();
    m_Formatter.format(record, m_Record);
    Use(m_Record.data());
  }

 private:
  spdlog::pattern_formatter m_Formatter;
  spdlog::memory_buf_t m_Text;
  spdlog::memory_buf_t m_Record;
};

struct Message {
  const char* name;
  std::size_t size;
  double target;
};
constexpr Message kMessages[] = {{"64 B", 64, 1.15}, {"1 KB", 1024, 1.15}, {"64 KB", 65536, 1.5}};

}  // namespace

TEST_CASE("Records of the debug log") {
  const ScratchFolder folder;
  for (const auto& [name, size, target] : kMessages) {
    const std::string message(size, 'm');
    const LibraryLog library(folder);
    const std::string record = ComposeRecord("%s", message.c_str());
    const BareLog bare(folder);
    // The first record empties the file.
    LibraryLog::Write(message);
    REQUIRE(Growth(folder / L"library.log", [&] { LibraryLog::Write(message); }) == record.size());
    REQUIRE(Growth(folder / L"bare.log", [&] { bare.Write(record); }) == record.size());
    Compare(
        {std::string("log: record, message of ") + name, "lock, one write, size, unlock", target},
        [&] { LibraryLog::Write(message); }, [&] { bare.Write(record); });
  }
}

/// A text that is not the whole message takes another way than the one above.
TEST_CASE("A long record that is printed") {
  const ScratchFolder folder;
  const std::string message(65536, 'm');
  const LibraryLog library(folder);
  const std::string record = ComposeRecord("text: %s", message.c_str());
  const BareLog bare(folder);
  Compare(
      {"log: record, 64 KB behind a word", "lock, one write, size, unlock"},
      [&] {
        ToolKit::OutputDebug(kTrace, corvel::kLogComponent, kFunction, kFile, kLine, "text: %s",
                             message.c_str());
      },
      [&] { bare.Write(record); });
}

TEST_CASE("Records of several threads") {
  const ScratchFolder folder;
  const std::string message(64, 'm');
  const std::string record = ComposeRecord("%s", message.c_str());
  const LibraryLog library(folder);
  const BareLog bare(folder);
  Compare(
      {"log: 400 records, 4 threads", "the bare calls on 4 threads", 1.2},
      [&] { OnThreads([&] { LibraryLog::Write(message); }); },
      [&] { OnThreads([&] { bare.Write(record); }); });
}

TEST_CASE("A record that is not written") {
  const ScratchFolder folder;
  const std::string message(64, 'm');
  const LibraryLog library(folder);
  const BareLog bare(folder);
  CDebugLogger::SetLevel(0);
  Compare(
      {"log: switched off", "lock and unlock", 1.1}, [&] { LibraryLog::Write(message); },
      [&] { bare.LockAndUnlock(); });
}

TEST_CASE("The text of a record") {
  PeerFormatter peer;
  for (const auto& [name, size, target] : kMessages) {
    const std::string message(size, 'm');
    Compare(
        {std::string("log: format, message of ") + name, "spdlog's formatter"},
        [&] { Use(ComposeRecord("%s", message.c_str()).data()); }, [&] { peer.Format(message); });
  }
}

}  // namespace benchmarks
