#pragma once

#include <windows.h>

#include <functional>
#include <new>
#include <utility>

#include "common/handles.h"

namespace corvel {

/// The initial stack of a worker: the system's allocation granularity, or what the program's file says.
enum class WorkerStack { AllocationGranularity, Default };

/// StartWorker for a body that is allocated already.
UniqueHandle StartWorkerThread(std::function<void()> body, WorkerStack stack);

/// Starts `body` on a thread of its own. The thread keeps this module loaded for as long as it runs, so a
/// worker that nobody waits for any more may come back whenever it likes.
/// @return the thread; empty, with the last error set, when it could not be started, even for lack of
/// memory.
template <typename Body>
UniqueHandle StartWorker(Body body, WorkerStack stack = WorkerStack::AllocationGranularity) noexcept {
  try {
    return StartWorkerThread(std::move(body), stack);
  } catch (const std::bad_alloc&) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
}

/// Keeps this module loaded until the process ends.
void PinThisModule();

}  // namespace corvel
