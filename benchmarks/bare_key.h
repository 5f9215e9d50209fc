#pragma once

#include <windows.h>

#include <string>

namespace benchmarks {

// What the library asks of the registry, with nothing around it.

inline HKEY OpenBare(const std::wstring& path, REGSAM access = KEY_ALL_ACCESS) {
  HKEY key = nullptr;
  ::RegOpenKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, access, &key);
  return key;
}

inline DWORD ReadBare(const std::wstring& path, const wchar_t* name) {
  const HKEY key = OpenBare(path);
  DWORD value = 0;
  DWORD size = sizeof value;
  ::RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
  ::RegCloseKey(key);
  return value;
}

/// A value of the handshake is looked at before it is written.
inline void WriteBare(const std::wstring& path, const wchar_t* name, DWORD value) {
  const HKEY key = OpenBare(path);
  DWORD old = 0;
  DWORD size = sizeof old;
  ::RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(&old), &size);
  ::RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
  ::RegCloseKey(key);
}

}  // namespace benchmarks
