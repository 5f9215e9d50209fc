#include <shlwapi.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "common/log.h"
#include "common/tstring.h"
#include "download/firmwaredownloader.h"

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

int CFirmwareDownloader::GetAbsoluteProgress(const char* statusText) {
  // Not atoi: leading blanks and signs count as no number here.
  const int itemPercent = ::StrToIntW(CTString(statusText));
  int delta = 0;
  if (m_DownloadingFile != nullptr) {
    const std::uint32_t itemBars = m_DownloadingFile->getNofProgressBars;
    const int scaled = ScaledProgress(itemPercent, itemBars, m_ProgressBars);
    if (scaled != m_LastProgressUpdate) {
      delta = Saturated(static_cast<std::int64_t>(scaled) - m_LastProgressUpdate);
      m_LastProgressUpdate = scaled;
    }
    LOG_TRACE(
        "\t downloadProgress:%d, m_DownloadingFile->getNofProgressBars():%d, "
        "m_ProgressBars:%d,totalProgress:%d  ",
        itemPercent, static_cast<int>(itemBars), static_cast<int>(m_ProgressBars), scaled);
    LOG_TRACE("\t actualProgress:%d, m_LastProgressUpdate:%d", delta, m_LastProgressUpdate);
  }
  // A drop, as when the next item begins at 0, only moves the reference.
  if (delta > 0) m_CurrentProgress = Saturated(static_cast<std::int64_t>(m_CurrentProgress) + delta);
  LOG_TRACE("\t return m_CurrentProgress:%d", m_CurrentProgress);
  return std::min(m_CurrentProgress, kComplete);
}
