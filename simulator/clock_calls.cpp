#include "simulator/clock_calls.h"

#include <windows.h>

#include "simulator/import_patch.h"
#include "simulator/machine.h"
#include "simulator/threads/working_threads.h"

namespace simulator {

namespace {

void WINAPI SimulatedSleep(DWORD milliseconds) {
  const auto machine = CurrentMachine();
  if (!machine) return ::Sleep(milliseconds);
  const working_threads::Rest rest;
  machine->clock.WaitInSlices(milliseconds, [](DWORD real) {
    ::Sleep(real);
    return false;
  });
}

DWORD WINAPI SimulatedSleepEx(DWORD milliseconds, BOOL alertable) {
  const auto machine = CurrentMachine();
  if (!machine) return ::SleepEx(milliseconds, alertable);
  const working_threads::Rest rest;
  DWORD result = 0;
  machine->clock.WaitInSlices(milliseconds, [&](DWORD real) {
    result = ::SleepEx(real, alertable);
    return result != 0;
  });
  return result;
}

DWORD WINAPI SimulatedWait(HANDLE handle, DWORD milliseconds) {
  const auto machine = CurrentMachine();
  if (!machine) return ::WaitForSingleObject(handle, milliseconds);
  // What is there already is no wait, and takes no virtual time.
  DWORD result = ::WaitForSingleObject(handle, 0);
  if (result != WAIT_TIMEOUT) return result;
  const working_threads::Rest rest;
  machine->clock.WaitInSlices(milliseconds, [&](DWORD real) {
    result = ::WaitForSingleObject(handle, real);
    return result != WAIT_TIMEOUT;
  });
  if (result == WAIT_TIMEOUT) machine->WaitExpired(milliseconds);
  return result;
}

DWORD WINAPI SimulatedMultipleWait(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
  const auto machine = CurrentMachine();
  if (!machine) return ::WaitForMultipleObjects(count, handles, all, milliseconds);
  DWORD result = ::WaitForMultipleObjects(count, handles, all, 0);
  if (result != WAIT_TIMEOUT) return result;
  const working_threads::Rest rest;
  machine->clock.WaitInSlices(milliseconds, [&](DWORD real) {
    result = ::WaitForMultipleObjects(count, handles, all, real);
    return result != WAIT_TIMEOUT;
  });
  if (result == WAIT_TIMEOUT) machine->WaitExpired(milliseconds);
  return result;
}

BOOL WINAPI SimulatedOverlappedResult(HANDLE file, LPOVERLAPPED overlapped, LPDWORD bytes, DWORD milliseconds,
                                      BOOL alertable) {
  const auto machine = CurrentMachine();
  if (!machine) return ::GetOverlappedResultEx(file, overlapped, bytes, milliseconds, alertable);
  const working_threads::Rest rest;
  BOOL result = FALSE;
  machine->clock.WaitInSlices(milliseconds, [&](DWORD real) {
    result = ::GetOverlappedResultEx(file, overlapped, bytes, real, alertable);
    return result || ::GetLastError() != WAIT_TIMEOUT;
  });
  return result;
}

ULONGLONG WINAPI SimulatedTickCount() {
  const auto machine = CurrentMachine();
  return machine ? machine->clock.TickCount() : ::GetTickCount64();
}

}  // namespace

void PatchClock(ImportPatch& patch) {
  patch.ReplaceIfImported("Sleep", &SimulatedSleep);
  patch.ReplaceIfImported("SleepEx", &SimulatedSleepEx);
  patch.ReplaceIfImported("WaitForSingleObject", &SimulatedWait);
  patch.ReplaceIfImported("WaitForMultipleObjects", &SimulatedMultipleWait);
  patch.ReplaceIfImported("GetOverlappedResultEx", &SimulatedOverlappedResult);
  patch.ReplaceIfImported("GetTickCount64", &SimulatedTickCount);
}

}  // namespace simulator
