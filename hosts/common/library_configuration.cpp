#include "hosts/common/library_configuration.h"

#include <share.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <memory>

#include "hosts/common/facts.h"

namespace hosts {

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

const Root* FindRoot(const std::wstring& location) {
  for (const Root& root : kRoots) {
    if (location.substr(0, location.find(L'\\')) == root.name) return &root;
  }
  return nullptr;
}

struct StreamCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

/// Each byte of the file is one character. At the end of the file there is no line.
std::optional<std::wstring> ReadLine(std::FILE* file) {
  std::wstring line;
  int byte = std::fgetc(file);
  for (; byte != EOF && byte != '\n'; byte = std::fgetc(file)) line += static_cast<wchar_t>(byte);
  if (byte == EOF && line.empty()) return std::nullopt;
  if (byte == EOF && line.back() == L'\r') line.pop_back();
  return line;
}

/// What fits into a text of limited length, up to the first zero.
std::wstring Bounded(const std::wstring& text) {
  return text.substr(0, std::min(text.find(L'\0'), kLongestConfigurationText));
}

}  // namespace

bool KnowsRoot(const std::wstring& location) {
  return FindRoot(location) != nullptr;
}

std::optional<LibraryConfiguration> LibraryConfiguration::Read(const std::wstring& path) {
  // The library reads the file only while nobody else has it open.
  const std::unique_ptr<std::FILE, StreamCloser> file(::_wfsopen(path.c_str(), L"rt", _SH_DENYRW));
  if (file == nullptr) return std::nullopt;
  LibraryConfiguration configuration;
  while (const auto line = ReadLine(file.get())) configuration.Take(*line);
  if (std::ferror(file.get())) return std::nullopt;
  return configuration;
}

void LibraryConfiguration::Take(const std::wstring& line) {
  m_Lines.push_back(line);
  const std::size_t equals = line.find(L'=');
  const bool isTitle = m_Lines.size() == 1;
  if (isTitle || equals == std::wstring::npos) return;
  const std::size_t value = std::min(line.find_first_not_of(L' ', equals + 1), line.size());
  m_Settings.push_back({.line = m_Lines.size(),
                        .key = Bounded(line.substr(0, equals)),
                        .value = Bounded(line.substr(value)),
                        .valueBehindBlanks = value > equals + 1});
}

std::wstring LibraryConfiguration::Get(const std::wstring& key) const {
  const Setting* const setting = Find(key);
  return setting == nullptr ? std::wstring() : setting->value;
}

const LibraryConfiguration::Setting* LibraryConfiguration::Find(const std::wstring& key) const {
  const auto last = std::find_if(m_Settings.rbegin(), m_Settings.rend(),
                                 [&](const Setting& setting) { return setting.key == key; });
  return last == m_Settings.rend() ? nullptr : &*last;
}

std::wstring LibraryConfiguration::FirmwareFolder() const {
  return Get(kFirmwareFolderKey);
}

bool LibraryConfiguration::NamesKnownRoot() const {
  return KnowsRoot(Get(kRegistryLocationKey));
}

HandshakeKey LibraryConfiguration::ServiceKey() const {
  const std::wstring location = Get(kRegistryLocationKey);
  HandshakeKey key;
  // An unknown root is HKEY_LOCAL_MACHINE; a location without a separator is root and path in one.
  if (const Root* const root = FindRoot(location)) {
    key.root = root->key;
    key.rootName = root->name;
  }
  const std::size_t separator = location.find(L'\\');
  key.path = separator == std::wstring::npos ? location : location.substr(separator + 1);
  return key;
}

}  // namespace hosts
