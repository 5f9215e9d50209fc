#pragma once

#include <cstdint>

// What the hosts know of the library, the modem and the installation, and cannot ask anybody for.

namespace hosts {

/// How the flash service is known to the service manager.
inline constexpr wchar_t kServiceName[] = L"CorvelFlashService";

// Files beside the programs.
inline constexpr wchar_t kConfigurationName[] = L"CorvelConfig.ini";
inline constexpr wchar_t kLibraryName[] = L"CorvelToolKit.dll";
inline constexpr wchar_t kFlashingLibraryName[] = L"Firmwareflashdownload.dll";
inline constexpr wchar_t kServiceLogName[] = L"FlashServiceDebugLogger_DLL.log";
inline constexpr wchar_t kCommandLineLogName[] = L"FlashCommandLineLogger_DLL.log";
inline constexpr wchar_t kHistoryName[] = L"CorvelFlashHistory.txt";

// Keys of the configuration.
inline constexpr wchar_t kTraceLevelKey[] = L"[TraceLevel]";
inline constexpr wchar_t kRegistryLocationKey[] = L"[RegistryLocation]";
inline constexpr wchar_t kFirmwareFolderKey[] = L"[ModemAndNVMFirmwareFolder]";
inline constexpr wchar_t kIpcTypeKey[] = L"[IPCTYPE]";
inline constexpr wchar_t kRebootTypeKey[] = L"[REBOOTTYPE]";
inline constexpr wchar_t kEraseModeKey[] = L"[ERASEMODE]";

/// The value of the handshake that asks for a flash.
inline constexpr wchar_t kReadyValue[] = L"Fls_Ready";

/// What divides the two kinds of images.
inline constexpr std::uint32_t kSmallestModemImage = 10 * 1024 * 1024;

// How the modem's devices are known to the device manager.
inline constexpr wchar_t kModemId[] = L"VID_1D5A&PID_0AC9&MI_00";
inline constexpr wchar_t kFlashPortId[] = L"VID_1D5A&PID_0ACC&MI_00";
inline constexpr wchar_t kAtPortId[] = L"USB\\VID_1D5A&PID_0AE2&MI_00";

}  // namespace hosts
