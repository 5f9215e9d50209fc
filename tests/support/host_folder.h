#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "config/configparser.h"
#include "simulator/import_patch.h"
#include "support/temporary_folder.h"
#include "support/test_log.h"

/// A folder of a unit test, which the simulator's work folders, made for whole programs, are too much for.
/// The library takes it for the one of its host's executable: its configuration and its debug log lie there.
/// The configuration ends with it.
class HostFolder {
 public:
  explicit HostFolder(const std::wstring& suffix = L"") : m_Folder(suffix) {
    s_executable = m_Folder.File(L"host.exe");
    m_Patch.Replace("GetModuleFileNameW", &ModuleFileName);
    CDebugLogger::SetLevel(3);
  }
  ~HostFolder() {
    CConfigParser::ReleaseInstance();
    CDebugLogger::GetInstance()->SetFileName("");
    CDebugLogger::ReleaseInstance();
  }

  void WriteConfig(std::string_view bytes) { m_Folder.Write(L"CorvelConfig.ini", bytes); }
  std::wstring ConfigPath() const { return m_Folder.File(L"CorvelConfig.ini"); }
  /// From now on the path of the executable is not told.
  static void Hide() { s_executable.clear(); }

  std::vector<LogRecord> Log() const { return ReadLog(m_Folder.File(L"FlashServiceDebugLogger_DLL.log")); }
  /// The messages with their levels, as Marked gives them.
  std::vector<std::string> Said() const { return MarkedMessagesOf(Log()); }
  std::wstring LogPath() const { return m_Folder.File(L"FlashServiceDebugLogger_DLL.log"); }
  bool HasLog() const { return m_Folder.Holds(L"FlashServiceDebugLogger_DLL.log"); }

 private:
  static DWORD WINAPI ModuleFileName(HMODULE, wchar_t* buffer, DWORD size) {
    if (s_executable.empty()) {
      ::SetLastError(ERROR_ACCESS_DENIED);
      return 0;
    }
    const std::size_t copied = s_executable.copy(buffer, size - 1);
    buffer[copied] = L'\0';
    return static_cast<DWORD>(copied);
  }

  static inline std::wstring s_executable;
  TemporaryFolder m_Folder;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};
