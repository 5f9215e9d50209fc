#pragma once

#include <filesystem>

#include "virtual_pc.h"

/// "VirtualPc.ini" in the folder of a host: what the virtual PC around that host is like. One key=value per
/// line: "speed", "state" (a modem state by its name), and any number of "fault" lines.
inline constexpr wchar_t kVirtualPcFile[] = L"VirtualPc.ini";

/// Reads the file; the modem's memory lies in the same folder. Throws when a line says nothing known.
VirtualPcOptions ReadVirtualPcFile(const std::filesystem::path& folder);
