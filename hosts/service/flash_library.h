#pragma once

#include <optional>
#include <string>

#include "handshake.h"

/// Why the flash library does not serve.
struct LibraryFailure {
  unsigned long serviceCode;
  std::wstring reason;
};

/// Loads the flash library, which starts its supervisor, and looks whether it found its configuration.
/// Loaded here and not by the loader: the verbs that only manage the service must not start it.
std::optional<LibraryFailure> LoadFlashLibrary();

/// The handshake key that the library took from the configuration.
HandshakeKey FlashServiceKey();

/// True while an attempt is running, from booting the modem to its return.
bool IsFlashing();
