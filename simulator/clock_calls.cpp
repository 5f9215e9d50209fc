#include <windows.h>

#include "machine.h"

namespace {

void WINAPI SimulatedSleep(DWORD milliseconds) {
  const auto machine = CurrentMachine();
  if (!machine) return ::Sleep(milliseconds);
  machine->BeginPlatformCall("Sleep");
  ::Sleep(machine->clock.RealWait(milliseconds));
}

DWORD WINAPI SimulatedSleepEx(DWORD milliseconds, BOOL alertable) {
  const auto machine = CurrentMachine();
  return ::SleepEx(machine ? machine->clock.RealWait(milliseconds) : milliseconds, alertable);
}

DWORD WINAPI SimulatedWait(HANDLE handle, DWORD milliseconds) {
  const auto machine = CurrentMachine();
  if (!machine) return ::WaitForSingleObject(handle, milliseconds);
  if (const auto error = machine->BeginPlatformCall("WaitForSingleObject")) {
    ::SetLastError(*error);
    return WAIT_FAILED;
  }
  const DWORD result = ::WaitForSingleObject(handle, machine->clock.RealWait(milliseconds));
  if (result == WAIT_TIMEOUT) machine->WaitExpired(milliseconds);
  return result;
}

DWORD WINAPI SimulatedMultipleWait(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
  const auto machine = CurrentMachine();
  if (!machine) return ::WaitForMultipleObjects(count, handles, all, milliseconds);
  const DWORD result = ::WaitForMultipleObjects(count, handles, all, machine->clock.RealWait(milliseconds));
  if (result == WAIT_TIMEOUT) machine->WaitExpired(milliseconds);
  return result;
}

BOOL WINAPI SimulatedOverlappedResult(HANDLE file, LPOVERLAPPED overlapped, LPDWORD bytes, DWORD milliseconds,
                                      BOOL alertable) {
  const auto machine = CurrentMachine();
  if (!machine) return ::GetOverlappedResultEx(file, overlapped, bytes, milliseconds, alertable);
  if (const auto error = machine->BeginPlatformCall("GetOverlappedResultEx")) {
    ::SetLastError(*error);
    return FALSE;
  }
  return ::GetOverlappedResultEx(file, overlapped, bytes, machine->clock.RealWait(milliseconds), alertable);
}

ULONGLONG WINAPI SimulatedTickCount() {
  const auto machine = CurrentMachine();
  return machine ? machine->clock.TickCount() : ::GetTickCount64();
}

}  // namespace

void PatchClock(ImportPatch& patch) {
  patch.Replace("Sleep", &SimulatedSleep);
  patch.Replace("SleepEx", &SimulatedSleepEx);
  patch.Replace("WaitForSingleObject", &SimulatedWait);
  patch.Replace("WaitForMultipleObjects", &SimulatedMultipleWait);
  patch.Replace("GetOverlappedResultEx", &SimulatedOverlappedResult);
  patch.Replace("GetTickCount64", &SimulatedTickCount);
}
