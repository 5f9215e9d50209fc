// Puts the virtual PC around the product in the process of a host, and in front of the host's own look at
// the device tree. A host that loads the product later gets it under simulation. What the PC is like stands
// in "VirtualPc.ini" beside the host's program, what became of it afterwards in "VirtualPcEnd.ini". A library
// of its own, because the simulation's calls must not go through the host's import table, which it changes.

#include <windows.h>

#include <winsvc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "simulator/call_hooks.h"
#include "simulator/call_record.h"
#include "simulator/device_tree.h"
#include "simulator/host/virtual_pc_file.h"
#include "simulator/import_patch.h"
#include "simulator/named_objects.h"
#include "simulator/threads/working_threads.h"
#include "simulator/virtual_pc.h"

namespace simulator {

namespace {

constexpr wchar_t kProduct[] = L"CorvelToolKit.dll";
constexpr std::size_t kLongestPath = 32768;
constexpr int kNoVirtualPc = 125;
/// The exported ToolKit::FirmwareFlash_CmdLine, as each compiler calls it.
constexpr const char* kCommandLineJobs[] = {"_ZN7ToolKit21FirmwareFlash_CmdLineEiPciS0_S0_",
                                            "?FirmwareFlash_CmdLine@ToolKit@@SA_NHPEADH00@Z"};

/// Lives as long as the process: threads of the product may call until the end.
struct Simulation {
  explicit Simulation(VirtualPcOptions options) : pc(std::move(options)) {}

