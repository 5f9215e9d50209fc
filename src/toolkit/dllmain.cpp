#include <windows.h>

#include <cwctype>
#include <string>

#include "common/debuglogger.h"
#include "config/configparser.h"
#include "toolkit/toolkit.h"

namespace {

constexpr wchar_t kCommandLineHost[] = L"\\corvel_cmdline";

/// A longer path than the system's usual limit must not hide the name of the command-line host.
constexpr std::size_t kLongestPath = 32768;

std::wstring HostPath() {
  std::wstring path(kLongestPath, L'\0');
  path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  for (wchar_t& unit : path) unit = static_cast<wchar_t>(std::towlower(unit));
  return path;
}

/// What of the singleton is the entry routine's alone.
struct TheToolKit : ToolKit {
  using ToolKit::ReleaseInstance;
};

void Attach() {
  try {
    if (HostPath().find(kCommandLineHost) == std::wstring::npos) ToolKit::Initialize();
  } catch (...) {
    // Out of memory in the loader's hands: the service does not start, the host lives on.
  }
}

void Detach(bool processEnds) {
  // At process exit every other thread is gone already, and with them what COM needs to be left.
  if (processEnds) {
    CConfigParser::ReleaseAtProcessExit();
  } else {
    CConfigParser::ReleaseInstance();
    TheToolKit::ReleaseInstance();
  }
  CDebugLogger::ReleaseInstance();
  // A record from a static object's destructor would create the log file again, and empty.
  CDebugLogger::ShutDown();
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_ATTACH) Attach();
  if (reason == DLL_PROCESS_DETACH) Detach(reserved != nullptr);
  return TRUE;
}
