// Faults in flash jobs of the service: for a route, one case after the other, each in a job of its own, and
// behind each a job in which nothing fails.
//
// usage: fault_campaign [--route mbim|at|bbrst|flash-port] [--what WHAT] [--log] [--large] [--seed N]
//                       [--step N] [--count N] [--from N] [--only "FUNCTION N"] [--list] [--not-held]
//                       [--left-out]
//
// WHAT calls     every plausible failure of every call to what the library imports (default); with --log or
//                --large of each function, place and stage the first, the second and the last call
//      foreign   each call of the flashing library and of the Mobile Broadband objects: fails, answers
//                what it never does, does nothing, is late, never returns
//      hold-ups  of each function a call that is late or never returns
//      repeated  of each function calls that fail twice in a row, and for good until that is mended
//      pairs     any two of the functions fail
//      triples   any three calls fail, --count times, by --seed
//
// --not-held prints the list of what is not held, --left-out those functions that no case lets fail, with the
// reason; neither does anything else.
//
// --large flashes 12 MB. --step takes every N-th case, beginning with the one that --seed chooses. --from
// goes on at a case, by its number. One line per finding; exit status 1 when there is any that the list of
// what is not held does not name.
//
// Many cases share a process. One that hangs or crashes ends it; it is named, and the rest goes on behind it.

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fault/campaign_service.h"
#include "fault/fault_cases.h"
#include "fault/holdings.h"
#include "fault/job_judgement.h"
#include "fault/owned_memory.h"
#include "fault/watchdog.h"
#include "hosts/common/text.h"
#include "simulator/known_calls.h"
#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"

using namespace simulator;
using namespace campaign;

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

/// A fault that lasts for good is mended then.
constexpr auto kUntilMended = 4s;
/// So long a service is looked at that hangs with a call of its own: 40 s of its time.
constexpr DWORD kLookAtHanging = 200;
constexpr wchar_t kProgressFile[] = L"campaign.txt";
constexpr wchar_t kCasesFile[] = L"cases.txt";
constexpr wchar_t kUncountedFile[] = L"uncounted.txt";
constexpr std::size_t kCasesPerCensus = 20;
/// So often is a case played that is not reached.
constexpr int kTries = 4;

enum class What { Calls, Foreign, HoldUps, Repeated, Pairs, Triples };
constexpr std::pair<const char*, What> kWhats[] = {{"calls", What::Calls},      {"foreign", What::Foreign},
                                                   {"hold-ups", What::HoldUps}, {"repeated", What::Repeated},
                                                   {"pairs", What::Pairs},      {"triples", What::Triples}};

struct Options {
  Route route = Route::Mbim;
  What what = What::Calls;
  bool log = false;
  bool large = false;
  std::size_t count = 200;
  std::size_t seed = 0;
  std::size_t step = 1;
  std::size_t from = 0;
  std::string only;
  std::string key;
  bool list = false;
  bool notHeld = false;
  bool leftOut = false;
  bool inPlace = false;
};
Options g_options;
std::span<char* const> g_words;  ///< of the command line, for the children

/// What a child reports to whoever started it.
struct Progress {
  std::size_t next = 0;  ///< the case that is to come
  std::size_t run = 0;
  std::size_t reached = 0;
  std::size_t missed = 0;  ///< not reached, and not tried again
  std::size_t findings = 0;
  std::size_t excused = 0;
  std::size_t cases = 0;
  bool isDone = false;

  void Save() const {
    std::ofstream(std::filesystem::path(hosts::ProgramFolder()) / kProgressFile)
        << next << ' ' << run << ' ' << reached << ' ' << missed << ' ' << findings << ' ' << excused << ' '
        << cases << ' ' << isDone << '\n';
  }
  static std::optional<Progress> Load(const std::filesystem::path& folder) {
    Progress progress;
    std::ifstream file(folder / kProgressFile);
    if (!(file >> progress.next >> progress.run >> progress.reached >> progress.missed >> progress.findings >>
          progress.excused >> progress.cases >> progress.isDone)) {
      return std::nullopt;
    }
    return progress;
  }
};

