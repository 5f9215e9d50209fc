#pragma once

#include <windows.h>

#include <cstdint>

/// What the whole process knows of the flashing library's channels: the number of the last one, and which
/// attempt used one last. Any thread; the lock inside is held for a few instructions, never during a call
/// into the library.
///
/// Closing a channel resets the modem's baseband. An attempt that was given up may come back at any time and
/// close the channel that it left open, or be given up inside a close, but never closes while a newer attempt
/// flashes:
///
/// * An attempt takes the channel before it calls the library for one. An older one that comes back later
///   finds it taken, and leaves its own as it is.
/// * Whoever has it marks it as "being closed" before each close, given up or not. A newer attempt that comes
///   meanwhile cannot take it, and waits until the close is over. Then nobody has it.
///
/// Whichever of the two comes first, the close is either left out or over before the newer channel is opened.
/// A close that does not come back must not keep the modem from ever being flashed: it is waited for once,
/// and not for long. Whoever takes the channel then has it, however the close ends.
namespace corvel::flash_channel {

/// How long the whole process waits for one late close, counted from the first attempt that meets it.
inline constexpr DWORD kLongestWaitForLateCloseMs = 5000;

/// A number that no other attempt of this process has.
std::uint64_t NewAttempt();

/// The number of the channel that was used last; 0 before the first.
std::uint8_t Last();
void SetLast(std::uint8_t channel);

enum class Claim {
  Refused,    ///< Another attempt is closing its channel: ask again.
  Taken,      ///< The attempt has it.
  TakenOver,  ///< The same, from a close that was waited for long enough.
};

/// Makes `attempt` the one that used a channel last. Only for an attempt that was not given up.
Claim Take(std::uint64_t attempt);

/// The right of an attempt to close its channel, for as long as the call takes. The attempt then has the
/// channel no longer, and takes it anew before it opens another.
class LateClose {
 public:
  explicit LateClose(std::uint64_t attempt);
  ~LateClose();
  LateClose(const LateClose&) = delete;
  LateClose& operator=(const LateClose&) = delete;

  /// False when the attempt has not got the channel: a newer one has, or nobody.
  bool IsAllowed() const { return m_Allowed; }

 private:
  std::uint64_t m_Attempt;
  bool m_Allowed;
};

}  // namespace corvel::flash_channel
