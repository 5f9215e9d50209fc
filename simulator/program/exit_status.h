#pragma once

namespace simulator {

/// What the program's exit status says. Documented for scripts; do not renumber.
enum class ExitStatus : int {
  Good = 0,     ///< flashed and compared equal, or all expectations hold
  NotGood = 1,  ///< the flash failed, or an expectation does not hold
  WrongUsage = 2,
  CouldNotRun = 3,    ///< the virtual PC could not be set up, crashed or hung
  Interrupted = 130,  ///< ended by Ctrl+C; what shells say of a program that it ended
};

}  // namespace simulator
