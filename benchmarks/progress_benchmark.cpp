// News of the flashing library, on their way to the controlling program.

#include <windows.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/bare_key.h"
#include "benchmarks/bare_log.h"
#include "benchmarks/catch.h"
#include "benchmarks/sampler.h"
#include "benchmarks/scratch_folder.h"
#include "common/debuglogger.h"
#include "common/facts.h"
#include "common/text.h"
#include "download/attempt.h"
#include "download/downloadtooldll.h"
#include "toolkit/toolkit.h"

namespace benchmarks {

namespace {

constexpr int kTrace = 3;
constexpr std::int32_t kProgress = 2;
constexpr std::int32_t kMessage = 4;
constexpr char kSending[] = "  - Sending data. (RAW mode)";
constexpr char kPercent[] = "50";
constexpr std::string_view kRecordEnd = "##\r\n";

/// The handshake's key, below the user's own.
class HandshakeKey {
 public:
  HandshakeKey() : m_Path(L"Software\\Corvel\\Benchmark\\" + std::to_wstring(::GetCurrentProcessId())) {
    HKEY made = nullptr;
    ::RegCreateKeyExW(HKEY_CURRENT_USER, m_Path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &made,
                      nullptr);
    ::RegCloseKey(made);
    ToolKit::hMainKey = HKEY_CURRENT_USER;
    corvel::CopyBounded(ToolKit::mStrKey, m_Path);
  }
  ~HandshakeKey() { ::RegDeleteTreeW(HKEY_CURRENT_USER, m_Path.c_str()); }
  HandshakeKey(const HandshakeKey&) = delete;
  HandshakeKey& operator=(const HandshakeKey&) = delete;

  const std::wstring& Path() const { return m_Path; }

 private:
  std::wstring m_Path;
};

/// An attempt that is sending an item, and a log that tells of it.
class Sending {
 public:
  explicit Sending(const ScratchFolder& folder) : m_Log(folder / L"progress.log") {
    CDebugLogger::GetInstance()->SetFileName(m_Log.string().c_str());
    CDebugLogger::SetLevel(kTrace);
    m_Attempt->Progress().AddBars(100);
    m_Attempt->Progress().SetItem(40);
    corvel::Attempt::SetPresent(m_Attempt);
    CDownloadToolDll::HandleCallbacks(0, kMessage, kSending);
  }
  ~Sending() {
    CDownloadToolDll::HandleCallbacks(0, kMessage, "");
    corvel::Attempt::SetPresent(nullptr);
    CDebugLogger::SetLevel(0);
    CDebugLogger::ReleaseInstance();
  }
  Sending(const Sending&) = delete;
  Sending& operator=(const Sending&) = delete;

  static void Report() { CDownloadToolDll::HandleCallbacks(0, kProgress, kPercent); }

  /// The records that a report writes.
  std::vector<std::string> RecordsOfReport() const {
    Report();
    const std::size_t before = Log().size();
    Report();
    const std::string written = Log().substr(before);
    std::vector<std::string> records;
    for (std::size_t begin = 0, end; (end = written.find(kRecordEnd, begin)) != std::string::npos;
         begin = end) {
      end += kRecordEnd.size();
      records.push_back(written.substr(begin, end - begin));
    }
    return records;
  }

 private:
  std::string Log() const {
    std::ifstream file(m_Log, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  std::filesystem::path m_Log;
  std::shared_ptr<corvel::Attempt> m_Attempt = std::make_shared<corvel::Attempt>();
};

}  // namespace

TEST_CASE("Progress while an item is sent") {
  const ScratchFolder folder;
  const HandshakeKey key;
  const Sending sending(folder);
  const std::vector<std::string> records = sending.RecordsOfReport();
  const BareLog bare(folder);
  REQUIRE(records.size() > 1);
  Compare(
      {"progress: callback while sending", "its registry calls and records bare", 1.15},
      [] { Sending::Report(); },
      [&] {
        for (const std::string& record : records) bare.Write(record);
        WriteBare(key.Path(), corvel::facts::kProgressValue, 20);
      });
}

}  // namespace benchmarks
