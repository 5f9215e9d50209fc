// Races in flash jobs of the service: while a job runs, its threads are held up at random calls, and somebody
// meddles with what it works on.
//
// usage: race_campaign [--route mbim|at|bbrst|flash-port] [--cases N] [--seed N] [--from N] [--only KIND]
//
// The kinds of meddling that the route knows take turns (the table in this file). Behind each case there is a
// job that nobody disturbs and that has to succeed. Then come hosts that leave in the middle of a job (exit),
// two hosts on one key and one modem in one process (two-hosts), and in two, of which now and then one is
// killed or leaves while both work (two-processes). One line per finding, with the seed and the number that
// bring its case again; exit status 1 when there is any, or when of a kind more than every other case has not
// met what it meddles with: it has tested nothing. The schedule is the system's all the same: a case that is
// run again may end another way.
//
// Many cases share a process. One that hangs or crashes ends it; it is named, and the rest goes on behind it.

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <wrl/client.h>

#include "fault/campaign_service.h"
#include "fault/fault_cases.h"
#include "fault/job_judgement.h"
#include "fault/perturber.h"
#include "fault/two_processes.h"
#include "fault/watchdog.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "simulator/mobile_broadband.h"
#include "simulator/program/fleet/pc_plan.h"
#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"
#include "simulator/threads/working_threads.h"

using namespace simulator;
using namespace campaign;
using Microsoft::WRL::ComPtr;

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

constexpr unsigned kExited = 77;
/// Longer than a job takes that nothing holds up.
constexpr auto kKeyMeddledWith = 3s;
/// An exit behind so many thousandths of a job's calls leaves the request standing.
constexpr int kLatestExit = 900;
/// Of the requests to a host that is left one in so many, and one, may not be heard.
constexpr unsigned kMostUnheard = 4;
constexpr wchar_t kProgressFile[] = L"races.txt";
/// The seed of the image that is being flashed when a host leaves.
constexpr std::uint32_t kImagesAtExit = 1'000'000;

struct Options {
  Route route = Route::Mbim;
  std::size_t cases = 100;
  std::size_t seed = 1;
  std::size_t from = 0;
  std::string only;
  std::string key;
  bool inPlace = false;
  std::size_t exitAt = 0;   ///< of the child: leaves behind so many thousandths of a job's calls
  bool behindExit = false;  ///< of the child: judges what the host before has left
  bool twoHosts = false;    ///< of the child
  std::string pair;         ///< of the child that is one of two processes: by which name they meet
  std::size_t hostOfPair = 0;
};
Options g_options;

// --- What is meddled with ---------------------------------------------------------------------------------

/// Somebody beside the job, until it is over.
class Meddler {
 public:
  template <typename Step>
  Meddler(std::uint64_t seed, Step step)
      : m_Thread([seed, step](const std::stop_token& stop) {
          Dice dice(seed);
          while (!stop.stop_requested()) {
            ::Sleep(static_cast<DWORD>(dice.Between(0, 20)));
            step(dice);
          }
        }) {}

 private:
  std::jthread m_Thread;
};

struct Bench {
  Service& service;
  const hosts::HandshakeKey& key;
  std::filesystem::path folder;
  std::uint32_t images;  ///< seed of the present image
  std::string configuration;
  std::map<std::string, int> calls{};  ///< of a job on this route that nobody disturbs
  /// Whether a case has met what it meddles with.
  bool isReached = false;
  /// How a case left the service before the job that is judged: with values that somebody else wrote.
  std::optional<JobEnd> meddledWith = std::nullopt;
};

void Raise(const Bench& bench, std::uint32_t value) {
  hosts::WriteHandshakeValue(bench.key, L"Fls_Ready", value);
}

/// Takes the flag back so that the service wakes: a value that is what it was is not announced everywhere.
void Lower(const Bench& bench) {
  Raise(bench, 2);
  Raise(bench, 0);
}

/// Completions that nobody asked for, early, late, twice and from several threads; and some to sinks that are
/// no longer advised.
class Completions {
 public:
  explicit Completions(SimulatedMobileBroadband& service) : m_Service(service) {}

  /// Whether a sink has had one.
  bool CameToSink() const { return m_CameToSink; }

  void Bring(Dice& dice) {
    const int kind = dice.Between(0, 3);
    const HRESULT status = dice.Between(0, 1) == 0 ? S_OK : E_FAIL;
    const auto request = static_cast<ULONG>(dice.Between(0, 6));
    m_Service.Notify([&](IMbnDeviceServicesEvents& sink) {
      m_CameToSink = true;
      Keep(sink);
      Bring(sink, kind, status, request);
    });
    for (const auto& sink : Kept()) Bring(*sink.Get(), kind, status, request);
  }

