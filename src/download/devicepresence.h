#pragma once

#include "common/facts.h"

namespace corvel {

// The devices that callers look for.
using facts::kAtPortId;
using facts::kFlashPortId;
using facts::kMbimModemId;

/// One look at the device tree: true when the id of a present device contains `id`, whatever its case.
/// A list that cannot be read counts as absence. Any thread.
bool IsDevicePresent(const wchar_t* id);

// The same for one of the modem's functions, logged as the engine's own look.
bool IsMbimModemPresent();
bool IsFlashPortPresent();

/// Asks Plug and Play to look at the whole device tree again; it does so on its own time.
/// @return false, logged, when the tree's root was not found or the request was refused.
bool ReenumerateDeviceTree();
/// The same, with half a second before and after, for use after a baseband reset.
void ReenumerateDeviceTreeAndSettle();

}  // namespace corvel
