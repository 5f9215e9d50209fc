#pragma once

#include <string>
#include <string_view>

/// UTF-8 for people and JSON, UTF-16 for Windows.
std::string ToUtf8(std::wstring_view text);
std::wstring ToWide(std::string_view text);
/// The system's narrow form, for functions that take no other; what it cannot hold becomes "?".
std::string ToAnsi(std::wstring_view text);

/// The system's message for an error code, without its line end.
std::string SystemErrorText(unsigned long error);

/// Full path of the running program, and its folder with the trailing separator.
std::wstring ProgramPath();
std::wstring ProgramFolder();
