#pragma once

#include <windows.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "simulator/faults.h"
#include "simulator/scheduler.h"
#include "simulator/simulated_handles.h"
#include "simulator/threads/lock.h"
#include "simulator/virtual_clock.h"
#include "simulator/virtual_modem.h"
#include "simulator/virtual_pc_options.h"

namespace simulator {

/// The state behind a virtual PC that the replaced calls work on. A call holds a reference for its length, so
/// one that comes back late finds it alive.
class Machine {
 public:
  explicit Machine(VirtualPcOptions options);

  const VirtualPcOptions options;
  const VirtualClock clock;
  VirtualModem modem;
  SimulatedHandles handles;
  Scheduler scheduler;

  /// Counts a call to the library, holds it back, and answers it if a fault says so.
  std::optional<std::int32_t> BeginLibraryCall(const std::string& function, int argument,
                                               const std::string& detail);
  /// What stands in front of the library's functions from now on; null for nothing.
  using Cover = std::function<void*(const std::string& function, void* target)>;
  void CoverLibrary(Cover cover);
  /// What the product gets for a function that the library has.
  void* Covered(const std::string& function, void* target) const;

  /// Numbers the looks at a thing from 1.
  int CountLook(const std::string& what);

  /// A wait of the product ended without what it waited for.
  void WaitExpired(DWORD milliseconds);
  /// Lets all calls that hang go on, for ever.
  void EndHangs();

  void Note(JournalEvent event, std::string detail);
  std::vector<JournalEntry> Journal() const;
  void ClearJournal();
  int Count(JournalEvent event) const;
  std::map<std::string, int> LibraryCalls() const;

 private:
  void Hang(std::unique_lock<Lock>& lock, const LibraryCallFault& fault);

  mutable Lock m_Mutex;
  std::vector<JournalEntry> m_Journal;
  std::map<std::string, int> m_LibraryCalls;
  std::map<std::string, int> m_Looks;
  Cover m_Cover;
  std::vector<int> m_FaultCalls;
  std::map<DWORD, int> m_ExpiredWaits;
  Condition m_Hangs;
  bool m_HangsEnded = false;
};

/// The machine of the virtual PC that is installed, null when none is: the call then goes to the system.
std::shared_ptr<Machine> CurrentMachine();
void SetCurrentMachine(std::shared_ptr<Machine> machine);

}  // namespace simulator
