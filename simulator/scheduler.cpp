#include "simulator/scheduler.h"

#include <utility>

namespace simulator {

Scheduler::~Scheduler() {
  {
    const std::lock_guard lock(m_Mutex);
    m_Ends = true;
  }
  m_Changed.NotifyAll();
  if (m_Thread.joinable()) m_Thread.join();
}

void Scheduler::After(std::chrono::milliseconds realDelay, std::function<void()> action) {
  {
    const std::lock_guard lock(m_Mutex);
    m_Actions.emplace(std::chrono::steady_clock::now() + realDelay, std::move(action));
    if (!m_Thread.joinable()) m_Thread = std::thread([this] { Run(); });
  }
  m_Changed.NotifyAll();
}

void Scheduler::Run() {
  std::unique_lock lock(m_Mutex);
  while (!m_Ends) {
    if (m_Actions.empty()) {
      m_Changed.Wait(lock);
      continue;
    }
    const auto left = m_Actions.begin()->first - std::chrono::steady_clock::now();
    if (left > Moment::duration::zero()) {
      m_Changed.WaitFor(lock, left);
      continue;
    }
    const auto due = m_Actions.extract(m_Actions.begin());
    lock.unlock();
    due.mapped()();
    lock.lock();
  }
}

}  // namespace simulator
