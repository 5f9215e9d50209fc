#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "simulator/virtual_modem.h"
#include "support/temporary_folder.h"

namespace hosts {

/// A folder of the test's own that holds hosts, libraries, configuration and images as an installation
/// does. It begins complete and sound, without a virtual PC.
class HostWorkspace {
 public:
  /// @param suffix of the folder's name.
  explicit HostWorkspace(const std::wstring& suffix = L"");

  /// Puts the hosts there that carry a virtual PC, which the lines describe ("speed=60", "scenario=...").
  void MakeVirtualPc(const std::vector<std::string>& lines = {});

  std::filesystem::path CommandLineHost() const { return m_Folder.Path() / L"corvel_cmdline.exe"; }
  std::filesystem::path Service() const { return m_Folder.Path() / L"corvel_service.exe"; }
  std::filesystem::path File(const std::wstring& name) const { return m_Folder.Path() / name; }
  std::filesystem::path ImageFolder() const { return m_Folder.Path() / L"firmware"; }
  std::filesystem::path ModemImage() const { return ImageFolder() / L"modem.fls"; }
  std::filesystem::path NvmImage() const { return ImageFolder() / L"nvm.fls"; }
  bool Holds(const std::wstring& name) const { return m_Folder.Holds(name); }
  std::string Content(const std::wstring& name) const { return m_Folder.Content(name); }

  /// Where the service is to meet its controlling program; "HKCU\..." in the configuration.
  void SetServiceKey(const std::wstring& location) { WriteConfiguration("[RegistryLocation]=", location); }
  /// Replaces the configuration's line that begins with the key, or adds it.
  void WriteConfiguration(const std::string& key, const std::wstring& value);
  void RemoveLine(const std::string& key);
  void Remove(const std::wstring& name) const { std::filesystem::remove_all(File(name)); }
  void PutImages() const;
  void PutProduct(const std::wstring& productName, const std::wstring& name) const;

  /// Names of files that neither the installation nor the virtual PC put there.
  std::vector<std::wstring> FilesBesideTheInstallation() const;
  /// Whether the virtual modem's memory is what a flash of both images leaves there.
  simulator::MemoryComparison CompareModemMemory() const;

 private:
  void SaveConfiguration() const;

  TemporaryFolder m_Folder;
  std::vector<std::pair<std::string, std::wstring>> m_Configuration;
};

}  // namespace hosts
