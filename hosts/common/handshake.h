#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hosts/common/owners.h"

namespace hosts {

/// Flash_Result as the library writes it.
enum class FlashResult : std::uint32_t { Idle = 0, Flashing = 1, Retrying = 2, Failed = 3, Succeeded = 4 };

/// Where the library and its controlling program meet.
struct HandshakeKey {
  HKEY root = HKEY_LOCAL_MACHINE;
  std::wstring rootName = L"HKLM";
  std::wstring path;

  std::string Text() const;
  /// Equal for two of them exactly when the registry takes them for one key.
  std::wstring Identity() const;
};

/// The values of the handshake; empty where a value is absent or no number.
struct Handshake {
  std::optional<std::uint32_t> ready;
  std::optional<std::uint32_t> retryTimes;
  std::optional<std::uint32_t> timeOut;
  std::optional<std::uint32_t> onGoing;
  std::optional<std::uint32_t> progress;
  std::optional<std::uint32_t> result;
  /// Why one of them could not be read although it may be there; 0 when there is none such.
  DWORD error = ERROR_SUCCESS;

  bool Is(FlashResult code) const { return result == static_cast<std::uint32_t>(code); }
  /// True from the first download attempt to the end of the job, pauses before a repetition included.
  bool IsJobRunning() const {
    return onGoing == 1u && (Is(FlashResult::Flashing) || Is(FlashResult::Retrying));
  }
  /// True from the request to its end: the library takes the flag back last, when the result is written.
  bool IsJobOpen() const { return ready == 1u || IsJobRunning(); }
  /// True while the library must not be cut off: the modem is brought into flash mode, written or waited
  /// for, or the result is written and the flag not yet taken back, so that the job would be done again.
  bool IsAttemptRunning() const {
    if (Is(FlashResult::Flashing)) return onGoing == 1u || ready == 1u;
    return ready == 1u && (Is(FlashResult::Failed) || Is(FlashResult::Succeeded));
  }
};

/// One value with its name and what it says, for people.
struct HandshakeLine {
  const wchar_t* name;
  std::optional<std::uint32_t> value;
  std::string meaning;
};

/// Whether the host that wrote the values still runs: a job that a dead one left open is over.
enum class Writer { Lives, Gone };

Handshake ReadHandshake(const HandshakeKey& key);
std::vector<HandshakeLine> Describe(const Handshake& values, Writer writer = Writer::Lives);
std::string MeaningOfResult(std::optional<std::uint32_t> result, Writer writer = Writer::Lives);
/// @return the Win32 error, 0 on success. Makes the key if necessary.
DWORD WriteHandshakeValue(const HandshakeKey& key, const wchar_t* name, std::uint32_t value);
/// @return the Win32 error of opening the key as the library does, or of making it where it is not there; 0
/// when that can be done. Makes nothing itself.
DWORD CheckHandshakeKeyWritable(const HandshakeKey& key);

/// Signals an event whenever a value under the key changes. Arm first, then look, then wait: a change
/// between two looks is then never missed.
class HandshakeWatch {
 public:
  explicit HandshakeWatch(HandshakeKey key);

  /// Arms the event again after a change; while no change has come, it stays armed.
  /// @return the Win32 error, 0 when the event will be signalled at the next change; ERROR_FILE_NOT_FOUND
  /// while there is no key.
  DWORD Arm();
  HANDLE Event() const { return m_Event.get(); }

 private:
  bool IsArmed() const;
  DWORD Open();

  HandshakeKey m_Location;
  // In this order the key is closed first: that signals the event.
  OwnedHandle m_Event = NewEvent();
  OwnedKey m_Key;
  bool m_Armed = false;
};

}  // namespace hosts
