#pragma once

#include <windows.h>

/// What the library and the world around it have agreed on: the modem's devices, the registry, the flashing
/// library. Each stands here once; facts_test states them all.
namespace corvel::facts {

// How the modem's functions are called in the device tree, upper case as they are searched for.
inline constexpr wchar_t kMbimModemId[] = L"VID_1D5A&PID_0AC9&MI_00";
inline constexpr wchar_t kFlashPortId[] = L"VID_1D5A&PID_0ACC&MI_00";
inline constexpr wchar_t kAtPortId[] = L"USB\\VID_1D5A&PID_0AE2&MI_00";

// Interface classes: serial ports, the driver's control, and its line to the baseband's reset.
inline constexpr GUID kSerialPortClass{
    0x86E0D1E0, 0x8089, 0x11D0, {0x9C, 0xE4, 0x08, 0x00, 0x3E, 0x30, 0x1F, 0x73}};
inline constexpr GUID kControlClass{
    0xE7B2CCDC, 0x4DD8, 0x4B33, {0x88, 0xF3, 0xC0, 0x56, 0x1B, 0x94, 0x70, 0xC9}};
inline constexpr GUID kResetClass{
    0x6568C4A1, 0xB6EE, 0x4E4B, {0xBC, 0x5F, 0xCE, 0x81, 0x9E, 0x62, 0x72, 0x13}};

// The registry handshake: how its location names a root, and its values.
inline constexpr wchar_t kLocalMachineRoot[] = L"HKLM";
inline constexpr wchar_t kUsersRoot[] = L"HKU";
inline constexpr wchar_t kCurrentUserRoot[] = L"HKCU";
inline constexpr wchar_t kClassesRoot[] = L"HKCR";
inline constexpr wchar_t kCurrentConfigRoot[] = L"HCC";
/// Where the command line's handshake lies.
inline constexpr wchar_t kCommandLineKey[] = L"SOFTWARE\\WOW6432Node\\Quenta\\FlashService";

inline constexpr wchar_t kReadyFlagValue[] = L"Fls_Ready";
inline constexpr wchar_t kRetryTimesValue[] = L"Retry_Times";
inline constexpr wchar_t kTimeOutValue[] = L"Time_Out";
inline constexpr wchar_t kProgressValue[] = L"Flash_Progress";
inline constexpr wchar_t kOnGoingValue[] = L"Flash_OnGoing";
inline constexpr wchar_t kResultValue[] = L"Flash_Result";

// "Flash_Result", as the controlling program reads it.
inline constexpr int kResultIdle = 0;
inline constexpr int kResultFlashing = 1;
inline constexpr int kResultRetrying = 2;
inline constexpr int kResultFailed = 3;
inline constexpr int kResultSucceeded = 4;

// The flashing library and its functions, in the order in which they are looked up.
inline constexpr char kFlashingLibrary[] = "Firmwareflashdownload.dll";
inline constexpr char kBootTarget[] = "_ZEMO_DL_boot_target";
inline constexpr char kCloseCommPort[] = "_ZEMO_DL_close_comm_port";
inline constexpr char kDownloadCustFile[] = "_ZEMO_DL_download_cust_file";
inline constexpr char kDownloadFlsFile[] = "_ZEMO_DL_download_fls_file";
inline constexpr char kDownloadDffsFile[] = "_ZEMO_DL_download_dffs_file";
inline constexpr char kForceTargetReset[] = "_ZEMO_DL_force_target_reset";
inline constexpr char kGetSysVersion[] = "_ZEMO_DL_get_sys_version";
inline constexpr char kGetNextFreeChannel[] = "_ZEMO_get_next_free_channel";
inline constexpr char kGetNofProgressBars[] = "_ZEMO_DL_dll_get_nof_progressbars";
inline constexpr char kInitCallback[] = "_ZEMO_DL_init_callback";
inline constexpr char kOpenCommPort[] = "_ZEMO_DL_open_comm_port";
inline constexpr char kSetDllParameter[] = "_ZEMO_DL_set_dll_parameter";
inline constexpr char kTocGetFlashTechnology[] = "_ZEMO_DL_TOC_get_flash_technogy";
inline constexpr char kTocGetMemoryClass[] = "_ZEMO_DL_TOC_get_memory_class";
inline constexpr char kTocGetNofItems[] = "_ZEMO_DL_TOC_get_nof_items";
inline constexpr char kOutOfSessionComm[] = "_ZEMO_DL_out_of_session_comm";

/// The library's version; the build takes it from the project.
inline constexpr char kVersion[] = CORVEL_VERSION;

}  // namespace corvel::facts
