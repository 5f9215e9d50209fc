#pragma once

#include <windows.h>

#include <string>

namespace hosts {

// What the program tells besides its result: on standard error, and in a file of its own if it is asked to.
// The main thread's alone.

/// Writes all that is told from here on to the end of a file, too. @return the system's error; 0 when it can
/// be written.
DWORD OpenJournal(const std::string& path);
/// Shows details, too.
void ShowDetails();

/// Tells something in the program's name.
void Tell(const std::string& text);
/// Tells a step that only those follow who ask for it; the file has it in any case.
void TellDetail(const std::string& text);
/// For the file alone: it has been told already, or is the result.
void Note(const std::string& text);

}  // namespace hosts
