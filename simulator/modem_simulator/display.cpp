#include "simulator/modem_simulator/display.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ostream>

namespace simulator {

namespace {

constexpr std::uint32_t kComplete = 100;
constexpr std::uint32_t kPlainStep = 10;
constexpr std::size_t kBarWidth = 24;
constexpr std::size_t kNarrowestWithBar = 80;

std::uint32_t PercentOf(const Snapshot& now) {
  return std::min(now.values.progress.value_or(0), kComplete);
}

std::string Bar(std::uint32_t percent) {
  const std::size_t filled = percent * kBarWidth / kComplete;
  return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] ";
}

std::string LiveText(const Snapshot& now, bool withBar) {
  std::array<char, 160> text{};
  const auto seconds = static_cast<long>(now.elapsed.count() / 1000);
  std::snprintf(text.data(), text.size(), "%-22s %s%3u %%  %4ld s  attempt %d", StageOf(now).c_str(),
                withBar ? Bar(PercentOf(now)).c_str() : "", static_cast<unsigned>(PercentOf(now)), seconds,
                std::max(now.attempt, 1));
  return text.data();
}

}  // namespace

Display::Display(DisplayStyle style, int width, std::ostream& out)
    : m_Style(style), m_Width(static_cast<std::size_t>(std::max(width, 20))), m_Out(out) {}

void Display::Show(const Snapshot& now) {
  if (m_Style == DisplayStyle::Terminal) ShowLive(LiveText(now, m_Width >= kNarrowestWithBar));
  if (m_Style != DisplayStyle::Plain) return;
  const std::string text = StageOf(now) + ", " + std::to_string(PercentOf(now) / kPlainStep * kPlainStep) +
                           " %, attempt " + std::to_string(std::max(now.attempt, 1));
  if (text != m_LastPlain) m_Out << now.elapsed.count() / 1000 << " s  " << text << std::endl;
  m_LastPlain = text;
}

void Display::ShowLive(const std::string& text) {
  std::string line = text.substr(0, m_Width - 1);
  const std::size_t length = line.size();
  line.resize(std::max(length, m_LastLength), ' ');
  m_LastLength = length;
  m_Out << '\r' << line << std::flush;
  m_LineIsOpen = true;
}

void Display::Finish() {
  if (m_LineIsOpen) m_Out << std::endl;
  m_LineIsOpen = false;
}

}  // namespace simulator
