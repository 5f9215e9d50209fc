#include "download/progress.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace corvel {

namespace {

constexpr int kComplete = 100;
constexpr int kLowest = std::numeric_limits<int>::min();
constexpr int kHighest = std::numeric_limits<int>::max();

/// The part of the whole job that an item's percentage stands for. Single precision where it stands:
/// another one gives other integers at the halves.
int ScaledProgress(int itemPercent, std::uint32_t itemBars, std::uint32_t allBars) {
  if (allBars == 0) return 0;
  const float share = static_cast<float>(itemBars * 100.0 / allBars);
  const float scaled = static_cast<float>(itemPercent) * share / 100.0f;
  const double rounded = std::floor(static_cast<double>(scaled) + 0.5);
  return static_cast<int>(std::clamp(rounded, static_cast<double>(kLowest), static_cast<double>(kHighest)));
}

int Saturated(std::int64_t value) {
  return static_cast<int>(std::clamp<std::int64_t>(value, kLowest, kHighest));
}

}  // namespace

std::optional<Progress::Step> Progress::Report(int itemPercent) {
  if (!m_ItemBars.has_value()) return std::nullopt;
  Step step{*m_ItemBars, ScaledProgress(itemPercent, *m_ItemBars, m_AllBars), 0};
  step.delta = Saturated(static_cast<std::int64_t>(step.scaled) - m_LastUpdate);
  m_LastUpdate = step.scaled;
  // A drop, as when the next item begins at 0, only moves the reference.
  if (step.delta > 0) m_Current = Saturated(static_cast<std::int64_t>(m_Current) + step.delta);
  return step;
}

int Progress::Overall() const {
  return std::min(m_Current, kComplete);
}

}  // namespace corvel
