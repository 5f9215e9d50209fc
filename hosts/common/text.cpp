#include "hosts/common/text.h"

#include <cstddef>
#include <iterator>

#include <windows.h>

namespace hosts {

namespace {

std::string Narrowed(std::wstring_view text, UINT codePage) {
  const auto size = static_cast<int>(text.size());
  const int length = ::WideCharToMultiByte(codePage, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
  std::string narrow(static_cast<std::size_t>(length > 0 ? length : 0), '\0');
  ::WideCharToMultiByte(codePage, 0, text.data(), size, narrow.data(), length, nullptr, nullptr);
  return narrow;
}

std::wstring Widened(std::string_view text, UINT codePage) {
  const auto size = static_cast<int>(text.size());
  const int length = ::MultiByteToWideChar(codePage, 0, text.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length > 0 ? length : 0), L'\0');
  ::MultiByteToWideChar(codePage, 0, text.data(), size, wide.data(), length);
  return wide;
}

/// In the system's code page; empty when that does not hold each of the characters.
std::string AnsiOrNothing(const std::wstring& text) {
  // Back again, because what does not fit becomes "?" or whatever looks like it.
  const std::string narrow = Narrowed(text, CP_ACP);
  return FromAnsi(narrow) == text ? narrow : std::string();
}

/// The long path itself on a volume that keeps no short names; empty when the volume does not answer.
std::wstring ShortPath(const std::wstring& folder) {
  std::wstring path(::GetShortPathNameW(folder.c_str(), nullptr, 0), L'\0');
  path.resize(::GetShortPathNameW(folder.c_str(), path.data(), static_cast<DWORD>(path.size())));
  return path;
}

}  // namespace

std::string ToUtf8(std::wstring_view text) {
  return Narrowed(text, CP_UTF8);
}

std::wstring ToWide(std::string_view text) {
  return Widened(text, CP_UTF8);
}

std::wstring FromAnsi(std::string_view text) {
  return Widened(text, CP_ACP);
}

std::string AnsiPath(const std::wstring& folder, const std::wstring& name) {
  std::string path = AnsiOrNothing(folder + name);
  if (!path.empty()) return path;
  const std::wstring shortPath = ShortPath(folder);
  return shortPath.empty() ? std::string() : AnsiOrNothing(shortPath + name);
}

std::string SystemErrorText(unsigned long error) {
  wchar_t text[512]{};
  const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        error, 0, text, static_cast<DWORD>(std::size(text)), nullptr);
  std::wstring_view message(text, length);
  while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L'.')) {
    message.remove_suffix(1);
  }
  return ToUtf8(message) + " (" + std::to_string(error) + ")";
}

std::wstring ProgramPath() {
  std::wstring path(32768, L'\0');
  path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path;
}

std::wstring ProgramFolder() {
  const std::wstring path = ProgramPath();
  return path.substr(0, path.rfind(L'\\') + 1);
}

}  // namespace hosts