/// The cases behind which nobody has yet counted what is left: their process may end first.
class Uncounted {
 public:
  void Save(const std::vector<std::size_t>& numbers) const {
    std::ofstream stream(m_File);
    for (const std::size_t number : numbers) stream << number << '\n';
  }
  /// Once: a case that ends its process again must not do so for ever.
  std::vector<std::size_t> Take() const {
    std::vector<std::size_t> numbers;
    std::ifstream stream(m_File);
    for (std::size_t number = 0; stream >> number;) numbers.push_back(number);
    stream.close();
    Save({});
    return numbers;
  }

 private:
  const std::filesystem::path m_File = std::filesystem::path(hosts::ProgramFolder()) / kUncountedFile;
};

// --- One process: a service, and jobs --------------------------------------------------------------------

class Campaign {
 public:
  explicit Campaign(const Options& options)
      : m_Options(options),
        m_Service({.route = options.route,
                   .log = options.log,
                   .images = options.large ? Images::Large : Images::Small,
                   .key = hosts::ToWide(options.key)}) {}

  int Run() {
    // Below the hooks: what they refuse was not allocated. Never destroyed, as the service is not.
    m_Service.Pc().WhenPlaced([](CallHooks&) { new OwnedMemory(::GetModuleHandleW(L"CorvelToolKit.dll")); });
    if (!m_Service.Begin()) return Fail("the service does not begin");
    // Twice: the first one makes what is made once, and is not counted.
    for (int times = 0; times < 2; ++times) {
      m_Service.PutModemWhereTheRouteBegins();
      m_Service.Hooks().ResetCounts();
      Service::Record(times == 1);
      if (const std::string finding = SoundJob(); !finding.empty())
        return Fail("a job without faults: " + finding);
    }
    Service::Record(false);
    ChooseCases();
    m_Progress.cases = m_Cases.size();
    if (m_Options.list) return List();
    return RunCases();
  }

 private:
  static int Fail(const std::string& why) {
    std::printf("%s\n", why.c_str());
    return 1;
  }

  void ChooseCases() {
    const auto file = std::filesystem::path(hosts::ProgramFolder()) / kCasesFile;
    m_Cases = LoadCases(file);
    if (!m_Cases.empty()) return;
    m_Cases = CasesOf(m_Options.what);
    SaveCases(m_Cases, file);
  }

  std::vector<FaultCase> CasesOf(What what) {
    const auto calls = m_Service.Hooks().Counts();
    switch (what) {
      case What::Calls:
        return m_Options.log || m_Options.large ? RepresentativeCases(m_Service.TakeRecord())
                                                : AllCases(calls);
      case What::Foreign:
        return ForeignCases(calls);
      case What::HoldUps:
        return TimingCases(calls);
      case What::Repeated:
        return RepeatedCases(calls);
      case What::Pairs:
        return PairCases(calls);
      case What::Triples:
        return TripleCases(calls, m_Options.count, static_cast<std::uint32_t>(m_Options.seed));
    }
    return {};
  }

  int List() {
    for (std::size_t i = 0; i < m_Cases.size(); ++i) std::printf("%zu %s\n", i, m_Cases[i].Name().c_str());
    Done();
    return 0;
  }

  void Done() {
    m_Progress.isDone = true;
    m_Progress.Save();
  }

  bool IsChosen(std::size_t number) const {
    if (number < m_Options.from) return false;
    if (!m_Options.only.empty()) return m_Cases[number].Name() == m_Options.only;
    return number % m_Options.step == m_Options.seed % m_Options.step;
  }

  int RunCases() {
    SuspectEach(m_Uncounted.Take());
    if (m_IsSpoiled) return GoOnBehind(m_Options.from);
    std::vector<std::size_t> batch;
    Holdings before = CountHoldings(m_Service);
    for (std::size_t i = 0; i < m_Cases.size(); ++i) {
      if (!IsChosen(i)) continue;
      m_Progress.next = i;
      m_Progress.Save();
      m_Uncounted.Save(batch);
      m_Watchdog.Pat();
      Show(i);
      if (!RunCase(m_Cases[i])) return GoOnBehind(i + 1);
      batch.push_back(i);
      if (batch.size() == kCasesPerCensus) {
        TakeCensus(batch, before);
        batch.clear();
        if (m_IsSpoiled) return GoOnBehind(i + 1);
      }
    }
    TakeCensus(batch, before);
    if (m_IsSpoiled) return GoOnBehind(m_Cases.size());
    m_Uncounted.Save({});
    Done();
    return 0;
  }

