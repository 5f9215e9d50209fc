#include "simulator/named_objects.h"

namespace simulator {

std::wstring OwnName(const wchar_t* name) {
  return name + (L"-" + std::to_wstring(::GetCurrentProcessId()));
}

HANDLE WINAPI CreateOwnSemaphore(SECURITY_ATTRIBUTES* security, LONG count, LONG maximum, LPCWSTR name) {
  return ::CreateSemaphoreW(security, count, maximum, name == nullptr ? nullptr : OwnName(name).c_str());
}

HANDLE WINAPI CreateOwnEvent(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL state, LPCWSTR name) {
  return ::CreateEventW(security, manual, state, name == nullptr ? nullptr : OwnName(name).c_str());
}

}  // namespace simulator
