#include "configuration_file.h"

#include <filesystem>
#include <fstream>

namespace {

struct Root {
  const wchar_t* name;
  HKEY key;
};

const Root kRoots[] = {{L"HKLM", HKEY_LOCAL_MACHINE},
                       {L"HKU", HKEY_USERS},
                       {L"HKCU", HKEY_CURRENT_USER},
                       {L"HKCR", HKEY_CLASSES_ROOT},
                       {L"HCC", HKEY_CURRENT_CONFIG}};

/// Each byte of the file is one character.
std::wstring Widened(const std::string& text) {
  std::wstring wide;
  for (const char byte : text) wide += static_cast<wchar_t>(static_cast<unsigned char>(byte));
  return wide;
}

}  // namespace

std::optional<ConfigurationFile> ConfigurationFile::Read(const std::wstring& path) {
  std::ifstream file{std::filesystem::path(path)};
  if (!file) return std::nullopt;
  ConfigurationFile configuration;
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    const std::size_t value = line.find_first_not_of(' ', equals + 1);
    configuration.m_settings[Widened(line.substr(0, equals))] =
        value == std::string::npos ? std::wstring() : Widened(line.substr(value));
  }
  return configuration;
}

std::wstring ConfigurationFile::Get(const std::wstring& key) const {
  const auto found = m_settings.find(key);
  return found == m_settings.end() ? std::wstring() : found->second;
}

HandshakeKey ConfigurationFile::ServiceKey() const {
  const std::wstring location = Get(L"[RegistryLocation]");
  const std::size_t separator = location.find(L'\\');
  HandshakeKey key;
  key.rootName = location.substr(0, separator);
  key.path = separator == std::wstring::npos ? location : location.substr(separator + 1);
  for (const Root& root : kRoots) {
    if (key.rootName == root.name) key.root = root.key;
  }
  return key;
}
