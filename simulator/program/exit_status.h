#pragma once

/// What the program's exit status says. Documented for scripts; do not renumber.
enum class ExitStatus : int {
  kGood = 0,     ///< flashed and compared equal, or all expectations hold
  kNotGood = 1,  ///< the flash failed, or an expectation does not hold
  kWrongUsage = 2,
  kCouldNotRun = 3,    ///< the virtual PC could not be set up, crashed or hung
  kInterrupted = 130,  ///< ended by Ctrl+C; what shells say of a program that it ended
};
