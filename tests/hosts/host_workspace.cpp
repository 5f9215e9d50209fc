#include "tests/hosts/host_workspace.h"

#include <windows.h>

#include <fstream>
#include <set>
#include <stdexcept>

#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "simulator/virtual_clock.h"

namespace hosts {

namespace {

const simulator::FlashImage& DefaultModemImage() {
  static const simulator::FlashImage image = simulator::BuildImage(simulator::ModemImagePlan());
  return image;
}

const simulator::FlashImage& DefaultNvmImage() {
  static const simulator::FlashImage image = simulator::BuildImage(simulator::NvmImagePlan());
  return image;
}

/// A copy: a link could not be removed while the program that it is a link to runs in another folder.
void Bring(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (!::CopyFileW(from.c_str(), to.c_str(), FALSE)) ThrowLastError("a program cannot be copied");
}

/// The configuration's characters are single bytes.
std::string SingleBytes(const std::wstring& text) {
  std::string bytes;
  for (const wchar_t character : text) bytes += static_cast<char>(character);
  return bytes;
}

}  // namespace

HostWorkspace::HostWorkspace(const std::wstring& suffix) : m_Folder(suffix) {
  for (const wchar_t* name :
       {L"corvel_cmdline.exe", L"corvel_service.exe", L"CorvelToolKit.dll", L"Firmwareflashdownload.dll"}) {
    PutProduct(name, name);
  }
  m_Configuration = {{"[TraceLevel]=", L"1"},
                     {"[RegistryLocation]=", L"HKCU\\Software\\Corvel\\Test\\Unused"},
                     {"[ModemAndNVMFirmwareFolder]=", ImageFolder().wstring()},
                     {"[IPCTYPE]=", L"USB"},
                     {"[REBOOTTYPE]=", L"0"},
                     {"[ERASEMODE]=", L"2"}};
  SaveConfiguration();
  PutImages();
}

void HostWorkspace::MakeVirtualPc(const std::vector<std::string>& lines) {
  PutProduct(L"simulated\\corvel_cmdline.exe", L"corvel_cmdline.exe");
  PutProduct(L"simulated\\corvel_service.exe", L"corvel_service.exe");
  PutProduct(L"virtual_pc_host.dll", L"virtual_pc_host.dll");
  std::ofstream file(File(L"VirtualPc.ini"));
  for (const std::string& line : lines) file << line << "\n";
}

void HostWorkspace::WriteConfiguration(const std::string& key, const std::wstring& value) {
  RemoveLine(key);
  m_Configuration.emplace_back(key, value);
  SaveConfiguration();
}

void HostWorkspace::RemoveLine(const std::string& key) {
  std::erase_if(m_Configuration, [&](const auto& line) { return line.first == key; });
  SaveConfiguration();
}

void HostWorkspace::SaveConfiguration() const {
  std::ofstream file(File(L"CorvelConfig.ini"), std::ios::binary);
  file << "Title\r\n";
  for (const auto& [key, value] : m_Configuration) file << key << SingleBytes(value) << "\r\n";
}

void HostWorkspace::PutImages() const {
  std::filesystem::create_directories(ImageFolder());
  if (!SaveImageFile(DefaultModemImage(), ModemImage()) || !SaveImageFile(DefaultNvmImage(), NvmImage())) {
    throw std::runtime_error("the images cannot be written");
  }
}

void HostWorkspace::PutProduct(const std::wstring& productName, const std::wstring& name) const {
  Bring(ProgramFolder() + productName, File(name));
}

std::vector<std::wstring> HostWorkspace::FilesBesideTheInstallation() const {
  const std::set<std::wstring> installed{
      L"corvel_cmdline.exe", L"corvel_service.exe", L"CorvelToolKit.dll",   L"Firmwareflashdownload.dll",
      L"CorvelConfig.ini",   L"firmware",           L"virtual_pc_host.dll", L"VirtualPc.ini",
      L"VirtualPcEnd.ini",   L"modem_flash.bin"};
  std::vector<std::wstring> others;
  for (const auto& entry : std::filesystem::directory_iterator(m_Folder.Path())) {
    const std::wstring name = entry.path().filename().wstring();
    if (!installed.contains(name)) others.push_back(name);
  }
  return others;
}

simulator::MemoryComparison HostWorkspace::CompareModemMemory() const {
  const simulator::VirtualClock clock(1.0);
  simulator::VirtualModem modem(clock, File(L"modem_flash.bin"), {}, {}, simulator::ModemState::Normal,
                                [](simulator::JournalEvent, const std::string&) {});
  return modem.CompareWith(&DefaultModemImage(), &DefaultNvmImage());
}

}  // namespace hosts
