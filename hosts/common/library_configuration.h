#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "hosts/common/handshake.h"

namespace hosts {

/// The longest key or value that the library takes; the rest of a longer one is cut off.
constexpr std::size_t kLongestConfigurationText = 511;

/// Whether a registry location begins with a root that the library knows.
bool KnowsRoot(const std::wstring& location);

/// "CorvelConfig.ini" as the library reads it, for programs that must know a setting before the library
/// runs: first line skipped, then one key=value per line; the later of two wins.
class LibraryConfiguration {
 public:
  /// A line that has a "=", the first line excepted.
  struct Setting {
    std::size_t line = 0;  ///< counted from 1
    std::wstring key;      ///< brackets included
    std::wstring value;
    bool valueBehindBlanks = false;
  };

  /// Nothing when there is no such file, another program has it open, or it cannot be read to its end.
  static std::optional<LibraryConfiguration> Read(const std::wstring& path);

  /// A setting by its key, brackets included; empty when it is absent.
  std::wstring Get(const std::wstring& key) const;
  /// The line of the file that counts for a key; null when it is absent.
  const Setting* Find(const std::wstring& key) const;

  /// All lines without their ends, the first included; each byte of the file is one character.
  const std::vector<std::wstring>& Lines() const { return m_Lines; }
  /// All settings in the order of the file, also those that do not count.
  const std::vector<Setting>& Settings() const { return m_Settings; }

  std::wstring FirmwareFolder() const;
  /// Whether the registry location begins with a root that the library knows.
  bool NamesKnownRoot() const;
  /// The handshake key that the service takes from the file.
  HandshakeKey ServiceKey() const;

 private:
  void Take(const std::wstring& line);

  std::vector<std::wstring> m_Lines;
  std::vector<Setting> m_Settings;
};

}  // namespace hosts
