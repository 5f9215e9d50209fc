#include "scheduler.h"

#include <utility>

Scheduler::~Scheduler() {
  {
    const std::lock_guard lock(m_mutex);
    m_ends = true;
  }
  m_changed.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

void Scheduler::After(std::chrono::milliseconds real_delay, std::function<void()> action) {
  {
    const std::lock_guard lock(m_mutex);
    m_actions.emplace(std::chrono::steady_clock::now() + real_delay, std::move(action));
    if (!m_thread.joinable()) m_thread = std::thread([this] { Run(); });
  }
  m_changed.notify_all();
}

void Scheduler::Run() {
  std::unique_lock lock(m_mutex);
  while (!m_ends) {
    if (m_actions.empty()) {
      m_changed.wait(lock);
      continue;
    }
    if (m_changed.wait_until(lock, m_actions.begin()->first) != std::cv_status::timeout) continue;
    const auto due = m_actions.extract(m_actions.begin());
    lock.unlock();
    due.mapped()();
    lock.lock();
  }
}
