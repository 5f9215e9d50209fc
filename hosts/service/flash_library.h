#pragma once

#include <optional>
#include <string>

#include "hosts/common/handshake.h"

namespace hosts {

/// Why the flash library does not serve.
struct LibraryFailure {
  unsigned long serviceCode;
  std::wstring reason;
};

/// The flash library in this process.
struct LoadedLibrary {
  /// Nothing when it serves.
  std::optional<LibraryFailure> failure;
  /// Where it and the controlling program meet.
  HandshakeKey key;
  /// What else is to be told of its start, in words; empty: nothing.
  std::string warning = {};
};

/// Loads the flash library, which starts its supervisor, and looks whether it found its configuration.
/// Loaded here and not by the loader: the verbs that only manage the service must not start it. The log of
/// the run before is kept first.
LoadedLibrary LoadFlashLibrary();

/// The handshake key that the configuration names at present; nothing when it cannot be read.
std::optional<HandshakeKey> FlashServiceKey();

}  // namespace hosts
