#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fault/campaign_service.h"
#include "simulator/call_hooks.h"
#include "simulator/program/scenarios/scenario.h"

namespace campaign {

/// What goes wrong with one function in a job.
struct SingleFault {
  std::string function;
  int call = 1;
  simulator::CallFault::Way way = simulator::CallFault::Way::Refused;
  int times = 1;                  ///< in a row; Occurrence::kForEver for good
  std::chrono::seconds delay{0};  ///< in virtual time

  /// "CreateThread 2", or "WriteFile 1 after its effect".
  std::string Name() const;
  simulator::CallFault Fault() const;
};

/// What goes wrong in one job.
struct FaultCase {
  std::vector<SingleFault> faults;

  std::string Name() const;
  bool Has(simulator::CallFault::Way way) const;
  bool LastsForGood() const;
};

/// The calls of a job, by function.
using CallCounts = std::map<std::string, int>;

/// Every plausible failure of every call to what the library imports, in a fixed order.
std::vector<FaultCase> AllCases(const CallCounts& calls);
/// The same of what is called while a process begins, except that of many calls of a function not all fail.
std::vector<FaultCase> CasesOfStart(const CallCounts& calls);
/// Of each function, at each place from which it is called and in each stage of the job, the first, the
/// second and the last call.
std::vector<FaultCase> RepresentativeCases(const std::vector<simulator::MadeCall>& calls);
/// All that can go wrong with each call of the flashing library and of the service's objects.
std::vector<FaultCase> ForeignCases(const CallCounts& calls);
/// Of each function one call that is late by less and by more than an attempt may take, and one that never
/// returns.
std::vector<FaultCase> TimingCases(const CallCounts& calls);
/// Of each function calls that fail twice in a row, and for good.
std::vector<FaultCase> RepeatedCases(const CallCounts& calls);
/// Every two of the first plausible failures of the functions.
std::vector<FaultCase> PairCases(const CallCounts& calls);
/// So many times any three plausible failures, by that seed.
std::vector<FaultCase> TripleCases(const CallCounts& calls, std::size_t count, std::uint32_t seed);

/// A campaign keeps its cases in a file: the next process that goes on with it may count other calls.
void SaveCases(const std::vector<FaultCase>& cases, const std::filesystem::path& file);
/// Empty without such a file.
std::vector<FaultCase> LoadCases(const std::filesystem::path& file);

/// A row of the page about what is not held.
struct NotHeldRow {
  const char* seen;
  const char* reason;
};

/// What the service does not promise to survive as if nothing had been.
struct NotHeld {
  const char* function;                          ///< null: whichever
  std::optional<simulator::Route> route;         ///< nothing: whichever
  std::optional<simulator::CallFault::Way> way;  ///< nothing: whichever, or none at all
  const char* finding;                           ///< how the finding begins
  NotHeldRow row;                                ///< several entries may have the same
  bool isProcessSpoiled = false;                 ///< only a restart of the service brings it back

  /// The function, or what stands for one.
  const char* What() const;
};

/// The way in which a call fails, in words behind its name.
const char* TextOf(simulator::CallFault::Way way);

// Findings of a service that does not begin, and of one that does not go on while a call hangs, of its own
// thread or of another.
inline constexpr char kNobodyKnows[] = "it does not come to wait, and the host does not know";
inline constexpr char kHeldWithItsCall[] = "the service hangs with its call";
inline constexpr char kNextJobWhileHeld[] = "while its call hangs, the next job: ";
inline constexpr char kOldAttemptWrites[] =
    "an attempt that was given up writes over a newer one's percentage";
inline constexpr char kFalseSuccess[] = "success is reported, but the memory is not equal";
inline constexpr char kWaitsForHeldCall[] = "the service waits for a call of another thread that hangs";
// And of one that was started anew.
inline constexpr char kRequestUnheard[] = "the host that is left has not heard of a request";
inline constexpr char kResultForgotten[] = "the new host takes back the result of a job that was over";

/// Null when nothing excuses the finding.
const NotHeld* ExcuseOf(const FaultCase& fault, simulator::Route route, const std::string& finding);
/// The list, for the page that shows it.
const std::vector<NotHeld>& EverythingNotHeld();

}  // namespace campaign
