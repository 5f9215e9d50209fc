#pragma once

#include <atomic>

#include "common/handles.h"
#include "common/multistring.h"
#include "common/tstring.h"

namespace corvel {

/// One search for the flash port: the port that the searching thread reports, and the signal that ends the
/// engine's wait. Shared by both threads, so a late report harms nobody.
class FlashPortSearch {
 public:
  enum class Sight { NoList, NotFound, Found };

  /// Called by the searching thread: looks once at the present serial ports and reports the flash port.
  Sight Look();

  /// Makes the signal. A port that was reported before is signalled at once.
  /// @return false, with the last error set, when there can be no signal.
  bool CreateSignal();
  /// Waits for the port, `milliseconds` at most. A wake-up that no report of this search caused does not end
  /// the wait: the signal is shared by name, so it may carry what an earlier search left. An abandoned
  /// waiter hands a signal on: somebody else may be waiting for it.
  /// @return the result of the last wait on the signal.
  DWORD Wait(DWORD milliseconds, const std::atomic<bool>& abandoned);
  void CloseSignal();

  /// The reported port; empty when there is none.
  CTString Port();

 private:
  bool ReportFlashPortAmong(const MultiStringView& paths);
  void SetPort(const CTString& port);
  void Signal();

  SRWLOCK m_Lock = SRWLOCK_INIT;
  UniqueHandle m_Signal;
  CTString m_Port;
};

}  // namespace corvel
