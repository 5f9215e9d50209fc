#include "download/flashchannel.h"

#include <atomic>
#include <optional>
#include <utility>

#include "common/handles.h"

namespace corvel::flash_channel {

namespace {

constexpr std::uint64_t kNobody = 0;

constinit std::atomic<std::uint64_t> g_attempts{kNobody};
constinit std::atomic<std::uint8_t> g_last{0};

/// Guards the three below it.
SRWLOCK g_lock = SRWLOCK_INIT;
std::uint64_t g_user = kNobody;
bool g_beingClosed = false;
/// When a newer attempt first met the present close.
std::optional<ULONGLONG> g_metAt;

bool MarkAsBeingClosed(std::uint64_t attempt) {
  const ScopedLock lock(g_lock);
  if (g_user != attempt) return false;
  g_beingClosed = true;
  g_metAt.reset();
  return true;
}

}  // namespace

std::uint64_t NewAttempt() {
  return ++g_attempts;
}

std::uint8_t Last() {
  return g_last;
}

void SetLast(std::uint8_t channel) {
  g_last = channel;
}

Claim Take(std::uint64_t attempt) {
  const ScopedLock lock(g_lock);
  if (g_beingClosed) {
    const ULONGLONG now = ::GetTickCount64();
    if (!g_metAt.has_value()) g_metAt = now;
    if (now - *g_metAt < kLongestWaitForLateCloseMs) return Claim::Refused;
  }
  g_user = attempt;
  return std::exchange(g_beingClosed, false) ? Claim::TakenOver : Claim::Taken;
}

LateClose::LateClose(std::uint64_t attempt) : m_Attempt(attempt), m_Allowed(MarkAsBeingClosed(attempt)) {}

LateClose::~LateClose() {
  if (!m_Allowed) return;
  const ScopedLock lock(g_lock);
  // A newer attempt that would not wait any longer has it by now.
  if (g_user != m_Attempt) return;
  g_user = kNobody;
  g_beingClosed = false;
}

}  // namespace corvel::flash_channel
