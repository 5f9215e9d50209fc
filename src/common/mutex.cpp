#include "common/mutex.h"

#include <windows.h>

#include "common/win32error.h"

using namespace corvel;

CMutex::CMutex(bool flag, const char* name, bool create, _SECURITY_ATTRIBUTES* attributes)
    : m_Handle(create ? ::CreateMutexA(attributes, flag, name) : ::OpenMutexA(SYNCHRONIZE, flag, name)) {}

CMutex::~CMutex() {
  if (m_Handle != nullptr) ::CloseHandle(m_Handle);
}

long CMutex::Lock(unsigned long timeout) {
  if (m_Handle == nullptr) return E_FAIL;
  const DWORD result = ::WaitForSingleObject(m_Handle, timeout);
  return HResultFromWin32(result == WAIT_FAILED ? ::GetLastError() : result);
}

long CMutex::Unlock() {
  if (m_Handle == nullptr) return E_FAIL;
  return ::ReleaseMutex(m_Handle) ? S_OK : HResultFromWin32(::GetLastError());
}
