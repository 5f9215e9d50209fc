#include "hosts/cmdline/surroundings.h"

#include <filesystem>
#include <system_error>

#include "hosts/common/facts.h"
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

FolderImages LookForImages(const std::wstring& folder) {
  FolderImages images;
  std::error_code ignored;
  images.folderExists = !folder.empty() && std::filesystem::is_directory(folder, ignored);
  if (!images.folderExists || !ToolKit::FetchModemNVMFls(CTString(folder))) return images;
  images.modem = static_cast<std::wstring>(ToolKit::GetModemFlsFile());
  images.nvm = static_cast<std::wstring>(ToolKit::GetNVMFlsFile());
  return images;
}

}  // namespace hosts
