#include "simulator/threads/working_threads.h"

#include <windows.h>

#include <atomic>
#include <cstdint>

namespace simulator {

namespace {

/// Longer than any thread computes between two calls to the platform, even on a loaded machine.
constexpr std::uint64_t kTakenForBlockedMs = 2000;

std::atomic<int> g_atWork{0};
std::atomic<std::uint64_t> g_lastActivity{0};
thread_local bool t_isMember = false;

}  // namespace

namespace working_threads {

void Begin() {
  ++g_atWork;
  NoteActivity();
}

void End() {
  --g_atWork;
}

void JoinCallingThread() {
  t_isMember = true;
}

void LeaveCallingThread() {
  if (!t_isMember) return;
  t_isMember = false;
  End();
}

void NoteActivity() {
  g_lastActivity = ::GetTickCount64();
}

bool AnyAtWork() {
  return g_atWork > 0 && ::GetTickCount64() - g_lastActivity < kTakenForBlockedMs;
}

Rest::Rest() : m_IsMember(t_isMember) {
  if (m_IsMember) --g_atWork;
}

Rest::~Rest() {
  if (m_IsMember) Begin();
}

}  // namespace working_threads

}  // namespace simulator
