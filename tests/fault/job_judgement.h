#pragma once

#include <string>

#include "fault/campaign_service.h"

namespace campaign {

/// What of the end of a job the contract does not allow, in words; empty when it allows all of it.
std::string WhatIsWrongWith(const JobEnd& end);
/// The same of a job in which nothing fails.
std::string WhatIsWrongWithSound(const JobEnd& end);

/// The same of a service that begins where another process has ended, once it waits for a request: what stood
/// then is done, and what did not is not told of again.
/// @param before the values that it has found.
std::string WhatIsWrongWithGoingOn(const hosts::Handshake& before, const JobEnd& end);

}  // namespace campaign
