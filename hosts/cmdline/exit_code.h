#pragma once

namespace hosts {

/// What the program's exit status says. Documented for scripts; do not renumber.
enum class ExitCode : int {
  Success = 0,  ///< flashed or, without a flash, nothing wrong
  FlashFailed = 1,
  WrongUsage = 2,
  NoImages = 3,
  NotReady = 4,
  Interrupted = 5,
};

}  // namespace hosts
