#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "simulator/call_hooks.h"
#include "simulator/program/scenario.h"

namespace campaign {

/// One call that goes wrong in a job.
struct FaultCase {
  std::string function;
  int call = 1;
  simulator::CallFault::Way way = simulator::CallFault::Way::Refused;

  /// "CreateThread 2", or "WriteFile 1 after its effect".
  std::string Name() const;
  simulator::CallFault Fault() const;
};

/// Every plausible failure of every call of a job, in a fixed order.
std::vector<FaultCase> AllCases(const std::map<std::string, int>& calls);
/// Of each function the first, a middle and the last call alone.
std::vector<FaultCase> RepresentativeCases(const std::map<std::string, int>& calls);

/// A campaign keeps its cases in a file: the next process that goes on with it may count other calls.
void SaveCases(const std::vector<FaultCase>& cases, const std::filesystem::path& file);
/// Empty without such a file.
std::vector<FaultCase> LoadCases(const std::filesystem::path& file);

/// What the service does not promise to survive as if nothing had been, and why.
struct NotHeld {
  const char* function;
  std::optional<simulator::Route> route;  ///< nothing: whichever
  const char* finding;                    ///< how the finding begins
  bool isProcessSpoiled;                  ///< only a restart of the service brings it back
  const char* reason;
};

/// Null when nothing excuses the finding.
const NotHeld* ExcuseOf(const FaultCase& fault, simulator::Route route, const std::string& finding);
/// The list, for who writes it down.
const std::vector<NotHeld>& EverythingNotHeld();

}  // namespace campaign
