#include "progress_line.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace {

constexpr std::uint32_t kComplete = 100;
constexpr std::uint32_t kBarWidth = 20;
constexpr std::uint32_t kPlainStep = 10;

bool IsTerminal() {
  DWORD mode = 0;
  return ::GetConsoleMode(::GetStdHandle(STD_ERROR_HANDLE), &mode) != FALSE;
}

std::uint32_t Percent(const Handshake& values) {
  return std::min(values.progress.value_or(0), kComplete);
}

std::string Bar(std::uint32_t percent) {
  const std::uint32_t filled = percent * kBarWidth / kComplete;
  return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "]";
}

}  // namespace

ProgressLine::ProgressLine(bool quiet) : m_quiet(quiet), m_live(IsTerminal()) {}

void ProgressLine::Show(const Handshake& values) {
  TakeIn(values);
  if (m_quiet) return;
  if (m_live) {
    std::cerr << '\r' << LiveText(values) << std::flush;
    m_lineOpen = true;
    return;
  }
  const std::string text = PlainText(values);
  if (text != m_lastPlain) std::cerr << SecondsSince(m_begin) << " s  " << text << std::endl;
  m_lastPlain = text;
}

void ProgressLine::Finish() {
  if (m_lineOpen) std::cerr << std::endl;
  m_lineOpen = false;
}

void ProgressLine::TakeIn(const Handshake& values) {
  const std::uint32_t result = values.result.value_or(0);
  const bool begins = values.Is(FlashResult::Flashing) && m_lastResult != result;
  // A short attempt may be over before anybody looks.
  const bool wasMissed = m_attempts == 0 && result > static_cast<std::uint32_t>(FlashResult::Flashing);
  if (begins || wasMissed) {
    ++m_attempts;
    m_attemptBegin = Clock::now();
  }
  m_lastResult = result;
}

std::string ProgressLine::Stage(const Handshake& values) const {
  if (values.Is(FlashResult::Succeeded)) return "flashed";
  if (values.Is(FlashResult::Failed)) return "failed";
  if (values.Is(FlashResult::Idle) || !values.result) return "waiting to begin";
  if (Percent(values) == kComplete) return "awaiting the modem";
  if (values.Is(FlashResult::Retrying)) return "pausing to retry";
  return Percent(values) == 0 ? "into flash mode" : "writing";
}

/// Fits into eighty columns: a line that wraps cannot be written over.
std::string ProgressLine::LiveText(const Handshake& values) const {
  char text[160];
  std::snprintf(text, sizeof text, "%-18s %s %3u %%  attempt %d  %lld s (limit in %lld s)  ",
                Stage(values).c_str(), Bar(Percent(values)).c_str(), static_cast<unsigned>(Percent(values)),
                std::max(m_attempts, 1), SecondsSince(m_begin), RemainingSeconds(values));
  return text;
}

std::string ProgressLine::PlainText(const Handshake& values) const {
  const std::uint32_t step = Percent(values) / kPlainStep * kPlainStep;
  return Stage(values) + ", " + std::to_string(step) + " %, attempt " +
         std::to_string(std::max(m_attempts, 1));
}

long long ProgressLine::SecondsSince(Clock::time_point begin) const {
  return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
}

long long ProgressLine::RemainingSeconds(const Handshake& values) const {
  const long long limit = values.timeOut.value_or(0) / 1000;
  return std::max(0LL, limit - SecondsSince(m_attempts == 0 ? Clock::now() : m_attemptBegin));
}
