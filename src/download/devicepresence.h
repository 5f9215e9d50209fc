#pragma once

#include "common/facts.h"

// The devices that callers look for.
using corvel::facts::kAtPortId;
using corvel::facts::kFlashPortId;
using corvel::facts::kMbimModemId;

/// One look at the device tree: true when the id of a present device contains `id`, whatever its case.
/// A list that cannot be had counts as absence. Any thread.
bool IsDevicePresent(const wchar_t* id);
