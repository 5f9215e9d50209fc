#pragma once

#include <windows.h>

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

/// Below HKLM: where the command line's handshake lies.
inline constexpr wchar_t kCommandLineKey[] = L"SOFTWARE\\WOW6432Node\\Quenta\\FlashService";

// Keys of the configuration.
inline constexpr wchar_t kTraceLevelKey[] = L"[TraceLevel]";
inline constexpr wchar_t kRegistryLocationKey[] = L"[RegistryLocation]";
inline constexpr wchar_t kFirmwareFolderKey[] = L"[ModemAndNVMFirmwareFolder]";
inline constexpr wchar_t kIpcTypeKey[] = L"[IPCTYPE]";
inline constexpr wchar_t kRebootTypeKey[] = L"[REBOOTTYPE]";
inline constexpr wchar_t kEraseModeKey[] = L"[ERASEMODE]";

// What the library answers a host, under the names that the library's compiler gives members of ToolKit.
#if defined(_MSC_VER)
inline constexpr char kIsConfigLoadedExport[] = "?IsConfigLoaded@ToolKit@@SA_NXZ";
inline constexpr char kRootExport[] = "?GetHKEYRegistryMainKey@ToolKit@@SAPEAUHKEY__@@XZ";
inline constexpr char kRootNameExport[] = "?GetRegistryMainKey@ToolKit@@SAPEB_WXZ";
inline constexpr char kPathExport[] = "?GetRegistryStrKey@ToolKit@@SAPEB_WXZ";
#else
inline constexpr char kIsConfigLoadedExport[] = "_ZN7ToolKit14IsConfigLoadedEv";
inline constexpr char kRootExport[] = "_ZN7ToolKit22GetHKEYRegistryMainKeyEv";
inline constexpr char kRootNameExport[] = "_ZN7ToolKit18GetRegistryMainKeyEv";
inline constexpr char kPathExport[] = "_ZN7ToolKit17GetRegistryStrKeyEv";
#endif

/// What the library cannot do without of the flashing library. "_ZEMO_DL_out_of_session_comm" may be absent.
inline constexpr const char* kFlashingLibraryExports[] = {"_ZEMO_DL_boot_target",
                                                          "_ZEMO_DL_close_comm_port",
                                                          "_ZEMO_DL_download_cust_file",
                                                          "_ZEMO_DL_download_dffs_file",
                                                          "_ZEMO_DL_download_fls_file",
                                                          "_ZEMO_DL_force_target_reset",
                                                          "_ZEMO_DL_get_sys_version",
                                                          "_ZEMO_get_next_free_channel",
                                                          "_ZEMO_DL_dll_get_nof_progressbars",
                                                          "_ZEMO_DL_init_callback",
                                                          "_ZEMO_DL_open_comm_port",
                                                          "_ZEMO_DL_set_dll_parameter",
                                                          "_ZEMO_DL_TOC_get_flash_technogy",
                                                          "_ZEMO_DL_TOC_get_memory_class",
                                                          "_ZEMO_DL_TOC_get_nof_items"};

/// What divides the two kinds of images.
inline constexpr std::uint32_t kSmallestModemImage = 10 * 1024 * 1024;

// How the modem's devices are known to the device manager.
inline constexpr wchar_t kModemVendor[] = L"VID_1D5A";
inline constexpr wchar_t kModemId[] = L"VID_1D5A&PID_0AC9&MI_00";
inline constexpr wchar_t kFlashPortId[] = L"VID_1D5A&PID_0ACC&MI_00";
inline constexpr wchar_t kAtPortId[] = L"USB\\VID_1D5A&PID_0AE2&MI_00";

/// The class of the driver's interface that resets the modem.
inline constexpr GUID kResetClass{
    0x6568C4A1, 0xB6EE, 0x4E4B, {0xBC, 0x5F, 0xCE, 0x81, 0x9E, 0x62, 0x72, 0x13}};

}  // namespace hosts
