#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "simulator/call_hooks.h"
#include "simulator/call_record.h"
#include "simulator/virtual_pc.h"

namespace simulator {

/// "VirtualPc.ini" in the folder of a host: what the virtual PC around that host is like. One key=value per
/// line: "scenario" (a name of the scenario table), "speed", "state" (a modem state by its name), and any
/// number of "fault" lines for what only a host's own tests need. "service-starts" says from which look on,
/// counted from 1, the host finds a flash service that starts; "watch-fails" that the host itself gets no
/// more events once it flashes; "name-taken" which of the library's names the host finds with an object of
/// another kind; "battery" that the PC runs on one, charged to so many percent or "unknown"; "power-refused"
/// that no request to keep the PC awake is granted; "no-short-names" that the volume has none. "call-fails"
/// and "call-fails-after-effect" name a function and which of the library's calls to it, counted from 1 on,
/// is made to fail; with "tell-calls" all its calls are told of when the host ends.
inline constexpr wchar_t kVirtualPcFile[] = L"VirtualPc.ini";

inline constexpr char kCallFails[] = "call-fails";
inline constexpr char kCallFailsAfterEffect[] = "call-fails-after-effect";
inline constexpr char kTellCalls[] = "tell-calls";

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

/// What goes wrong with the library's calls, and whether somebody wants to be told of them.
struct CallsOfLibrary {
  std::vector<CallFault> faults;
  bool areTold = false;
};
CallsOfLibrary ReadCallsOfLibrary(const std::filesystem::path& folder);

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
  unsigned hits = 0;                     ///< calls of the library that a fault has hit
  std::chrono::milliseconds elapsed{0};  ///< virtual, since the host began
};
inline constexpr wchar_t kVirtualPcEndFile[] = L"VirtualPcEnd.ini";
inline constexpr wchar_t kToldCallsFile[] = L"VirtualPcCalls.txt";

void WriteVirtualPcEnd(const std::filesystem::path& folder, const VirtualPcEnd& end);
/// Nothing when no host has ended there, or not by itself.
std::optional<VirtualPcEnd> ReadVirtualPcEnd(const std::filesystem::path& folder);

/// "VirtualPcCalls.txt" in the same folder: the calls of the library, in their order.
void WriteToldCalls(const std::filesystem::path& folder, std::span<const MadeCall> calls);
std::vector<MadeCall> ReadToldCalls(const std::filesystem::path& folder);

}  // namespace simulator
