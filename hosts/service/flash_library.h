#pragma once

#include <optional>
#include <string>

#include "handshake.h"

/// Why the flash library does not serve.
struct LibraryFailure {
  unsigned long serviceCode;
  std::wstring reason;
};

/// The flash library in this process.
struct FlashLibrary {
  /// Nothing when it serves.
  std::optional<LibraryFailure> failure;
  /// Where it and the controlling program meet.
  HandshakeKey key;
};

/// Loads the flash library, which starts its supervisor, and looks whether it found its configuration.
/// Loaded here and not by the loader: the verbs that only manage the service must not start it.
FlashLibrary LoadFlashLibrary();

/// The handshake key that the configuration names at present; nothing when it cannot be read.
std::optional<HandshakeKey> FlashServiceKey();
