#pragma once

#include <functional>

#include "common/handles.h"

/// Starts `body` on a thread of its own, whose initial stack is the system's allocation granularity. The
/// thread keeps this module loaded for as long as it runs, so a worker that nobody waits for any more may
/// come back whenever it likes.
/// @return the thread; empty, with the last error set, when it could not be started.
UniqueHandle StartWorker(std::function<void()> body);

/// Keeps this module loaded until the process ends.
void PinThisModule();
