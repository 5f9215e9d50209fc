#include "simulator/load_watch.h"

#include <winternl.h>

#include <cwchar>
#include <stdexcept>
#include <utility>

namespace simulator {

namespace {

constexpr ULONG kLoaded = 1;

template <typename Function>
Function OfSystem(const char* name) {
  return reinterpret_cast<Function>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), name));
}

}  // namespace

/// LDR_DLL_NOTIFICATION_DATA, which has no header.
struct LoadWatch::Notification {
  ULONG flags;
  const UNICODE_STRING* fullName;
  const UNICODE_STRING* baseName;
  void* base;
  ULONG size;
};

LoadWatch::LoadWatch(std::wstring library, std::function<void(HMODULE)> seen)
    : m_Library(std::move(library)), m_Seen(std::move(seen)) {
  using Register = LONG(NTAPI*)(ULONG flags, decltype(&Notified) function, void* context, void** cookie);
  const auto watch = OfSystem<Register>("LdrRegisterDllNotification");
  if (watch == nullptr || watch(0, &Notified, this, &m_Cookie) < 0)
    throw std::runtime_error("the system does not tell of libraries");
}

LoadWatch::~LoadWatch() {
  using Unregister = LONG(NTAPI*)(void* cookie);
  OfSystem<Unregister>("LdrUnregisterDllNotification")(m_Cookie);
}

void CALLBACK LoadWatch::Notified(ULONG reason, const Notification* data, void* context) {
  const auto& watch = *static_cast<const LoadWatch*>(context);
  if (reason != kLoaded || data->baseName->Length != watch.m_Library.size() * sizeof(wchar_t)) return;
  if (::_wcsnicmp(data->baseName->Buffer, watch.m_Library.c_str(), watch.m_Library.size()) != 0) return;
  watch.m_Seen(static_cast<HMODULE>(data->base));
}

}  // namespace simulator
