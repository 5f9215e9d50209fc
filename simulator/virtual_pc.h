#pragma once

#include <windows.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "simulator/mobile_broadband.h"
#include "simulator/virtual_clock.h"
#include "simulator/virtual_modem.h"
#include "simulator/virtual_pc_options.h"

namespace simulator {

class CallHooks;
class ImportPatch;
class Machine;

/// A PC with a modem in it, around one loaded module of the product. Its calls to the platform are answered
/// by the simulation as far as they concern the modem; everybody else's calls, the program's own included,
/// go to the system.
///
/// One at a time per process. Faults are read when a call comes, so they may only be set before `Install`.
/// Destroy it before the process ends; product threads that are still in a simulated call may come back
/// later.
class VirtualPc {
 public:
  explicit VirtualPc(VirtualPcOptions options);
  ~VirtualPc();
  VirtualPc(const VirtualPc&) = delete;
  VirtualPc& operator=(const VirtualPc&) = delete;

  /// Puts the simulation between the module and the platform. Gives std::runtime_error when a fault names a
  /// call that the module cannot make.
  void Install(HMODULE product);
  /// Loads the product and installs the simulation before any thread that it starts takes a step. Its entry
  /// routine still meets the system, and the faults that are there for it.
  /// @return the module; null, with the last error set, when it cannot be loaded.
  HMODULE LoadUnderSimulation(const std::filesystem::path& product);
  /// Loads a copy of the product, by another name, as another process of the session would have it: beside
  /// the one that is loaded, with the same modem, the same names and the same hooks in front of it.
  /// @return the module; null, with the last error set, when it cannot be loaded.
  HMODULE LoadBeside(const std::filesystem::path& copy);
  /// What is done with the hooks once they stand in front of the library that is loaded next, and before its
  /// entry routine runs. May not load anything; what it throws comes
  /// out of LoadUnderSimulation.
  void WhenPlaced(std::function<void(CallHooks&)> prepare);
  /// Gives the module its own calls back.
  void Uninstall();

  VirtualModem& Modem();
  /// Only while the simulation is installed.
  SimulatedMobileBroadband& MobileBroadband();
  const VirtualClock& Clock() const;

  /// Boot files that the modem started or was asked to start: download attempts that came that far.
  int BootAttempts() const;
  int LibraryLoads() const;
  /// Releases of a reference on the library; a product that takes several gives back several.
  int LibraryUnloads() const;
  int BasebandResets() const;
  int ForcedResets() const;
  int MbimReboots() const;
  std::vector<std::string> AtCommands() const;
  /// Calls of the library by export name, in all.
  std::map<std::string, int> LibraryCalls() const;
  /// Calls of the product to the functions that it imports, by name, from the installation on.
  std::map<std::string, int> PlatformCalls() const;
  /// Those of them that a fault has hit.
  unsigned CallsHit() const;
  /// In front of everything that the product imports, of the flashing library's functions and of the Mobile
  /// Broadband service's objects. Only while the simulation is installed.
  CallHooks& Hooks();
  std::vector<JournalEntry> Journal() const;
  /// Empties the journal, the list of Mobile Broadband calls and with it the counts taken from them, so that
  /// long runs do not grow.
  void ClearJournal();

 private:
  void Begin();
  void Patch(HMODULE product);
  void ArmFaults(PlatformCallFault::When when);

  std::shared_ptr<Machine> m_Machine;
  std::unique_ptr<SimulatedMobileBroadband> m_MobileBroadband;
  std::unique_ptr<ImportPatch> m_Patch;
  std::vector<std::unique_ptr<ImportPatch>> m_PatchesBeside;
  std::function<void(CallHooks&)> m_Prepare;
  // Shared with threads that are given a function of the flashing library, or an object, while it is given
  // up.
  std::shared_ptr<CallHooks> m_Hooks;
};

}  // namespace simulator
