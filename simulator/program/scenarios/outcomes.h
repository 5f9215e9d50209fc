#pragma once

#include <cstdint>
#include <optional>

#include "hosts/common/handshake.h"

// What the rows of several groups expect, and the items of the default images that they name.
namespace simulator {

// Overall percentages after parts of the default images. An item's own percentages are scaled by its share
// of the 57 progress steps, rounded, and only rises count, so the sum stays below 100.
inline constexpr std::uint32_t kProgressBeforeCode = 5;
inline constexpr std::uint32_t kProgressBeforeNvm = 64;
inline constexpr std::uint32_t kProgressOfAllItems = 93;

inline constexpr int kItemPsi = 0;
inline constexpr int kItemCode = 2;
inline constexpr int kItemRootDisk = 7;
inline constexpr int kAnyItem = -1;

/// What the controlling program finds after a job that flashed the modem.
hosts::Handshake Success(std::optional<std::uint32_t> retryTimes = std::nullopt);
/// What it finds after one that did not.
hosts::Handshake Failure(std::uint32_t progress = 0, std::optional<std::uint32_t> retryTimes = std::nullopt);
/// What it finds when nobody heard its request.
hosts::Handshake Unheard();

}  // namespace simulator