  /// Another process does.
  int GoOnBehind(std::size_t next) {
    m_Progress.next = next;
    m_Progress.Save();
    return static_cast<int>(kGoOnBehind);
  }

  /// A live line, where one can be seen.
  void Show(std::size_t number) const {
    DWORD mode = 0;
    if (!::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode)) return;
    std::printf("%zu/%zu %-50s\r", number, m_Cases.size(), m_Cases[number].Name().c_str());
    std::fflush(stdout);
  }

  struct Played {
    JobEnd end;
    bool wasReached = false;
    bool couldBePlaced = true;
    const char* held = nullptr;  ///< how the service was held by a call that did not return
  };

  bool IsServiceHeld() {
    const auto held = m_Service.Hooks().HeldThreads();
    return std::ranges::find(held, Service::Supervisor()) != held.end();
  }

  /// The job on which a case falls.
  Played Play(const FaultCase& fault) {
    CallHooks& hooks = m_Service.Hooks();
    m_Service.PutModemWhereTheRouteBegins();
    m_Service.LayImages(++m_Images);
    for (const SingleFault& single : fault.faults) hooks.Arm(single.Fault());
    const auto mended = RealClock::now() + kUntilMended;
    Played played;
    played.end =
        m_Service.Run([&] { return IsServiceHeld() || (fault.LastsForGood() && RealClock::now() > mended); });
    played.wasReached = hooks.Hits() > 0;
    played.couldBePlaced = hooks.Missed() == 0;
    if (!played.end.ended) {
      if (!hooks.HeldThreads().empty()) played.held = IsServiceHeld() ? kHeldWithItsCall : kWaitsForHeldCall;
      if (IsServiceHeld()) ::Sleep(kLookAtHanging);
      hooks.Disarm();
      hooks.LetGo();
      played.end = m_Service.GoOn();
    }
    hooks.Disarm();
    return played;
  }

  /// @return false when the process serves no further case.
  bool RunCase(const FaultCase& fault) {
    Played played = Play(fault);
    int tries = 1;
    // Threads run side by side: the call may have been another thread's this time.
    for (; tries < kTries && !played.wasReached && WhatIsWrongWith(played.end).empty(); ++tries)
      played = Play(fault);
    ++m_Progress.run;
    if (played.wasReached) {
      ++m_Progress.reached;
    } else {
      TellNotReached(fault, tries);
    }
    bool goesOn = true;
    if (!played.couldBePlaced) goesOn = Report(fault, "a call could not be made to fail") && goesOn;
    if (played.held != nullptr) goesOn = Report(fault, played.held) && goesOn;
    if (const std::string finding = WhatIsWrongWith(played.end); !finding.empty())
      goesOn = Report(fault, finding) && goesOn;
    if (!played.end.ended) return false;
    return goesOn && NextJobsAreDone(fault);
  }

  void TellNotReached(const FaultCase& fault, int tries) {
    if (tries < kTries) ++m_Progress.missed;
    std::printf("not reached %s: %s (tried %d times)\n", NameOf(m_Options.route), fault.Name().c_str(),
                tries);
    std::fflush(stdout);
  }

  /// While calls hang that belong to it, and once they have come back.
  bool NextJobsAreDone(const FaultCase& fault) {
    bool goesOn = true;
    if (!m_Service.Hooks().HeldThreads().empty()) {
      if (const std::string finding = SoundJob(); !finding.empty())
        goesOn = Report(fault, kNextJobWhileHeld + finding);
      m_Service.Hooks().LetGo();
    }
    const std::string finding = SoundJob();
    if (finding.empty()) return goesOn;
    Report(fault, "the next job: " + finding);
    return false;
  }

  /// A job in which nothing fails, from wherever the modem is. @return what is wrong with it.
  std::string SoundJob() {
    m_Service.LayImages(++m_Images);
    return WhatIsWrongWithSound(m_Service.Run());
  }

  /// @return false when the finding is excused by what only a restart mends.
  bool Report(const FaultCase& fault, const std::string& finding) {
    const NotHeld* const excuse = ExcuseOf(fault, m_Options.route, finding);
    ++(excuse != nullptr ? m_Progress.excused : m_Progress.findings);
    std::printf("%s %s: %s: %s%s\n", excuse != nullptr ? "not held" : "FINDING", NameOf(m_Options.route),
                fault.Name().c_str(), finding.c_str(), excuse != nullptr ? " (known)" : "");
    std::fflush(stdout);
    return excuse == nullptr || !excuse->isProcessSpoiled;
  }

  /// What grew over a batch is put down to the case that lets it grow again, twice. What no case alone does,
  /// but the batch once more, is a finding all the same.
  void TakeCensus(const std::vector<std::size_t>& batch, Holdings& before) {
    if (batch.empty()) return;
    if (!HasGrownSince(before).empty() && !SuspectEach(batch) && !HasGrownBy(batch).empty())
      ReportBatch(batch, HasGrownBy(batch));
    before = CountHoldings(m_Service);
  }

  std::string HasGrownSince(const Holdings& before) {
    return Grown(before, SettledHoldings(m_Service, before));
  }

  /// @return whether it was one of them, or nobody can tell any more.
  bool SuspectEach(const std::vector<std::size_t>& batch) {
    bool isFound = false;
    for (auto number = batch.begin(); number != batch.end(); ++number) {
      isFound = Suspect(m_Cases.at(*number)) || isFound;
      if (!m_IsSpoiled) continue;
      // The next process looks at the others.
      m_Uncounted.Save({std::next(number), batch.end()});
      return true;
    }
    return isFound;
  }

  /// @return what grows when the cases are played once more, in words.
  std::string HasGrownBy(const std::vector<std::size_t>& batch) {
    const Holdings before = CountHoldings(m_Service);
    for (const std::size_t number : batch) {
      m_Watchdog.Pat();
      Play(m_Cases[number]);
      if (m_IsSpoiled = !NextJobsAreDone(m_Cases[number]); m_IsSpoiled) return "";
    }
    return HasGrownSince(before);
  }

  void ReportBatch(const std::vector<std::size_t>& batch, const std::string& grown) {
    if (grown.empty()) return;
    ++m_Progress.findings;
    std::printf("FINDING %s: cases %zu to %zu together leave behind:%s\n", NameOf(m_Options.route),
                batch.front(), batch.back(), grown.c_str());
    std::fflush(stdout);
  }

  /// @return whether the case leaves something behind, twice.
  bool Suspect(const FaultCase& fault) {
    std::string grown;
    for (int times = 0; times < 2; ++times) {
      m_Watchdog.Pat();
      const Holdings before = CountHoldings(m_Service);
      Play(fault);
      // What a process that serves no further case leaves behind says nothing.
      if (m_IsSpoiled = !NextJobsAreDone(fault); m_IsSpoiled) return false;
      grown = HasGrownSince(before);
      if (grown.empty()) return false;
    }
    Report(fault, "leaves behind:" + grown);
    return true;
  }

  const Options m_Options;
  Watchdog m_Watchdog;
  Service m_Service;
  std::vector<FaultCase> m_Cases;
  const Uncounted m_Uncounted;
  Progress m_Progress;
  std::uint32_t m_Images = 0;
  bool m_IsSpoiled = false;  ///< the process serves no further case
};

