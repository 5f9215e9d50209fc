#include "working_threads.h"

#include <windows.h>

#include <atomic>

namespace {

/// Longer than any thread computes between two calls to the platform, even on a loaded machine.
constexpr std::uint64_t kTakenForBlockedMs = 2000;

std::atomic<int> g_at_work{0};
std::atomic<std::uint64_t> g_last_activity{0};
thread_local bool t_is_member = false;

}  // namespace

namespace working_threads {

void Begin() {
  ++g_at_work;
  NoteActivity();
}

void End() {
  --g_at_work;
}

void JoinCallingThread() {
  t_is_member = true;
}

void LeaveCallingThread() {
  if (!t_is_member) return;
  t_is_member = false;
  End();
}

void NoteActivity() {
  g_last_activity = ::GetTickCount64();
}

bool AnyAtWork() {
  return g_at_work > 0 && ::GetTickCount64() - g_last_activity < kTakenForBlockedMs;
}

Rest::Rest() : m_is_member(t_is_member) {
  if (m_is_member) --g_at_work;
}

Rest::~Rest() {
  if (m_is_member) Begin();
}

}  // namespace working_threads
