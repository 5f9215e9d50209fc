#include "common/debuglogger.h"

#include <windows.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "common/handles.h"
#include "common/mutex.h"
#include "common/text.h"

namespace {

constexpr int kLevelAtLoad = 3;
constexpr unsigned long kNoTimeLimit = 0xFFFFFFFFul;
constexpr char kTab = '\t';
constexpr std::size_t kLongestPathPart = 256;

std::atomic<int> g_level{kLevelAtLoad};
std::atomic<bool> g_shutDown{false};
std::string g_fileName;
CDebugLogger* g_instance = nullptr;

// A kernel mutex and nothing else: one that a killed thread held is handed over as abandoned at process
// exit, where any other lock would wait for ever.
CMutex g_logMutex(false, nullptr, true, nullptr);

/// Holds the log mutex for a scope. A failed lock is ignored: the record matters more.
class LogTurn {
 public:
  LogTurn() { g_logMutex.Lock(kNoTimeLimit); }
  ~LogTurn() { g_logMutex.Unlock(); }
  LogTurn(const LogTurn&) = delete;
  LogTurn& operator=(const LogTurn&) = delete;
};

const char* LevelWord(int level) {
  switch (level) {
    case 1:
      return "Error";
    case 2:
      return "Warning";
    case 3:
      return "Trace";
    default:
      return "Off";
  }
}

std::string Print(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string text = PrintNarrow(format, arguments);
  va_end(arguments);
  return text;
}

std::string FileNameOf(const char* path) {
  std::array<char, kLongestPathPart> name{};
  std::array<char, kLongestPathPart> extension{};
  ::_splitpath_s(path, nullptr, 0, nullptr, 0, name.data(), name.size(), extension.data(), extension.size());
  return Print("%s%s", name.data(), extension.data());
}

std::string FolderOf(const char* path) {
  std::array<char, kLongestPathPart> drive{};
  std::array<char, kLongestPathPart> folder{};
  ::_splitpath_s(path, drive.data(), drive.size(), folder.data(), folder.size(), nullptr, 0, nullptr, 0);
  return Print("%s%s", drive.data(), folder.data());
}

}  // namespace

CDebugLogger* CDebugLogger::GetInstance() {
  if (g_instance == nullptr) g_instance = new (std::nothrow) CDebugLogger;
  return g_instance;
}

void CDebugLogger::ReleaseInstance() {
  delete g_instance;
  g_instance = nullptr;
}

void CDebugLogger::ShutDown() {
  g_shutDown = true;
}

void CDebugLogger::SetLevel(int level) {
  g_level = level;
}

int CDebugLogger::GetLevel() {
  return g_level;
}

void CDebugLogger::WriteRecord(int level, const char* component, const char* function, const char* file,
                               int line, const char* format, std::va_list arguments) {
  const LastErrorKeeper keepForTheCaller;
  const LogTurn turn;
  if (g_level <= 0 || g_shutDown) return;

  const std::string message = PrintNarrow(format, arguments);
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  const std::string date = Print("%04d-%02d-%02d", now.wYear, now.wMonth, now.wDay);
  const std::string time =
      Print("%02d:%02d:%02d.%03d", now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
  const std::string fileName = FileNameOf(file);
  const std::string record = Print(
      "#%s%c%s%c%d~%d%c%s%c%s%c%s%c%d%c%s%c%s##\r\n", date.c_str(), kTab, time.c_str(), kTab,
      static_cast<int>(::GetCurrentProcessId()), static_cast<int>(::GetCurrentThreadId()), kTab, component,
      kTab, LevelWord(level), kTab, fileName.c_str(), kTab, line, kTab, function, kTab, message.c_str());

  CDebugLogger* logger = GetInstance();
  if (logger != nullptr) logger->WriteText(record);
}

void CDebugLogger::WriteText(const std::string& text) {
  if (!m_file.IsOpen() && FAILED(m_file.Open(g_fileName.c_str(), true))) return;
  std::uint32_t written = 0;
  m_file.Write(text.data(), static_cast<std::uint32_t>(text.size()), &written);
  // Asked for as part of every record; nothing limits the size.
  std::uint64_t size = 0;
  m_file.GetSize(&size);
}

void CDebugLogger::SetFileName(const char* path) {
  g_fileName = path == nullptr ? "" : path;
  const std::string folder = FolderOf(g_fileName.c_str());
  if (!CFileIo::Exists(folder.c_str())) ::CreateDirectoryA(folder.c_str(), nullptr);
  if (m_file.IsOpen()) m_file.Close();
}
