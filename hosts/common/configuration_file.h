#pragma once

#include <map>
#include <optional>
#include <string>

#include "handshake.h"

/// "CorvelConfig.ini" as the library reads it, for programs that must know a setting before the library
/// runs: first line skipped, then one key=value per line; the later of two wins.
class ConfigurationFile {
 public:
  /// Nothing when there is no such file, or another program has it open.
  static std::optional<ConfigurationFile> Read(const std::wstring& path);

  /// A setting by its key, brackets included; empty when it is absent.
  std::wstring Get(const std::wstring& key) const;

  std::wstring FirmwareFolder() const { return Get(L"[ModemAndNVMFirmwareFolder]"); }
  /// Whether the registry location begins with a root that the library knows.
  bool NamesKnownRoot() const;
  /// The handshake key that the service takes from the file.
  HandshakeKey ServiceKey() const;

 private:
  void Take(const std::wstring& line);

  std::map<std::wstring, std::wstring> m_settings;
};
