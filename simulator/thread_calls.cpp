#include "simulator/thread_calls.h"

#include <windows.h>

#include <memory>

#include "simulator/import_patch.h"
#include "simulator/named_objects.h"
#include "simulator/threads/working_threads.h"

namespace simulator {

namespace {

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

}  // namespace

void PatchThreads(ImportPatch& patch) {
  patch.ReplaceIfImported("CreateThread", &CreateWorkingThread);
  patch.ReplaceIfImported("FreeLibraryAndExitThread", &ExitWorkingThread);
  patch.ReplaceIfImported("CreateSemaphoreW", &CreateOwnSemaphore);
  patch.ReplaceIfImported("CreateEventW", &CreateOwnEvent);
}

}  // namespace simulator
