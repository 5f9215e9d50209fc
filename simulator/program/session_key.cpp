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
    : m_key{HKEY_CURRENT_USER, L"HKCU", std::move(path)},
      m_standsForMachine(standsForMachine),
      m_watch(m_key) {
  Remove(m_key.path);
  HKEY made = nullptr;
  Require(::RegCreateKeyExW(m_key.root, m_key.path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &made,
                            nullptr),
          "the registry key cannot be made");
  const LSTATUS stands =
      m_standsForMachine ? ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, made) : ERROR_SUCCESS;
  ::RegCloseKey(made);
  Require(stands, "the registry key cannot stand for another");
}

SessionKey::~SessionKey() {
  if (m_standsForMachine) ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
  Remove(m_key.path);
}

std::wstring SessionKey::Location() const {
  return m_key.rootName + L"\\" + m_key.path;
}

void SessionKey::Write(const wchar_t* name, std::uint32_t value) {
  Require(static_cast<LSTATUS>(hosts::WriteHandshakeValue(m_key, name, value)),
          "the registry cannot be written");
}

void SessionKey::ArmWatch() {
  Require(static_cast<LSTATUS>(m_watch.Arm()), "the registry key cannot be watched");
}

void SessionKey::WaitForChange(std::chrono::milliseconds limit) {
  ::WaitForSingleObject(m_watch.Event(), static_cast<DWORD>(limit.count()));
}

void SessionKey::Remove(const std::wstring& path) {
  ::RegDeleteTreeW(HKEY_CURRENT_USER, path.c_str());
}

}  // namespace simulator
