#include "simulator/program/session_key.h"

#include <stdexcept>
#include <utility>

#include "hosts/common/text.h"

namespace simulator {

namespace {

void Require(LSTATUS status, const char* what) {
  if (status == ERROR_SUCCESS) return;
  throw std::runtime_error(std::string(what) + ": " +
                           hosts::SystemErrorText(static_cast<unsigned long>(status)));
}

}  // namespace

SessionKey::SessionKey(std::wstring path, bool standsForMachine)
    : m_Key{HKEY_CURRENT_USER, L"HKCU", std::move(path)},
      m_StandsForMachine(standsForMachine),
      m_Watch(m_Key) {
  Remove(m_Key.path);
  HKEY made = nullptr;
  Require(::RegCreateKeyExW(m_Key.root, m_Key.path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &made,
                            nullptr),
          "the registry key cannot be made");
  const LSTATUS stands =
      m_StandsForMachine ? ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, made) : ERROR_SUCCESS;
  ::RegCloseKey(made);
  Require(stands, "the registry key cannot stand for another");
}

SessionKey::~SessionKey() {
  if (m_StandsForMachine) ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
  Remove(m_Key.path);
}

std::wstring SessionKey::Location() const {
  return m_Key.rootName + L"\\" + m_Key.path;
}

void SessionKey::Write(const wchar_t* name, std::uint32_t value) {
  Require(static_cast<LSTATUS>(hosts::WriteHandshakeValue(m_Key, name, value)),
          "the registry cannot be written");
}

void SessionKey::ArmWatch() {
  Require(static_cast<LSTATUS>(m_Watch.Arm()), "the registry key cannot be watched");
}

void SessionKey::WaitForChange(std::chrono::milliseconds limit) {
  ::WaitForSingleObject(m_Watch.Event(), static_cast<DWORD>(limit.count()));
}

void SessionKey::Remove(const std::wstring& path) {
  ::RegDeleteTreeW(HKEY_CURRENT_USER, path.c_str());
}

}  // namespace simulator
