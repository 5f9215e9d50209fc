#include "simulator/library_loader.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <string_view>

#include "simulator/device_tree.h"
#include "simulator/import_patch.h"
#include "simulator/machine.h"
#include "simulator/modem_interface.h"

namespace simulator {

namespace {

constexpr std::wstring_view kLibraryName = L"firmwareflashdownload.dll";
constexpr char kAttachExport[] = "SimulatorAttachModem";

std::atomic<HMODULE> g_library{nullptr};

bool IsTheLibrary(const std::wstring& path) {
  if (path.size() < kLibraryName.size()) return false;
  return EqualIgnoringCase(path.substr(path.size() - kLibraryName.size()), std::wstring(kLibraryName));
}

std::wstring WideFromUtf8(const char* text) {
  const int size = static_cast<int>(std::strlen(text));
  std::wstring wide(static_cast<std::size_t>(::MultiByteToWideChar(CP_UTF8, 0, text, size, nullptr, 0)),
                    L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, text, size, wide.data(), static_cast<int>(wide.size()));
  return wide;
}

// The library's calls to the modem reach the machine that is current when they come.

std::int32_t BeginCall(const char* function, std::int32_t argument, const char* detail,
                       std::int32_t* result) {
  const auto machine = CurrentMachine();
  const auto answer = machine ? machine->BeginLibraryCall(function, argument, detail) : std::optional(1);
  if (answer) *result = *answer;
  return answer ? 1 : 0;
}

std::uint32_t OpenPort(const char* path) {
  const auto machine = CurrentMachine();
  if (!machine || !EqualIgnoringCase(WideFromUtf8(path), FlashPortPath(*machine))) return 0;
  return machine->modem.OpenPort();
}

void ClosePort(std::uint32_t session) {
  if (const auto machine = CurrentMachine()) machine->modem.ClosePort(session);
}

std::int32_t Boot(std::uint32_t session, const std::uint8_t* header, std::uint32_t size) {
  const auto machine = CurrentMachine();
  return machine && machine->modem.Boot(session, {header, size}) ? 1 : 0;
}

std::int32_t BeginItem(std::uint32_t session, const ModemItem* item) {
  const auto machine = CurrentMachine();
  const ImageItem announced{item->memoryClass, item->flashOffset, 0, item->size, item->crc32};
  return machine && machine->modem.BeginItem(session, announced) ? 1 : 0;
}

std::int32_t WriteBlock(std::uint32_t session, const std::uint8_t* bytes, std::uint32_t size) {
  const auto machine = CurrentMachine();
  return machine && machine->modem.WriteBlock(session, {bytes, size}) ? 1 : 0;
}

std::int32_t EndItem(std::uint32_t session) {
  const auto machine = CurrentMachine();
  return machine && machine->modem.EndItem(session) ? 1 : 0;
}

std::int32_t ForceReset(std::uint32_t session) {
  const auto machine = CurrentMachine();
  return machine && machine->modem.ForceReset(session) ? 1 : 0;
}

std::uint32_t Style() {
  const auto machine = CurrentMachine();
  return static_cast<std::uint32_t>(machine ? machine->options.faults.library.progress
                                            : ProgressStyle::Normal);
}

std::uint32_t BlockSize() {
  const auto machine = CurrentMachine();
  return machine ? machine->modem.BlockSize() : VirtualModem::kUsualBlockSize;
}

const ModemInterface& ModemOfCurrentMachine() {
  static constexpr ModemInterface kModem{sizeof(ModemInterface),
                                         &BeginCall,
                                         &OpenPort,
                                         &ClosePort,
                                         &Boot,
                                         &BeginItem,
                                         &WriteBlock,
                                         &EndItem,
                                         &ForceReset,
                                         &Style,
                                         &BlockSize};
  return kModem;
}

void Attach(Machine& machine, HMODULE library) {
  g_library = library;
  machine.Note(JournalEvent::LibraryLoaded, "");
  const auto attach = reinterpret_cast<AttachModemFunction>(::GetProcAddress(library, kAttachExport));
  if (attach != nullptr) attach(&ModemOfCurrentMachine());
}

HMODULE WINAPI SimulatedLoad(LPCWSTR name) {
  const auto machine = CurrentMachine();
  if (!machine) return ::LoadLibraryW(name);
  if (name == nullptr || !IsTheLibrary(name)) return ::LoadLibraryW(name);
  if (machine->options.faults.library.missing) {
    ::SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
  }
  const HMODULE library = ::LoadLibraryW(name);
  if (library != nullptr) Attach(*machine, library);
  return library;
}

/// The name under which the real library has an export that a faulty one has, empty when it has not.
std::string RealExport(const LibraryFaults& faults, const std::string& name) {
  const std::string full = faults.exportsWithoutUnderscore ? "_" + name : name;
  const auto isMissing = [&](const std::string& each) { return each == full; };
  return std::ranges::any_of(faults.missingExports, isMissing) ? "" : full;
}

FARPROC WINAPI SimulatedGetProcAddress(HMODULE module, LPCSTR name) {
  const auto machine = CurrentMachine();
  if (!machine) return ::GetProcAddress(module, name);
  if (module != g_library || IS_INTRESOURCE(name)) return ::GetProcAddress(module, name);
  const std::string real = RealExport(machine->options.faults.library, name);
  if (!real.empty()) {
    void* const function = reinterpret_cast<void*>(::GetProcAddress(module, real.c_str()));
    return reinterpret_cast<FARPROC>(machine->Covered(real, function));
  }
  ::SetLastError(ERROR_PROC_NOT_FOUND);
  return nullptr;
}

BOOL WINAPI SimulatedFree(HMODULE module) {
  const auto machine = CurrentMachine();
  if (machine && module == g_library) machine->Note(JournalEvent::LibraryUnloaded, "");
  return ::FreeLibrary(module);
}

}  // namespace

void PatchLibraryLoader(ImportPatch& patch) {
  patch.ReplaceIfImported("LoadLibraryW", &SimulatedLoad);
  patch.ReplaceIfImported("GetProcAddress", &SimulatedGetProcAddress);
  patch.ReplaceIfImported("FreeLibrary", &SimulatedFree);
}

}  // namespace simulator
