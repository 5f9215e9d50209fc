#pragma once

#include "hosts/common/problem.h"

namespace hosts {

/// Prints a problem of this program: as a JSON error object on standard output, or in words on standard
/// error.
void Report(const Problem& problem, bool json);

}  // namespace hosts
