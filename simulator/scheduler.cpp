#include "simulator/scheduler.h"

#include <utility>

namespace simulator {

Scheduler::~Scheduler() {
  {
    const std::lock_guard lock(m_mutex);
    m_ends = true;
  }
  m_changed.NotifyAll();
  if (m_thread.joinable()) m_thread.join();
}

void Scheduler::After(std::chrono::milliseconds realDelay, std::function<void()> action) {
  {
    const std::lock_guard lock(m_mutex);
    m_actions.emplace(std::chrono::steady_clock::now() + realDelay, std::move(action));
    if (!m_thread.joinable()) m_thread = std::thread([this] { Run(); });
  }
  m_changed.NotifyAll();
}

void Scheduler::Run() {
  std::unique_lock lock(m_mutex);
  while (!m_ends) {
    if (m_actions.empty()) {
      m_changed.Wait(lock);
      continue;
    }
    const auto left = m_actions.begin()->first - std::chrono::steady_clock::now();
    if (left > Moment::duration::zero()) {
      m_changed.WaitFor(lock, left);
      continue;
    }
    const auto due = m_actions.extract(m_actions.begin());
    lock.unlock();
    due.mapped()();
    lock.lock();
  }
}

}  // namespace simulator
