#pragma once

#include <string>
#include <vector>

namespace hosts {

/// What the modem is at present, as the device tree shows it.
enum class ModemMode { Mbim, FlashPort, AtPortOnly, Absent };

struct ModemPresence {
  ModemMode mode = ModemMode::Absent;
  bool atPort = false;
  /// The driver that can reset the modem's baseband.
  bool resetDriver = false;
};

ModemPresence LookForModem();
/// The modem's devices that are present, without the part of each name that tells one modem from another.
std::vector<std::wstring> PresentModemDevices();
/// For people, and for programs.
const char* NameOf(ModemMode mode);
const char* TokenOf(ModemMode mode);

}  // namespace hosts
