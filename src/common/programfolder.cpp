#include "common/programfolder.h"

#include <windows.h>

#include <array>
#include <cstdlib>

#include "common/log.h"

namespace corvel {

CTString ProgramFolder() {
  std::array<wchar_t, MAX_PATH> path{};
  const DWORD length = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  // A path that does not fit is cut and reported by its length alone.
  if (length == 0 || length == path.size()) {
    // Under the procedure and the file that readers of the log know it by.
    WriteLogRecord(1, kLogComponent, "ToolKit::GetInstallationDir", "toolkit.cpp", __LINE__,
                   "\t GetModuleFileName() failed with: 0x%08lx", ::GetLastError());
    return {};
  }
  // The folder may take nearly all of the path, which is more than the runtime's own limit for one.
  std::array<wchar_t, _MAX_DRIVE> drive{};
  std::array<wchar_t, MAX_PATH> folder{};
  ::_wsplitpath_s(path.data(), drive.data(), drive.size(), folder.data(), folder.size(), nullptr, 0, nullptr,
                  0);
  return CTString(drive.data()) + folder.data();
}

bool TakeProgramFolder(CTString& folder) noexcept try {
  folder = ProgramFolder();
  return true;
} catch (...) {
  folder.Empty();
  return false;
}

}  // namespace corvel
