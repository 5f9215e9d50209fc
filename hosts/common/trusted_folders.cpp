#include "hosts/common/trusted_folders.h"

#include <windows.h>

#include "hosts/common/owners.h"

namespace hosts {

void LoadFromTrustedFoldersOnly() {
  if (!::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_DEFAULT_DIRS)) {
    ThrowLastError("The folders that libraries come from cannot be set");
  }
}

}  // namespace hosts
