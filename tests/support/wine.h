#pragma once

#include <windows.h>

/// True under Wine. For tests of its known gaps alone, which fail when a gap closes.
inline bool RunsUnderWine() {
  return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}
