#include "common/mutex.h"

#include <windows.h>

#include "common/win32error.h"

CMutex::CMutex(bool flag, const char* name, bool create, _SECURITY_ATTRIBUTES* attributes)
    : m_handle(create ? ::CreateMutexA(attributes, flag, name) : ::OpenMutexA(SYNCHRONIZE, flag, name)) {}

CMutex::~CMutex() {
  if (m_handle != nullptr) ::CloseHandle(m_handle);
}

long CMutex::Lock(unsigned long timeout) {
  if (m_handle == nullptr) return E_FAIL;
  const DWORD result = ::WaitForSingleObject(m_handle, timeout);
  return HResultFromWin32(result == WAIT_FAILED ? ::GetLastError() : result);
}

long CMutex::Unlock() {
  if (m_handle == nullptr) return E_FAIL;
  return ::ReleaseMutex(m_handle) ? S_OK : HResultFromWin32(::GetLastError());
}
