#include "simulator/virtual_pc.h"

#include <exception>
#include <utility>

#include "simulator/call_hooks.h"
#include "simulator/clock_calls.h"
#include "simulator/device_tree.h"
#include "simulator/file_calls.h"
#include "simulator/import_patch.h"
#include "simulator/library_loader.h"
#include "simulator/load_watch.h"
#include "simulator/loader_lock.h"
#include "simulator/machine.h"
#include "simulator/named_objects.h"
#include "simulator/serial_port.h"
#include "simulator/thread_calls.h"
#include "simulator/ude_driver.h"

namespace simulator {

namespace {

/// The simulation in the place of what a module imports.
std::unique_ptr<ImportPatch> Simulated(HMODULE module) {
  auto patch = std::make_unique<ImportPatch>(module);
  PatchThreads(*patch);
  PatchClock(*patch);
  PatchDeviceTree(*patch);
  PatchFiles(*patch);
  PatchDriver(*patch);
  PatchSerialPort(*patch);
  PatchLibraryLoader(*patch);
  return patch;
}

/// Connects the Mobile Broadband service with the modem and the clock.
MobileBroadbandBehaviour Connected(MobileBroadbandBehaviour behaviour,
                                   const std::shared_ptr<Machine>& machine) {
  if (!behaviour.modemIsInNormalMode) {
    behaviour.modemIsInNormalMode = [machine] { return machine->modem.IsPresentAsModem(); };
  }
  if (!behaviour.onRebootCommand) behaviour.onRebootCommand = [machine] { machine->modem.RebootByMbim(); };
  if (!behaviour.virtualNow) behaviour.virtualNow = [machine] { return machine->clock.Now(); };
  return behaviour;
}

}  // namespace

VirtualPc::VirtualPc(VirtualPcOptions options) : m_Machine(std::make_shared<Machine>(std::move(options))) {}

VirtualPc::~VirtualPc() {
  Uninstall();
}

void VirtualPc::Install(HMODULE product) {
  Uninstall();
  Begin();
  Patch(product);
}

HMODULE VirtualPc::LoadUnderSimulation(const std::filesystem::path& product) {
  Uninstall();
  // In front of the lock: the Mobile Broadband service waits for a thread of its own to start.
  Begin();
  const LoaderLock lock;
  std::exception_ptr failure;
  const LoadWatch watch(product.filename(), [&](HMODULE module) {
    try {
      m_Hooks->Place(module);
      ArmFaults(PlatformCallFault::When::Loading);
      if (m_Prepare) m_Prepare(*m_Hooks);
    } catch (...) {
      failure = std::current_exception();
    }
  });
  const HMODULE module = ::LoadLibraryW(product.c_str());
  if (failure) std::rethrow_exception(failure);
  if (module != nullptr) Patch(module);
  return module;
}

HMODULE VirtualPc::LoadBeside(const std::filesystem::path& copy) {
  const LoaderLock lock;
  const HMODULE module = ::LoadLibraryW(copy.c_str());
  if (module == nullptr) return nullptr;
  m_PatchesBeside.push_back(Simulated(module));
  m_Hooks->Place(module);
  return module;
}

void VirtualPc::WhenPlaced(std::function<void(CallHooks&)> prepare) {
  m_Prepare = std::move(prepare);
}

void VirtualPc::Begin() {
  SetCurrentMachine(m_Machine);
  ShareNames(m_Machine->options.sharedBy);
  m_Hooks = std::make_shared<CallHooks>();
  m_Hooks->Expect(KnownForeignCalls());
  m_Machine->CoverLibrary(
      [hooks = m_Hooks](const std::string& name, void* target) { return hooks->InFrontOf(name, target); });
  MobileBroadbandBehaviour behaviour = Connected(m_Machine->options.mobileBroadband, m_Machine);
  behaviour.onHandOut = [hooks = m_Hooks](std::span<const char* const> calls, IUnknown* object) {
    hooks->CoverObject(calls, object);
  };
  m_MobileBroadband = std::make_unique<SimulatedMobileBroadband>(std::move(behaviour));
}

void VirtualPc::Patch(HMODULE product) {
  // The hooks stand in front of the simulation too.
  m_Hooks->Lift();
  m_Patch = Simulated(product);
  m_Hooks->Place(product);
  m_Hooks->ResetCounts();
  ArmFaults(PlatformCallFault::When::Installed);
}

void VirtualPc::ArmFaults(PlatformCallFault::When when) {
  for (const PlatformCallFault& fault : m_Machine->options.faults.platform) {
    if (fault.when == when)
      m_Hooks->Arm({.function = fault.function, .calls = fault.calls, .error = fault.error});
  }
}

void VirtualPc::Uninstall() {
  if (!m_MobileBroadband) return;
  m_Hooks->Disarm();
  m_Hooks->Observe(nullptr);
  m_Hooks->Lift();
  m_Machine->CoverLibrary(nullptr);
  m_Hooks.reset();
  m_Patch.reset();
  m_PatchesBeside.clear();
  m_MobileBroadband.reset();
  m_Machine->EndHangs();
  ShareNames({});
  SetCurrentMachine(nullptr);
}

VirtualModem& VirtualPc::Modem() {
  return m_Machine->modem;
}

SimulatedMobileBroadband& VirtualPc::MobileBroadband() {
  return *m_MobileBroadband;
}

const VirtualClock& VirtualPc::Clock() const {
  return m_Machine->clock;
}

int VirtualPc::BootAttempts() const {
  const auto calls = LibraryCalls();
  const auto found = calls.find("_ZEMO_DL_boot_target");
  return found == calls.end() ? 0 : found->second;
}

int VirtualPc::LibraryLoads() const {
  return m_Machine->Count(JournalEvent::LibraryLoaded);
}

int VirtualPc::LibraryUnloads() const {
  return m_Machine->Count(JournalEvent::LibraryUnloaded);
}

int VirtualPc::BasebandResets() const {
  return m_Machine->Count(JournalEvent::BasebandReset);
}

int VirtualPc::ForcedResets() const {
  return m_Machine->Count(JournalEvent::ForcedReset);
}

int VirtualPc::MbimReboots() const {
  return m_Machine->Count(JournalEvent::MbimReboot);
}

std::vector<std::string> VirtualPc::AtCommands() const {
  std::vector<std::string> commands;
  for (const auto& entry : Journal()) {
    if (entry.event == JournalEvent::AtCommand) commands.push_back(entry.detail);
  }
  return commands;
}

std::map<std::string, int> VirtualPc::LibraryCalls() const {
  return m_Machine->LibraryCalls();
}

std::map<std::string, int> VirtualPc::PlatformCalls() const {
  return m_Hooks ? m_Hooks->Counts() : std::map<std::string, int>();
}

unsigned VirtualPc::CallsHit() const {
  return m_Hooks ? m_Hooks->Hits() : 0;
}

CallHooks& VirtualPc::Hooks() {
  return *m_Hooks;
}

std::vector<JournalEntry> VirtualPc::Journal() const {
  return m_Machine->Journal();
}

void VirtualPc::ClearJournal() {
  m_Machine->ClearJournal();
  if (m_MobileBroadband) m_MobileBroadband->ForgetCalls();
}

}  // namespace simulator
