#pragma once

#include <filesystem>
#include <string>

#include "simulator/faults.h"
#include "simulator/mobile_broadband/behaviour.h"
#include "simulator/virtual_clock.h"
#include "simulator/virtual_modem.h"

namespace simulator {

/// What the virtual PC is like.
struct VirtualPcOptions {
  double speed = 1.0;
  Pace pace = Pace::Steady;
  /// Folder of the modem's flash memory ("modem_flash.bin"); made when missing.
  std::filesystem::path folder;
  ModemState initialState = ModemState::Normal;
  ModemTiming timing;
  Faults faults;
  /// Character of the Mobile Broadband service, its faults included. What connects it with the modem and the
  /// clock (the functions in it) is filled in where it is not set.
  MobileBroadbandBehaviour mobileBroadband;
  int atPortNumber = 7;
  /// What the device tree calls the AT port; "%d" stands for the port's number.
  std::wstring atPortName = L"Modem AT Port (COM%d)";
  /// The AT port is a real one of the system: only the device tree's answers about it are simulated.
  bool atPortIsReal = false;
  /// A name by which processes of the session meet that drive one modem, with one folder and one speed, and
  /// use the same named objects. The first one's initial state counts; the pace is steady. Empty: a PC alone.
  std::wstring sharedBy;
};

}  // namespace simulator
