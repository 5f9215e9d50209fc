#pragma once

#include <string>
#include <string_view>

namespace hosts {

/// UTF-8 for people and JSON, UTF-16 for Windows.
std::string ToUtf8(std::wstring_view text);
std::wstring ToWide(std::string_view text);
/// From the system's narrow form.
std::wstring FromAnsi(std::string_view text);
/// Path of a file in a folder that exists, in the system's narrow form, for functions that take no other. By
/// the short name that the volume keeps for the folder where its own does not fit; empty when that does not
/// fit either.
std::string AnsiPath(const std::wstring& folder, const std::wstring& name);

/// The system's message for an error code, without its line end.
std::string SystemErrorText(unsigned long error);

/// Full path of the running program, and its folder with the trailing separator.
std::wstring ProgramPath();
std::wstring ProgramFolder();

}  // namespace hosts