  VirtualPc pc;
  ImportPatch host{::GetModuleHandleW(nullptr)};
};
Simulation* g_simulation = nullptr;
HostFaults g_faults;
/// Null when nobody wants to be told. Never destroyed: the product's threads go on until the process ends.
CallRecord* g_record = nullptr;

std::filesystem::path HostFolder() {
  std::wstring path(kLongestPath, L'\0');
  path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return std::filesystem::path(path).parent_path();
}

HMODULE WINAPI LoadForHost(const wchar_t* name) {
  if (std::filesystem::path(name).filename() != kProduct) return ::LoadLibraryW(name);
  return g_simulation->pc.LoadUnderSimulation(name);
}

// --- The service manager, as the host finds it while a flash service starts -------------------------------

int g_looksAtService = 0;
int g_serviceStartsAt = 0;

SC_HANDLE WINAPI OpenManagerForHost(LPCWSTR, LPCWSTR, DWORD) {
  return reinterpret_cast<SC_HANDLE>(&g_looksAtService);
}

SC_HANDLE WINAPI OpenServiceForHost(SC_HANDLE, LPCWSTR, DWORD) {
  if (++g_looksAtService >= g_serviceStartsAt) return reinterpret_cast<SC_HANDLE>(&g_looksAtService);
  ::SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
  return nullptr;
}

BOOL WINAPI TellHostOfStart(SC_HANDLE, SC_STATUS_TYPE, LPBYTE buffer, DWORD, LPDWORD) {
  auto& status = *reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer);
  status.dwCurrentState = SERVICE_START_PENDING;
  status.dwProcessId = ::GetCurrentProcessId();
  return TRUE;
}

BOOL WINAPI TellHostOfProgram(SC_HANDLE, LPQUERY_SERVICE_CONFIGW configuration, DWORD size, LPDWORD needed) {
  static wchar_t program[] = L"C:\\corvel_service.exe";
  *needed = sizeof *configuration;
  if (size < *needed) return FALSE;
  configuration->lpBinaryPathName = program;
  return TRUE;
}

BOOL WINAPI CloseServiceForHost(SC_HANDLE) {
  return TRUE;
}

void PlayStartingService(int lookThatFindsIt) {
  g_serviceStartsAt = lookThatFindsIt;
  ImportPatch& host = g_simulation->host;
  host.Replace("OpenSCManagerW", &OpenManagerForHost);
  host.Replace("OpenServiceW", &OpenServiceForHost);
  host.Replace("QueryServiceStatusEx", &TellHostOfStart);
  host.Replace("QueryServiceConfigW", &TellHostOfProgram);
  host.Replace("CloseServiceHandle", &CloseServiceForHost);
}

// --- A lack of events --------------------------------------------------------------------------------------

/// Enough for the interruption and for the job's end, not for the watch over the values.
int g_eventsLeft = 2;

bool IsTaken(LPCWSTR name) {
  return name != nullptr && name == g_faults.nameTaken;
}

DWORD ErrorOfEvent(LPCWSTR name) {
  if (IsTaken(name)) return ERROR_INVALID_HANDLE;
  const bool lacks = name == nullptr && g_faults.watchFails && g_eventsLeft-- <= 0;
  return lacks ? ERROR_NOT_ENOUGH_MEMORY : ERROR_SUCCESS;
}

HANDLE WINAPI CreateEventForHost(LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL state, LPCWSTR name) {
  const DWORD error = ErrorOfEvent(name);
  if (error == ERROR_SUCCESS) return ::CreateEventW(security, manual, state, name);
  ::SetLastError(error);
  return nullptr;
}

// --- A name of the library's that another program has ------------------------------------------------------

/// In front of the library, whose names are this process's own. Stays there until the process ends.
void TakeNameFromLibrary() {
  const std::wstring name = OwnName(g_faults.nameTaken.c_str());
  const bool isOfEvent = g_faults.nameTaken == L"RegistryNotify";
  const HANDLE made = isOfEvent ? ::CreateSemaphoreW(nullptr, 0, 1, name.c_str())
                                : ::CreateEventW(nullptr, TRUE, FALSE, name.c_str());
  if (made == nullptr) throw std::runtime_error("the name cannot be taken");
}

/// The library waits for requests by an event; the other name is a semaphore's, which an event has here.
HANDLE WINAPI OpenEventForHost(DWORD access, BOOL inherit, LPCWSTR name) {
  if (!IsTaken(name)) return ::OpenEventW(access, inherit, name);
  if (g_faults.nameTaken != L"RegistryNotify") return ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ::SetLastError(ERROR_INVALID_HANDLE);
  return nullptr;
}

// --- The power of the PC ---------------------------------------------------------------------------------

// The job and the host that waits for it have a thread each.
std::atomic<int> g_powerRequests{0};
/// Null before it is made and after it was closed.
std::atomic<HANDLE> g_powerRequest{nullptr};
std::atomic<bool> g_keptAwake{false};

HANDLE WINAPI MakePowerRequest(REASON_CONTEXT*) {
  g_powerRequest = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return g_powerRequest;
}

BOOL WINAPI CloseForHost(HANDLE handle) {
  HANDLE request = handle;
  g_powerRequest.compare_exchange_strong(request, nullptr);
  return ::CloseHandle(handle);
}

BOOL WINAPI AnswerPowerRequest(HANDLE, POWER_REQUEST_TYPE) {
  ++g_powerRequests;
  ::SetLastError(ERROR_NOT_SUPPORTED);
  return !g_faults.powerRefused;
}

BOOL WINAPI TellPowerStatus(SYSTEM_POWER_STATUS* status) {
  constexpr BYTE kUnknown = 255;
  const bool mains = g_faults.battery.empty();
  const bool known = !mains && g_faults.battery != "unknown";
  *status = {};
  status->ACLineStatus = mains ? 1 : 0;
  status->BatteryLifePercent = known ? static_cast<BYTE>(std::stoi(g_faults.battery)) : kUnknown;
  return TRUE;
}

void PlayPower() {
  ImportPatch& host = g_simulation->host;
  host.Replace("PowerCreateRequest", &MakePowerRequest);
  host.Replace("PowerSetRequest", &AnswerPowerRequest);
  host.Replace("CloseHandle", &CloseForHost);
  // The service does not ask.
  host.ReplaceIfImported("GetSystemPowerStatus", &TellPowerStatus);
}

// --- The job of the command line ---------------------------------------------------------------------------

using CommandLineJob = bool (*)(int, char*, int, char*, char*);
CommandLineJob g_job = nullptr;

/// The job runs on a thread of the host's. Meanwhile that is one of the product's: time must not fly while it
/// works.
bool RunCommandLineJob(int traceLevel, char* ipcType, int unused, char* unused2, char* unused3) {
  working_threads::Begin();
  working_threads::JoinCallingThread();
  const int requestsBefore = g_powerRequests;
  const bool result = g_job(traceLevel, ipcType, unused, unused2, unused3);
  g_keptAwake = requestsBefore > 0 && g_powerRequests == requestsBefore && g_powerRequest != nullptr;
  working_threads::LeaveCallingThread();
  return result;
}

void TakeInCommandLineJob(HMODULE product) {
  for (const char* name : kCommandLineJobs) {
    const auto job = reinterpret_cast<CommandLineJob>(::GetProcAddress(product, name));
    if (job == nullptr) continue;
    g_job = job;
    g_simulation->host.Replace(name, &RunCommandLineJob);
  }
}

// --- The volume ------------------------------------------------------------------------------------------

/// As on a volume without short names: the path is its own.
DWORD WINAPI GiveNoShortPath(LPCWSTR path, LPWSTR shortPath, DWORD size) {
  const std::wstring_view itself(path);
  if (size <= itself.size()) return static_cast<DWORD>(itself.size() + 1);
  shortPath[itself.copy(shortPath, size - 1)] = L'\0';
  return static_cast<DWORD>(itself.size());
}

// --- The calls of the library ----------------------------------------------------------------------------

void NoteCall(const SeenCall& call) noexcept {
  g_record->Note(call, g_simulation->pc.Modem().State());
}

void PrepareCalls(const CallsOfLibrary& calls) {
  CallHooks& hooks = g_simulation->pc.Hooks();
  for (const CallFault& fault : calls.faults) hooks.Arm(fault);
  if (!calls.areTold) return;
  g_record = new CallRecord;
  hooks.Observe(&NoteCall);
}

void TellCalls() {
  if (g_record == nullptr) return;
  g_simulation->pc.Hooks().Observe(nullptr);
  WriteToldCalls(HostFolder(),
                 g_record->Take(reinterpret_cast<std::uintptr_t>(::GetModuleHandleW(kProduct))));
}

// --- What goes wrong in front of the host ------------------------------------------------------------------

void InstallHostFaults(const HostFaults& faults) {
  if (faults.serviceStartsAt > 0) PlayStartingService(faults.serviceStartsAt);
  if (!faults.nameTaken.empty()) {
    TakeNameFromLibrary();
    g_simulation->host.Replace("OpenEventW", &OpenEventForHost);
  }
  if (faults.noShortNames) g_simulation->host.Replace("GetShortPathNameW", &GiveNoShortPath);
  if (faults.watchFails || !faults.nameTaken.empty()) {
    g_simulation->host.Replace("CreateEventW", &CreateEventForHost);
  }
}

}  // namespace

