#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <thread>

#include "simulator/threads/lock.h"

namespace simulator {

/// Does things later, on a thread of its own that starts with the first of them.
class Scheduler {
 public:
  Scheduler() = default;
  /// Drops what has not been done yet.
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  void After(std::chrono::milliseconds realDelay, std::function<void()> action);

 private:
  using Moment = std::chrono::steady_clock::time_point;
  void Run();

  Lock m_Mutex;
  Condition m_Changed;
  std::multimap<Moment, std::function<void()>> m_Actions;
  bool m_Ends = false;
  std::thread m_Thread;
};

}  // namespace simulator
