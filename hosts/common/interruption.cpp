#include "hosts/common/interruption.h"

#include <atomic>

#include "hosts/common/owners.h"

namespace hosts {

namespace {

std::atomic<bool> g_final{false};

/// Never destroyed: the system may call the handler while the process ends.
HANDLE TheEvent() {
  static const HANDLE event = NewEvent().release();
  return event;
}

}  // namespace

Interruption::Interruption() {
  TheEvent();
  ::SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
}

HANDLE Interruption::Event() const {
  return TheEvent();
}

bool Interruption::IsFinal() const {
  return g_final;
}

BOOL WINAPI Interruption::OnConsoleEvent(DWORD event) {
  const bool final = event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT;
  if (final) g_final = true;
  ::SetEvent(TheEvent());
  // The system ends the process as soon as this returns; the main thread needs the grace time to tidy up.
  if (final) ::Sleep(INFINITE);
  return TRUE;
}

}  // namespace hosts
