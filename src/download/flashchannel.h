#pragma once

#include <cstdint>

/// What the whole process knows of the flashing library's channels: the number of the last one, and which
/// attempt used one last. Any thread; nothing here blocks.
///
/// Closing a channel resets the modem's baseband. An attempt that was given up may come back at any time and
/// close the channel that it left open, but never while a newer attempt flashes. One word decides between
/// them, so that nothing has to be locked while the library is inside a call:
///
/// * An attempt takes the word before it calls the library for a channel. An older one that comes back later
///   finds it taken, and leaves its channel as it is.
/// * An older attempt that still holds the word turns it into "being closed" before it calls the library. A
///   newer attempt that comes meanwhile cannot take it, and waits until the close is over.
///
/// Whichever of the two comes first, the close is either left out or over before the newer channel is opened.
namespace FlashChannel {

/// A number that no other attempt of this process has.
std::uint64_t NewAttempt();

/// The number of the channel that was used last; 0 before the first.
std::uint8_t Last();
void SetLast(std::uint8_t channel);

/// Makes `attempt` the one that used a channel last. Only for an attempt that was not given up.
/// @return false while an older one is closing its channel.
bool Take(std::uint64_t attempt);

/// The right of an attempt that was given up to close its channel, for as long as the call takes.
class LateClose {
 public:
  explicit LateClose(std::uint64_t attempt);
  ~LateClose();
  LateClose(const LateClose&) = delete;
  LateClose& operator=(const LateClose&) = delete;

  /// False when a newer attempt has used a channel.
  bool IsAllowed() const { return m_allowed; }

 private:
  bool m_allowed;
};

}  // namespace FlashChannel
