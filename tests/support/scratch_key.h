#pragma once

#include <windows.h>

#include <optional>
#include <string>

/// A registry key of the test's own below HKEY_CURRENT_USER, not made at first, removed with all below it.
/// The simulator's keys exist from the start and know the handshake's values alone; this one may be missing,
/// and takes values of any name and type.
class ScratchKey {
 public:
  ScratchKey() {
    static int count = 0;
    m_Path = L"Software\\Corvel\\Test\\" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
             std::to_wstring(++count);
  }
  ~ScratchKey() { Delete(); }
  ScratchKey(const ScratchKey&) = delete;
  ScratchKey& operator=(const ScratchKey&) = delete;

  static HKEY Root() { return HKEY_CURRENT_USER; }
  const wchar_t* Path() const { return m_Path.c_str(); }
  std::string NarrowPath() const { return std::string(m_Path.begin(), m_Path.end()); }

  void Make() const { ::RegCloseKey(Open()); }
  void Delete() const { ::RegDeleteTreeW(Root(), Path()); }
  bool Exists() const {
    HKEY key = nullptr;
    const bool opened = ::RegOpenKeyExW(Root(), Path(), 0, KEY_READ, &key) == ERROR_SUCCESS;
    if (opened) ::RegCloseKey(key);
    return opened;
  }
  /// The key, made if necessary; the caller closes it.
  HKEY Open() const {
    HKEY key = nullptr;
    ::RegCreateKeyExW(Root(), Path(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    return key;
  }

  void SetNumber(const wchar_t* name, DWORD value) const { SetValue(name, REG_DWORD, &value, sizeof value); }
  void SetValue(const wchar_t* name, DWORD type, const void* data, DWORD size) const {
    const HKEY key = Open();
    ::RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), size);
    ::RegCloseKey(key);
  }
  /// The value when it is a 32-bit number.
  std::optional<DWORD> Number(const wchar_t* name) const {
    DWORD value = 0;
    DWORD size = sizeof value;
    if (::RegGetValueW(Root(), Path(), name, RRF_RT_REG_DWORD, nullptr, &value, &size) != ERROR_SUCCESS) {
      return std::nullopt;
    }
    return value;
  }

 private:
  std::wstring m_Path;
};
