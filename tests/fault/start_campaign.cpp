// Faults where a process begins, or has one job alone: each case in a process of its own, and behind it one
// in which nothing fails.
//
// usage: start_campaign [--what start|command-line] [--route mbim|at|bbrst|flash-port] [--log] [--large]
//                       [--seed N] [--step N] [--from N] [--only "FUNCTION N"] [--list]
//
// WHAT start         every plausible failure of every call from the loading of the library to its first
//                    wait for a request; then it has to do one, or the host has to see that it does not
//      command-line  of each function that a flash by the command line calls, at each place and in each
//                    stage, the first, the second and the last call
//
// Whatever the first process comes to, the second one is to start and to flash. --step takes every N-th case,
// beginning with the one that --seed chooses; --from goes on at a case, by its number. Exit status 1 when
// there is a finding that the list of what is not held does not name.

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <exception>
#include <filesystem>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fault/campaign_service.h"
#include "fault/fault_cases.h"
#include "fault/job_judgement.h"
#include "hosts/common/facts.h"
#include "hosts/common/text.h"
#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"
#include "simulator/threads/working_threads.h"

using namespace simulator;
using namespace campaign;

namespace {

using namespace std::chrono_literals;

constexpr auto kProcessLimit = 150s;
constexpr wchar_t kCasesFile[] = L"cases.txt";
/// So often is a case played that is not reached.
constexpr int kTries = 4;
/// Threads run side by side, so a few may be missed all the same; one in so many, and one.
constexpr unsigned kOneInMissed = 50;
/// The library starts no service in a program of this name.
constexpr wchar_t kCommandLineProgram[] = L"corvel_cmdline.exe";
/// What the library ends a process with that cannot go on for lack of memory.
constexpr unsigned long kLackOfMemory = 0xE0000008;

// A child's exit status: this, and what came of it.
constexpr unsigned kDone = 64;
constexpr unsigned kReached = 1;
constexpr unsigned kFinding = 2;
constexpr unsigned kExcused = 4;
constexpr unsigned kServesNobody = 8;  ///< and the host sees it

struct Options {
  Route route = Route::Mbim;
  bool isCommandLine = false;
  bool log = false;
  bool large = false;
  std::size_t seed = 0;
  std::size_t step = 1;
  std::size_t from = 0;
  std::string only;
  bool list = false;
  // Of the child.
  bool inPlace = false;
  std::string key;
  std::string part;  ///< "record", "fault" or "sound"
  std::size_t number = 0;
};
Options g_options;
std::span<char* const> g_words;

const char* NameOfWhat() {
  return g_options.isCommandLine ? "command-line" : "start";
}

// --- One process -------------------------------------------------------------------------------------------

/// What the library exports, by the name that its compiler gives it.
template <typename T>
T* Exported(HMODULE library, const char* name, [[maybe_unused]] const char* nameByMsvc) {
#if defined(_MSC_VER)
  name = nameByMsvc;
#endif
  return reinterpret_cast<T*>(::GetProcAddress(library, name));
}

/// Without these a flash by the command line does not begin.
constexpr std::string_view kBreakOff[] = {
    // The configuration cannot be read.
    "CoInitializeEx", "GetFileAttributesW", "GetModuleFileNameW", "_wfsopen", "fread",
    // The images cannot be listed.
    "FindFirstFileW", "FindNextFileW",
    // There is no worker.
    "CreateThread", "GetModuleHandleExW"};

bool IsLackOfMemory(const FaultCase& fault) {
  return std::ranges::any_of(fault.faults, [](const SingleFault& single) {
    return single.function.find("lloc") != std::string::npos;
  });
}

bool MayBreakOff(const FaultCase& fault) {
  return IsLackOfMemory(fault) || std::ranges::any_of(fault.faults, [](const SingleFault& single) {
           return std::ranges::find(kBreakOff, single.function) != std::end(kBreakOff);
         });
}

/// The library as the command line uses it.
class CommandLineJob {
 public:
  CommandLineJob(HMODULE library, const std::wstring& key) : m_Library(library), m_Key(key) {}

