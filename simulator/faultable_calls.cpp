#include "simulator/faultable_calls.h"

// Calls that go to the system, unless a fault says that they fail.

#include <windows.h>

#include <oaidl.h>
#include <objbase.h>

#include <functional>
#include <memory>

#include "simulator/import_patch.h"
#include "simulator/machine.h"
#include "simulator/named_objects.h"
#include "simulator/working_threads.h"

namespace simulator {

namespace {

/// How a function tells failure.
enum class Failure { LastError, Result };

/// Stands in front of one function of the system. `Tag` makes one of it per function.
template <typename Tag, typename Result, typename... Arguments>
struct FaultableCall {
  using Function = Result(WINAPI*)(Arguments...);

  static inline Function original = nullptr;
  static inline const char* name = nullptr;
  static inline Result failure{};
  static inline Failure kind = Failure::LastError;

  static Result WINAPI Call(Arguments... arguments) {
    const auto machine = CurrentMachine();
    const auto error = machine ? machine->BeginPlatformCall(name) : std::nullopt;
    if (!error) return original(arguments...);
    if constexpr (std::is_integral_v<Result>) {
      if (kind == Failure::Result) return static_cast<Result>(*error);
    }
    ::SetLastError(*error);
    return failure;
  }
};

struct ThreadStart {
  LPTHREAD_START_ROUTINE routine;
  void* parameter;
};

DWORD WINAPI RunWorkingThread(void* parameter) {
  // The thread may end inside its routine: nothing that needs destroying may be left here by then.
  const ThreadStart thread = *std::unique_ptr<ThreadStart>(static_cast<ThreadStart*>(parameter));
  working_threads::JoinCallingThread();
  const DWORD result = thread.routine(thread.parameter);
  working_threads::LeaveCallingThread();
  return result;
}

HANDLE WINAPI CreateWorkingThread(LPSECURITY_ATTRIBUTES security, SIZE_T stack,
                                  LPTHREAD_START_ROUTINE routine, LPVOID parameter, DWORD flags, LPDWORD id) {
  auto start = std::make_unique<ThreadStart>(ThreadStart{routine, parameter});
  working_threads::Begin();
  const HANDLE thread = ::CreateThread(security, stack, &RunWorkingThread, start.get(), flags, id);
  if (thread != nullptr) {
    static_cast<void>(start.release());
  } else {
    working_threads::End();
  }
  return thread;
}

[[noreturn]] void WINAPI ExitWorkingThread(HMODULE module, DWORD code) {
  working_threads::LeaveCallingThread();
  ::FreeLibraryAndExitThread(module, code);
}

struct Replacement {
  const char* name;
  std::function<void(ImportPatch&)> install;
};

template <typename Tag, typename Result, typename... Arguments>
Replacement Faultable(const char* name, Result(WINAPI* original)(Arguments...), Failure kind,
                      Result failure = {}) {
  using Call = FaultableCall<Tag, Result, Arguments...>;
  Call::original = original;
  Call::name = name;
  Call::failure = failure;
  Call::kind = kind;
  return {name, [name](ImportPatch& patch) { patch.ReplaceIfImported(name, &Call::Call); }};
}

const std::vector<Replacement>& Replacements() {
  constexpr auto kLastError = Failure::LastError;
  constexpr auto kResult = Failure::Result;
  static const std::vector<Replacement> replacements{
      Faultable<struct T0>("CreateThread", &CreateWorkingThread, kLastError),
      Faultable<struct T1>("CreateSemaphoreW", &CreateOwnSemaphore, kLastError),
      Faultable<struct T2>("ReleaseSemaphore", &::ReleaseSemaphore, kLastError),
      Faultable<struct T3>("CreateEventW", &CreateOwnEvent, kLastError),
      Faultable<struct T4>("CreateEventExW", &::CreateEventExW, kLastError),
      Faultable<struct T5>("SetEvent", &::SetEvent, kLastError),
      Faultable<struct T6>("CancelIoEx", &::CancelIoEx, kLastError),
      Faultable<struct T7>("HeapAlloc", &::HeapAlloc, kLastError),
      Faultable<struct T8>("GetFileSizeEx", &::GetFileSizeEx, kLastError),
      Faultable<struct T9>("DeleteFileW", &::DeleteFileW, kLastError),
      Faultable<struct T10>("FindFirstFileW", &::FindFirstFileW, kLastError, INVALID_HANDLE_VALUE),
      Faultable<struct T11>("FindNextFileW", &::FindNextFileW, kLastError),
      Faultable<struct T13>("GetModuleFileNameW", &::GetModuleFileNameW, kLastError),
      Faultable<struct T14>("RegOpenKeyExW", &::RegOpenKeyExW, kResult),
      Faultable<struct T15>("RegOpenKeyExA", &::RegOpenKeyExA, kResult),
      Faultable<struct T16>("RegCreateKeyExW", &::RegCreateKeyExW, kResult),
      Faultable<struct T17>("RegQueryValueExW", &::RegQueryValueExW, kResult),
      Faultable<struct T18>("RegQueryValueExA", &::RegQueryValueExA, kResult),
      Faultable<struct T19>("RegSetValueExW", &::RegSetValueExW, kResult),
      Faultable<struct T20>("RegNotifyChangeKeyValue", &::RegNotifyChangeKeyValue, kResult),
      Faultable<struct T21>("CoInitializeEx", &::CoInitializeEx, kResult),
      Faultable<struct T22>("CoCreateInstance", &::CoCreateInstance, kResult),
  };
  return replacements;
}

}  // namespace

void PatchFaultableCalls(ImportPatch& patch) {
  for (const auto& replacement : Replacements()) replacement.install(patch);
  patch.ReplaceIfImported("FreeLibraryAndExitThread", &ExitWorkingThread);
}

std::vector<std::string> PassedOnCalls() {
  std::vector<std::string> names;
  for (const auto& replacement : Replacements()) names.emplace_back(replacement.name);
  return names;
}

}  // namespace simulator
