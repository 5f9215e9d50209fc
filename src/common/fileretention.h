#pragma once

#include "common/tstring.h"

namespace corvel {

/// How many logs of the flashing library are kept at most, the one of the running session among them.
inline constexpr int kMostDownloadLogs = 5;

/// Deletes the first-listed files that match `pattern` until `count` remain. Lack of memory, or a folder that
/// cannot be listed to its end, leaves more of them.
/// @param pattern full path with wildcards in its last part; empty: nothing is deleted.
void KeepFiles(const CTString& pattern, unsigned int count) noexcept;

}  // namespace corvel
