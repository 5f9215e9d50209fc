#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "common/handles.h"
#include "download/flashchannel.h"
#include "download/flashlibrary.h"
#include "download/progress.h"

namespace corvel {

/// One attempt at a download: what all threads that work for it share. An attempt that overran its time is
/// abandoned, not stopped: its threads keep it, and with it the library and the buffers that they use.
/// Whoever works for an abandoned one takes no further step that anybody outside can see.
class Attempt : public std::enable_shared_from_this<Attempt> {
 public:
  /// The attempt that the calling thread works for; else the present one, if there is one.
  static std::shared_ptr<Attempt> OfThisThread();
  /// Names the present attempt; null: there is none any more.
  static void SetPresent(std::shared_ptr<Attempt> attempt);

  /// Makes the calling thread one that works for an attempt while it lives.
  class ThreadScope {
   public:
    explicit ThreadScope(Attempt& attempt);
    ~ThreadScope();
    ThreadScope(const ThreadScope&) = delete;
    ThreadScope& operator=(const ThreadScope&) = delete;

    /// False, with the last error set, when the system had no room to note it: what the library reports on
    /// this thread could not be told from the news of another attempt.
    bool IsNoted() const { return m_Noted; }

   private:
    Attempt* m_Outer;
    bool m_Noted;
  };

  void Abandon();
  /// True once a newer attempt may be running.
  bool IsAbandoned() const { return m_Abandoned; }
  const std::atomic<bool>& Abandoned() const { return m_Abandoned; }
  /// Does `step` unless the attempt is abandoned, and keeps it from being abandoned meanwhile.
  template <typename Step>
  void UnlessAbandoned(Step step) {
    const ScopedLock lock(m_AbandonLock);
    if (!m_Abandoned) step();
  }

  /// Binds the attempt to a library for good; null when there was no memory for one.
  void SetLibrary(std::shared_ptr<FlashLibrary> library) { m_Library = std::move(library); }
  /// The functions of this attempt's library; none when it could not be bound.
  const FunctionTable& Library() const;
  /// Where the library writes its reasons.
  char* Status() { return m_Status.data(); }
  /// Calls into the flashing library. @return nothing when it lacks the function, or the attempt was given
  /// up.
  template <typename Function, typename... Arguments>
  auto TryLibrary(Function* function, Arguments... arguments)
      -> std::optional<decltype(function(arguments...))> {
    if (function == nullptr || IsAbandoned()) return std::nullopt;
    return function(arguments...);
  }
  /// The same, where a call that was not made counts as one that failed with `failed`.
  template <typename Function, typename Result, typename... Arguments>
  Result CallLibrary(Function* function, Result failed, Arguments... arguments) {
    return static_cast<Result>(TryLibrary(function, arguments...).value_or(failed));
  }

  /// A number that no other attempt has.
  std::uint64_t Number() const { return m_Number; }
  /// The channel of the last attempt until this one has its own: a session that fails before its boot closes
  /// that one.
  std::uint8_t Channel() const { return m_Channel; }
  void SetChannel(std::uint8_t channel);
  /// Tries to become the one that works on the library's channel. Refused to an abandoned attempt.
  flash_channel::Claim TakeChannel();
  bool HasTakenChannel() const { return m_ChannelTaken; }
  /// Closes the channel. An attempt that was given up closes only what it has opened itself, and only while
  /// no newer one has used a channel; nobody else does it.
  /// @param opened whether this attempt has opened it.
  /// @param procedure the one under whose name this is logged.
  /// @return what the library said; nothing when it was not asked.
  std::optional<int> CloseChannel(bool opened, const char* procedure);

  corvel::Progress& Progress() { return m_Progress; }
  /// Overall percentage, 0 to 100, from the present item's percentage as the library's callback reports it.
  int GetAbsoluteProgress(const char* statusText);
  /// Takes that in and tells the controlling program, unless the attempt is abandoned.
  void ReportProgress(const char* statusText);

 private:
  std::atomic<bool> m_Abandoned{false};
  SRWLOCK m_AbandonLock = SRWLOCK_INIT;
  std::shared_ptr<FlashLibrary> m_Library;
  StatusText m_Status{};
  const std::uint64_t m_Number = flash_channel::NewAttempt();
  std::atomic<std::uint8_t> m_Channel{flash_channel::Last()};
  std::atomic<bool> m_ChannelTaken{false};
  corvel::Progress m_Progress;
};

}  // namespace corvel
