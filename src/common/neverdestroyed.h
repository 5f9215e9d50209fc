#pragma once

#include <new>

namespace corvel {

/// Process-wide state that outlives every thread: its destructor never runs. A worker that comes back while
/// the process ends finds it whole, and unloading has nothing to tear down.
template <typename T>
class NeverDestroyed {
 public:
  NeverDestroyed() { ::new (static_cast<void*>(m_Storage)) T(); }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(m_Storage)); }
  T* operator->() noexcept { return &**this; }

 private:
  alignas(T) unsigned char m_Storage[sizeof(T)];
};

}  // namespace corvel