  void Run(bool log) const {
    auto* const initialize = Exported<bool()>(m_Library, "_ZN7ToolKit18Initialize_CmdLineEv",
                                              "?Initialize_CmdLine@ToolKit@@SA_NXZ");
    auto* const flash = Exported<bool(int, char*, int, char*, char*)>(
        m_Library, "_ZN7ToolKit21FirmwareFlash_CmdLineEiPciS0_S0_",
        "?FirmwareFlash_CmdLine@ToolKit@@SA_NHPEADH00@Z");
    auto* const root =
        Exported<HKEY>(m_Library, "_ZN7ToolKit8hMainKeyE", "?hMainKey@ToolKit@@2PEAUHKEY__@@EA");
    auto* const path = Exported<wchar_t>(m_Library, "_ZN7ToolKit7mStrKeyE", "?mStrKey@ToolKit@@2PA_WA");
    auto* const load = Exported<bool(const wchar_t*)>(m_Library, "_ZN7ToolKit10LoadConfigEPKw",
                                                      "?LoadConfig@ToolKit@@SA_NPEB_W@Z");
    working_threads::Begin();
    working_threads::JoinCallingThread();
    initialize();
    // Without a configuration the host does not begin.
    if (!load(nullptr)) return;
    // Not the machine's: that one is everybody's.
    *root = HKEY_CURRENT_USER;
    std::wcscpy(path, m_Key.c_str());
    char type[] = "USB";
    flash(log ? 3 : 0, type, 0, nullptr, nullptr);
    working_threads::LeaveCallingThread();
  }

 private:
  HMODULE m_Library;
  std::wstring m_Key;
};

class Process {
 public:
  explicit Process(const Options& options)
      : m_Options(options),
        m_Service({.route = options.route,
                   .log = options.log,
                   .images = options.large ? Images::Large : Images::Small,
                   .key = hosts::ToWide(options.key),
                   .begins = options.part == "sound" ? Begins::WithModemAsLeft : Begins::Anew}) {}

  unsigned Run() {
    if (m_Options.part == "record") return Record();
    if (m_Options.part == "sound") return Sound();
    return WithFault(LoadCases(CasesFile()).at(m_Options.number));
  }

 private:
  static std::filesystem::path CasesFile() {
    return std::filesystem::path(hosts::ProgramFolder()) / kCasesFile;
  }

  unsigned Report(const FaultCase& fault, const std::string& finding) const {
    const bool isKnown = ExcuseOf(fault, m_Options.route, finding) != nullptr;
    std::printf("%s %s, %s: %s: %s%s\n", isKnown ? "not held" : "FINDING", NameOf(m_Options.route),
                NameOfWhat(), fault.Name().c_str(), finding.c_str(), isKnown ? " (known)" : "");
    return isKnown ? kExcused : kFinding;
  }

  unsigned Record() {
    Service::Record(true);
    const unsigned result = Sound();
    if (result != kDone) return result;
    SaveCases(m_Options.isCommandLine ? RepresentativeCases(m_Record) : CasesOfStart(Counted(m_Record)),
              CasesFile());
    return kDone;
  }

  static CallCounts Counted(const std::vector<MadeCall>& calls) {
    CallCounts counts;
    for (const MadeCall& call : calls) ++counts[call.function];
    return counts;
  }

  unsigned Sound() {
    m_Service.LayImages(static_cast<std::uint32_t>(2 * m_Options.number + 2));
    const HMODULE library = m_Service.Load();
    std::string finding = "it cannot be loaded";
    if (library != nullptr) finding = m_Options.isCommandLine ? SoundCommandLine(library) : SoundService();
    if (finding.empty()) return kDone;
    std::printf("  %s\n", finding.c_str());
    return kDone + kFinding;
  }

  std::string SoundService() {
    if (!m_Service.AwaitRest(0)) return "it does not come to wait for a request";
    m_Record = m_Service.TakeRecord();
    // A request that the process before left standing has taken them.
    m_Service.LayImages(static_cast<std::uint32_t>(2 * m_Options.number + 2));
    return WhatIsWrongWithSound(m_Service.Run());
  }

  std::string SoundCommandLine(HMODULE library) {
    m_Service.TakeRecord();
    const JobEnd end = Flash(library);
    m_Record = m_Service.TakeRecord();
    if (std::string finding = WhatIsWrongWithCommandLine(end); !finding.empty()) return finding;
    return end.Succeeded() ? "" : "it fails";
  }

  JobEnd Flash(HMODULE library) {
    m_Service.ForgetLastJob();
    m_Service.Request();
    CommandLineJob(library, hosts::ToWide(m_Options.key)).Run(m_Options.log);
    return m_Service.Look(true);
  }