// --- The program that starts them ------------------------------------------------------------------------

std::vector<std::wstring> ArgumentsFrom(std::size_t from, const std::wstring& key) {
  std::vector<std::wstring> words;
  for (const char* word : g_words) words.push_back(hosts::ToWide(word));
  words.insert(words.end(), {L"--in-place", L"--key", key, L"--from", std::to_wstring(from)});
  return words;
}

/// Adds up what the children did. @return false when one of them ended so that the rest cannot be run.
bool RunChildren(Progress& total) {
  const WorkFolder folder;
  const std::wstring path = L"Software\\Corvel\\Test\\campaign-" + std::to_wstring(::GetCurrentProcessId());
  for (std::size_t from = g_options.from;;) {
    std::error_code ignored;
    std::filesystem::remove(folder.Path() / kProgressFile, ignored);
    const SessionKey key(path, false);
    const ChildResult child = RunChild(folder.Program(), ArgumentsFrom(from, path), 12h);
    const auto progress = Progress::Load(folder.Path());
    if (!progress) return false;
    total.run += progress->run;
    total.reached += progress->reached;
    total.missed += progress->missed;
    total.findings += progress->findings;
    total.excused += progress->excused;
    total.cases = progress->cases;
    if (progress->isDone) return child.exitCode == 0;
    from = progress->next;
    if (child.exitCode == kGoOnBehind) continue;
    ++total.findings;
    std::printf("FINDING %s: case %zu: the process %s\n", NameOf(g_options.route), from,
                child.exitCode == kHangs ? "hangs" : ("ends with " + std::to_string(child.exitCode)).c_str());
    ++from;
  }
}

