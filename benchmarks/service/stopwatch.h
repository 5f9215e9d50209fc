#pragma once

#include <windows.h>

#include <cstdint>

namespace benchmarks {

using Ticks = std::int64_t;

inline Ticks Now() {
  LARGE_INTEGER counter{};
  ::QueryPerformanceCounter(&counter);
  return counter.QuadPart;
}

inline double NanosecondsBetween(Ticks begin, Ticks end) {
  LARGE_INTEGER frequency{};
  ::QueryPerformanceFrequency(&frequency);
  return static_cast<double>(end - begin) * 1e9 / static_cast<double>(frequency.QuadPart);
}

}  // namespace benchmarks