 private:
  static constexpr std::size_t kMostKept = 4;

  static void Bring(IMbnDeviceServicesEvents& sink, int kind, HRESULT status, ULONG request) {
    switch (kind) {
      case 0:
        sink.OnOpenCommandSessionComplete(nullptr, status, request);
        break;
      case 1:
        sink.OnQuerySupportedCommandsComplete(nullptr, nullptr, status, request);
        break;
      case 2:
        sink.OnSetCommandComplete(nullptr, 1, nullptr, status, request);
        break;
      default:
        sink.OnCloseCommandSessionComplete(nullptr, status, request);
        break;
    }
  }
  void Keep(IMbnDeviceServicesEvents& sink) {
    const std::lock_guard lock(m_Lock);
    if (m_Kept.size() == kMostKept) m_Kept.erase(m_Kept.begin());
    m_Kept.emplace_back(&sink);
  }
  std::vector<ComPtr<IMbnDeviceServicesEvents>> Kept() {
    const std::lock_guard lock(m_Lock);
    return m_Kept;
  }

  SimulatedMobileBroadband& m_Service;
  std::atomic<bool> m_CameToSink{false};
  std::mutex m_Lock;
  std::vector<ComPtr<IMbnDeviceServicesEvents>> m_Kept;
};

JobEnd RunWithCompletions(Bench& bench, std::uint64_t seed) {
  Completions completions(bench.service.Pc().MobileBroadband());
  const auto bring = [&completions](Dice& dice) { completions.Bring(dice); };
  const Meddler one(seed, bring);
  const Meddler other(seed + 1, bring);
  const JobEnd end = bench.service.Run();
  bench.isReached = completions.CameToSink();
  return end;
}

/// Virtual time for which a thread is held up, mostly longer than an attempt may take.
std::chrono::milliseconds DelayOfLateWorker(Dice& dice) {
  const bool isShort = dice.Between(1, 4) == 1;
  return std::chrono::milliseconds(isShort ? dice.Between(20, 600) : dice.Between(660, 1200));
}

/// Holds the thread that sends an item up in the middle of it, once. Behind it come the rest of the item, and
/// what is told of it.
class HeldInItem {
 public:
  HeldInItem(VirtualModem& modem, Dice& dice) : m_Modem(modem) {
    constexpr std::uint32_t kBlockSize = 1024;
    const auto at = static_cast<std::uint32_t>(dice.Between(1, 60)) * kBlockSize;
    const auto delay = static_cast<DWORD>(DelayOfLateWorker(dice).count());
    m_Modem.TakeInBlocks(kBlockSize, [held = m_IsHeld, at, delay](std::uint32_t written) {
      if (written < at || held->exchange(true)) return;
      const working_threads::Rest rest;
      ::Sleep(delay);
    });
  }
  ~HeldInItem() { m_Modem.TakeInBlocks(VirtualModem::kUsualBlockSize, nullptr); }
  HeldInItem(const HeldInItem&) = delete;
  HeldInItem& operator=(const HeldInItem&) = delete;

  bool IsHeld() const { return *m_IsHeld; }

 private:
  VirtualModem& m_Modem;
  // The thread may come back when all this is over.
  std::shared_ptr<std::atomic<bool>> m_IsHeld = std::make_shared<std::atomic<bool>>(false);
};

/// Calls that hold a thread up for so long that it is given up, and comes back anywhere behind.
JobEnd RunWithLateWorkers(Bench& bench, std::uint64_t seed) {
  static constexpr const char* kCalls[] = {"CreateFileW",
                                           "DeviceIoControl",
                                           "GetOverlappedResultEx",
                                           "CM_Get_Device_ID_ListW",
                                           "RegSetValueExW",
                                           "ReadFile",
                                           "WriteFile",
                                           "CM_Get_Device_Interface_ListW",
                                           "CM_Reenumerate_DevNode",
                                           "LoadLibraryW",
                                           "GetProcAddress",
                                           "CoCreateInstance",
                                           "_ZEMO_DL_open_comm_port",
                                           "_ZEMO_DL_boot_target",
                                           "_ZEMO_DL_download_fls_file",
                                           "_ZEMO_DL_download_dffs_file",
                                           "_ZEMO_DL_download_cust_file"};
  // Only what a job on this route does.
  std::vector<std::pair<const char*, int>> made;
  for (const char* const call : kCalls) {
    if (const auto found = bench.calls.find(call); found != bench.calls.end())
      made.emplace_back(call, found->second);
  }
  Dice dice(seed);
  for (int i = dice.Between(1, 4); i > 0; --i) {
    CallFault fault;
    const auto& [function, count] =
        made.at(static_cast<std::size_t>(dice.Between(0, static_cast<int>(made.size()) - 1)));
    fault.function = function;
    fault.calls = Occurrence::Only(dice.Between(1, count));
    fault.way = CallFault::Way::Delayed;
    fault.delay = DelayOfLateWorker(dice);
    bench.service.Hooks().Arm(fault);
  }
  std::optional<HeldInItem> inItem;
  if (dice.Between(0, 1) == 1) inItem.emplace(bench.service.Pc().Modem(), dice);
  const JobEnd end = bench.service.Run();
  bench.isReached = bench.service.Hooks().Hits() > 0 || (inItem && inItem->IsHeld());
  bench.service.Hooks().Disarm();
  return end;
}

