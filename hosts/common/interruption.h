#pragma once

#include <windows.h>

namespace hosts {

/// Ctrl+C and its relatives as an event that the main thread waits for, instead of the process's end.
/// One per process, from its construction to the end of the process.
class Interruption {
 public:
  Interruption();

  /// Signalled by each interruption; reset it to wait for the next one.
  HANDLE Event() const;
  /// True when the terminal or the session goes away: no second interruption can come.
  bool IsFinal() const;

  /// What the system calls for a console event. @return TRUE: it is dealt with.
  static BOOL WINAPI OnConsoleEvent(DWORD event);
};

}  // namespace hosts
