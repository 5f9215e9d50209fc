#include "common/worker.h"

#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "common/lackofmemory.h"

namespace corvel {

namespace {

HMODULE ThisModule(DWORD flags) {
  HMODULE module = nullptr;
  ::GetModuleHandleExW(flags | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const wchar_t*>(&PinThisModule), &module);
  return module;
}

struct Worker {
  std::function<void()> body;
  UniqueModule module;
};

/// Runs and destroys the worker; what is left of it is the reference on the module.
HMODULE Run(Worker* started) noexcept {
  const std::unique_ptr<Worker> worker(started);
  try {
    worker->body();
  } catch (...) {
    // Out of memory: whoever waits for the thread finds no result of it, which is its failure.
  }
  return worker->module.release();
}

DWORD WINAPI WorkerThread(void* started) {
  // Per thread with MSVC's runtime, for the whole module with the others.
  std::set_terminate(EndProcessForLackOfMemory);
  // Nothing with a destructor may live in this frame: the thread ends inside the call.
  ::FreeLibraryAndExitThread(Run(static_cast<Worker*>(started)), 0);
}

/// In bytes; 0 is the default of CreateThread.
SIZE_T SizeOf(WorkerStack stack) {
  if (stack == WorkerStack::Default) return 0;
  SYSTEM_INFO info{};
  ::GetSystemInfo(&info);
  return info.dwAllocationGranularity;
}

}  // namespace

UniqueHandle StartWorkerThread(std::function<void()> body, WorkerStack stack) {
  UniqueModule module(ThisModule(0));
  if (module == nullptr) return nullptr;
  std::unique_ptr<Worker> worker(new (std::nothrow) Worker{std::move(body), std::move(module)});
  if (worker == nullptr) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }

  UniqueHandle thread(::CreateThread(nullptr, SizeOf(stack), WorkerThread, worker.get(), 0, nullptr));
  if (thread != nullptr) {
    static_cast<void>(worker.release());
  } else {
    const LastErrorKeeper keepForTheCaller;
    worker.reset();
  }
  return thread;
}

void PinThisModule() {
  ThisModule(GET_MODULE_HANDLE_EX_FLAG_PIN);
}

}  // namespace corvel
