#include <windows.h>

#include <algorithm>
#include <cstring>

#include "common/handles.h"
#include "common/log.h"
#include "common/sharedvalue.h"
#include "toolkit/toolkit.h"

using namespace corvel;

namespace {

constexpr char kDriverKey[] = "SYSTEM\\CurrentControlSet\\Services\\UDE";
constexpr char kDriverNameValue[] = "DisplayName";
constexpr char kNewerBranchMark[] = "4850";
constexpr DWORD kBranchTextBytes = 1024;

/// Reads a text into `buffer` of kBranchTextBytes and ends it there: the registry keeps texts as they were
/// written, with or without a terminator.
bool ReadText(HKEY root, const char* subKey, const char* valueName, char* buffer) {
  buffer[0] = '\0';
  HKEY opened = nullptr;
  if (::RegOpenKeyExA(root, subKey, 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
  const UniqueRegistryKey key(opened);

  DWORD size = kBranchTextBytes;
  const LSTATUS read = ::RegQueryValueExA(key.get(), valueName, nullptr, nullptr,
                                          reinterpret_cast<unsigned char*>(buffer), &size);
  buffer[read == ERROR_SUCCESS ? std::min(size, kBranchTextBytes - 1) : 0] = '\0';
  return read == ERROR_SUCCESS;
}

}  // namespace

int ToolKit::GetModemBranch() {
  char name[kBranchTextBytes]{};
  if (CheckModemBranch(HKEY_LOCAL_MACHINE, kDriverKey, kDriverNameValue, name) == 1) {
    LOG_TRACE("\t %s: Working on M.2 4850 branch\n", QUALIFIED_FUNCTION);
  } else {
    LOG_TRACE("\t %s: Working on M.2 4630 branch\n", QUALIFIED_FUNCTION);
    LOG_TRACE("\t %s: Arvo hardcode to support BBRST for all branch\n", QUALIFIED_FUNCTION);
  }
  // Set on both branches: the baseband reset after a failed re-arrival works on either.
  Shared(g_bIsFiveBranch) = true;
  return 1;
}

int ToolKit::CheckModemBranch(HKEY__* root, const char* subKey, const char* valueName, char* buffer) {
  LOG_TRACE("%s ++\n", QUALIFIED_FUNCTION);
  int newerBranch = 0;
  if (ReadText(root, subKey, valueName, buffer)) {
    LOG_TRACE("%s: Read regedit successfully, data: %s\n", QUALIFIED_FUNCTION, buffer);
    newerBranch = std::strstr(buffer, kNewerBranchMark) != nullptr ? 1 : 0;
  }
  LOG_TRACE("%s --\n", QUALIFIED_FUNCTION);
  return newerBranch;
}
