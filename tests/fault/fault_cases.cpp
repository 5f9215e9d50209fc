#include "fault/fault_cases.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <string_view>

#include "simulator/known_calls.h"

namespace campaign {

using namespace simulator;

namespace {

using Way = CallFault::Way;

constexpr char kAtPortKept[] =
    "an AT port that was refused once is refused to every later attempt of the process: the service has to "
    "be "
    "restarted, as docs/hosts.md says";

/// Adds what may go wrong with the chosen calls of one function.
void AddCases(const KnownCall& known, const std::set<int>& numbers, std::vector<FaultCase>& cases) {
  for (const int number : numbers) {
    cases.push_back({known.name, number, Way::Refused});
    if (known.mayHaveTakenEffect) cases.push_back({known.name, number, Way::RefusedAfterEffect});
  }
}

template <typename Choose>
std::vector<FaultCase> CasesOf(const std::map<std::string, int>& calls, Choose choose) {
  std::vector<FaultCase> cases;
  for (const auto& [function, count] : calls) {
    const KnownCall* const known = FindKnownCall(function);
    if (known == nullptr || known->failure != KnownCall::Failure::Plausible) continue;
    AddCases(*known, choose(count), cases);
  }
  return cases;
}

}  // namespace

std::string FaultCase::Name() const {
  return function + " " + std::to_string(call) + (way == Way::RefusedAfterEffect ? " after its effect" : "");
}

CallFault FaultCase::Fault() const {
  return {.function = function, .calls = Occurrence::Only(call), .way = way};
}

std::vector<FaultCase> AllCases(const std::map<std::string, int>& calls) {
  return CasesOf(calls, [](int count) {
    std::set<int> all;
    for (int number = 1; number <= count; ++number) all.insert(number);
    return all;
  });
}

std::vector<FaultCase> RepresentativeCases(const std::map<std::string, int>& calls) {
  return CasesOf(calls, [](int count) { return std::set<int>{1, std::min(2, count), count}; });
}

void SaveCases(const std::vector<FaultCase>& cases, const std::filesystem::path& file) {
  std::ofstream stream(file);
  for (const FaultCase& each : cases)
    stream << each.function << ' ' << each.call << ' ' << static_cast<int>(each.way) << '\n';
}

std::vector<FaultCase> LoadCases(const std::filesystem::path& file) {
  std::vector<FaultCase> cases;
  std::ifstream stream(file);
  FaultCase each;
  for (int way = 0; stream >> each.function >> each.call >> way; cases.push_back(each))
    each.way = static_cast<Way>(way);
  return cases;
}

const std::vector<NotHeld>& EverythingNotHeld() {
  static const std::vector<NotHeld> list{
      {"CreateSemaphoreW", std::nullopt, "leaves behind: Thread +1", false,
       "the handle of the search for the flash port is left open, and the search goes on until the port is "
       "found: "
       "that is how this failure is known in the field"},
      {"DeleteFileW", std::nullopt, "the image is left", false,
       "an image that cannot be deleted stays; the controlling program sees it in the folder, and writes its "
       "next "
       "images in its place"},
      {"RegSetValueExW", std::nullopt, "no documented end: result 1, ready 0", false,
       "a value of the handshake is written once: a result that the registry refuses is in the log alone, "
       "and "
       "the controlling program sees the job end without 3 or 4"},
      // A port that is not found is one that cannot be opened.
      {"CM_Get_Device_ID_ListW", Route::At, "the next job: it fails", true, kAtPortKept},
      {"CM_Locate_DevNodeW", Route::At, "the next job: it fails", true, kAtPortKept},
      {"CM_Get_DevNode_Registry_PropertyW", Route::At, "the next job: it fails", true, kAtPortKept},
      {"GetCommState", Route::At, "the next job: it fails", true, kAtPortKept},
      {"SetCommState", Route::At, "the next job: it fails", true, kAtPortKept},
      {"CreateFileA", Route::At, "the next job: it fails", true, kAtPortKept},
  };
  return list;
}

const NotHeld* ExcuseOf(const FaultCase& fault, Route route, const std::string& finding) {
  for (const NotHeld& each : EverythingNotHeld()) {
    if (fault.function == each.function && (!each.route || each.route == route) &&
        finding.starts_with(each.finding)) {
      return &each;
    }
  }
  return nullptr;
}

}  // namespace campaign
