#pragma once

namespace hosts {

/// Shows the history beside the program, oldest job first. @return false when it cannot be read; that is
/// told under the program's name, as every problem is.
bool ShowHistory(const char* program, bool json);

}  // namespace hosts
