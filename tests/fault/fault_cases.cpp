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

constexpr char kBelieved[] =
    "a library that tells of an item as written is believed: nobody else can look into the modem's memory";
constexpr char kFalseSuccess[] = "success is reported, but the memory is not equal";

constexpr char kPercentageBeingWritten[] =
    "an attempt is not given up while it writes a percentage, or it could do so over a newer one's: a "
    "registry that never answers holds up the service as it does on its own thread";

constexpr char kAtPortHeld[] =
    "the library keeps the AT port to the thread that has it, until its call returns: attempts that need the "
    "port "
    "wait for it until their time is over";
constexpr char kAtPortKept[] =
    "an AT port that was refused once is refused to every later attempt of the process: the service has to "
    "be restarted, as docs/hosts.md says";

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
  static const std::vector<NotHeld> list{
      {nullptr, std::nullopt, Way::NeverReturns, kHeldWithItsCall, false,
       "nothing ends a call of the system that another thread is in: the controlling program sees no change "
       "for longer than \"Time_Out\", and the service has to be restarted"},
      {"RegOpenKeyExW", std::nullopt, Way::NeverReturns, kWaitsForHeldCall, false, kPercentageBeingWritten},
      {"RegSetValueExW", std::nullopt, Way::NeverReturns, kWaitsForHeldCall, false, kPercentageBeingWritten},
      {"RegQueryValueExW", std::nullopt, Way::NeverReturns, kWaitsForHeldCall, false,
       kPercentageBeingWritten},
      {"RegCloseKey", std::nullopt, Way::NeverReturns, kWaitsForHeldCall, false, kPercentageBeingWritten},
      {"ReleaseMutex", std::nullopt, Way::NeverReturns, kWaitsForHeldCall, false,
       "whoever comes next waits for the mutex"},
      {"SetEvent", std::nullopt, Way::NeverReturns, kWaitsForHeldCall, false,
       "a completion's event is set under the lock that keeps it from being closed meanwhile: the call "
       "touches the process's own handles only"},
      {nullptr, std::nullopt, std::nullopt, kResultForgotten, false,
       "a service that begins tells that it is there by its initial values, \"Flash_Result\" 0 among them: a "
       "controlling program that has not read the 3 or 4 by then asks again, as docs/controller.md says"},
      {"CreateEventW", std::nullopt, Way::NeverReturns, kNextJobWhileHeld, false,
       "the events of the Mobile Broadband sink are made under its lock: the call touches the process's own "
       "handles only"},
      {"CreateFileA", Route::At, Way::NeverReturns, kNextJobWhileHeld, false, kAtPortHeld},
      {"GetCommState", Route::At, Way::NeverReturns, kNextJobWhileHeld, false, kAtPortHeld},
      {"SetCommState", Route::At, Way::NeverReturns, kNextJobWhileHeld, false, kAtPortHeld},
      {"PurgeComm", Route::At, Way::NeverReturns, kNextJobWhileHeld, false, kAtPortHeld},
      {"WriteFile", Route::At, Way::NeverReturns, kNextJobWhileHeld, false, kAtPortHeld},
      {"_ZEMO_DL_download_cust_file", std::nullopt, Way::DoesNothing, kFalseSuccess, false, kBelieved},
      {"_ZEMO_DL_download_dffs_file", std::nullopt, Way::DoesNothing, kFalseSuccess, false, kBelieved},
      {"_ZEMO_DL_download_fls_file", std::nullopt, Way::DoesNothing, kFalseSuccess, false, kBelieved},
      {"_ZEMO_DL_boot_target", std::nullopt, Way::Delayed, "the next job: the image is left", false,
       "a boot that was given up opens the image by its path once it goes on, and nobody can delete it "
       "meanwhile: the result is true, and the controlling program sees the image in the folder"},
      {"CreateSemaphoreW", std::nullopt, std::nullopt, "leaves behind: Thread +", false,
       "the handle of the search for the flash port is left open, and the search goes on until the port is "
       "found: that is how this failure is known in the field"},
      {"DeleteFileW", std::nullopt, std::nullopt, "the image is left", false,
       "an image that cannot be deleted stays; the controlling program sees it in the folder, and writes its "
       "next images in its place"},
      {"RegSetValueExW", std::nullopt, std::nullopt, "no documented end: result 1, ready 0", false,
       "a value of the handshake is written once: a result that the registry refuses is in the log alone, "
       "and the controlling program sees the job end without 3 or 4"},
      // A port that is not found is one that cannot be opened.
      {"CM_Get_Device_ID_ListW", Route::At, std::nullopt, "the next job: it fails", true, kAtPortKept},
      {"CM_Locate_DevNodeW", Route::At, std::nullopt, "the next job: it fails", true, kAtPortKept},
      {"CM_Get_DevNode_Registry_PropertyW", Route::At, std::nullopt, "the next job: it fails", true,
       kAtPortKept},
      {"GetCommState", Route::At, std::nullopt, "the next job: it fails", true, kAtPortKept},
      {"SetCommState", Route::At, std::nullopt, "the next job: it fails", true, kAtPortKept},
      {"CreateFileA", Route::At, std::nullopt, "the next job: it fails", true, kAtPortKept},
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
