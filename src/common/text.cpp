#include "common/text.h"

#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cwchar>

#include "common/handles.h"

#if defined(__MINGW32__) && defined(_UCRT)
// Not in every version of its headers.
extern "C" _CRTIMP _invalid_parameter_handler __cdecl _set_thread_local_invalid_parameter_handler(
    _invalid_parameter_handler);
#endif

namespace corvel {

namespace {

std::string NarrowFromWide(UINT codePage, std::wstring_view text) {
  const LastErrorKeeper keep;
  const int wideLength = static_cast<int>(text.size());
  const int length =
      ::WideCharToMultiByte(codePage, 0, text.data(), wideLength, nullptr, 0, nullptr, nullptr);
  if (length < 1) return {};
  std::string narrow(static_cast<std::size_t>(length), '\0');
  ::WideCharToMultiByte(codePage, 0, text.data(), wideLength, narrow.data(), length, nullptr, nullptr);
  return narrow;
}

/// While it lives, a format that the C runtime refuses is a failed call on this thread. The universal runtime
/// would end the process; the older one does not, and has no such switch.
class RefusedFormatsOnlyFail {
#if defined(_UCRT) || (defined(_MSC_VER) && _MSC_VER >= 1900)
 public:
  RefusedFormatsOnlyFail() : m_Before(::_set_thread_local_invalid_parameter_handler(&LetItFail)) {}
  ~RefusedFormatsOnlyFail() {
    ::_set_thread_local_invalid_parameter_handler(m_Before);
  }
  RefusedFormatsOnlyFail(const RefusedFormatsOnlyFail&) = delete;
  RefusedFormatsOnlyFail& operator=(const RefusedFormatsOnlyFail&) = delete;

 private:
  static void __cdecl LetItFail(const wchar_t*, const wchar_t*, const wchar_t*, unsigned int,
                                std::uintptr_t) {}

  _invalid_parameter_handler m_Before;
#else
 public:
  RefusedFormatsOnlyFail() {}
#endif
};

}  // namespace

std::wstring WideFromUtf8(std::string_view text) {
  const LastErrorKeeper keep;
  const int narrowLength = static_cast<int>(text.size());
  const int length = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), narrowLength, nullptr, 0);
  if (length < 1) return {};
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, text.data(), narrowLength, wide.data(), length);
  return wide;
}

std::string Utf8FromWide(std::wstring_view text) {
  return NarrowFromWide(CP_UTF8, text);
}

std::string AnsiFromWide(std::wstring_view text) {
  return NarrowFromWide(CP_ACP, text);
}

std::optional<std::string> PrintNarrow(const char* format, std::va_list arguments) {
  if (format == nullptr) return std::nullopt;
  const RefusedFormatsOnlyFail scope;
  std::va_list measured;
  va_copy(measured, arguments);
  const int length = ::_vscprintf_p(format, measured);
  va_end(measured);
  if (length < 0) return std::nullopt;
  const auto size = static_cast<std::size_t>(length);
  std::string text(size + 1, '\0');
  ::_vsprintf_p(text.data(), text.size(), format, arguments);
  text.resize(size);
  return text;
}

std::optional<std::wstring> PrintWide(const wchar_t* format, std::va_list arguments) {
  if (format == nullptr) return std::nullopt;
  const RefusedFormatsOnlyFail scope;
  std::va_list measured;
  va_copy(measured, arguments);
  const int length = ::_vscwprintf(format, measured);
  va_end(measured);
  if (length < 0) return std::nullopt;
  std::wstring text(static_cast<std::size_t>(length), L'\0');
  ::_vsnwprintf(text.data(), text.size(), format, arguments);
  return text;
}

}  // namespace corvel
