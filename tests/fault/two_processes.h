#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "fault/campaign_service.h"

namespace campaign {

/// Two hosts on one key and one modem, each in a process of its own, of which one may die.
struct PairPlan {
  simulator::Route route = simulator::Route::Mbim;
  std::size_t seed = 1;
  std::wstring key;   ///< is there already; whoever made it removes it
  std::wstring name;  ///< by which the processes meet; no other pair has it
};

/// What came of one request to both.
struct PairRound {
  std::string what;  ///< in words
  /// Both dealt with the request, and the one that was to end ended while it did.
  bool isReached = false;
  unsigned toOneLeft = 0;  ///< requests that a host that was left had to deal with
  /// Those of which the host that was left had not heard, as two hosts of a session may not; it was
  /// started anew.
  unsigned unheard = 0;
  std::string finding{};  ///< empty for none
};

/// Words of the command line by which this program becomes host number 0 or 1.
using HostWords = std::function<std::vector<std::wstring>(unsigned number)>;

/// Lays images, asks, lets hosts end and starts them anew, beside their processes.
void RunPair(const PairPlan& plan, const HostWords& words, const std::function<void(const PairRound&)>& tell);

/// One of the hosts, in its process. @return when the library cannot be loaded: an exit status.
int RunHostOfPair(const PairPlan& plan, unsigned number);

}  // namespace campaign