extern "C" __declspec(dllexport) void InstallVirtualPc() try {
  g_simulation = new Simulation(ReadVirtualPcFile(HostFolder()));
  g_faults = ReadHostFaults(HostFolder());
  InstallHostFaults(g_faults);
  PlayPower();
  PatchDeviceTree(g_simulation->host);
  g_simulation->host.Replace("LoadLibraryW", &LoadForHost);
  if (const HMODULE product = ::GetModuleHandleW(kProduct)) {
    g_simulation->pc.Install(product);
    TakeInCommandLineJob(product);
    PrepareCalls(ReadCallsOfLibrary(HostFolder()));
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "The virtual PC cannot be set up: %s\n", error.what());
  // The host must not run on the real PC instead.
  std::_Exit(kNoVirtualPc);
}

extern "C" __declspec(dllexport) void ReportVirtualPc() try {
  VirtualPc& pc = g_simulation->pc;
  const auto elapsed = pc.Clock().Now();
  WriteVirtualPcEnd(HostFolder(), {.modem = pc.Modem().ComeToRest(),
                                   .resets = pc.BasebandResets(),
                                   .mbimReboots = pc.MbimReboots(),
                                   .atCommands = static_cast<int>(pc.AtCommands().size()),
                                   .powerRequests = g_powerRequests,
                                   .keptAwake = g_keptAwake,
                                   .itemsWritten = pc.Modem().ItemsWritten(),
                                   .bytesWritten = pc.Modem().BytesWritten(),
                                   .hits = pc.CallsHit(),
                                   .elapsed = elapsed});
  TellCalls();
} catch (const std::exception& error) {
  // The host's exit status stays its own; whoever reads the report misses it.
  std::fprintf(stderr, "The virtual PC cannot be reported on: %s\n", error.what());
}

}  // namespace simulator
