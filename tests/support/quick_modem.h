#pragma once

#include <chrono>

#include "simulator/virtual_modem.h"

/// A modem that does everything quickly, so that many flashes take little time.
inline simulator::ModemTiming QuickTiming() {
  using namespace std::chrono_literals;
  simulator::ModemTiming timing;
  timing.leaving = 300ms;
  timing.restarting = 300ms;
  timing.openPort = 50ms;
  timing.boot = 100ms;
  timing.returning = 500ms;
  timing.bytesPerSecond = 50'000'000;
  return timing;
}
