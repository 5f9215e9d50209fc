#pragma once

#include <cstddef>
#include <string>

#include "fault/campaign_service.h"
#include "fault/owned_memory.h"
#include "support/handle_census.h"

namespace campaign {

/// What a process holds between two jobs of its service.
struct Holdings {
  int threads = 0;
  HandleCensus handles;     ///< without the keys that reads of the registry leave open, as they are meant to
  OwnedMemory::Use memory;  ///< of the library
  int objects = 0;          ///< of the Mobile Broadband service, to which somebody holds a reference
  bool operator==(const Holdings&) const = default;
};

Holdings CountHoldings(Service& service);
/// Once nothing ends any more that nobody waits for.
Holdings SettledHoldings(Service& service, const Holdings& expected);
/// What there is more of now, in words; empty when nothing is.
std::string Grown(const Holdings& before, const Holdings& now);

}  // namespace campaign
