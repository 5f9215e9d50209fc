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
