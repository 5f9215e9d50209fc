#pragma once

#include <windows.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "faults.h"
#include "flashing_library/modem_interface.h"
#include "import_patch.h"
#include "lock.h"
#include "scheduler.h"
#include "simulated_handles.h"
#include "virtual_clock.h"
#include "virtual_modem.h"
#include "virtual_pc.h"

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

  /// Counts a call of the product to the platform. @return the error with which it has to fail, if any.
  std::optional<DWORD> BeginPlatformCall(const char* function);
  /// Counts a call to the library, holds it back, and answers it if a fault says so.
  std::optional<std::int32_t> BeginLibraryCall(const std::string& function, int argument,
                                               const std::string& detail);
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
  std::map<std::string, int> PlatformCalls() const;
  std::map<std::string, int> LibraryCalls() const;

 private:
  void Hang(std::unique_lock<Lock>& lock, const LibraryCallFault& fault);

  mutable Lock m_mutex;
  std::vector<JournalEntry> m_journal;
  std::map<std::string, int> m_platform_calls;
  std::map<std::string, int> m_library_calls;
  std::map<std::string, int> m_looks;
  std::vector<int> m_fault_calls;
  std::map<DWORD, int> m_expired_waits;
  Condition m_hangs;
  bool m_hangs_ended = false;
};

/// The machine of the virtual PC that is installed, null when none is: the call then goes to the system.
std::shared_ptr<Machine> CurrentMachine();
void SetCurrentMachine(std::shared_ptr<Machine> machine);

/// What the library gets as its modem: the modem of the current machine.
const ModemInterface& ModemOfCurrentMachine();

// Each puts the replacements of one concern into the module.
void PatchClock(ImportPatch& patch);
void PatchDeviceTree(ImportPatch& patch);
void PatchFiles(ImportPatch& patch);
void PatchDriver(ImportPatch& patch);
void PatchSerialPort(ImportPatch& patch);
void PatchLibraryLoader(ImportPatch& patch);
void PatchFaultableCalls(ImportPatch& patch);
/// Names of the calls that PatchFaultableCalls handles.
std::vector<std::string> PassedOnCalls();
