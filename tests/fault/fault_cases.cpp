#include "fault/fault_cases.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string_view>
#include <tuple>

#include "simulator/known_calls.h"

namespace campaign {

using namespace simulator;

namespace {

using namespace std::chrono_literals;
using Kind = KnownCall::Kind;
using Way = CallFault::Way;

/// Longer than a boot may take, and longer than an attempt.
constexpr std::chrono::seconds kDelays[] = {12s, 140s};

/// Not each call of a function that is called again and again needs a process.
constexpr int kMostCallsAtStart = 30;

// The rows of what is not held, as the page about it has them.
constexpr NotHeldRow kAtPortKept{
    "this job succeeds by a reset; later ones of the process fail",
    "the library keeps the port to the thread that failed; the cure is a restart of the service"};
constexpr NotHeldRow kAtPortHeld{"jobs fail until it does",
                                 "the library keeps the port to the thread that has it; what the port does "
                                 "not answer, a restart of the service "
                                 "ends"};
constexpr NotHeldRow kImageStays{
    "the image stays, the result is true",
    "somebody else has it in his hands; the controlling program sees it in the folder"};
constexpr NotHeldRow kImageOpen{
    "the image of that job stays, its result is true",
    "the flashing library has it open then; the controlling program sees it in the folder"};
constexpr NotHeldRow kResultRefused{"1 or 2 stays while the flag goes back to 0",
                                    "each value is written once; the log tells the result"};
constexpr NotHeldRow kNotTakenBack{
    "it stays 1, the result is true",
    "each value is written once; `corvel_cmdline` takes its request back, and the next flash begins with 0"};
constexpr NotHeldRow kBeginsAnew{
    "a host that is started then writes 0 in the place of a 3 or 4",
    "a service that begins says so by its initial values; what a controlling program does"};
constexpr NotHeldRow kOneEvent{"the one that is left hears of no request until it is started anew",
                               "both wait on one event, and a change wakes one of them"};
constexpr NotHeldRow kBelieved{"4, and the memory is not equal",
                               "nobody but the library can look into the memory"};
constexpr NotHeldRow kSupervisorHeld{
    "nothing changes for longer than \"Time_Out\"",
    "nothing ends a call that another thread is in; once it returns, the job is done"};
constexpr NotHeldRow kPercentageBeingWritten{
    "the same", "an attempt is not given up while it writes, or it could write over a newer one's"};
constexpr NotHeldRow kMutexHeld{"the same", "whoever comes next waits for the mutex"};
constexpr NotHeldRow kCompletionHeld{"nothing changes until it does",
                                     "the event is set under the lock that keeps it from being closed "
                                     "meanwhile; the call touches the process's own "
                                     "handles only"};
constexpr NotHeldRow kSinkHeld{"jobs fail until it does", "it touches the process's own handles only"};
constexpr NotHeldRow kSearchGoesOn{
    "a handle of a thread stays open with each attempt, and its search goes on until it finds the port",
    "that is how this failure is known in the field"};

bool IsForeign(const KnownCall& call) {
  return call.kind == Kind::Library || call.kind == Kind::Object;
}

bool FailsPlausibly(const KnownCall& call) {
  return !IsForeign(call) && call.failure == KnownCall::Failure::Plausible;
}

std::set<int> UpTo(int count) {
  std::set<int> all;
  for (int number = 1; number <= count; ++number) all.insert(number);
  return all;
}

/// Adds what may go wrong with the chosen calls of one function.
void AddFailures(const KnownCall& known, const std::set<int>& numbers, std::vector<FaultCase>& cases) {
  for (const int number : numbers) {
    cases.push_back({{{known.name, number, Way::Refused}}});
    if (known.mayHaveTakenEffect) cases.push_back({{{known.name, number, Way::RefusedAfterEffect}}});
  }
}

void AddHoldUps(const std::string& function, int call, std::vector<FaultCase>& cases) {
  for (const auto delay : kDelays) cases.push_back({{{function, call, Way::Delayed, 1, delay}}});
  cases.push_back({{{function, call, Way::NeverReturns}}});
}

/// Goes through the functions of which something is known.
template <typename Visit>
void ForEachKnown(const CallCounts& calls, Visit visit) {
  for (const auto& [function, count] : calls) {
    if (const KnownCall* const known = FindKnownCall(function)) visit(*known, count);
  }
}

}  // namespace

const char* TextOf(Way way) {
  switch (way) {
    case Way::Refused:
      return "";
    case Way::RefusedAfterEffect:
      return " after its effect";
    case Way::Undocumented:
      return " with an undocumented answer";
    case Way::DoesNothing:
      return " without doing anything";
    case Way::Delayed:
      return " late";
    case Way::NeverReturns:
      return " never returns";
  }
  return "";
}

const char* NotHeld::What() const {
  if (function != nullptr) return function;
  return way ? "any function" : "no call";
}

std::string SingleFault::Name() const {
  std::string name = function + " " + std::to_string(call);
  if (times == Occurrence::kForEver) {
    name += " and all others";
  } else if (times > 1) {
    name += " and " + std::to_string(times - 1) + " more";
  }
  name += TextOf(way);
  return delay == 0s ? name : name + " by " + std::to_string(delay.count()) + " s";
}

CallFault SingleFault::Fault() const {
  return {.function = function,
          .calls = {call, times},
          .way = way,
          .delay = std::chrono::duration_cast<std::chrono::milliseconds>(delay) / kSpeed};
}

std::string FaultCase::Name() const {
  std::string name;
  for (const SingleFault& fault : faults) name += (name.empty() ? "" : " + ") + fault.Name();
  return name;
}

bool FaultCase::Has(Way way) const {
  return std::ranges::find(faults, way, &SingleFault::way) != faults.end();
}

bool FaultCase::LastsForGood() const {
  return std::ranges::find(faults, Occurrence::kForEver, &SingleFault::times) != faults.end();
}

std::vector<FaultCase> AllCases(const CallCounts& calls) {
  std::vector<FaultCase> cases;
  ForEachKnown(calls, [&](const KnownCall& known, int count) {
    if (FailsPlausibly(known)) AddFailures(known, UpTo(count), cases);
  });
  return cases;
}

std::vector<FaultCase> CasesOfStart(const CallCounts& calls) {
  std::vector<FaultCase> cases;
  ForEachKnown(calls, [&](const KnownCall& known, int count) {
    if (!FailsPlausibly(known)) return;
    std::set<int> numbers;
    for (int number = 1; number <= count; number += 1 + count / kMostCallsAtStart) numbers.insert(number);
    numbers.insert(count);
    AddFailures(known, numbers, cases);
  });
  return cases;
}

std::vector<FaultCase> RepresentativeCases(const std::vector<MadeCall>& calls) {
  std::map<std::tuple<std::string, std::uintptr_t, int>, std::vector<int>> groups;
  for (const MadeCall& call : calls) groups[{call.function, call.place, call.stage}].push_back(call.number);
  // One call may stand for several places.
  std::map<std::string, std::set<int>> chosen;
  for (const auto& [group, numbers] : groups)
    chosen[std::get<0>(group)].insert({numbers.front(), numbers[numbers.size() > 1 ? 1 : 0], numbers.back()});
  std::vector<FaultCase> cases;
  for (const auto& [function, numbers] : chosen) {
    const KnownCall* const known = FindKnownCall(function);
    if (known != nullptr && FailsPlausibly(*known)) AddFailures(*known, numbers, cases);
  }
  return cases;
}

std::vector<FaultCase> ForeignCases(const CallCounts& calls) {
  std::vector<FaultCase> cases;
  ForEachKnown(calls, [&](const KnownCall& known, int count) {
    if (!IsForeign(known)) return;
    const std::set<int> numbers = known.CanFail() ? UpTo(count) : std::set<int>{1, count};
    if (known.CanFail()) AddFailures(known, numbers, cases);
    for (const int number : numbers) {
      if (known.undocumented) cases.push_back({{{known.name, number, Way::Undocumented}}});
      if (known.success) cases.push_back({{{known.name, number, Way::DoesNothing}}});
      AddHoldUps(known.name, number, cases);
    }
  });
  return cases;
}

std::vector<FaultCase> TimingCases(const CallCounts& calls) {
  std::vector<FaultCase> cases;
  ForEachKnown(calls, [&](const KnownCall& known, int count) {
    if (known.kind == Kind::Platform) AddHoldUps(known.name, (count + 1) / 2, cases);
  });
  return cases;
}

std::vector<FaultCase> RepeatedCases(const CallCounts& calls) {
  std::vector<FaultCase> cases;
  ForEachKnown(calls, [&](const KnownCall& known, int count) {
    if (!FailsPlausibly(known)) return;
    for (const int number : std::set<int>{1, (count + 1) / 2, count}) {
      cases.push_back({{{known.name, number, Way::Refused, 2}}});
      cases.push_back({{{known.name, number, Way::Refused, Occurrence::kForEver}}});
    }
  });
  return cases;
}

std::vector<FaultCase> PairCases(const CallCounts& calls) {
  std::vector<SingleFault> singles;
  ForEachKnown(calls, [&](const KnownCall& known, int) {
    if (FailsPlausibly(known)) singles.push_back({.function = known.name});
  });
  std::vector<FaultCase> cases;
  for (auto first = singles.begin(); first != singles.end(); ++first) {
    for (auto second = std::next(first); second != singles.end(); ++second)
      cases.push_back({{*first, *second}});
  }
  return cases;
}

std::vector<FaultCase> TripleCases(const CallCounts& calls, std::size_t count, std::uint32_t seed) {
  const std::vector<FaultCase> singles = AllCases(calls);
  std::mt19937 random(seed);
  std::vector<FaultCase> cases(singles.empty() ? 0 : count);
  for (FaultCase& each : cases) {
    for (int i = 0; i < 3; ++i) each.faults.push_back(singles[random() % singles.size()].faults.front());
  }
  return cases;
}

void SaveCases(const std::vector<FaultCase>& cases, const std::filesystem::path& file) {
  std::ofstream stream(file);
  for (const FaultCase& each : cases) {
    stream << each.faults.size();
    for (const SingleFault& fault : each.faults)
      stream << ' ' << fault.function << ' ' << fault.call << ' ' << static_cast<int>(fault.way) << ' '
             << fault.times << ' ' << fault.delay.count();
    stream << '\n';
  }
}

std::vector<FaultCase> LoadCases(const std::filesystem::path& file) {
  std::vector<FaultCase> cases;
  std::ifstream stream(file);
  for (std::size_t count = 0; stream >> count;) {
    FaultCase& each = cases.emplace_back();
    for (std::size_t i = 0; i < count; ++i) {
      SingleFault fault;
      int way = 0;
      std::int64_t delay = 0;
      stream >> fault.function >> fault.call >> way >> fault.times >> delay;
      fault.way = static_cast<Way>(way);
      fault.delay = std::chrono::seconds(delay);
      each.faults.push_back(fault);
    }
  }
  return cases;
}

const std::vector<NotHeld>& EverythingNotHeld() {
  constexpr auto kAny = std::nullopt;
  static const std::vector<NotHeld> list{
      // A port that is not found is one that cannot be opened.
      {"CM_Get_Device_ID_ListW", Route::At, kAny, "the next job: it fails", kAtPortKept, true},
      {"CM_Locate_DevNodeW", Route::At, kAny, "the next job: it fails", kAtPortKept, true},
      {"CM_Get_DevNode_Registry_PropertyW", Route::At, kAny, "the next job: it fails", kAtPortKept, true},
      {"GetCommState", Route::At, kAny, "the next job: it fails", kAtPortKept, true},
      {"SetCommState", Route::At, kAny, "the next job: it fails", kAtPortKept, true},
      {"CreateFileA", Route::At, kAny, "the next job: it fails", kAtPortKept, true},
      {"DeleteFileW", kAny, kAny, "the image is left", kImageStays},
      {"DeleteFileW", kAny, kAny, "by the command line, the image is left", kImageStays},
      {"DeleteFileW", kAny, kAny, "exit 0, but the image is left", kImageStays},
      {"_ZEMO_DL_boot_target", kAny, Way::Delayed, "the next job: the image is left", kImageOpen},
      {"RegSetValueExW", kAny, kAny, "no documented end: result 1, ready 0", kResultRefused},
      {"RegSetValueExW", kAny, kAny, "no documented end: result 2, ready 0", kResultRefused},
      {"RegSetValueExW", kAny, kAny, "by the command line, no documented end: result 1, ready 0",
       kResultRefused},
      {"RegSetValueExW", kAny, kAny, "by the command line, \"Flash_OnGoing\" is left: result 4",
       kNotTakenBack},
      {"RegSetValueExW", kAny, kAny, "by the command line, the flag is not taken back: result 4",
       kNotTakenBack},
      {nullptr, kAny, kAny, kResultForgotten, kBeginsAnew},
      {nullptr, kAny, kAny, kRequestUnheard, kOneEvent},
      {"_ZEMO_DL_download_fls_file", kAny, Way::DoesNothing, kFalseSuccess, kBelieved},
      {"_ZEMO_DL_download_dffs_file", kAny, Way::DoesNothing, kFalseSuccess, kBelieved},
      {"_ZEMO_DL_download_cust_file", kAny, Way::DoesNothing, kFalseSuccess, kBelieved},
      {nullptr, kAny, Way::NeverReturns, kHeldWithItsCall, kSupervisorHeld},
      {"RegOpenKeyExW", kAny, Way::NeverReturns, kWaitsForHeldCall, kPercentageBeingWritten},
      {"RegSetValueExW", kAny, Way::NeverReturns, kWaitsForHeldCall, kPercentageBeingWritten},
      {"RegQueryValueExW", kAny, Way::NeverReturns, kWaitsForHeldCall, kPercentageBeingWritten},
      {"RegCloseKey", kAny, Way::NeverReturns, kWaitsForHeldCall, kPercentageBeingWritten},
      {"ReleaseMutex", kAny, Way::NeverReturns, kWaitsForHeldCall, kMutexHeld},
      {"SetEvent", kAny, Way::NeverReturns, kWaitsForHeldCall, kCompletionHeld},
      {"CreateEventW", kAny, Way::NeverReturns, kNextJobWhileHeld, kSinkHeld},
      {"CreateFileA", Route::At, Way::NeverReturns, kNextJobWhileHeld, kAtPortHeld},
      {"GetCommState", Route::At, Way::NeverReturns, kNextJobWhileHeld, kAtPortHeld},
      {"SetCommState", Route::At, Way::NeverReturns, kNextJobWhileHeld, kAtPortHeld},
      {"PurgeComm", Route::At, Way::NeverReturns, kNextJobWhileHeld, kAtPortHeld},
      {"WriteFile", Route::At, Way::NeverReturns, kNextJobWhileHeld, kAtPortHeld},
      {"CreateSemaphoreW", kAny, kAny, "leaves behind: Thread +", kSearchGoesOn},
  };
  return list;
}

const NotHeld* ExcuseOf(const FaultCase& fault, Route route, const std::string& finding) {
  const auto excuses = [&](const SingleFault& single, const NotHeld& entry) {
    return (entry.function == nullptr || single.function == entry.function) &&
           (!entry.way || single.way == entry.way);
  };
  for (const NotHeld& entry : EverythingNotHeld()) {
    if ((entry.route && entry.route != route) || !finding.starts_with(entry.finding)) continue;
    const bool needsNoFault = entry.function == nullptr && !entry.way;
    if (needsNoFault ||
        std::ranges::any_of(fault.faults, [&](const auto& single) { return excuses(single, entry); }))
      return &entry;
  }
  return nullptr;
}

}  // namespace campaign
