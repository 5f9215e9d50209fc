#include "common/errortext.h"

#include <windows.h>

#include <cstdio>
#include <memory>

#include "common/handles.h"

namespace corvel {

namespace {

struct LocalMemoryFreer {
  void operator()(char* memory) const noexcept { ::LocalFree(memory); }
};
using UniqueSystemText = std::unique_ptr<char, LocalMemoryFreer>;

UniqueSystemText SystemMessage(DWORD error) {
  char* text = nullptr;
  ::FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
      error, 0, reinterpret_cast<char*>(&text), 0, nullptr);
  return UniqueSystemText(text);
}

}  // namespace

const char* Win32ErrorText(unsigned long error) {
  static char text[128];
  const LastErrorKeeper keepForTheCaller;
  const UniqueSystemText message = SystemMessage(error);
  std::snprintf(text, sizeof text, "Error code %d: %s", static_cast<int>(error),
                message == nullptr ? "" : message.get());
  return text;
}

}  // namespace corvel
