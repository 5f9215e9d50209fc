#pragma once

#include <cstdarg>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvel {

/// Conversions between the wide texts of Windows and the two narrow encodings in use: UTF-8 for values,
/// the system's ANSI page for narrow file names and the logger. Empty when a conversion fails. They leave the
/// last error alone, so that a log line may convert one value and print the error beside it.
std::wstring WideFromUtf8(std::string_view text);
std::string Utf8FromWide(std::wstring_view text);
std::string AnsiFromWide(std::wstring_view text);
/// Encodes UTF-8 in a text's place; leaves it empty when that fails. The last error survives.
void PutUtf8FromWide(std::string& utf8, std::wstring_view text);

/// Print with the C runtime's printf to any length; the narrow ones take positional parameters too. Nothing
/// when the runtime refuses (a wide character that the locale lacks, mixed positional parameters).
std::optional<std::string> PrintNarrow(const char* format, std::va_list arguments);
/// Prints behind a text. The arguments may not point into it.
/// @return false, with the text as it was, where PrintNarrow gives nothing.
bool AppendPrinted(std::string& text, const char* format, std::va_list arguments);
/// Prints in a text's place. The arguments may point into it. @return false, with the text as it was, when
/// the runtime refuses.
bool PrintWide(std::wstring& text, const wchar_t* format, std::va_list arguments);
/// What is printed is tried at this length first, and measured only when it is longer.
inline constexpr std::size_t kUsualPrint = 2048;

/// Decodes UTF-8 behind a text; adds nothing when that fails. The last error survives.
void AppendWideFromUtf8(std::wstring& text, std::string_view utf8);

/// Fills a fixed text, cut to what it holds.
template <std::size_t Size>
void CopyBounded(wchar_t (&target)[Size], std::wstring_view source) {
  target[source.copy(target, Size - 1)] = L'\0';
}

}  // namespace corvel
