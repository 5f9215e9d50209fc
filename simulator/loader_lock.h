#pragma once

#include <windows.h>

namespace simulator {

/// Holds the loader lock for a scope: a thread that a library starts while it is loaded takes no step of its
/// own before the scope ends, because it needs the lock to begin.
class LoaderLock {
 public:
  LoaderLock();
  ~LoaderLock();
  LoaderLock(const LoaderLock&) = delete;
  LoaderLock& operator=(const LoaderLock&) = delete;

 private:
  ULONG_PTR m_Cookie = 0;
};

}  // namespace simulator
