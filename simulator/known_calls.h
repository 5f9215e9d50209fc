#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace simulator {

/// What a function that the product calls is, and what a call looks like that failed.
struct KnownCall {
  enum class Kind {
    Platform,  ///< of the system
    Local,     ///< of the system, but nothing outside of the process can tell whether it was called
    Runtime,   ///< of the C runtime
    Library,   ///< of the flashing library
    Object     ///< of an object of the Mobile Broadband service
  };
  enum class Failure {
    None,        ///< it cannot fail, or nothing is described that a caller could see
    Plausible,   ///< on a sound PC: lack of memory, a file in somebody else's hands, a device that went away
    Implausible  ///< not while its caller does what it does; no job is run with it
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
  /// What it returns that did not do what it says; nothing when nobody takes it at its word.
  std::optional<std::uint64_t> success = std::nullopt;
  std::optional<std::uint64_t> undocumented = std::nullopt;  ///< neither success nor failure

  /// What else a failing call leaves behind, where a caller looks for that; null for nothing.
  void (*leaves)(std::uint64_t argument) = nullptr;
  int leavesFor = 0;  ///< the argument that is told; one of the first four

  const char* whyImplausible = nullptr;  ///< set when its failure is

  bool CanFail() const { return failure != Failure::None; }
};

/// All functions that the product imports and of which something is known; each name once.
std::span<const KnownCall> KnownCalls();
/// What it does not import, but is given while it runs: functions of the flashing library, by their exported
/// names, and of objects ("IMbnDeviceService::SetCommand").
std::span<const KnownCall> KnownForeignCalls();
/// Null for a function of which nothing is known.
const KnownCall* FindKnownCall(std::string_view name);
/// Whether a function looks at its caller's frame or at where it returns to: nothing may stand in front of
/// it.
bool InspectsItsCaller(std::string_view name);

}  // namespace simulator
