// Single faults in flash jobs of the service: for a route, every plausible failure of every call of a small
// job, each in a job of its own, and behind each a job in which nothing fails.
//
// usage: fault_campaign [--route mbim|at|bbrst|flash-port] [--log] [--seed N] [--step N]
//                       [--from N] [--only "FUNCTION N"] [--list]
//
// With --log, of each function the first, a middle and the last call. --step takes every N-th case, beginning
// with the one that --seed chooses. --from goes on at a case, by its number. One line per finding; exit
// status 1 when there is any that the list of what is not held does not name.
//
// Many cases share a process. One that hangs or crashes ends it; it is named, and the rest goes on behind it.

#include <windows.h>

#include <tlhelp32.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "fault/campaign_service.h"
#include "fault/fault_cases.h"
#include "hosts/common/text.h"
#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"
#include "support/handle_census.h"

using namespace simulator;
using namespace campaign;

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

constexpr unsigned long kGoOnBehind = 4;  ///< a child's exit status: its process serves no further case
constexpr unsigned long kHangs = 5;
constexpr auto kCaseLimit = 90s;
constexpr wchar_t kProgressFile[] = L"campaign.txt";
constexpr wchar_t kCasesFile[] = L"cases.txt";
constexpr std::size_t kCasesPerCensus = 20;
// A look takes long: it asks for every number that a handle may have.
constexpr int kLooksAtHoldings = 5;
constexpr DWORD kPauseBetweenLooks = 200;

struct Options {
  Route route = Route::Mbim;
  bool log = false;
  std::size_t seed = 0;
  std::size_t step = 1;
  std::size_t from = 0;
  std::string only;
  std::string key;
  bool list = false;
  bool inPlace = false;
};
Options g_options;

/// What a child reports to whoever started it.
struct Progress {
  std::size_t next = 0;  ///< the case that is to come
  std::size_t run = 0;
  std::size_t reached = 0;
  std::size_t findings = 0;
  std::size_t excused = 0;
  std::size_t cases = 0;
  bool isDone = false;

  void Save() const {
    std::ofstream(std::filesystem::path(hosts::ProgramFolder()) / kProgressFile)
        << next << ' ' << run << ' ' << reached << ' ' << findings << ' ' << excused << ' ' << cases << ' '
        << isDone << '\n';
  }
  static std::optional<Progress> Load(const std::filesystem::path& folder) {
    Progress progress;
    std::ifstream file(folder / kProgressFile);
    if (!(file >> progress.next >> progress.run >> progress.reached >> progress.findings >>
          progress.excused >> progress.cases >> progress.isDone)) {
      return std::nullopt;
    }
    return progress;
  }
};

// --- One process: a service, and jobs
// -----------------------------------------------------------------------

/// Ends the process when a case takes too long, whoever hangs.
class Watchdog {
 public:
  Watchdog() : m_Thread([this](const std::stop_token& stop) { Watch(stop); }) {}
  void Pat() { m_End = (RealClock::now() + kCaseLimit).time_since_epoch().count(); }

 private:
  void Watch(const std::stop_token& stop) const {
    while (!stop.stop_requested()) {
      ::Sleep(100);
      if (RealClock::now().time_since_epoch().count() > m_End)
        ::TerminateProcess(::GetCurrentProcess(), kHangs);
    }
  }

  std::atomic<RealClock::rep> m_End{(RealClock::now() + kCaseLimit).time_since_epoch().count()};
  std::jthread m_Thread;
};

int ThreadsOfThisProcess() {
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  int count = 0;
  for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
  }
  ::CloseHandle(snapshot);
  return count;
}

/// What the process holds, but for the keys that reading the registry leaves open, as it is meant to.
struct Holdings {
  int threads = 0;
  HandleCensus handles;
  bool operator==(const Holdings&) const = default;
};

Holdings CountHoldings() {
  Holdings holdings{ThreadsOfThisProcess(), HandlesOfThisProcess()};
  holdings.handles.erase(L"Key");
  return holdings;
}

/// What there is more of now, in words; empty when nothing is.
std::string Grown(const Holdings& before, const Holdings& now) {
  std::string text;
  if (now.threads > before.threads) text += " threads +" + std::to_string(now.threads - before.threads);
  for (const auto& [type, count] : now.handles) {
    const auto found = before.handles.find(type);
    const int more = count - (found == before.handles.end() ? 0 : found->second);
    if (more > 0) text += " " + hosts::ToUtf8(type) + " +" + std::to_string(more);
  }
  return text;
}

