#include "progress_line.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace {

constexpr std::uint32_t kComplete = 100;
constexpr std::uint32_t kBarWidth = 16;
/// A line that wraps cannot be written over, and one that fills the last of eighty columns may wrap.
constexpr std::size_t kLiveWidth = 79;
constexpr std::uint32_t kPlainStep = 10;

bool IsTerminal() {
  DWORD mode = 0;
  return ::GetConsoleMode(::GetStdHandle(STD_ERROR_HANDLE), &mode) != FALSE;
}

/// In one piece: standard error is not buffered, and a terminal would be seen drawing each character.
void Draw(const std::string& line) {
  DWORD drawn = 0;
  ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), line.data(), static_cast<DWORD>(line.size()), &drawn,
              nullptr);
}

std::uint32_t Percent(const Handshake& values) {
  return std::min(values.progress.value_or(0), kComplete);
}

std::string Bar(std::uint32_t percent) {
  const std::uint32_t filled = percent * kBarWidth / kComplete;
  return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "]";
}

}  // namespace

std::string LiveLine(const Progress& now) {
  char text[160];
  std::snprintf(text, sizeof text, "%-18s %s %3u %%  attempt %d  %lld s", now.stage.c_str(),
                Bar(now.percent).c_str(), static_cast<unsigned>(now.percent), now.attempt,
                now.elapsedSeconds);
  std::string line(text);
  if (now.remainingSeconds) line += ", limit in " + std::to_string(*now.remainingSeconds) + " s";
  // What a longer line has left behind is written over.
  line.resize(kLiveWidth, ' ');
  return line;
}

ProgressLine::ProgressLine(bool quiet) : m_quiet(quiet), m_live(IsTerminal()) {}

void ProgressLine::Show(const Handshake& values) {
  TakeIn(values);
  if (m_quiet) return;
  if (m_live) {
    Draw("\r" + LiveText(values));
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

std::string ProgressLine::LiveText(const Handshake& values) const {
  return LiveLine({.stage = Stage(values),
                   .percent = Percent(values),
                   .attempt = std::max(m_attempts, 1),
                   .elapsedSeconds = SecondsSince(m_begin),
                   .remainingSeconds = RemainingSeconds(values)});
}

std::string ProgressLine::PlainText(const Handshake& values) const {
  const std::uint32_t step = Percent(values) / kPlainStep * kPlainStep;
  return Stage(values) + ", " + std::to_string(step) + " %, attempt " +
         std::to_string(std::max(m_attempts, 1));
}

long long ProgressLine::SecondsSince(Clock::time_point begin) const {
  return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
}

std::optional<long long> ProgressLine::RemainingSeconds(const Handshake& values) const {
  if (!values.timeOut || !values.IsJobRunning()) return std::nullopt;
  const long long limit = *values.timeOut / 1000;
  return std::max(0LL, limit - SecondsSince(m_attemptBegin));
}
