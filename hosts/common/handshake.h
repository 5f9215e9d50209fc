#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "controller.h"

namespace hosts {

using corvel::FlashResult;
using corvel::kOnGoingValue;
using corvel::kProgressValue;
using corvel::kReadyValue;
using corvel::kResultValue;
using corvel::kRetryTimesValue;
using corvel::kTimeOutValue;

/// Where the library and its controlling program meet.
struct HandshakeKey {
  HKEY root = HKEY_LOCAL_MACHINE;
  std::wstring rootName = L"HKLM";
  std::wstring path;

  std::string Text() const;
  /// Equal for two of them exactly when the registry takes them for one key.
  std::wstring Identity() const;
};

using Handshake = corvel::FlashValues;

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

/// Signals an event whenever a value under the key changes.
class HandshakeWatch : public corvel::FlashKeyWatch {
 public:
  /// Throws when the system refuses the event.
  explicit HandshakeWatch(const HandshakeKey& key);
};

}  // namespace hosts
