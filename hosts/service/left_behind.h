#pragma once

namespace hosts {

/// What the hosts and the flashing library leave beside the programs, as patterns of names.
/// packaging/make-packages reads them here, a line for each, for the removal of an installation.
inline constexpr const wchar_t* kLeftBehind[] = {
    L"CorvelConfig.ini",
    L"CorvelFlashHistory.txt",
    L"FlashServiceDebugLogger_DLL*.log",
    L"FlashCommandLineLogger_DLL*.log",
    L"ZEMO_DownloadDll_*.log",
};

}  // namespace hosts