/// Until nothing ends any more that nobody waits for.
Holdings SettledHoldings(const Holdings& expected) {
  Holdings now = CountHoldings();
  for (int looks = 0; looks < kLooksAtHoldings && !Grown(expected, now).empty(); ++looks) {
    ::Sleep(kPauseBetweenLooks);
    now = CountHoldings();
  }
  return now;
}

class Campaign {
 public:
  explicit Campaign(const Options& options)
      : m_Options(options), m_Service(options.route, options.log, hosts::ToWide(options.key)) {}

  int Run() {
    if (!m_Service.Begin()) return Fail("the service does not begin");
    // Twice: the first one makes what is made once, and is not counted.
    for (int times = 0; times < 2; ++times) {
      m_Service.PutModemWhereTheRouteBegins();
      m_Service.Hooks().ResetCounts();
      if (const std::string finding = SoundJob(); !finding.empty())
        return Fail("a job without faults: " + finding);
    }
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
    const auto calls = m_Service.Hooks().Counts();
    m_Cases = m_Options.log ? RepresentativeCases(calls) : AllCases(calls);
    SaveCases(m_Cases, file);
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
    std::vector<std::size_t> batch;
    Holdings before = CountHoldings();
    for (std::size_t i = 0; i < m_Cases.size(); ++i) {
      if (!IsChosen(i)) continue;
      m_Progress.next = i;
      m_Progress.Save();
      m_Watchdog.Pat();
      Show(i);
      if (!RunCase(m_Cases[i])) {
        m_Progress.next = i + 1;
        m_Progress.Save();
        return kGoOnBehind;
      }
      batch.push_back(i);
      if (batch.size() == kCasesPerCensus) {
        TakeCensus(batch, before);
        batch.clear();
      }
    }
    TakeCensus(batch, before);
    Done();
    return 0;
  }

  /// A live line, where one can be seen.
  void Show(std::size_t number) const {
    DWORD mode = 0;
    if (!::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode)) return;
    std::printf("%zu/%zu %-50s\r", number, m_Cases.size(), m_Cases[number].Name().c_str());
    std::fflush(stdout);
  }

  /// @return false when the process serves no further case.
  bool RunCase(const FaultCase& fault) {
    m_Service.PutModemWhereTheRouteBegins();
    m_Service.LayImage(++m_Images);
    m_Service.Hooks().Arm(fault.Fault());
    const JobEnd end = m_Service.Run();
    if (m_Service.Hooks().Hits() > 0) ++m_Progress.reached;
    m_Service.Hooks().Disarm();
    ++m_Progress.run;
    bool goesOn = true;
    if (const std::string finding = Judge(end); !finding.empty()) goesOn = Report(fault, finding);
    if (!end.ended) return false;
    if (const std::string finding = SoundJob(); !finding.empty()) {
      Report(fault, "the next job: " + finding);
      return false;
    }
    return goesOn;
  }

  /// @return what the contract does not allow, in words; empty when it allows all of it.
  static std::string Judge(const JobEnd& end) {
    const auto& values = end.values;
    const std::string state = "result " + Text(values.result) + ", ready " + Text(values.ready) +
                              ", on-going " + Text(values.onGoing) + ", progress " + Text(values.progress);
    if (!end.ended) return "the service does not wait for the next request: " + state;
    if (!end.Succeeded() && !end.Failed()) return "no documented end: " + state;
    if (end.Succeeded() && !end.isMemoryEqual) return "success is reported, but the memory is not equal";
    if (end.Succeeded() && end.modem != ModemState::Normal)
      return std::string("success is reported, but the modem is ") + NameOf(end.modem);
    if (end.Succeeded() && end.modemAtResult != ModemState::Normal)
      return std::string("success was reported while the modem was ") + NameOf(end.modemAtResult);
    if (values.ready != 0u) return "the flag is not taken back: " + state;
    if (values.onGoing != 0u) return "\"Flash_OnGoing\" is left: " + state;
    if (values.timeOut != 153000u) return "\"Time_Out\" is " + Text(values.timeOut);
    if (values.progress.value_or(101) > 100) return "no percentage: " + state;
    if (end.isImageLeft && (end.Succeeded() || end.sawImage)) return "the image is left: " + state;
    return {};
  }

  static std::string Text(const std::optional<std::uint32_t>& value) {
    return value ? std::to_string(*value) : "none";
  }

  /// A job in which nothing fails, from wherever the modem is. @return what is wrong with it.
  std::string SoundJob() {
    m_Service.LayImage(++m_Images);
    const JobEnd end = m_Service.Run();
    if (std::string finding = Judge(end); !finding.empty()) return finding;
    return end.Succeeded() ? "" : "it fails, the modem is " + std::string(NameOf(end.modem));
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

  /// What grew over a batch is put down to the case that lets it grow again, twice.
  void TakeCensus(const std::vector<std::size_t>& batch, Holdings& before) {
    const Holdings now = SettledHoldings(before);
    if (!Grown(before, now).empty()) {
      for (const std::size_t number : batch) Suspect(m_Cases[number]);
    }
    before = CountHoldings();
  }

  void Suspect(const FaultCase& fault) {
    std::string grown;
    for (int times = 0; times < 2; ++times) {
      m_Watchdog.Pat();
      const Holdings before = CountHoldings();
      m_Service.PutModemWhereTheRouteBegins();
      m_Service.LayImage(++m_Images);
      m_Service.Hooks().Arm(fault.Fault());
      m_Service.Run();
      m_Service.Hooks().Disarm();
      SoundJob();
      grown = Grown(before, SettledHoldings(before));
      if (grown.empty()) return;
    }
    Report(fault, "leaves behind:" + grown);
  }

  const Options m_Options;
  Watchdog m_Watchdog;
  Service m_Service;
  std::vector<FaultCase> m_Cases;
  Progress m_Progress;
  std::uint32_t m_Images = 0;
};

