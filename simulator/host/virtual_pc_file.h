#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "simulator/virtual_pc.h"

namespace simulator {

/// "VirtualPc.ini" in the folder of a host: what the virtual PC around that host is like. One key=value per
/// line: "scenario" (a name of the scenario table), "speed", "state" (a modem state by its name), and any
/// number of "fault" lines for what only a host's own tests need. "service-starts" says from which look on,
/// counted from 1, the host finds a flash service that starts; "watch-fails" that the host itself gets no
/// more events once it flashes; "name-taken" which of the library's names the host finds with an object of
/// another kind; "battery" that the PC runs on one, charged to so many percent or "unknown"; "power-refused"
/// that no request to keep the PC awake is granted; "no-short-names" that the volume has none.
inline constexpr wchar_t kVirtualPcFile[] = L"VirtualPc.ini";

/// What is wrong in front of the host, beside the virtual PC.
struct HostFaults {
  int serviceStartsAt = 0;  ///< 0: never
  bool watchFails = false;
  std::wstring nameTaken;  ///< empty: none
  std::string battery;     ///< empty: the PC is on the mains
  bool powerRefused = false;
  bool noShortNames = false;
};
HostFaults ReadHostFaults(const std::filesystem::path& folder);

/// Reads the file; the modem's memory lies in the same folder. Throws when a line says nothing known.
VirtualPcOptions ReadVirtualPcFile(const std::filesystem::path& folder);

/// "VirtualPcEnd.ini" in the same folder: what the modem went through and where it is left when the host
/// ends.
struct VirtualPcEnd {
  ModemState modem = ModemState::Normal;
  int resets = 0;
  int mbimReboots = 0;
  int atCommands = 0;
  int powerRequests = 0;  ///< that the host has made
  /// Whether all of them were made before the command line's job and were not taken back before its end.
  bool keptAwake = false;
  std::uint32_t itemsWritten = 0;
  std::uint64_t bytesWritten = 0;
  std::chrono::milliseconds elapsed{0};  ///< virtual, since the host began
};
inline constexpr wchar_t kVirtualPcEndFile[] = L"VirtualPcEnd.ini";

void WriteVirtualPcEnd(const std::filesystem::path& folder, const VirtualPcEnd& end);
/// Nothing when no host has ended there, or not by itself.
std::optional<VirtualPcEnd> ReadVirtualPcEnd(const std::filesystem::path& folder);

}  // namespace simulator
