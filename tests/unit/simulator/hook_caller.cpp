// A module whose calls go through its own import table, one of them from its entry routine.

#include "unit/simulator/hook_calls.h"

#include <cstdint>

extern "C" __declspec(dllimport) double MixedArguments(double first, int second, float third, double fourth,
                                                       std::int64_t fifth, int sixth, float seventh,
                                                       double eighth);

namespace {

HANDLE g_madeWhileLoading = nullptr;

}  // namespace

extern "C" HOOK_EXPORT void GetHookCalls(simulator::HookCalls* calls) {
  *calls = {&::MixedArguments, &::CreateEventW,   &::ReleaseSemaphore,  &::RegOpenKeyExW,
            &::GetLastError,   &::GetTickCount64, &::RtlCaptureContext, g_madeWhileLoading};
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) g_madeWhileLoading = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return TRUE;
}
