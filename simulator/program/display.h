#pragma once

#include <chrono>
#include <iosfwd>
#include <string>

#include "session.h"

/// How progress is shown.
enum class DisplayStyle {
  kNone,
  kPlain,     ///< a line per change of stage and ten percent
  kTerminal,  ///< one line that is written over
};

/// Shows how a flash comes along.
class Display {
 public:
  /// @param width columns of the terminal.
  Display(DisplayStyle style, int width, std::ostream& out);

  void Show(const Snapshot& now);
  /// Ends the live line, so that what follows begins on a line of its own.
  void Finish();

 private:
  void ShowLive(const std::string& text);

  DisplayStyle m_style;
  std::size_t m_width;
  std::ostream& m_out;
  bool m_line_is_open = false;
  std::size_t m_last_length = 0;
  std::string m_last_plain;
};
