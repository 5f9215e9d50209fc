#include "simulator/program/configuration.h"

#include <fstream>
#include <stdexcept>

#include "hosts/common/text.h"

namespace simulator {

namespace {

constexpr wchar_t kFileName[] = L"CorvelConfig.ini";

/// The file knows only single-byte characters.
std::string SingleBytes(const std::wstring& text) {
  std::string bytes;
  for (const wchar_t character : text) {
    if (character > 0xFF)
      throw std::runtime_error("the work folder's path has characters that the configuration cannot hold");
    bytes += static_cast<char>(character);
  }
  return bytes;
}

std::string Sound(const std::string& location, const std::string& folder, const Setup& setup) {
  return std::string("Simulated modem\r\n") + (setup.logs ? "[TraceLevel]=1\r\n" : "[TraceLevel]=0\r\n") +
         "[RegistryLocation]=" + location +
         "\r\n"
         "[ModemAndNVMFirmwareFolder]=" +
         folder +
         "\r\n"
         "[IPCTYPE]=USB\r\n"
         "[REBOOTTYPE]=" +
         (setup.route == Route::At ? "1" : "0") +
         "\r\n"
         "[ERASEMODE]=2\r\n";
}

/// All that the format allows or passes over; what counts is the sound configuration with a reboot by AT.
std::string Odd(const std::string& location, const std::string& folder) {
  return "[RegistryLocation]=HKLM\\SOFTWARE\\Corvel\\TitleLinesDoNotCount\r\n"
         "\r\n"
         "; a comment\r\n"
         "no equals sign\r\n"
         "=a value without a key\r\n"
         "[UNKNOWN]=1\r\n"
         "[TraceLevel]=   1 and more\n"
         "[RegistryLocation]=HKLM\\SOFTWARE\\Corvel\\LaterLinesWin\r\n"
         "[RegistryLocation]=  " +
         location +
         "\r\n"
         "[registrylocation]=HKLM\\SOFTWARE\\Corvel\\CaseCounts\r\n"
         "[ModemAndNVMFirmwareFolder]=" +
         folder +
         "\n"
         "[IPCTYPE]=pcie\r\n"
         "[ERASEMODE]=7\r\n"
         "[REBOOTTYPE]= 1\r\n"
         "[REBOOTTYPE] =0";
}

std::string TextOf(const Setup& setup, const std::string& location, const std::string& folder) {
  switch (setup.configuration) {
    case Configuration::Empty:
      return "";
    case Configuration::OneLine:
      return "[RegistryLocation]=" + location;
    case Configuration::OddLines:
      return Odd(location, folder);
    default:
      return Sound(location, folder, setup);
  }
}

}  // namespace

ConfigurationFile::ConfigurationFile(const std::filesystem::path& folder, const Setup& setup,
                                     const std::wstring& registryLocation,
                                     const std::filesystem::path& firmwareFolder) {
  const auto path = folder / kFileName;
  std::filesystem::remove(path);
  if (setup.configuration == Configuration::Missing) return;
  std::ofstream file(path, std::ios::binary);
  file << TextOf(setup, SingleBytes(registryLocation), SingleBytes(firmwareFolder.wstring()));
  file.close();
  if (!file) throw std::runtime_error("the configuration cannot be written");
  if (setup.configuration != Configuration::Locked) return;

  const HANDLE lock = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (lock == INVALID_HANDLE_VALUE) {
    throw std::runtime_error("the configuration cannot be locked: " +
                             hosts::SystemErrorText(::GetLastError()));
  }
  m_Lock.reset(lock);
}

}  // namespace simulator
