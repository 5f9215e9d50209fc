#pragma once

#include <windows.h>

#include <chrono>
#include <string>

#include "hosts/common/handshake.h"

namespace simulator {

/// The handshake's registry key of one run, below HKEY_CURRENT_USER: made empty, removed at the end.
class SessionKey {
 public:
  /// @param standsForMachine the key takes the place of HKEY_LOCAL_MACHINE in this process: a library
  /// whose configuration names no key writes its values right there.
  SessionKey(std::wstring path, bool standsForMachine);
  ~SessionKey();
  SessionKey(const SessionKey&) = delete;
  SessionKey& operator=(const SessionKey&) = delete;

  /// As the configuration names it: "HKCU\...".
  std::wstring Location() const;

  hosts::Handshake Read() const { return hosts::ReadHandshake(m_Key); }
  void Write(const wchar_t* name, std::uint32_t value);

  /// From now on a change counts: arm first, then look, then wait.
  void ArmWatch();
  void WaitForChange(std::chrono::milliseconds limit);

  static void Remove(const std::wstring& path);

 private:
  hosts::HandshakeKey m_Key;
  bool m_StandsForMachine;
  hosts::HandshakeWatch m_Watch;
};

}  // namespace simulator
