#include "simulator/file_calls.h"

#include <windows.h>

#include "simulator/import_patch.h"
#include "simulator/machine.h"
#include "simulator/serial_port.h"
#include "simulator/ude_driver.h"

namespace simulator {

namespace {

/// A handle as CreateFile returns it.
HANDLE AsCreated(HANDLE handle) {
  return handle == nullptr ? INVALID_HANDLE_VALUE : handle;
}

HANDLE WINAPI SimulatedCreateW(LPCWSTR name, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES security,
                               DWORD disposition, DWORD flags, HANDLE pattern) {
  const auto machine = CurrentMachine();
  if (machine) {
    if (const auto driver = OpenDriver(*machine, name != nullptr ? name : L"")) return AsCreated(*driver);
  }
  return ::CreateFileW(name, access, sharing, security, disposition, flags, pattern);
}

HANDLE WINAPI SimulatedCreateA(LPCSTR name, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES security,
                               DWORD disposition, DWORD flags, HANDLE pattern) {
  const auto machine = CurrentMachine();
  if (machine) {
    if (const auto port = OpenSerialPort(*machine, name != nullptr ? name : "")) return AsCreated(*port);
  }
  return ::CreateFileA(name, access, sharing, security, disposition, flags, pattern);
}

BOOL WINAPI SimulatedClose(HANDLE handle) {
  // What stands behind the handle outlives it by this call, and is forgotten before the number is used again.
  const auto machine = CurrentMachine();
  const auto device = machine ? machine->handles.Remove(handle) : nullptr;
  return ::CloseHandle(handle);
}

}  // namespace

void PatchFiles(ImportPatch& patch) {
  patch.ReplaceIfImported("CreateFileW", &SimulatedCreateW);
  patch.ReplaceIfImported("CreateFileA", &SimulatedCreateA);
  patch.ReplaceIfImported("CloseHandle", &SimulatedClose);
}

}  // namespace simulator