// --- The program that starts them
// ---------------------------------------------------------------------------

std::vector<std::wstring> ArgumentsFrom(std::size_t from, const std::wstring& key) {
  std::vector<std::wstring> words{L"--in-place",
                                  L"--key",
                                  key,
                                  L"--route",
                                  hosts::ToWide(NameOf(g_options.route)),
                                  L"--from",
                                  std::to_wstring(from),
                                  L"--step",
                                  std::to_wstring(g_options.step),
                                  L"--seed",
                                  std::to_wstring(g_options.seed)};
  if (g_options.log) words.push_back(L"--log");
  if (g_options.list) words.push_back(L"--list");
  if (!g_options.only.empty()) words.insert(words.end(), {L"--only", hosts::ToWide(g_options.only)});
  return words;
}

/// Adds up what the children did. @return false when one of them came to no end that can be gone on behind.
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

int RunCampaign() {
  const auto begin = RealClock::now();
  Progress total;
  const bool isWhole = RunChildren(total);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(RealClock::now() - begin).count();
  if (g_options.list) return isWhole ? 0 : 1;
  std::printf("%s%s: %zu of %zu cases, %zu of them reached, %zu findings, %zu not held as known, %lld s\n",
              NameOf(g_options.route), g_options.log ? " with log" : "", total.run, total.cases,
              total.reached, total.findings, total.excused, static_cast<long long>(seconds));
  return isWhole && total.findings == 0 && total.run > 0 ? 0 : 1;
}

bool TakeNumber(std::string_view value, std::size_t& number) {
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  return error == std::errc() && end == value.data() + value.size();
}

/// What becomes of a word of the command line that takes a value. @return false when it means nothing.
bool TakeValue(std::string_view word, std::string_view value) {
  if (word == "--from") return TakeNumber(value, g_options.from);
  if (word == "--seed") return TakeNumber(value, g_options.seed);
  if (word == "--step") return TakeNumber(value, g_options.step) && g_options.step > 0;
  if (word == "--only") {
    g_options.only = value;
    return !value.empty();
  }
  if (word == "--key") {
    g_options.key = value;
    return !value.empty();
  }
  const auto route = word == "--route" ? RouteOfName(value) : std::nullopt;
  if (route) g_options.route = *route;
  return route.has_value();
}

bool TakeSwitch(std::string_view word) {
  bool* const chosen = word == "--log"        ? &g_options.log
                       : word == "--list"     ? &g_options.list
                       : word == "--in-place" ? &g_options.inPlace
                                              : nullptr;
  if (chosen != nullptr) *chosen = true;
  return chosen != nullptr;
}

}  // namespace

int main(int count, char** words) try {
  if (!campaign::TakeWords("fault_campaign", std::span(words, static_cast<std::size_t>(count)).subspan(1),
                           &TakeSwitch, &TakeValue))
    return 2;
  if (!g_options.inPlace) return RunCampaign();
  // Never destroyed: the service goes on until the process ends.
  campaign::EndProcess((new Campaign(g_options))->Run());
} catch (const std::exception& error) {
  std::fprintf(stderr, "fault_campaign: %s\n", error.what());
  return 1;
}
