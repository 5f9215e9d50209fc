#include "common/debuglogger.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "common/handles.h"
#include "common/mutex.h"
#include "common/text.h"

using namespace corvel;

namespace {

constexpr int kLevelAtLoad = 3;
constexpr unsigned long kNoTimeLimit = 0xFFFFFFFFul;
constexpr char kTab = '\t';
constexpr std::size_t kLongestNamePart = 255;

std::atomic<int> g_level{kLevelAtLoad};
std::atomic<bool> g_shutDown{false};
std::string g_fileName;
CDebugLogger* g_instance = nullptr;

// A kernel mutex and nothing else: one that a killed thread held is handed over as abandoned at process
// exit, where any other lock would wait for ever.
CMutex g_logMutex;

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

/// What cannot be printed is named by its format: a lost message would hide where things went wrong.
std::string PrintOrNameFormat(const char* format, std::va_list arguments) {
  std::optional<std::string> text = PrintNarrow(format, arguments);
  if (text) return *std::move(text);
  return std::string("<not printable> ") + (format == nullptr ? "" : format);
}

std::string Print(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string text = PrintOrNameFormat(format, arguments);
  va_end(arguments);
  return text;
}

/// The four parts of a path in the system's ANSI code page, each as long as it is.
struct PathParts {
  explicit PathParts(const char* path)
      : drive(SizeFor(path), '\0'), folder(drive), name(drive), extension(drive) {
    ::_splitpath_s(path, drive.data(), drive.size(), folder.data(), folder.size(), name.data(), name.size(),
                   extension.data(), extension.size());
    for (std::string* part : {&drive, &folder, &name, &extension}) part->resize(std::strlen(part->c_str()));
  }

  std::string drive;
  std::string folder;
  std::string name;
  std::string extension;

 private:
  static std::size_t SizeFor(const char* path) {
    return std::max<std::size_t>(std::strlen(path) + 1, _MAX_DRIVE);
  }
};

std::string FileNameOf(const char* path) {
  if (path == nullptr) return {};
  const PathParts parts(path);
  return Print("%s%s", parts.name.substr(0, kLongestNamePart).c_str(),
               parts.extension.substr(0, kLongestNamePart).c_str());
}

std::string FolderOf(const std::string& path) {
  const PathParts parts(path.c_str());
  return parts.drive + parts.folder;
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
  // Before the lock: once the library is being unloaded, the mutex may be gone too.
  if (g_shutDown) return;
  const LogTurn turn;
  if (g_level <= 0) return;

  const std::string message = PrintOrNameFormat(format, arguments);
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
  if (logger != nullptr) logger->Append(record);
}

void CDebugLogger::WriteText(const std::string& text) {
  const LogTurn turn;
  Append(text);
}

void CDebugLogger::Append(const std::string& text) {
  if (!m_File.IsOpen() && FAILED(m_File.Open(g_fileName.c_str(), true))) return;
  std::uint32_t written = 0;
  m_File.Write(text.data(), static_cast<std::uint32_t>(text.size()), &written);
  // Asked for as part of every record; nothing limits the size.
  std::uint64_t size = 0;
  m_File.GetSize(&size);
}

void CDebugLogger::SetFileName(const char* path) {
  g_fileName = path == nullptr ? "" : path;
  const std::string folder = FolderOf(g_fileName);
  if (!CFileIo::Exists(folder.c_str())) ::CreateDirectoryA(folder.c_str(), nullptr);
  if (m_File.IsOpen()) m_File.Close();
}