  unsigned WithFault(const FaultCase& fault) {
    m_Service.LayImages(static_cast<std::uint32_t>(2 * m_Options.number + 1));
    if (!m_Options.isCommandLine) {
      m_Service.Pc().WhenPlaced([&](CallHooks& hooks) { Arm(hooks, fault); });
    }
    const HMODULE library = m_Service.Load();
    const DWORD error = ::GetLastError();
    unsigned result = kDone;
    if (library == nullptr) {
      result +=
          error == ERROR_SUCCESS ? Report(fault, "it is not loaded, and no error says so") : kServesNobody;
    } else {
      result += m_Options.isCommandLine ? FaultyCommandLine(library, fault) : FaultyStart(library, fault);
    }
    if (m_Service.Hooks().Missed() > 0) result |= Report(fault, "a call could not be made to fail");
    return result + (m_Service.Hooks().Hits() > 0 ? kReached : 0);
  }

  static void Arm(CallHooks& hooks, const FaultCase& fault) {
    for (const SingleFault& single : fault.faults) hooks.Arm(single.Fault());
  }

  unsigned FaultyCommandLine(HMODULE library, const FaultCase& fault) {
    Arm(m_Service.Hooks(), fault);
    const JobEnd end = Flash(library);
    if (IsBrokenOff(end)) {
      std::printf("broken off %s, %s: %s\n", NameOf(m_Options.route), NameOfWhat(), fault.Name().c_str());
      if (!MayBreakOff(fault)) return Report(fault, "it is broken off");
    }
    const std::string finding = WhatIsWrongWithCommandLine(end);
    return finding.empty() ? 0 : Report(fault, finding);
  }

  unsigned FaultyStart(HMODULE library, const FaultCase& fault) {
    auto* const isConfigured =
        Exported<bool()>(library, hosts::kIsConfigLoadedExport, hosts::kIsConfigLoadedExport);
    // The service's host ends then, and is started anew by the service manager.
    if (!isConfigured()) return kServesNobody;
    if (!m_Service.AwaitRest(0)) return Report(fault, kNobodyKnows);
    const std::string finding = WhatIsWrongWith(m_Service.Run());
    return finding.empty() ? 0 : Report(fault, finding);
  }

  const Options m_Options;
  Service m_Service;
  std::vector<MadeCall> m_Record;
};

// --- The program that starts them --------------------------------------------------------------------------

class Processes {
 public:
  Processes() : m_Program(m_Folder.Program()) {
    if (!g_options.isCommandLine) return;
    m_Program = m_Folder.Path() / kCommandLineProgram;
    std::filesystem::copy_file(m_Folder.Program(), m_Program);
  }

  int Run() {
    const auto begin = std::chrono::steady_clock::now();
    if (const unsigned long status = Start(L"record", 0); status != kDone) {
      std::printf("a run without faults ends with %lu\n", status);
      return 1;
    }
    const std::vector<FaultCase> cases = LoadCases(m_Folder.Path() / kCasesFile);
    if (g_options.list) return List(cases);
    for (std::size_t i = 0; i < cases.size(); ++i) {
      if (IsChosen(i, cases[i])) RunCase(i, cases[i]);
    }
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
    std::printf(
        "%s, %s%s%s: %u of %zu cases, %u of them reached, %u served nobody, %u findings, %u not held as "
        "known, %lld s\n",
        NameOf(g_options.route), NameOfWhat(), g_options.log ? ", log" : "", g_options.large ? ", 12 MB" : "",
        m_Run, cases.size(), m_Reached, m_ServedNobody, m_Findings, m_Excused,
        static_cast<long long>(seconds));
    const bool wereReached = (m_Run - m_Reached) * kOneInMissed <= m_Run + kOneInMissed;
    return m_Run > 0 && m_Reached > 0 && wereReached && m_Findings == 0 ? 0 : 1;
  }

 private:
  static int List(const std::vector<FaultCase>& cases) {
    for (std::size_t i = 0; i < cases.size(); ++i) std::printf("%zu %s\n", i, cases[i].Name().c_str());
    return 0;
  }

  static bool IsChosen(std::size_t number, const FaultCase& fault) {
    if (number < g_options.from) return false;
    if (!g_options.only.empty()) return fault.Name() == g_options.only;
    return number % g_options.step == g_options.seed % g_options.step;
  }

