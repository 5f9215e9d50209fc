#pragma once

#include <windows.h>

#include <functional>
#include <string>

namespace simulator {

/// Tells of a library as soon as it is mapped and bound, before anything of it runs. While it lives; the
/// loading takes place on the thread that made it, for one library at a time.
class LoadWatch {
 public:
  /// @param library its file name, whatever the case. `seen` may neither throw nor load anything.
  LoadWatch(std::wstring library, std::function<void(HMODULE)> seen);
  ~LoadWatch();
  LoadWatch(const LoadWatch&) = delete;
  LoadWatch& operator=(const LoadWatch&) = delete;

 private:
  struct Notification;
  static void CALLBACK Notified(ULONG reason, const Notification* data, void* context);

  const std::wstring m_Library;
  const std::function<void(HMODULE)> m_Seen;
  void* m_Cookie = nullptr;
};

}  // namespace simulator
