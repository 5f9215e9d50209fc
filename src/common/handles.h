#pragma once

#include <windows.h>

#include <memory>

namespace corvel {

/// Restores the thread's last error when a scope ends, so that cleaning up or logging never changes it.
class LastErrorKeeper {
 public:
  LastErrorKeeper() noexcept : m_Error(::GetLastError()) {}
  ~LastErrorKeeper() { ::SetLastError(m_Error); }
  LastErrorKeeper(const LastErrorKeeper&) = delete;
  LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

 private:
  DWORD m_Error;
};

/// Closes a kernel handle; an empty owner holds nullptr, never INVALID_HANDLE_VALUE.
struct HandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const noexcept {
    const LastErrorKeeper keep;
    ::CloseHandle(handle);
  }
};
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

/// Owner of a handle from CreateFile and its kin, whose "no handle" is INVALID_HANDLE_VALUE.
inline UniqueHandle OwnFileHandle(HANDLE handle) noexcept {
  return UniqueHandle(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

/// Closes an opened registry key.
struct RegistryKeyCloser {
  using pointer = HKEY;
  void operator()(HKEY key) const noexcept { ::RegCloseKey(key); }
};
using UniqueRegistryKey = std::unique_ptr<HKEY__, RegistryKeyCloser>;

/// Gives back one reference on a loaded module.
struct ModuleReleaser {
  using pointer = HMODULE;
  void operator()(HMODULE module) const noexcept {
    const LastErrorKeeper keep;
    ::FreeLibrary(module);
  }
};
using UniqueModule = std::unique_ptr<HINSTANCE__, ModuleReleaser>;

/// Ends a FindFirstFile search; an empty owner holds nullptr.
struct FileSearchCloser {
  using pointer = HANDLE;
  void operator()(HANDLE search) const noexcept {
    const LastErrorKeeper keep;
    ::FindClose(search);
  }
};
using UniqueFileSearch = std::unique_ptr<void, FileSearchCloser>;

/// A slim lock held for a scope. Not for the logger or anything else that unloading reaches: a thread that
/// the system ends while it holds the lock would hang the process there.
class ScopedLock {
 public:
  explicit ScopedLock(SRWLOCK& lock) noexcept : m_Lock(lock) { ::AcquireSRWLockExclusive(&m_Lock); }
  ~ScopedLock() { ::ReleaseSRWLockExclusive(&m_Lock); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  SRWLOCK& m_Lock;
};

}  // namespace corvel
