#pragma once

#include <string>
#include <vector>

#include "simulator/program/scenario.h"
#include "simulator/program/session.h"

namespace simulator {

/// What a run did otherwise than expected, a sentence each; empty when all expectations hold.
std::vector<std::string> Differences(const Expectation& expected, const SessionReport& report);

}  // namespace simulator
