#pragma once

#include <string>
#include <vector>

#include "scenario.h"
#include "session.h"

/// What a run did otherwise than expected, a sentence each; empty when all expectations hold.
std::vector<std::string> Differences(const Expectation& expected, const SessionReport& report);
