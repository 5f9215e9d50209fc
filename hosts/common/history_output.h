#pragma once

/// Shows the history beside the program, oldest job first. @return false when it cannot be read; that is
/// told under the program's name, as every problem is.
bool ShowHistory(const char* program, bool json);
