#include "common/text.h"

#include <windows.h>

#include <algorithm>
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

/// Prints what is longer than usual, or cannot be printed at all.
std::optional<std::wstring> PrintWideMeasured(const wchar_t* format, std::va_list arguments) {
  std::va_list measured;
  va_copy(measured, arguments);
  const int length = ::_vscwprintf(format, measured);
  va_end(measured);
  if (length < 0) return std::nullopt;
  std::wstring text(static_cast<std::size_t>(length), L'\0');
  ::_vsnwprintf(text.data(), text.size(), format, arguments);
  return text;
}

}  // namespace

void AppendWideFromUtf8(std::wstring& text, std::string_view utf8) {
  const LastErrorKeeper keep;
  const int narrowLength = static_cast<int>(utf8.size());
  const int length = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), narrowLength, nullptr, 0);
  if (length < 1) return;
  const std::size_t begin = text.size();
  text.resize(begin + static_cast<std::size_t>(length));
  ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), narrowLength, text.data() + begin, length);
}

std::wstring WideFromUtf8(std::string_view text) {
  std::wstring wide;
  AppendWideFromUtf8(wide, text);
  return wide;
}

std::string Utf8FromWide(std::wstring_view text) {
  return NarrowFromWide(CP_UTF8, text);
}

std::string AnsiFromWide(std::wstring_view text) {
  return NarrowFromWide(CP_ACP, text);
}

// Most texts are short. To print one at once is half the work of measuring it before.
bool AppendPrinted(std::string& text, const char* format, std::va_list arguments) {
  if (format == nullptr) return false;
  const RefusedFormatsOnlyFail scope;
  const std::size_t begin = text.size();
  std::va_list again;
  va_copy(again, arguments);
  text.resize(begin + kUsualPrint);
  int length = ::_vsprintf_p(text.data() + begin, kUsualPrint, format, arguments);
  if (length < 0) {
    std::va_list measured;
    va_copy(measured, again);
    length = ::_vscprintf_p(format, measured);
    va_end(measured);
    if (length >= 0) {
      text.resize(begin + static_cast<std::size_t>(length) + 1);
      ::_vsprintf_p(text.data() + begin, static_cast<std::size_t>(length) + 1, format, again);
    }
  }
  va_end(again);
  text.resize(begin + static_cast<std::size_t>(std::max(length, 0)));
  return length >= 0;
}

std::optional<std::string> PrintNarrow(const char* format, std::va_list arguments) {
  std::string text;
  if (!AppendPrinted(text, format, arguments)) return std::nullopt;
  return text;
}

std::optional<std::wstring> PrintWide(const wchar_t* format, std::va_list arguments) {
  if (format == nullptr) return std::nullopt;
  const RefusedFormatsOnlyFail scope;
  wchar_t usual[kUsualPrint];
  std::va_list again;
  va_copy(again, arguments);
  std::optional<std::wstring> text;
  int length = ::_vsnwprintf(usual, kUsualPrint, format, arguments);
  if (length >= 0) {
    text.emplace(usual, static_cast<std::size_t>(length));
  } else {
    text = PrintWideMeasured(format, again);
  }
  va_end(again);
  return text;
}

}  // namespace corvel
