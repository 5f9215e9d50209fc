#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "common/debuglogger.h"
#include "simulator/import_patch.h"

namespace hostile {

/// The debug log, turned on and kept in memory: a file would be what most of the time is spent on.
class CapturedLog {
 public:
  CapturedLog() {
    s_log = this;
    m_Patch.Replace("CreateFileA", &Create);
    m_Patch.Replace("WriteFile", &Write);
    m_Patch.Replace("GetFileSize", &Size);
    m_Patch.Replace("FlushFileBuffers", &Flush);
    m_Patch.Replace("CloseHandle", &Close);
    CDebugLogger::GetInstance()->SetFileName(kName);
    CDebugLogger::SetLevel(3);
  }
  ~CapturedLog() {
    CDebugLogger::SetLevel(0);
    CDebugLogger::GetInstance()->SetFileName("");
    CDebugLogger::ReleaseInstance();
    s_log = nullptr;
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  /// All that was written since the last time.
  static std::string Take() { return std::exchange(s_log->m_Text, {}); }
  /// Whether a log has a record that says just this.
  static bool Tells(const std::string& log, const std::string& message) {
    return log.find('\t' + message + "##\r\n") != std::string::npos;
  }

 private:
  static constexpr char kName[] = "C:\\captured.log";
  static HANDLE Handle() { return reinterpret_cast<HANDLE>(std::intptr_t{0x10660}); }

  static HANDLE WINAPI Create(const char* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                              DWORD creation, DWORD flags, HANDLE like) {
    if (std::string_view(name) == kName) return Handle();
    return ::CreateFileA(name, access, share, security, creation, flags, like);
  }
  static BOOL WINAPI Write(HANDLE file, const void* bytes, DWORD count, DWORD* written,
                           OVERLAPPED* overlapped) {
    if (file != Handle()) return ::WriteFile(file, bytes, count, written, overlapped);
    s_log->m_Text.append(static_cast<const char*>(bytes), count);
    *written = count;
    return TRUE;
  }
  static DWORD WINAPI Size(HANDLE file, DWORD* high) {
    if (file != Handle()) return ::GetFileSize(file, high);
    return static_cast<DWORD>(s_log->m_Text.size());
  }
  static BOOL WINAPI Flush(HANDLE file) { return file == Handle() ? TRUE : ::FlushFileBuffers(file); }
  static BOOL WINAPI Close(HANDLE handle) { return handle == Handle() ? TRUE : ::CloseHandle(handle); }

  static inline CapturedLog* s_log = nullptr;

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  std::string m_Text;
};

}  // namespace hostile