  void RunCase(std::size_t number, const FaultCase& fault) {
    ++m_Run;
    unsigned long status = Start(L"fault", number);
    for (int tries = 1; tries < kTries && WasMissed(status); ++tries) status = Start(L"fault", number);
    if (WasMissed(status)) TellMissed(fault);
    // Only then may a process end so.
    if (status == kLackOfMemory && IsLackOfMemory(fault)) {
      ++m_Reached;
      ++m_ServedNobody;
    } else if (status < kDone || status >= 2 * kDone) {
      Tell(fault, "the process ends with " + std::to_string(status));
    } else {
      if ((status & kReached) != 0) ++m_Reached;
      if ((status & kServesNobody) != 0) ++m_ServedNobody;
      if ((status & kFinding) != 0) ++m_Findings;
      if ((status & kExcused) != 0) ++m_Excused;
    }
    if (const unsigned long next = Start(L"sound", number); next != kDone)
      Tell(fault, "the next process ends with " + std::to_string(next));
  }

  /// The call may have been another thread's this time.
  static bool WasMissed(unsigned long status) {
    return status >= kDone && status < 2 * kDone && (status & (kReached | kFinding | kExcused)) == 0;
  }

  static void TellMissed(const FaultCase& fault) {
    std::printf("not reached %s, %s: %s (tried %d times)\n", NameOf(g_options.route), NameOfWhat(),
                fault.Name().c_str(), kTries);
  }

  void Tell(const FaultCase& fault, const std::string& finding) {
    ++m_Findings;
    std::printf("FINDING %s, %s: %s: %s\n", NameOf(g_options.route), NameOfWhat(), fault.Name().c_str(),
                finding.c_str());
    std::fflush(stdout);
  }

  unsigned long Start(const std::wstring& part, std::size_t number) const {
    std::vector<std::wstring> words;
    for (const char* word : g_words) words.push_back(hosts::ToWide(word));
    words.insert(words.end(),
                 {L"--in-place", L"--key", m_KeyPath, L"--part", part, L"--number", std::to_wstring(number)});
    return RunChild(m_Program, words, kProcessLimit).exitCode;
  }

  const WorkFolder m_Folder;
  std::filesystem::path m_Program;
  const std::wstring m_KeyPath = L"Software\\Corvel\\Test\\start-" + std::to_wstring(::GetCurrentProcessId());
  const SessionKey m_Key{m_KeyPath, false};
  unsigned m_Run = 0;
  unsigned m_Reached = 0;
  unsigned m_ServedNobody = 0;
  unsigned m_Findings = 0;
  unsigned m_Excused = 0;
};

/// What becomes of a word of the command line that takes a value. @return false when it means nothing.
bool TakeValue(std::string_view word, std::string_view value) {
  if (word == "--from") return TakeNumber(value, g_options.from);
  if (word == "--seed") return TakeNumber(value, g_options.seed);
  if (word == "--number") return TakeNumber(value, g_options.number);
  if (word == "--step") return TakeNumber(value, g_options.step) && g_options.step > 0;
  if (word == "--only") return TakeText(value, g_options.only);
  if (word == "--key") return TakeText(value, g_options.key);
  if (word == "--part") return TakeText(value, g_options.part);
  if (word == "--what") {
    g_options.isCommandLine = value == "command-line";
    return g_options.isCommandLine || value == "start";
  }
  const auto route = word == "--route" ? RouteOfName(value) : std::nullopt;
  if (route) g_options.route = *route;
  return route.has_value();
}

constexpr campaign::Switch kSwitches[] = {{"--log", &g_options.log},
                                          {"--large", &g_options.large},
                                          {"--list", &g_options.list},
                                          {"--in-place", &g_options.inPlace}};

}  // namespace

int main(int count, char** words) try {
  g_words = std::span(words, static_cast<std::size_t>(count)).subspan(1);
  if (!campaign::TakeWords("start_campaign", g_words, kSwitches, &TakeValue)) return 2;
  if (!g_options.inPlace) return Processes().Run();
  // Never destroyed: the service goes on until the process ends.
  campaign::EndProcess(static_cast<int>((new Process(g_options))->Run()));
} catch (const std::exception& error) {
  std::fprintf(stderr, "start_campaign: %s\n", error.what());
  return 1;
}
