#pragma once

#include <string>

#include "support/handle_census.h"

namespace campaign {

/// What the process holds, but for the keys that reading the registry leaves open, as it is meant to.
struct Holdings {
  int threads = 0;
  HandleCensus handles;
  bool operator==(const Holdings&) const = default;
};

Holdings CountHoldings();
/// Once nothing ends any more that nobody waits for.
Holdings SettledHoldings(const Holdings& expected);
/// What there is more of now, in words; empty when nothing is.
std::string Grown(const Holdings& before, const Holdings& now);

}  // namespace campaign
