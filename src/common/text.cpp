#include "common/text.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <utility>

#include "common/handles.h"

#if defined(__MINGW32__) && defined(_UCRT)
// Not in every version of its headers.
extern "C" _CRTIMP _invalid_parameter_handler __cdecl _set_thread_local_invalid_parameter_handler(
    _invalid_parameter_handler);
#endif

namespace corvel {

namespace {

/// In a text's place, whose room is used again.
void PutNarrowFromWide(std::string& narrow, UINT codePage, std::wstring_view text) {
  const LastErrorKeeper keep;
  const int wideLength = static_cast<int>(text.size());
  const int length =
      ::WideCharToMultiByte(codePage, 0, text.data(), wideLength, nullptr, 0, nullptr, nullptr);
  narrow.resize(static_cast<std::size_t>(std::max(length, 0)));
  if (length > 0)
    ::WideCharToMultiByte(codePage, 0, text.data(), wideLength, narrow.data(), length, nullptr, nullptr);
}

std::string NarrowFromWide(UINT codePage, std::wstring_view text) {
  std::string narrow;
  PutNarrowFromWide(narrow, codePage, text);
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

/// Prints what is longer than usual behind a text. @return false when it cannot be printed at all.
bool AppendMeasured(std::string& text, const char* format, std::va_list arguments) {
  std::va_list measured;
  va_copy(measured, arguments);
  const int length = ::_vscprintf_p(format, measured);
  va_end(measured);
  if (length < 0) return false;
  const std::size_t begin = text.size();
  const std::size_t size = static_cast<std::size_t>(length) + 1;
  text.resize(begin + size);
  ::_vsprintf_p(text.data() + begin, size, format, arguments);
  text.pop_back();
  return true;
}

/// The same in the text's place; the arguments may point into it.
bool PrintWideMeasured(std::wstring& text, const wchar_t* format, std::va_list arguments) {
  std::va_list measured;
  va_copy(measured, arguments);
  const int length = ::_vscwprintf(format, measured);
  va_end(measured);
  if (length < 0) return false;
  std::wstring printed(static_cast<std::size_t>(length), L'\0');
  ::_vsnwprintf(printed.data(), printed.size(), format, arguments);
  text = std::move(printed);
  return true;
}

}  // namespace

void AppendWideFromUtf8(std::wstring& text, std::string_view utf8) {
  const LastErrorKeeper keep;
  const int narrowLength = static_cast<int>(utf8.size());
  const std::size_t begin = text.size();
  // No character has more UTF-16 units than bytes of UTF-8, so nobody has to count them first.
  text.resize(begin + utf8.size());
  const int length =
      ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), narrowLength, text.data() + begin, narrowLength);
  text.resize(begin + static_cast<std::size_t>(std::max(length, 0)));
}

std::wstring WideFromUtf8(std::string_view text) {
  std::wstring wide;
  AppendWideFromUtf8(wide, text);
  return wide;
}

std::string Utf8FromWide(std::wstring_view text) {
  return NarrowFromWide(CP_UTF8, text);
}

void PutUtf8FromWide(std::string& utf8, std::wstring_view text) {
  PutNarrowFromWide(utf8, CP_UTF8, text);
}

std::string AnsiFromWide(std::wstring_view text) {
  return NarrowFromWide(CP_ACP, text);
}

// Most texts are short. To print one at once is half the work of measuring it before.
bool AppendPrinted(std::string& text, const char* format, std::va_list arguments) {
  if (format == nullptr) return false;
  const RefusedFormatsOnlyFail scope;
  char usual[kUsualPrint];
  std::va_list again;
  va_copy(again, arguments);
  const int length = ::_vsprintf_p(usual, kUsualPrint, format, arguments);
  bool printed = length >= 0;
  if (printed) {
    text.append(usual, static_cast<std::size_t>(length));
  } else {
    printed = AppendMeasured(text, format, again);
  }
  va_end(again);
  return printed;
}

std::optional<std::string> PrintNarrow(const char* format, std::va_list arguments) {
  std::string text;
  if (!AppendPrinted(text, format, arguments)) return std::nullopt;
  return text;
}

bool PrintWide(std::wstring& text, const wchar_t* format, std::va_list arguments) {
  if (format == nullptr) return false;
  const RefusedFormatsOnlyFail scope;
  wchar_t usual[kUsualPrint];
  std::va_list again;
  va_copy(again, arguments);
  const int length = ::_vsnwprintf(usual, kUsualPrint, format, arguments);
  bool printed = length >= 0;
  if (printed) {
    text.assign(usual, static_cast<std::size_t>(length));
  } else {
    printed = PrintWideMeasured(text, format, again);
  }
  va_end(again);
  return printed;
}

}  // namespace corvel
