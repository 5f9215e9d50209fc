#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "hosts/common/owners.h"

namespace hosts {

/// Asks the system, for as long as it lives, to let neither the PC sleep nor this process rest: a modem that
/// is written while the PC falls asleep is left in flash mode.
class StayAwake {
 public:
  StayAwake();

  /// What the system refused, in words for people; empty when it refused nothing.
  const std::string& Refusal() const { return m_Refusal; }

 private:
  void Ask(POWER_REQUEST_TYPE type);
  void Refuse(DWORD error);

  OwnedHandle m_Request;
  std::string m_Refusal;
};

/// What the PC runs on.
struct PowerSource {
  /// False also when nobody can tell.
  bool isBattery = false;
  /// Of the battery; nothing when nobody can tell.
  std::optional<unsigned int> percent;

  /// In words, of a battery.
  std::string Text() const;
};
PowerSource LookAtPowerSource();

}  // namespace hosts
