#include "common/debuglogger.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "common/handles.h"
#include "common/logrecord.h"
#include "common/mutex.h"

using namespace corvel;

namespace {

constexpr int kLevelAtLoad = 3;
constexpr unsigned long kNoTimeLimit = 0xFFFFFFFFul;

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

/// Drive and directory of a path in the system's ANSI code page.
std::string FolderOf(const std::string& path) {
  char drive[_MAX_DRIVE]{};
  std::string folder(path.size() + 1, '\0');
  ::_splitpath_s(path.c_str(), drive, sizeof drive, folder.data(), folder.size(), nullptr, 0, nullptr, 0);
  return drive + std::string(folder.c_str());
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

  const std::string record =
      corvel::ComposeLogRecord(level, component, function, file, line, format, arguments);
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
