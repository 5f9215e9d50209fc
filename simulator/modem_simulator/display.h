#pragma once

#include <iosfwd>
#include <string>

#include "simulator/program/session.h"

namespace simulator {

/// How progress is shown.
enum class DisplayStyle {
  None,
  Plain,     ///< a line per change of stage and ten percent
  Terminal,  ///< one line that is written over
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

  DisplayStyle m_Style;
  std::size_t m_Width;
  std::ostream& m_Out;
  bool m_LineIsOpen = false;
  std::size_t m_LastLength = 0;
  std::string m_LastPlain;
};

}  // namespace simulator
