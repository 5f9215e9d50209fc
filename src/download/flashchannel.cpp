#include "download/flashchannel.h"

#include <atomic>

namespace {

constexpr std::uint64_t kNobody = 0;
constexpr std::uint64_t kBeingClosed = ~std::uint64_t{0};

constinit std::atomic<std::uint64_t> g_attempts{kNobody};
constinit std::atomic<std::uint64_t> g_user{kNobody};
constinit std::atomic<std::uint8_t> g_last{0};

}  // namespace

namespace FlashChannel {

std::uint64_t NewAttempt() {
  return ++g_attempts;
}

std::uint8_t Last() {
  return g_last;
}

void SetLast(std::uint8_t channel) {
  g_last = channel;
}

bool Take(std::uint64_t attempt) {
  std::uint64_t user = g_user;
  while (user != kBeingClosed) {
    if (g_user.compare_exchange_weak(user, attempt)) return true;
  }
  return false;
}

LateClose::LateClose(std::uint64_t attempt)
    : m_allowed(g_user.compare_exchange_strong(attempt, kBeingClosed)) {}

LateClose::~LateClose() {
  if (m_allowed) g_user = kNobody;
}

}  // namespace FlashChannel
