#include "download/attempt.h"

#include <shlwapi.h>

#include "common/log.h"
#include "common/neverdestroyed.h"
#include "common/tstring.h"
#include "download/flashservice.h"

namespace corvel {

namespace {

constexpr char kGetAbsoluteProgress[] = "CFirmwareDownloader::GetAbsoluteProgress";

// A library that could not be bound for lack of memory.
constexpr FunctionTable kNothing;

struct Slot {
  SRWLOCK lock = SRWLOCK_INIT;
  std::shared_ptr<Attempt> attempt;
};
NeverDestroyed<Slot> g_present;

/// The attempt a thread works for: what the library reports on it belongs to that attempt, old or new. The
/// slot is taken while the module is loaded. The language's own means may ask for memory on a thread's first
/// touch, and end the process when there is none.
class AttemptOfThread {
 public:
  AttemptOfThread() noexcept : m_Slot(::TlsAlloc()) {}
  ~AttemptOfThread() { ::TlsFree(m_Slot); }
  AttemptOfThread(const AttemptOfThread&) = delete;
  AttemptOfThread& operator=(const AttemptOfThread&) = delete;

  Attempt* Get() const noexcept {
    const LastErrorKeeper keep;
    return static_cast<Attempt*>(::TlsGetValue(m_Slot));
  }
  /// @return false, with the last error set, when there is no slot or no memory for it.
  bool Set(Attempt* attempt) const noexcept { return ::TlsSetValue(m_Slot, attempt) != FALSE; }

 private:
  DWORD m_Slot;
};
const AttemptOfThread g_attemptOfThread;

}  // namespace

std::shared_ptr<Attempt> Attempt::OfThisThread() {
  if (Attempt* const attempt = g_attemptOfThread.Get()) return attempt->shared_from_this();
  const ScopedLock lock(g_present->lock);
  return g_present->attempt;
}

void Attempt::SetPresent(std::shared_ptr<Attempt> attempt) {
  const ScopedLock lock(g_present->lock);
  g_present->attempt.swap(attempt);
}

Attempt::ThreadScope::ThreadScope(Attempt& attempt)
    : m_Outer(g_attemptOfThread.Get()), m_Noted(g_attemptOfThread.Set(&attempt)) {}

Attempt::ThreadScope::~ThreadScope() {
  if (m_Noted) g_attemptOfThread.Set(m_Outer);
}

void Attempt::Abandon() {
  const ScopedLock lock(m_AbandonLock);
  m_Abandoned = true;
}

const FunctionTable& Attempt::Library() const {
  return m_Library == nullptr ? kNothing : m_Library->functions;
}

void Attempt::SetChannel(std::uint8_t channel) {
  m_Channel = channel;
  UnlessAbandoned([channel] { flash_channel::SetLast(channel); });
}

flash_channel::Claim Attempt::TakeChannel() {
  auto claim = flash_channel::Claim::Refused;
  UnlessAbandoned([&] {
    claim = flash_channel::Take(m_Number);
    m_ChannelTaken = claim != flash_channel::Claim::Refused;
  });
  return claim;
}

std::optional<int> Attempt::CloseChannel(bool opened, const char* procedure) {
  // One that failed before its boot closes what an earlier session left, and is to be waited for as well.
  if (!m_ChannelTaken) TakeChannel();
  const bool taken = m_ChannelTaken.exchange(false);
  // Marked before it is looked whether the attempt was given up, so that a newer one cannot come between.
  const flash_channel::LateClose close(m_Number);
  const auto closeCommPort = Library().CloseCommPort();
  if (const auto closed = TryLibrary(closeCommPort, Channel(), Status())) return closed;
  if (!opened || !taken || closeCommPort == nullptr || !IsAbandoned()) return std::nullopt;
  if (!close.IsAllowed()) {
    LOG_WARNING_AS(procedure, "\t Channel %d stays open, a newer attempt has opened one", Channel());
    return std::nullopt;
  }
  return closeCommPort(Channel(), Status());
}

int Attempt::GetAbsoluteProgress(const char* statusText) {
  // Not atoi: leading blanks and signs count as no number here.
  const int itemPercent = ::StrToIntW(CTString(statusText));
  if (const auto step = m_Progress.Report(itemPercent)) {
    LOG_TRACE_AS(kGetAbsoluteProgress,
                 "\t downloadProgress:%d, m_DownloadingFile->getNofProgressBars():%d, "
                 "m_ProgressBars:%d,totalProgress:%d  ",
                 itemPercent, static_cast<int>(step->itemBars), static_cast<int>(m_Progress.AllBars()),
                 step->scaled);
    LOG_TRACE_AS(kGetAbsoluteProgress, "\t actualProgress:%d, m_LastProgressUpdate:%d", step->delta,
                 m_Progress.LastUpdate());
  }
  LOG_TRACE_AS(kGetAbsoluteProgress, "\t return m_CurrentProgress:%d", m_Progress.Current());
  return m_Progress.Overall();
}

void Attempt::ReportProgress(const char* statusText) {
  const int percent = GetAbsoluteProgress(statusText);
  UnlessAbandoned([percent] { Service().reportProgress(percent); });
}

}  // namespace corvel
