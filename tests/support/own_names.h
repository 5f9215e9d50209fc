#pragma once

#include <windows.h>

#include <string>

#include "import_patch.h"

/// Gives the library's named events and semaphores names of this process's own, for tests that run in
/// parallel would wake each other by the real ones.
class OwnNames {
 public:
  OwnNames() {
    m_patch.Replace("CreateSemaphoreW", &CreateSemaphoreW);
    m_patch.Replace("CreateEventW", &CreateEventW);
  }

  static std::wstring Own(const wchar_t* name) {
    return name + (L"-" + std::to_wstring(::GetCurrentProcessId()));
  }

 private:
  static HANDLE WINAPI CreateSemaphoreW(SECURITY_ATTRIBUTES* security, LONG count, LONG maximum,
                                        LPCWSTR name) {
    return ::CreateSemaphoreW(security, count, maximum, name == nullptr ? nullptr : Own(name).c_str());
  }
  static HANDLE WINAPI CreateEventW(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL state, LPCWSTR name) {
    return ::CreateEventW(security, manual, state, name == nullptr ? nullptr : Own(name).c_str());
  }

  ImportPatch m_patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};
