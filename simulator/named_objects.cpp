#include "simulator/named_objects.h"

#include <atomic>

namespace simulator {

namespace {

// Never destroyed: threads of the product may still make objects while the program ends.
std::atomic<const std::wstring*> g_sharedWith{nullptr};

}  // namespace

std::wstring OwnName(const wchar_t* name) {
  const std::wstring* const with = g_sharedWith;
  return name + (L"-" + (with != nullptr ? *with : std::to_wstring(::GetCurrentProcessId())));
}

void ShareNames(const std::wstring& with) {
  g_sharedWith = with.empty() ? nullptr : new std::wstring(with);
}

HANDLE WINAPI CreateOwnSemaphore(SECURITY_ATTRIBUTES* security, LONG count, LONG maximum, LPCWSTR name) {
  return ::CreateSemaphoreW(security, count, maximum, name == nullptr ? nullptr : OwnName(name).c_str());
}

HANDLE WINAPI CreateOwnEvent(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL state, LPCWSTR name) {
  return ::CreateEventW(security, manual, state, name == nullptr ? nullptr : OwnName(name).c_str());
}

}  // namespace simulator
