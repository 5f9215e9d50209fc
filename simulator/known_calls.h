#pragma once

#include <windows.h>

#include <cstdint>
#include <span>
#include <string_view>

namespace simulator {

/// What a function that the product imports is, and what a call looks like that failed.
struct KnownCall {
  enum class Kind {
    Platform,  ///< of the system
    Local,     ///< of the system, but nothing outside of the process can tell whether it was called
    Runtime    ///< of the C runtime
  };
  enum class Failure {
    None,        ///< it cannot fail, or nothing is described that a caller could see
    Plausible,   ///< on a sound PC: lack of memory, a file in somebody else's hands, a device that went away
    Implausible  ///< only when the caller gave it something wrong
  };
  enum class Tells { ByLastError, ByResult };

  const char* name;
  Kind kind = Kind::Platform;
  Failure failure = Failure::None;
  Tells tells = Tells::ByLastError;
  std::uint64_t result = 0;  ///< of a failing call
  DWORD lastError = 0;       ///< behind a failing call; 0 leaves it as it is
  /// It may tell of a failure although what was asked for has happened.
  bool mayHaveTakenEffect = false;

  bool CanFail() const { return failure != Failure::None; }
};

/// All functions of which something is known; each name once.
std::span<const KnownCall> KnownCalls();
/// Null for a function of which nothing is known.
const KnownCall* FindKnownCall(std::string_view name);
/// Whether a function looks at its caller's frame or at where it returns to: nothing may stand in front of
/// it.
bool InspectsItsCaller(std::string_view name);

}  // namespace simulator
