#pragma once

#include <windows.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace hosts {

/// The words of the command line in UTF-8, without the program's name.
std::vector<std::string> CommandLineWords();

/// How many columns of a terminal can be seen at present; nothing when the handle is no terminal's.
std::optional<std::size_t> VisibleColumns(HANDLE terminal);

/// More than any line has: for what is read by programs.
inline constexpr std::size_t kUnlimitedColumns = 1'000'000;
/// How many columns of text fit into a line of an output: one less than the window has, where it is a
/// terminal, because a line that fills the last column may wrap; any number elsewhere.
std::size_t TextColumns(HANDLE output);

/// Whether an output is a terminal on which a line may be written over.
bool IsLiveTerminal(HANDLE output);
/// Whether what stands for a verdict may be coloured: on a terminal that takes colours, unless the user's
/// NO_COLOR says otherwise. Switches the terminal's colours on.
bool TakesColours(HANDLE output);

/// Lets a terminal show UTF-8 for as long as it lives.
class Utf8Terminal {
 public:
  Utf8Terminal();
  ~Utf8Terminal();
  Utf8Terminal(const Utf8Terminal&) = delete;
  Utf8Terminal& operator=(const Utf8Terminal&) = delete;

 private:
  UINT m_Former;
};

}  // namespace hosts
