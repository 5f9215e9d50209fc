#include "hosts/common/terminal.h"

#include <shellapi.h>

#include <algorithm>
#include <memory>

#include "hosts/common/text.h"

namespace hosts {

namespace {

struct WordListFreer {
  void operator()(wchar_t** memory) const noexcept { ::LocalFree(memory); }
};

/// Empty when it is not set.
std::wstring Environment(const wchar_t* name) {
  std::wstring value(::GetEnvironmentVariableW(name, nullptr, 0), L'\0');
  value.resize(::GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
  return value;
}

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

std::size_t TextColumns(HANDLE output) {
  const auto visible = VisibleColumns(output);
  return visible ? std::max<std::size_t>(*visible, 2) - 1 : kUnlimitedColumns;
}

bool IsLiveTerminal(HANDLE output) {
  DWORD mode = 0;
  return ::GetConsoleMode(output, &mode) && Environment(L"TERM") != L"dumb";
}

bool TakesColours(HANDLE output) {
  DWORD mode = 0;
  if (!IsLiveTerminal(output) || !Environment(L"NO_COLOR").empty()) return false;
  return ::GetConsoleMode(output, &mode) &&
         ::SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

Utf8Terminal::Utf8Terminal() : m_Former(::GetConsoleOutputCP()) {
  ::SetConsoleOutputCP(CP_UTF8);
}

Utf8Terminal::~Utf8Terminal() {
  ::SetConsoleOutputCP(m_Former);
}

}  // namespace hosts
