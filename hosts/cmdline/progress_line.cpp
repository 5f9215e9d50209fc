#include "hosts/cmdline/progress_line.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <utility>

#include "hosts/cmdline/journal.h"
#include "hosts/cmdline/running_job.h"
#include "hosts/common/terminal.h"

namespace hosts {

namespace {

constexpr std::uint32_t kComplete = 100;
constexpr std::uint32_t kBarWidth = 16;
constexpr std::size_t kUsualColumns = 80;
constexpr std::uint32_t kPlainStep = 10;
constexpr std::size_t kStageWidth = 18;
constexpr std::size_t kPercentWidth = 5;

/// In one piece: standard error is not buffered, and a terminal would be seen drawing each character.
void WriteAtOnce(const std::string& line) {
  DWORD drawn = 0;
  ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), line.data(), static_cast<DWORD>(line.size()), &drawn,
              nullptr);
}

/// As wide as asked for, whether it was shorter or longer.
std::string Padded(std::string text, std::size_t width) {
  text.resize(width, ' ');
  return text;
}

std::string PaddedLeft(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

std::uint32_t Percent(const Handshake& values) {
  return std::min(values.progress.value_or(0), kComplete);
}

std::string Bar(std::uint32_t percent) {
  const std::uint32_t filled = percent * kBarWidth / kComplete;
  return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "]";
}

}  // namespace

std::string LiveLine(const Progress& now, std::size_t columns) {
  const std::string stage = Padded(now.stage, std::max(kStageWidth, now.stage.size()));
  const std::string percent = PaddedLeft(std::to_string(now.percent) + " %", kPercentWidth);
  const std::string number = std::to_string(now.attempt);
  const std::string attempt = "  attempt " + number;
  const std::string seconds = "  " + std::to_string(now.elapsedSeconds) + " s";
  const std::string limit =
      now.remainingSeconds ? ", limit in " + std::to_string(*now.remainingSeconds) + " s" : "";
  const std::array lines{stage + " " + Bar(now.percent) + " " + percent + attempt + seconds + limit,
                         stage + " " + Bar(now.percent) + " " + percent + attempt + seconds,
                         stage + " " + percent + attempt + seconds,
                         stage + " " + percent + "  #" + number + seconds, stage + " " + percent + seconds};
  // A line that wraps cannot be written over, and one that fills the last column may wrap.
  const std::size_t width = std::max<std::size_t>(columns, 1) - 1;
  const auto fitting =
      std::ranges::find_if(lines, [width](const std::string& line) { return line.size() <= width; });
  // What a longer line has left behind is written over.
  return Padded(fitting == lines.end() ? lines.back() : *fitting, width);
}

void LiveOutput::Draw(const Progress& now) {
  // Asked each time: a window may be made narrower, and a line that does not fit any more would scroll it.
  const auto columns = VisibleColumns(::GetStdHandle(STD_ERROR_HANDLE));
  WriteAtOnce("\r" + LiveLine(now, columns.value_or(kUsualColumns)));
  m_Open = true;
}

void LiveOutput::Finish() {
  if (m_Open) std::cerr << std::endl;
  m_Open = false;
}

ProgressLine::ProgressLine(bool quiet)
    : m_Quiet(quiet), m_Live(IsLiveTerminal(::GetStdHandle(STD_ERROR_HANDLE))) {}

void ProgressLine::Show(const Handshake& values) {
  TakeIn(values);
  const std::string text = PlainText(values);
  const bool isNew = std::exchange(m_LastPlain, text) != text;
  if (isNew) Note(text);
  if (m_Quiet) return;
  if (m_Live) {
    m_Line.Draw(Now(values));
  } else if (isNew) {
    std::cerr << SecondsSince(m_Begin) << " s  " << text << std::endl;
  }
}

void ProgressLine::Finish() {
  m_Line.Finish();
}

void ProgressLine::TakeIn(const Handshake& values) {
  const std::uint32_t result = values.result.value_or(0);
  const bool begins = values.Is(FlashResult::Flashing) && m_LastResult != result;
  // A short attempt may be over before anybody looks.
  const bool wasMissed = m_Attempts == 0 && result > static_cast<std::uint32_t>(FlashResult::Flashing);
  if (begins || wasMissed) {
    ++m_Attempts;
    m_AttemptBegin = Clock::now();
  }
  m_LastResult = result;
}

Progress ProgressLine::Now(const Handshake& values) const {
  return {.stage = StageByHandshake(values),
          .percent = Percent(values),
          .attempt = std::max(m_Attempts, 1),
          .elapsedSeconds = SecondsSince(m_Begin),
          .remainingSeconds = RemainingSeconds(values)};
}

std::string ProgressLine::PlainText(const Handshake& values) const {
  const std::uint32_t step = Percent(values) / kPlainStep * kPlainStep;
  return StageByHandshake(values) + ", " + std::to_string(step) + " %, attempt " +
         std::to_string(std::max(m_Attempts, 1));
}

long long ProgressLine::SecondsSince(Clock::time_point begin) const {
  return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
}

std::optional<long long> ProgressLine::RemainingSeconds(const Handshake& values) const {
  if (!values.timeOut || !values.IsJobRunning()) return std::nullopt;
  const long long limit = *values.timeOut / 1000;
  return std::max(0LL, limit - SecondsSince(m_AttemptBegin));
}

}  // namespace hosts
