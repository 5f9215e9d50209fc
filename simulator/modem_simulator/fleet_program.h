#pragma once

#include "simulator/modem_simulator/command_line.h"

namespace simulator {

/// Runs a fleet, or a single PC of one, and tells what became of it. @return the exit status.
int RunFleet(const Command& command);
/// One process of a PC of the fleet, in its folder.
[[noreturn]] void RunLifeOf(const Command& command);

}  // namespace simulator
