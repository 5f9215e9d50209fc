#include "simulator/virtual_pc.h"

#include <array>

#include "simulator/clock_calls.h"
#include "simulator/device_tree.h"
#include "simulator/faultable_calls.h"
#include "simulator/file_calls.h"
#include "simulator/import_patch.h"
#include "simulator/library_loader.h"
#include "simulator/loader_lock.h"
#include "simulator/machine.h"
#include "simulator/serial_port.h"
#include "simulator/ude_driver.h"

namespace simulator {

namespace {

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

VirtualPc::VirtualPc(VirtualPcOptions options) : m_machine(std::make_shared<Machine>(std::move(options))) {}

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
  const HMODULE module = ::LoadLibraryW(product.c_str());
  if (module != nullptr) Patch(module);
  return module;
}

void VirtualPc::Begin() {
  SetCurrentMachine(m_machine);
  m_mobileBroadband =
      std::make_unique<SimulatedMobileBroadband>(Connected(m_machine->options.mobileBroadband, m_machine));
}

void VirtualPc::Patch(HMODULE product) {
  m_patch = std::make_unique<ImportPatch>(product);
  PatchFaultableCalls(*m_patch);
  PatchClock(*m_patch);
  PatchDeviceTree(*m_patch);
  PatchFiles(*m_patch);
  PatchDriver(*m_patch);
  PatchSerialPort(*m_patch);
  PatchLibraryLoader(*m_patch);
}

void VirtualPc::Uninstall() {
  if (!m_mobileBroadband) return;
  m_patch.reset();
  m_mobileBroadband.reset();
  m_machine->EndHangs();
  SetCurrentMachine(nullptr);
}

VirtualModem& VirtualPc::Modem() {
  return m_machine->modem;
}

SimulatedMobileBroadband& VirtualPc::MobileBroadband() {
  return *m_mobileBroadband;
}

const VirtualClock& VirtualPc::Clock() const {
  return m_machine->clock;
}

int VirtualPc::BootAttempts() const {
  const auto calls = LibraryCalls();
  const auto found = calls.find("_ZEMO_DL_boot_target");
  return found == calls.end() ? 0 : found->second;
}

int VirtualPc::LibraryLoads() const {
  return m_machine->Count(JournalEvent::LibraryLoaded);
}

int VirtualPc::LibraryUnloads() const {
  return m_machine->Count(JournalEvent::LibraryUnloaded);
}

int VirtualPc::BasebandResets() const {
  return m_machine->Count(JournalEvent::BasebandReset);
}

int VirtualPc::ForcedResets() const {
  return m_machine->Count(JournalEvent::ForcedReset);
}

int VirtualPc::MbimReboots() const {
  return m_machine->Count(JournalEvent::MbimReboot);
}

std::vector<std::string> VirtualPc::AtCommands() const {
  std::vector<std::string> commands;
  for (const auto& entry : Journal()) {
    if (entry.event == JournalEvent::AtCommand) commands.push_back(entry.detail);
  }
  return commands;
}

std::map<std::string, int> VirtualPc::LibraryCalls() const {
  return m_machine->LibraryCalls();
}

std::map<std::string, int> VirtualPc::PlatformCalls() const {
  return m_machine->PlatformCalls();
}

std::vector<JournalEntry> VirtualPc::Journal() const {
  return m_machine->Journal();
}

void VirtualPc::ClearJournal() {
  m_machine->ClearJournal();
  if (m_mobileBroadband) m_mobileBroadband->ForgetCalls();
}

std::vector<std::string> FaultableCalls() {
  std::vector<std::string> names = PassedOnCalls();
  for (const char* name : {"WaitForSingleObject",
                           "GetOverlappedResultEx",
                           "CM_Get_Device_ID_List_SizeW",
                           "CM_Get_Device_ID_ListW",
                           "CM_Get_Device_Interface_List_SizeW",
                           "CM_Get_Device_Interface_ListW",
                           "CM_Locate_DevNodeW",
                           "CM_Reenumerate_DevNode",
                           "CM_Get_DevNode_Registry_PropertyW",
                           "CreateFileW",
                           "CreateFileA",
                           "DeviceIoControl",
                           "GetCommState",
                           "SetCommState",
                           "PurgeComm",
                           "ClearCommError",
                           "ReadFile",
                           "WriteFile",
                           "LoadLibraryW",
                           "GetProcAddress"}) {
    names.emplace_back(name);
  }
  return names;
}

}  // namespace simulator