/// A controller that asks again as soon as the flag is taken back: nothing changes the key any more then.
JobEnd RunWithHaste(Bench& bench, std::uint64_t seed) {
  const hosts::OwnedHandle over(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
  Perturber::TellOfEnds(over.get());
  std::jthread again([&] {
    Dice dice(seed);
    ::WaitForSingleObject(over.get(), INFINITE);
    ::Sleep(static_cast<DWORD>(dice.Between(0, 4)));
    Raise(bench, 1);
  });
  JobEnd end = bench.service.Run();
  bench.isReached = Perturber::Ends() > 0;
  ::SetEvent(over.get());
  again.join();
  Perturber::TellOfEnds(nullptr);
  return end.ended ? bench.service.GoOn() : end;
}

/// Two controllers that raise and lower the flag.
JobEnd RunWithTwoControllers(Bench& bench, std::uint64_t seed) {
  {
    const auto wave = [&bench](Dice& dice) { Raise(bench, static_cast<std::uint32_t>(dice.Between(0, 2))); };
    const Meddler one(seed, wave);
    const Meddler other(seed + 1, wave);
    const int before = bench.service.Hooks().Count("RegSetValueExW");
    ::Sleep(300);
    bench.isReached = bench.service.Hooks().Count("RegSetValueExW") > before;
  }
  // Whatever they left, and whatever it has become: once the service is at rest, this is asked for.
  const unsigned waits = Service::Waits();
  Lower(bench);
  bench.meddledWith = bench.service.Look(bench.service.AwaitRest(waits));
  bench.service.LayImages(bench.images);
  return bench.service.Run();
}

void DeleteKey(const Bench& bench) {
  ::RegDeleteTreeW(bench.key.root, bench.key.path.c_str());
  Perturber::SignalWatch();
}

void WriteOddValue(const Bench& bench, Dice& dice) {
  static constexpr const wchar_t* kNames[] = {L"Retry_Times", L"Flash_Progress", L"Flash_Result",
                                              L"Flash_OnGoing"};
  const wchar_t* const name = kNames[dice.Between(0, 3)];
  HKEY opened = nullptr;
  if (::RegOpenKeyExW(bench.key.root, bench.key.path.c_str(), 0, KEY_SET_VALUE, &opened) != ERROR_SUCCESS)
    return;
  const hosts::OwnedKey owner(opened);
  static constexpr BYTE kBytes[] = {'4', 0, '2', 0, 0, 0, 7, 7, 7, 7};
  switch (dice.Between(0, 2)) {
    case 0:
      ::RegDeleteValueW(opened, name);
      break;
    case 1:
      ::RegSetValueExW(opened, name, 0, REG_SZ, kBytes, 6);
      break;
    default:
      ::RegSetValueExW(opened, name, 0, REG_BINARY, kBytes, sizeof kBytes);
      break;
  }
}

/// The key is deleted, made again and filled with odd values at any time, also while it is watched.
JobEnd RunWithKeyChanged(Bench& bench, std::uint64_t seed) {
  DeleteKey(bench);
  {
    std::atomic<bool> isDeleted{false};
    const Meddler meddler(seed, [&](Dice& dice) {
      if (dice.Between(1, 8) == 1) {
        DeleteKey(bench);
        isDeleted = true;
      }
      WriteOddValue(bench, dice);
    });
    // Without a key the service waits for one, which is no rest.
    const auto end = RealClock::now() + kKeyMeddledWith;
    bench.service.Run([end] { return RealClock::now() > end; });
    bench.isReached = isDeleted;
  }
  // A key that went away took the values with it.
  const unsigned waits = Service::Waits();
  Lower(bench);
  bench.meddledWith = bench.service.Look(bench.service.AwaitRest(waits));
  hosts::WriteHandshakeValue(bench.key, L"Retry_Times", 3);
  bench.service.LayImages(bench.images);
  return bench.service.Run();
}

/// Configuration and images come, go and change.
JobEnd RunWithFilesChanged(Bench& bench, std::uint64_t seed) {
  const auto configuration = bench.folder / L"CorvelConfig.ini";
  JobEnd end;
  {
    std::atomic<bool> isChanged{false};
    const Meddler meddler(seed, [&](Dice& dice) {
      isChanged = true;
      std::error_code ignored;
      const auto image = bench.folder / L"firmware" / L"nvm.fls";
      switch (dice.Between(0, 4)) {
        case 0:
          std::filesystem::remove(image, ignored);
          break;
        case 1:
          static_cast<void>(SaveImageFile(BuildImage(SmallImagePlan(bench.images)), image));
          break;
        case 2:
          std::filesystem::remove(configuration, ignored);
          break;
        case 3:
          std::ofstream(configuration, std::ios::binary)
              << "title\r\n[RegistryLocation]=HKLM\\SOFTWARE\\other\r\n";
          break;
        default:
          std::ofstream(image.parent_path() / L"modem.fls", std::ios::binary) << "no image";
          break;
      }
    });
    end = bench.service.Run();
    bench.isReached = isChanged;
  }
  std::error_code ignored;
  std::filesystem::remove(bench.folder / L"firmware" / L"modem.fls", ignored);
  std::ofstream(configuration, std::ios::binary) << bench.configuration;
  return end;
}

/// The host frees the library, and loads it again, while it works.
JobEnd RunWithLibraryFreed(Bench& bench, std::uint64_t seed) {
  std::atomic<bool> isFreed{false};
  const Meddler meddler(seed, [&](Dice& dice) {
    static constexpr wchar_t kLibrary[] = L"CorvelToolKit.dll";
    if (dice.Between(0, 1) == 0) {
      ::LoadLibraryW(kLibrary);
    } else if (const HMODULE library = ::GetModuleHandleW(kLibrary)) {
      ::FreeLibrary(library);
      isFreed = true;
    }
  });
  const JobEnd end = bench.service.Run();
  bench.isReached = isFreed;
  return end;
}

/// A schedule that is disturbed, and nothing else.
JobEnd RunAlone(Bench& bench, std::uint64_t) {
  const JobEnd end = bench.service.Run();
  bench.isReached = Perturber::HeldUp() > 0;
  return end;
}

struct Kind {
  const char* name;
  JobEnd (*run)(Bench& bench, std::uint64_t seed);
  /// The result tells of the image that the bench knows, whole and alone.
  bool isImageKnown;
  bool hasDocumentedEnd;
  std::optional<Route> route = std::nullopt;  ///< the only one on which it can happen
};
constexpr Kind kKinds[] = {
    {"schedule", &RunAlone, true, true},
    {"completions", &RunWithCompletions, true, true, Route::Mbim},
    {"late-workers", &RunWithLateWorkers, true, true},
    {"two-controllers", &RunWithTwoControllers, true, true},
    {"key", &RunWithKeyChanged, true, true},
    {"files", &RunWithFilesChanged, false, true},
    {"freed", &RunWithLibraryFreed, true, true},
    {"haste", &RunWithHaste, false, true},
};
// These need processes of their own.
constexpr char kExit[] = "exit";
constexpr char kTwoHosts[] = "two-hosts";
constexpr char kTwoProcesses[] = "two-processes";
constexpr std::string_view kOfManyProcesses[] = {kExit, kTwoHosts, kTwoProcesses};

/// Those that can happen on the route.
std::vector<const Kind*> KindsHere() {
  std::vector<const Kind*> kinds;
  for (const Kind& kind : kKinds) {
    if (!kind.route || kind.route == g_options.route) kinds.push_back(&kind);
  }
  return kinds;
}

const Kind& KindOf(std::size_t number) {
  static const std::vector<const Kind*> kinds = KindsHere();
  return *kinds[number % kinds.size()];
}

// --- One process ------------------------------------------------------------------------------------------

/// The cases of one kind.
struct Count {
  std::size_t run = 0;
  std::size_t reached = 0;
};

struct Progress {
  std::size_t next = 0;
  std::size_t findings = 0;
  bool isDone = false;
  std::map<std::string, Count> kinds;

  void Add(const std::string& kind, bool isReached) {
    ++kinds[kind].run;
    if (isReached) ++kinds[kind].reached;
  }
  void Add(const Progress& other) {
    findings += other.findings;
    for (const auto& [kind, count] : other.kinds) {
      kinds[kind].run += count.run;
      kinds[kind].reached += count.reached;
    }
  }
  std::size_t Run() const {
    std::size_t run = 0;
    for (const auto& [kind, count] : kinds) run += count.run;
    return run;
  }
  /// Of each kind every other case, at the least.
  bool WereReached() const {
    return std::ranges::all_of(kinds,
                               [](const auto& kind) { return 2 * kind.second.reached >= kind.second.run; });
  }

  void Save() const {
    std::ofstream file(std::filesystem::path(hosts::ProgramFolder()) / kProgressFile);
    file << next << ' ' << findings << ' ' << isDone << '\n';
    for (const auto& [kind, count] : kinds) file << kind << ' ' << count.run << ' ' << count.reached << '\n';
  }
  static std::optional<Progress> Load(const std::filesystem::path& folder) {
    Progress progress;
    std::ifstream file(folder / kProgressFile);
    if (!(file >> progress.next >> progress.findings >> progress.isDone)) return std::nullopt;
    std::string kind;
    for (Count count; file >> kind >> count.run >> count.reached;) progress.kinds[kind] = count;
    return progress;
  }
};

std::string ReadFile(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string Text(const std::optional<std::uint32_t>& value) {
  return value ? std::to_string(*value) : "none";
}

class Races {
 public:
  explicit Races(const Options& options)
      : m_Options(options),
        m_Key{HKEY_CURRENT_USER, L"HKCU", hosts::ToWide(options.key)},
        m_Service({.route = options.route,
                   .key = hosts::ToWide(options.key),
                   .begins = Begins::WithModemAsLeft,
                   .hosts = options.twoHosts ? 2u : 1u}),
        m_Bench{m_Service, m_Key, hosts::ProgramFolder(), 0,
                ReadFile(std::filesystem::path(hosts::ProgramFolder()) / L"CorvelConfig.ini")} {}

  int Run() {
    const hosts::Handshake left = m_Service.Values();
    if (m_Options.behindExit) m_Service.ExpectImages(kImagesAtExit);
    if (!m_Service.Begin()) return Fail("the service does not begin");
    if (m_Options.behindExit) {
      m_Progress.Add(kExit, left.ready == 1u);
      if (const std::string finding = WhatIsWrongWithGoingOn(left, m_Service.Look(true)); !finding.empty())
        return Fail("what the host before has left: " + finding);
    }
    Service::AlsoTell(&Perturber::See);
    if (m_Options.twoHosts) return RunTwoHosts();
    // Whatever a process before has left to do is done by now; the second one begins where all others do.
    for (int times = 0; times < 2; ++times) {
      m_Service.Hooks().ResetCounts();
      if (const std::string finding = SoundJob(); !finding.empty())
        return Fail("a job without races: " + finding);
      m_Bench.calls = m_Service.Hooks().Counts();
      m_Service.PutModemWhereTheRouteBegins();
    }
    if (m_Options.exitAt != 0) ExitInJob();
    for (std::size_t i = m_Options.from; i < m_Options.cases; ++i) {
      if (!m_Options.only.empty() && m_Options.only != KindOf(i).name) continue;
      m_Progress.next = i;
      m_Progress.Save();
      m_Watchdog.Pat();
      if (RunCase(i)) continue;
      m_Progress.next = i + 1;
      m_Progress.Save();
      return kGoOnBehind;
    }
    m_Progress.isDone = true;
    m_Progress.Save();
    return 0;
  }

 private:
  static int Fail(const std::string& why) {
    std::printf("%s\n", why.c_str());
    return 1;
  }

  /// @return false when the process serves no further case.
  bool RunCase(std::size_t number) {
    const Kind& kind = KindOf(number);
    m_Service.PutModemWhereTheRouteBegins();
    m_Service.LayImages(m_Bench.images = ++m_Images);
    const std::uint64_t seed = Dice(m_Options.seed * 1'000'003 + number).Throw();
    Perturber::Begin(seed);
    m_Bench.meddledWith.reset();
    m_Bench.isReached = false;
    const JobEnd end = kind.run(m_Bench, seed);
    Perturber::End();
    m_Progress.Add(kind.name, m_Bench.isReached);
    std::string finding = Judge(kind, end);
    if (finding.empty() && m_Bench.meddledWith) finding = JudgeMeddledWith(*m_Bench.meddledWith);
    if (!finding.empty()) Report(number, finding);
    if (!end.ended) return false;
    m_Watchdog.Pat();
    if (const std::string after = SoundJob(); !after.empty()) {
      Report(number, "the next job: " + after);
      return false;
    }
    return true;
  }

  /// Both see each request, and get into each other's way. Nobody can promise more of that than an end that
  /// is documented: whose result is the last one, and of which attempt it tells, is chance.
  int RunTwoHosts() {
    constexpr int kJobs = 3;
    for (int job = 0; job < kJobs; ++job) {
      m_Watchdog.Pat();
      m_Service.PutModemWhereTheRouteBegins();
      m_Service.LayImages(++m_Images);
      Perturber::Begin(Dice(m_Options.seed * 1'000'003 + static_cast<std::uint64_t>(job)).Throw());
      const JobEnd end = m_Service.Run();
      Perturber::End();
      if (const std::string finding = JudgeValues(end, true); !finding.empty())
        return Fail("two hosts, job " + std::to_string(job) + ": " + finding);
    }
    return 0;
  }

  /// @return what of the values may not be, in words; empty when all of it may.
  static std::string JudgeValues(const JobEnd& end, bool hasDocumentedEnd) {
    const auto& values = end.values;
    const std::string state = "result " + Text(values.result) + ", ready " + Text(values.ready) +
                              ", on-going " + Text(values.onGoing) + ", progress " + Text(values.progress);
    if (!end.ended) return "the service does not wait for the next request: " + state;
    if (hasDocumentedEnd && !end.Succeeded() && !end.Failed()) return "no documented end: " + state;
    if (values.ready != 0u) return "the flag is not taken back: " + state;
    if (values.onGoing != 0u) return "\"Flash_OnGoing\" is left: " + state;
    if (end.hasOldAttemptWritten) return kOldAttemptWrites;
    return {};
  }

  static std::string Judge(const Kind& kind, const JobEnd& end) {
    if (std::string finding = JudgeValues(end, kind.hasDocumentedEnd); !finding.empty()) return finding;
    return JudgeSuccess(end, kind.isImageKnown);
  }

  /// Somebody else wrote or deleted the values; a success that they still tell of has to be one.
  static std::string JudgeMeddledWith(const JobEnd& end) {
    if (!end.ended) return "with its values meddled with, the service does not wait for the next request";
    return JudgeSuccess(end, true);
  }

  static std::string JudgeSuccess(const JobEnd& end, bool isImageKnown) {
    if (isImageKnown && end.Succeeded() && !end.isMemoryEqual)
      return "success is reported, but the memory is not equal";
    if (end.Succeeded() && end.modemAtResult != ModemState::Normal)
      return std::string("success was reported while the modem was ") + NameOf(end.modemAtResult);
    return {};
  }

  std::string SoundJob() {
    m_Service.LayImages(m_Bench.images = ++m_Images);
    const JobEnd end = m_Service.Run();
    if (std::string finding = Judge(kKinds[0], end); !finding.empty()) return finding;
    return end.Succeeded() ? "" : "it fails, the modem is " + std::string(NameOf(end.modem));
  }

  void Report(std::size_t number, const std::string& finding) {
    ++m_Progress.findings;
    std::printf("FINDING %s: seed %zu, case %zu, %s: %s\n", NameOf(m_Options.route), m_Options.seed, number,
                KindOf(number).name, finding.c_str());
    std::fflush(stdout);
  }

  /// The host leaves in an orderly way, with everything going on.
  [[noreturn]] void ExitInJob() {
    m_Service.PutModemWhereTheRouteBegins();
    m_Service.LayImages(kImagesAtExit);
    int calls = 0;
    for (const auto& [function, count] : m_Bench.calls) calls += count;
    const HANDLE now =
        Perturber::StopAt(1 + static_cast<unsigned>(calls) * static_cast<unsigned>(m_Options.exitAt) / 1000);
    hosts::WriteHandshakeValue(m_Key, L"Fls_Ready", 1);
    ::WaitForSingleObject(now, INFINITE);
    ::ExitProcess(kExited);
  }

  const Options m_Options;
  const hosts::HandshakeKey m_Key;
  Watchdog m_Watchdog;
  Service m_Service;
  Bench m_Bench;
  Progress m_Progress;
  std::uint32_t m_Images = static_cast<std::uint32_t>(m_Options.from) * 100;
};

// --- The program that starts them -------------------------------------------------------------------------

constexpr wchar_t kPathPrefix[] = L"Software\\Corvel\\Test\\races-";

std::vector<std::wstring> Arguments(std::size_t from, const std::wstring& key) {
  std::vector<std::wstring> words{L"--in-place",
                                  L"--key",
                                  key,
                                  L"--route",
                                  hosts::ToWide(NameOf(g_options.route)),
                                  L"--cases",
                                  std::to_wstring(g_options.cases),
                                  L"--seed",
                                  std::to_wstring(g_options.seed),
                                  L"--from",
                                  std::to_wstring(from)};
  if (!g_options.only.empty()) words.insert(words.end(), {L"--only", hosts::ToWide(g_options.only)});
  return words;
}

/// Adds up what the children did. @return false when one of them ended so that the rest cannot be run.
bool RunRaces(Progress& total) {
  for (std::size_t from = g_options.from; from < g_options.cases;) {
    const WorkFolder folder;
    const std::wstring path = kPathPrefix + std::to_wstring(::GetCurrentProcessId());
    const SessionKey key(path, false);
    const ChildResult child = RunChild(folder.Program(), Arguments(from, path), 12h);
    const auto progress = Progress::Load(folder.Path());
    if (!progress) return false;
    total.Add(*progress);
    if (progress->isDone) return child.exitCode == 0;
    from = progress->next;
    if (child.exitCode == kGoOnBehind) continue;
    ++total.findings;
    std::printf("FINDING %s: seed %zu, case %zu, %s: the process %s\n", NameOf(g_options.route),
                g_options.seed, from, KindOf(from).name,
                child.exitCode == kHangs ? "hangs" : ("ends with " + std::to_string(child.exitCode)).c_str());
    ++from;
  }
  return true;
}

/// Hosts that leave in the middle of a job, each followed by one that finds the request standing.
void RunExits(Progress& total) {
  const std::size_t exits = 1 + g_options.cases / 20;
  Dice dice(g_options.seed);
  for (std::size_t i = 0; i < exits; ++i) {
    const WorkFolder folder;
    const std::wstring path = kPathPrefix + std::to_wstring(::GetCurrentProcessId());
    const SessionKey key(path, false);
    const int part = dice.Between(1, kLatestExit);
    auto words = Arguments(g_options.cases, path);
    words.insert(words.end(), {L"--exit-at", std::to_wstring(part)});
    const auto find = [&](const std::string& what) {
      ++total.findings;
      std::printf("FINDING %s: seed %zu, exit behind %d thousandths of a job: %s\n", NameOf(g_options.route),
                  g_options.seed, part, what.c_str());
    };
    const ChildResult left = RunChild(folder.Program(), words, kCaseLimit);
    if (!left.ended) {
      find("the process does not end");
    } else if (left.exitCode != kExited) {
      find("the process ends with " + std::to_string(left.exitCode));
    }
    words = Arguments(g_options.cases, path);
    words.emplace_back(L"--behind-exit");
    const ChildResult next = RunChild(folder.Program(), words, kCaseLimit);
    if (next.exitCode != 0) find("the next host ends with " + std::to_string(next.exitCode));
    if (const auto progress = Progress::Load(folder.Path())) total.Add(*progress);
  }
}

/// Two hosts on one key and one modem, and then one alone that finds the modem as they left it.
void RunTwoHosts(Progress& total) {
  const std::size_t processes = 1 + g_options.cases / 40;
  for (std::size_t i = 0; i < processes; ++i) {
    const WorkFolder folder;
    const std::wstring path = kPathPrefix + std::to_wstring(::GetCurrentProcessId());
    const SessionKey key(path, false);
    const std::size_t seed = g_options.seed + i;
    const auto arguments = [&] {
      auto words = Arguments(g_options.cases, path);
      words.insert(words.end(), {L"--seed", std::to_wstring(seed)});
      return words;
    };
    auto together = arguments();
    together.emplace_back(L"--two-hosts");
    total.Add(kTwoHosts, true);
    for (const auto& words : {together, arguments()}) {
      const ChildResult child = RunChild(folder.Program(), words, 2 * kCaseLimit);
      if (child.exitCode == 0) continue;
      ++total.findings;
      std::printf("FINDING %s: seed %zu, %s: the %s ends with %lu\n", NameOf(g_options.route), seed,
                  kTwoHosts, words == together ? "process of both" : "next host", child.exitCode);
    }
  }
}

/// Two hosts on one key and one modem, of which now and then one ends while both work.
void RunTwoProcesses(Progress& total) {
  const std::size_t pairs = 1 + g_options.cases / 40;
  unsigned unheard = 0;
  unsigned toOneLeft = 0;
  for (std::size_t i = 0; i < pairs; ++i) {
    const std::wstring name = L"races-" + std::to_wstring(::GetCurrentProcessId());
    const PairPlan plan{.route = g_options.route,
                        .seed = g_options.seed + i,
                        .key = kPathPrefix + std::to_wstring(::GetCurrentProcessId()),
                        .name = name};
    const SessionKey key(plan.key, false);
    const auto words = [&plan](unsigned number) {
      auto all = Arguments(0, plan.key);
      all.insert(all.end(), {L"--pair", plan.name, L"--host-of-pair", std::to_wstring(number)});
      return all;
    };
    RunPair(plan, words, [&](const PairRound& round) {
      // One that only one of them has heard of is made again.
      if (round.isReached || !round.finding.empty() || round.toOneLeft == 0)
        total.Add(kTwoProcesses, round.isReached);
      unheard += round.unheard;
      toOneLeft += round.toOneLeft;
      if (round.unheard > 0) {
        const bool isKnown = ExcuseOf({}, g_options.route, kRequestUnheard) != nullptr;
        if (!isKnown) ++total.findings;
        std::printf("%s %s: seed %zu, %s, %s: %s%s\n", isKnown ? "not held" : "FINDING",
                    NameOf(g_options.route), plan.seed, kTwoProcesses, round.what.c_str(), kRequestUnheard,
                    isKnown ? " (known)" : "");
      }
      if (round.finding.empty()) return;
      ++total.findings;
      std::printf("FINDING %s: seed %zu, %s, %s: %s\n", NameOf(g_options.route), plan.seed, kTwoProcesses,
                  round.what.c_str(), round.finding.c_str());
      std::fflush(stdout);
    });
  }
  if (kMostUnheard * unheard <= toOneLeft + kMostUnheard) return;
  ++total.findings;
  std::printf("FINDING %s: %s: %u requests are not heard by the host that is left\n", NameOf(g_options.route),
              kTwoProcesses, unheard);
}

int RunCampaign() {
  const auto begin = RealClock::now();
  Progress total;
  bool isWhole = true;
  const auto isChosen = [](const char* kind) { return g_options.only.empty() || g_options.only == kind; };
  const bool runsRaces = std::ranges::find(kOfManyProcesses, g_options.only) == std::end(kOfManyProcesses);
  if (runsRaces) isWhole = RunRaces(total);
  if (isChosen(kExit)) RunExits(total);
  if (isChosen(kTwoHosts)) RunTwoHosts(total);
  if (isChosen(kTwoProcesses)) RunTwoProcesses(total);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(RealClock::now() - begin).count();
  std::string reached;
  for (const auto& [kind, count] : total.kinds) {
    reached += (reached.empty() ? "" : ", ") + kind + " " + std::to_string(count.reached) + " of " +
               std::to_string(count.run);
  }
  std::printf("%s: %zu races, seed %zu, %zu findings, %lld s; reached: %s\n", NameOf(g_options.route),
              total.Run(), g_options.seed, total.findings, static_cast<long long>(seconds), reached.c_str());
  return isWhole && total.findings == 0 && total.Run() > 0 && total.WereReached() ? 0 : 1;
}

bool IsKind(std::string_view word) {
  if (std::ranges::any_of(kKinds, [&](const Kind& kind) { return word == kind.name; })) return true;
  return std::ranges::find(kOfManyProcesses, word) != std::end(kOfManyProcesses);
}

/// What becomes of a word of the command line that takes a value. @return false when it means nothing.
bool TakeValue(std::string_view word, std::string_view value) {
  if (word == "--cases") return TakeNumber(value, g_options.cases);
  if (word == "--seed") return TakeNumber(value, g_options.seed);
  if (word == "--from") return TakeNumber(value, g_options.from);
  if (word == "--host-of-pair") return TakeNumber(value, g_options.hostOfPair);
  if (word == "--exit-at") return TakeNumber(value, g_options.exitAt);
  if (word == "--only") {
    g_options.only = value;
    return IsKind(value);
  }
  if (word == "--pair") return TakeText(value, g_options.pair);
  if (word == "--key") return TakeText(value, g_options.key);
  const auto route = word == "--route" ? RouteOfName(value) : std::nullopt;
  if (route) g_options.route = *route;
  return route.has_value();
}

constexpr campaign::Switch kSwitches[] = {{"--in-place", &g_options.inPlace},
                                          {"--behind-exit", &g_options.behindExit},
                                          {"--two-hosts", &g_options.twoHosts}};

}  // namespace

int main(int count, char** words) try {
  if (!campaign::TakeWords("race_campaign", std::span(words, static_cast<std::size_t>(count)).subspan(1),
                           kSwitches, &TakeValue))
    return 2;
  if (!g_options.inPlace) return RunCampaign();
  if (!g_options.pair.empty()) {
    const PairPlan plan{
        .route = g_options.route, .key = hosts::ToWide(g_options.key), .name = hosts::ToWide(g_options.pair)};
    campaign::EndProcess(RunHostOfPair(plan, static_cast<unsigned>(g_options.hostOfPair)));
  }
  // Never destroyed: the service goes on until the process ends.
  campaign::EndProcess((new Races(g_options))->Run());
} catch (const std::exception& error) {
  std::fprintf(stderr, "race_campaign: %s\n", error.what());
  return 1;
}
