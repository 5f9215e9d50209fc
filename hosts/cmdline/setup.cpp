#include "hosts/cmdline/setup.h"

#include <windows.h>

#include <filesystem>

#include "hosts/common/text.h"
#include "toolkit/toolkit.h"

namespace hosts {

namespace {

constexpr wchar_t kConfigurationName[] = L"CorvelConfig.ini";
constexpr wchar_t kLogName[] = L"FlashCommandLineLogger_DLL.log";

}  // namespace

void Report(const Problem& problem, bool json) {
  Report("corvel_cmdline", problem, json);
}

std::wstring ConfigurationPath() {
  return ProgramFolder() + kConfigurationName;
}

std::wstring LogPath() {
  return ProgramFolder() + kLogName;
}

std::string AnsiLogPath() {
  return AnsiPath(ProgramFolder(), kLogName);
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
