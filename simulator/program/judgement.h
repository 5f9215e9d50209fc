#pragma once

#include <string>
#include <vector>

#include "simulator/program/scenarios/scenario.h"
#include "simulator/program/session.h"

namespace simulator {

/// How a run differed from what was expected, a sentence each; empty when all expectations hold.
std::vector<std::string> Differences(const Expectation& expected, const SessionReport& report);

}  // namespace simulator
