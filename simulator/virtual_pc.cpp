#include "virtual_pc.h"

#include <array>

#include "loader_lock.h"
#include "machine.h"

VirtualPc::VirtualPc(VirtualPcOptions options) : m_machine(std::make_shared<Machine>(std::move(options))) {}

VirtualPc::~VirtualPc() {
  Uninstall();
}

void VirtualPc::Install(HMODULE product) {
  Uninstall();
  SetCurrentMachine(m_machine);
  m_patch = std::make_unique<ImportPatch>(product);
  PatchFaultableCalls(*m_patch);
  PatchClock(*m_patch);
  PatchDeviceTree(*m_patch);
  PatchFiles(*m_patch);
  PatchDriver(*m_patch);
  PatchSerialPort(*m_patch);
  PatchLibraryLoader(*m_patch);
}

HMODULE VirtualPc::LoadUnderSimulation(const std::filesystem::path& product) {
  const LoaderLock lock;
  const HMODULE module = ::LoadLibraryW(product.c_str());
  if (module != nullptr) Install(module);
  return module;
}

void VirtualPc::Uninstall() {
  if (!m_patch) return;
  m_patch.reset();
  m_machine->EndHangs();
  SetCurrentMachine(nullptr);
}

VirtualModem& VirtualPc::Modem() {
  return m_machine->modem;
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
  return m_machine->Count(JournalEvent::kLibraryLoaded);
}

int VirtualPc::LibraryUnloads() const {
  return m_machine->Count(JournalEvent::kLibraryUnloaded);
}

int VirtualPc::BasebandResets() const {
  return m_machine->Count(JournalEvent::kBasebandReset);
}

int VirtualPc::ForcedResets() const {
  return m_machine->Count(JournalEvent::kForcedReset);
}

int VirtualPc::MbimReboots() const {
  return m_machine->Count(JournalEvent::kMbimReboot);
}

std::vector<std::string> VirtualPc::AtCommands() const {
  std::vector<std::string> commands;
  for (const auto& entry : Journal()) {
    if (entry.event == JournalEvent::kAtCommand) commands.push_back(entry.detail);
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
