#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

#include "common/tstring.h"

/// Conversions between the wide texts of Windows and the two narrow encodings in use: UTF-8 for values,
/// the system's ANSI page for narrow file names and the logger. Empty when a conversion fails.
std::wstring WideFromUtf8(std::string_view text);
std::string Utf8FromWide(std::wstring_view text);
std::string AnsiFromWide(std::wstring_view text);

/// The text in UTF-8 for a log line. Works on a copy, so several threads may read the same object.
std::string Narrow(const CTString& text);

/// Prints with the C runtime's printf, positional parameters included, to any length. A format that the
/// runtime refuses (a character that the locale lacks, mixed positional parameters) prints nothing.
std::string PrintNarrow(const char* format, std::va_list arguments);
std::wstring PrintWide(const wchar_t* format, std::va_list arguments);

/// Fills a fixed text, cut to what it holds.
template <std::size_t Size>
void CopyBounded(wchar_t (&target)[Size], std::wstring_view source) {
  target[source.copy(target, Size - 1)] = L'\0';
}
