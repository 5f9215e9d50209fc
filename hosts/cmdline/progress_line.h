#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "hosts/common/handshake.h"

namespace hosts {

/// What a live line tells.
struct Progress {
  std::string stage;
  std::uint32_t percent = 0;
  int attempt = 1;
  long long elapsedSeconds = 0;
  /// Of the time limit of an attempt with the modem's return; nothing while none is running.
  std::optional<long long> remainingSeconds = std::nullopt;
};
/// The live line of a terminal of so many columns. It is one narrower, whatever it tells, and leaves out what
/// does not fit: first the limit, then the bar, then the word "attempt", then its number.
std::string LiveLine(const Progress& now, std::size_t columns);

/// A live line on standard error, which is a terminal.
class LiveOutput {
 public:
  /// Writes over the line that stands there.
  void Draw(const Progress& now);
  /// Ends the line, so that what follows begins on a line of its own.
  void Finish();

 private:
  bool m_Open = false;
};

/// Shows how a flash comes along: one line that is written over on a terminal, a line per change of stage
/// or ten percent elsewhere.
class ProgressLine {
 public:
  explicit ProgressLine(bool quiet);

  /// Takes in what the library says now and shows it.
  void Show(const Handshake& values);
  /// Ends the live line, so that what follows begins on a line of its own.
  void Finish();

  int Attempts() const { return m_Attempts; }

 private:
  using Clock = std::chrono::steady_clock;

  void TakeIn(const Handshake& values);
  Progress Now(const Handshake& values) const;
  std::string PlainText(const Handshake& values) const;
  long long SecondsSince(Clock::time_point begin) const;
  std::optional<long long> RemainingSeconds(const Handshake& values) const;

  bool m_Quiet;
  bool m_Live;
  LiveOutput m_Line;
  std::string m_LastPlain;
  int m_Attempts = 0;
  std::uint32_t m_LastResult = 0;
  Clock::time_point m_Begin = Clock::now();
  Clock::time_point m_AttemptBegin = Clock::now();
};

}  // namespace hosts