const char* NameOf(What what) {
  return std::ranges::find(kWhats, what, &std::pair<const char*, What>::second)->first;
}

/// A case that is not reached has tested nothing. Threads run side by side, so a few may be missed, however
/// often they are tried; each of them is named.
bool WereReached(const Progress& total) {
  constexpr std::size_t kOneIn = 50;
  return total.reached > 0 && total.missed == 0 && (total.run - total.reached) * kOneIn <= total.run + kOneIn;
}

int RunCampaign() {
  const auto begin = RealClock::now();
  Progress total;
  const bool isWhole = RunChildren(total);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(RealClock::now() - begin).count();
  if (g_options.list) return isWhole ? 0 : 1;
  std::printf(
      "%s, %s%s%s: %zu of %zu cases, %zu of them reached, %zu findings, %zu not held as known, seed %zu, "
      "%lld s\n",
      NameOf(g_options.route), NameOf(g_options.what), g_options.log ? ", log" : "",
      g_options.large ? ", 12 MB" : "", total.run, total.cases, total.reached, total.findings, total.excused,
      g_options.seed, static_cast<long long>(seconds));
  return isWhole && total.findings == 0 && WereReached(total) ? 0 : 1;
}

int PrintNotHeld() {
  for (const NotHeld& entry : EverythingNotHeld()) {
    std::printf("%s|%s|%s|%s|%s\n", entry.What(), entry.way ? TextOf(*entry.way) : "",
                entry.route ? NameOf(*entry.route) : "", entry.row.seen, entry.row.reason);
  }
  return 0;
}

int PrintLeftOut() {
  for (const KnownCall& call : KnownCalls()) {
    if (call.failure == KnownCall::Failure::Implausible)
      std::printf("%s|%s\n", call.name, call.whyImplausible);
  }
  return 0;
}

/// What becomes of a word of the command line that takes a value. @return false when it means nothing.
bool TakeValue(std::string_view word, std::string_view value) {
  if (word == "--from") return TakeNumber(value, g_options.from);
  if (word == "--seed") return TakeNumber(value, g_options.seed);
  if (word == "--count") return TakeNumber(value, g_options.count);
  if (word == "--what") {
    const auto* const found = std::ranges::find(kWhats, value, &std::pair<const char*, What>::first);
    if (found != std::end(kWhats)) g_options.what = found->second;
    return found != std::end(kWhats);
  }
  if (word == "--step") return TakeNumber(value, g_options.step) && g_options.step > 0;
  if (word == "--only") return TakeText(value, g_options.only);
  if (word == "--key") return TakeText(value, g_options.key);
  const auto route = word == "--route" ? RouteOfName(value) : std::nullopt;
  if (route) g_options.route = *route;
  return route.has_value();
}

constexpr campaign::Switch kSwitches[] = {
    {"--log", &g_options.log},          {"--large", &g_options.large},
    {"--list", &g_options.list},        {"--not-held", &g_options.notHeld},
    {"--left-out", &g_options.leftOut}, {"--in-place", &g_options.inPlace}};

}  // namespace

int main(int count, char** words) try {
  g_words = std::span(words, static_cast<std::size_t>(count)).subspan(1);
  if (!campaign::TakeWords("fault_campaign", g_words, kSwitches, &TakeValue)) return 2;
  if (g_options.notHeld) return PrintNotHeld();
  if (g_options.leftOut) return PrintLeftOut();
  if (!g_options.inPlace) return RunCampaign();
  // Never destroyed: the service goes on until the process ends.
  campaign::EndProcess((new Campaign(g_options))->Run());
} catch (const std::exception& error) {
  std::fprintf(stderr, "fault_campaign: %s\n", error.what());
  return 1;
}
