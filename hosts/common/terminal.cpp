#include "hosts/common/terminal.h"

#include <shellapi.h>

#include <memory>

#include "hosts/common/text.h"

namespace hosts {

namespace {

struct WordListFreer {
  void operator()(wchar_t** memory) const noexcept { ::LocalFree(memory); }
};

}  // namespace

std::vector<std::string> CommandLineWords() {
  int count = 0;
  const std::unique_ptr<wchar_t*, WordListFreer> words(::CommandLineToArgvW(::GetCommandLineW(), &count));
  std::vector<std::string> texts;
  for (int i = 1; i < count; ++i) texts.push_back(ToUtf8(words.get()[i]));
  return texts;
}

std::optional<std::size_t> VisibleColumns(HANDLE terminal) {
  CONSOLE_SCREEN_BUFFER_INFO screen{};
  if (!::GetConsoleScreenBufferInfo(terminal, &screen)) return std::nullopt;
  return static_cast<std::size_t>(screen.srWindow.Right - screen.srWindow.Left + 1);
}

Utf8Terminal::Utf8Terminal() : m_Former(::GetConsoleOutputCP()) {
  ::SetConsoleOutputCP(CP_UTF8);
}

Utf8Terminal::~Utf8Terminal() {
  ::SetConsoleOutputCP(m_Former);
}

}  // namespace hosts
