#pragma once

#include <windows.h>

#include <filesystem>
#include <string>

namespace simulator {

/// Starts a program, with the handles that may be inherited. Any thread.
/// @param line the command line with the program's name.
/// @param folder its current folder at the start.
/// @return false with the last error when the system refuses. Who gets true owns both handles.
bool StartProcess(const std::filesystem::path& program, const std::wstring& line,
                  const std::filesystem::path& folder, STARTUPINFOW& startup, PROCESS_INFORMATION& child);

}  // namespace simulator
