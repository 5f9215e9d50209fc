#pragma once

#include <string>

#include "fault/campaign_service.h"

namespace campaign {

/// What of the end of a job the contract does not allow, in words; empty when it allows all of it.
std::string WhatIsWrongWith(const JobEnd& end);
/// The same of a job in which nothing fails.
std::string WhatIsWrongWithSound(const JobEnd& end);

}  // namespace campaign
