#include "hosts/cmdline/surroundings.h"

#include <windows.h>

#include <filesystem>
#include <system_error>

#include "hosts/common/facts.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "toolkit/toolkit.h"

namespace hosts {

std::wstring ConfigurationPath() {
  return ProgramFolder() + kConfigurationName;
}

std::wstring LogPath() {
  return ProgramFolder() + kCommandLineLogName;
}

std::string AnsiLogPath() {
  return AnsiPath(ProgramFolder(), kCommandLineLogName);
}

HandshakeKey CommandLineKey() {
  ToolKit::Initialize_CmdLine();
  return {.root = ToolKit::GetHKEYRegistryMainKey(),
          .rootName = ToolKit::GetRegistryMainKey(),
          .path = ToolKit::GetRegistryStrKey()};
}

namespace {

/// False also when nobody can tell.
bool HasNoImage(const std::wstring& folder) {
  WIN32_FIND_DATAW entry{};
  const HANDLE found = ::FindFirstFileW((folder + L"\\*.fls").c_str(), &entry);
  if (found == INVALID_HANDLE_VALUE) {
    return ::GetLastError() == ERROR_FILE_NOT_FOUND || ::GetLastError() == ERROR_NO_MORE_FILES;
  }
  const OwnedSearch search(found);
  return false;
}

}  // namespace

FolderImages LookForImages(const std::wstring& folder) {
  FolderImages images;
  std::error_code ignored;
  images.folderExists = !folder.empty() && std::filesystem::is_directory(folder, ignored);
  if (!images.folderExists) return images;
  if (!ToolKit::FetchModemNVMFls(CTString(folder))) {
    // It says the same of a folder without images.
    images.brokeOff = !HasNoImage(folder);
    return images;
  }
  images.modem = static_cast<std::wstring>(ToolKit::GetModemFlsFile());
  images.nvm = static_cast<std::wstring>(ToolKit::GetNVMFlsFile());
  return images;
}

}  // namespace hosts
