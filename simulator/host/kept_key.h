#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "hosts/common/handshake.h"
#include "hosts/common/owners.h"

namespace simulator {

/// A key of the handshake that is empty for a test, and afterwards what it was before.
class KeptKey {
 public:
  explicit KeptKey(hosts::HandshakeKey key) : m_Key(std::move(key)), m_Before(hosts::ReadHandshake(m_Key)) {
    Delete();
  }
  ~KeptKey() {
    Delete();
    for (const hosts::HandshakeLine& line : hosts::Describe(m_Before)) {
      if (line.value) Write(line.name, *line.value);
    }
  }
  KeptKey(const KeptKey&) = delete;
  KeptKey& operator=(const KeptKey&) = delete;

  const hosts::HandshakeKey& Location() const { return m_Key; }
  hosts::Handshake Read() const { return hosts::ReadHandshake(m_Key); }
  void Write(const std::wstring& name, std::uint32_t value) const {
    hosts::WriteHandshakeValue(m_Key, name.c_str(), value);
  }
  bool Exists() const {
    HKEY opened = nullptr;
    const bool exists =
        ::RegOpenKeyExW(m_Key.root, m_Key.path.c_str(), 0, KEY_READ, &opened) == ERROR_SUCCESS;
    const hosts::OwnedKey owner(opened);
    return exists;
  }

 private:
  void Delete() const { ::RegDeleteTreeW(m_Key.root, m_Key.path.c_str()); }

  hosts::HandshakeKey m_Key;
  hosts::Handshake m_Before;
};

/// The key that the command line always uses.
inline hosts::HandshakeKey KeyOfCommandLine() {
  return {.path = L"SOFTWARE\\WOW6432Node\\Quenta\\FlashService"};
}

}  // namespace simulator
