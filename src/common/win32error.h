#pragma once

#include <windows.h>

namespace corvel {

/// A Win32 error as an HRESULT; 0 stays success, and what is negative already stays as it is.
constexpr HRESULT HResultFromWin32(DWORD error) {
  const auto code = static_cast<HRESULT>(error);
  return code <= 0 ? code : static_cast<HRESULT>(0x80070000u | (error & 0xFFFFu));
}

/// The calling thread's last error in the type that "%d" prints.
inline int LastErrorNumber() {
  return static_cast<int>(::GetLastError());
}

}  // namespace corvel
