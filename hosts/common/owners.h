#pragma once

#include <windows.h>

#include <winsvc.h>

#include <memory>
#include <system_error>

namespace hosts {

// Owners of system objects. An empty one holds nullptr, never INVALID_HANDLE_VALUE.

struct OwnedHandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const noexcept { ::CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<void, OwnedHandleCloser>;

struct OwnedKeyCloser {
  using pointer = HKEY;
  void operator()(HKEY key) const noexcept { ::RegCloseKey(key); }
};
using OwnedKey = std::unique_ptr<HKEY__, OwnedKeyCloser>;

struct OwnedModuleCloser {
  using pointer = HMODULE;
  void operator()(HMODULE module) const noexcept { ::FreeLibrary(module); }
};
using OwnedModule = std::unique_ptr<HINSTANCE__, OwnedModuleCloser>;

struct OwnedServiceCloser {
  using pointer = SC_HANDLE;
  void operator()(SC_HANDLE handle) const noexcept { ::CloseServiceHandle(handle); }
};
/// A handle of the service manager, to itself or to a service.
using OwnedService = std::unique_ptr<SC_HANDLE__, OwnedServiceCloser>;

struct OwnedSearchCloser {
  using pointer = HANDLE;
  void operator()(HANDLE search) const noexcept { ::FindClose(search); }
};
using OwnedSearch = std::unique_ptr<void, OwnedSearchCloser>;

struct LocalMemoryFreer {
  using pointer = void*;
  void operator()(void* memory) const noexcept { ::LocalFree(memory); }
};
/// What a function of the system's has taken for its caller.
using LocalMemory = std::unique_ptr<void, LocalMemoryFreer>;

/// Throws the last error of the system with a text that says what was being done.
[[noreturn]] inline void ThrowLastError(const char* what) {
  throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

/// An event without a name that stays signalled until it is reset.
inline OwnedHandle NewEvent() {
  OwnedHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (event == nullptr) ThrowLastError("An event cannot be made");
  return event;
}

}  // namespace hosts
