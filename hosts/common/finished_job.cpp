#include "hosts/common/finished_job.h"

#include <utility>

#include "hosts/common/text.h"

namespace hosts {

namespace {

bool HasEnded(const Handshake& values) {
  return values.Is(FlashResult::Failed) || values.Is(FlashResult::Succeeded);
}

}  // namespace

std::string FinishedJob::Text() const {
  return ToUtf8(kResultValue) + " " + std::to_string(result) + " (" + MeaningOfResult(result) + ") after " +
         std::to_string(seconds) + " s, " + std::to_string(progress) + " % of the images written.";
}

std::optional<FinishedJob> JobWatch::Look(const Handshake& values,
                                          std::chrono::steady_clock::time_point now) {
  const std::optional<Seen> last = std::exchange(m_Last, Seen{.at = now, .result = values.result});
  if (!HasEnded(values)) {
    // A request that is taken back before the library has seen it is no job.
    if (!values.IsJobOpen()) {
      m_Begin.reset();
    } else if (!m_Begin) {
      m_Begin = now;
    }
    return std::nullopt;
  }
  // A short job may be over before anybody has looked: another result than at the last look is its only
  // trace.
  if (!m_Begin && last && last->result != values.result) m_Begin = last->at;
  // Without a beginning it is the result of the last job, which stays until the library sees the next
  // request.
  if (!m_Begin) return std::nullopt;
  const auto lasted = std::chrono::duration_cast<std::chrono::seconds>(now - *m_Begin);
  m_Begin.reset();
  return FinishedJob{.flashed = values.Is(FlashResult::Succeeded),
                     .result = *values.result,
                     .progress = values.progress.value_or(0),
                     .seconds = lasted.count()};
}

}  // namespace hosts
