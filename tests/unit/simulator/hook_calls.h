#pragma once

#include <windows.h>

#include <cstdint>

#if defined(_MSC_VER)
#define HOOK_EXPORT __declspec(dllexport)
#else
#define HOOK_EXPORT __attribute__((dllexport))
#endif

namespace simulator {

/// A function whose arguments lie in registers of both kinds and on the stack.
using MixedFunction = double (*)(double first, int second, float third, double fourth, std::int64_t fifth,
                                 int sixth, float seventh, double eighth);

/// The functions of one module as its import table has them at the moment.
struct HookCalls {
  // NOLINTBEGIN(readability-identifier-naming): called as the functions are
  MixedFunction Mixed;
  decltype(&::CreateEventW) CreateNewEvent;
  decltype(&::ReleaseSemaphore) Release;
  decltype(&::RegOpenKeyExW) OpenKey;
  decltype(&::GetLastError) LastError;
  decltype(&::GetTickCount64) TickCount;
  decltype(&::RtlCaptureContext) Capture;
  // NOLINTEND(readability-identifier-naming)
  /// What the module's entry routine got of CreateEventW.
  HANDLE madeWhileLoading;
};

/// Type of the module's only export, "GetHookCalls".
using GetHookCallsFunction = void (*)(HookCalls* calls);

}  // namespace simulator
