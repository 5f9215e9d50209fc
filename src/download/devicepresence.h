#pragma once

/// What the modem's functions are called in the device tree, upper case as they are searched for.
inline constexpr wchar_t kMbimModemId[] = L"VID_1D5A&PID_0AC9&MI_00";
inline constexpr wchar_t kFlashPortId[] = L"VID_1D5A&PID_0ACC&MI_00";
inline constexpr wchar_t kAtPortId[] = L"USB\\VID_1D5A&PID_0AE2&MI_00";

/// One look at the device tree: true when the id of a present device contains `id`, whatever its case.
/// A list that cannot be had counts as absence. Any thread.
bool IsDevicePresent(const wchar_t* id);
