// Many jobs in one process, over all routes, with retries, failures and hangs, the library being unloaded and
// loaded again in between, as a host of the command line may do it.
//
// usage: corvel_cmdline_soak [--jobs N] [--seed N] [--sample N] [--per-host N] [--only NAME] [--csv FILE]
//
// Each time the library is loaded, its host draws what is wrong with the PC, does some jobs and lets it go.
// While jobs run, two threads of the host write records of their own. Behind each host the log is read byte
// by byte. Every --sample jobs, when no library is loaded, what the process holds is counted, and written to
// --csv, and beside it the log of a host with findings. --per-host has every host do that many jobs. --only
// has the same wrong with the PC of all hosts; they are alike then, and none may leave a block of memory. One
// line per finding; exit status 1 when there is any.

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "fault/campaign_service.h"
#include "hosts/common/handshake.h"
#include "hosts/common/text.h"
#include "simulator/call_hooks.h"
#include "simulator/flash_image.h"
#include "simulator/program/configuration.h"
#include "simulator/program/fleet/pc_plan.h"
#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"
#include "simulator/virtual_pc.h"
#include "soak/log_check.h"
#include "soak/soak_host.h"
#include "support/handle_census.h"
#include "support/quick_modem.h"

using namespace simulator;

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

constexpr wchar_t kLibrary[] = L"CorvelToolKit.dll";
constexpr wchar_t kHost[] = L"soak_host.dll";
constexpr wchar_t kLogFile[] = L"FlashServiceDebugLogger_DLL.log";
constexpr wchar_t kHandshakePath[] = L"\\SOFTWARE\\WOW6432Node\\Quenta\\FlashService";
// Not faster, and with a boot loader that waits longer than a real one: on a loaded machine, too, a job ends
// as what is wrong with the PC has it end.
constexpr double kSpeed = 100;
constexpr auto kBootLoaderWindow = 60s;
constexpr auto kPatience = 60s;
constexpr auto kPatienceWithLateOnes = 2s;
/// Of the simulator: its clock, its Mobile Broadband service, and who brings a completion.
constexpr std::size_t kThreadsOfPc = 3;
constexpr auto kRunLimit = 24h;
constexpr int kWriters = 2;
constexpr DWORD kWriterPauseMs = 20;
/// What is made once, by whatever comes first: a runtime sets aside 72 KB for exceptions without memory.
constexpr std::int64_t kHeapTolerance = 80LL * 1024;
/// A host without images is left with what the library has made for the next flash, 1736 bytes; nothing takes
/// that back.
constexpr std::int64_t kHeapTolerancePerHostWithoutImages = 1800;
/// What is made once, when it is needed first, may come late; what a job leaves behind comes thousands of
/// times.
constexpr int kHandleTolerance = 8;

struct Options {
  std::size_t jobs = 1000;
  std::size_t seed = 1;
  std::size_t sample = 100;
  std::size_t perHost = 0;  ///< 0: as the host draws it
  std::string csv;
  std::string only;
  bool inPlace = false;
};
Options g_options;

// --- What is wrong with a PC ------------------------------------------------------------------------------

constexpr int kEither = -1;  ///< 3 or 4: much of an attempt's time is spent, or all of it
constexpr int kNone = 0;     ///< nothing was begun
constexpr int kFailed = 3;
constexpr int kSucceeded = 4;

/// What a host finds as long as it lives.
struct Character {
  const char* name;
  int share;
  Route route;
  int jobs;    ///< that its host does
  int result;  ///< of each of them
  bool hasImages;
  void (*put)(VirtualPcOptions& pc);
};

Occurrence EverySecond(int number) {
  return Occurrence::Only(2 * number + 1);
}

constexpr Character kCharacters[] = {
    {"mbim", 5, Route::Mbim, 12, kSucceeded, true, nullptr},
    {"at", 5, Route::At, 12, kSucceeded, true, nullptr},
    {"bbrst", 3, Route::Bbrst, 12, kSucceeded, true, nullptr},
    {"flash port", 3, Route::FlashPort, 12, kSucceeded, true, nullptr},
    {"every second boot refused", 2, Route::Mbim, 10, kSucceeded, true,
     [](VirtualPcOptions& pc) {
       for (int i = 0; i < 40; ++i) pc.faults.library.calls.push_back(BootTargetRefused(EverySecond(i)));
     }},
    {"every second item refused", 2, Route::At, 10, kSucceeded, true,
     [](VirtualPcOptions& pc) {
       for (int i = 0; i < 40; ++i) pc.faults.library.calls.push_back(ItemRefused(-1, EverySecond(i)));
     }},
    {"items refused", 1, Route::Mbim, 4, kFailed, true,
     [](VirtualPcOptions& pc) { pc.faults.library.calls = {ItemRefused(-1, Occurrence::Always())}; }},
    {"flashing library missing", 2, Route::Mbim, 6, kFailed, true,
     [](VirtualPcOptions& pc) { pc.faults.library.missing = true; }},
    {"no images", 2, Route::Mbim, 6, kNone, false, nullptr},
    {"modem back after two resets", 2, Route::FlashPort, 6, kSucceeded, true,
     [](VirtualPcOptions& pc) { pc.faults.modem.returnsAfterResets = 2; }},
    {"reset driver absent", 1, Route::Bbrst, 3, kFailed, true,
     [](VirtualPcOptions& pc) { pc.faults.driver.absent = true; }},
    {"reboot command never reported", 2, Route::Mbim, 5, kEither, true,
     [](VirtualPcOptions& pc) { pc.mobileBroadband.setCommand.completesAfter = std::nullopt; }},
    {"Mobile Broadband service fails", 2, Route::Mbim, 6, kSucceeded, true,
     [](VirtualPcOptions& pc) { pc.mobileBroadband.failures["GetDeviceService"] = E_FAIL; }},
    {"AT port in other hands", 1, Route::At, 1, kEither, true,
     [](VirtualPcOptions& pc) { pc.faults.atPort.openError = ERROR_ACCESS_DENIED; }},
    {"boot hangs", 2, Route::Mbim, 3, kEither, true,
     [](VirtualPcOptions& pc) { pc.faults.library.calls = {Hangs("_ZEMO_DL_boot_target", 2, 20s)}; }},
    {"item outlasts its attempt", 2, Route::At, 3, kEither, true,
     [](VirtualPcOptions& pc) {
       pc.faults.library.calls = {OutlastsAttempt("_ZEMO_DL_download_fls_file", 1, 10s)};
     }},
    {"device lists grow", 2, Route::Mbim, 10, kEither, true,
     [](VirtualPcOptions& pc) {
       pc.faults.tree.deviceIds.grows = Occurrence::Times(20);
       pc.faults.tree.serialInterfaces.grows = Occurrence::Times(20);
     }},
};

const Character* CharacterOf(std::string_view name) {
  const auto* const found = std::ranges::find(kCharacters, name, &Character::name);
  return found == std::end(kCharacters) ? nullptr : found;
}

const Character& Draw(Dice& dice) {
  if (const Character* const only = CharacterOf(g_options.only)) return *only;
  int all = 0;
  for (const Character& each : kCharacters) all += each.share;
  int lot = dice.Between(1, all);
  const Character* drawn = kCharacters;
  while ((lot -= drawn->share) > 0) ++drawn;
  return *drawn;
}

// --- What the process holds -------------------------------------------------------------------------------

std::size_t ThreadsOfThisProcess() {
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  std::size_t count = 0;
  for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
  }
  ::CloseHandle(snapshot);
  return count;
}

struct HeapUse {
  std::int64_t blocks = 0;
  std::int64_t bytes = 0;
};
HeapUse operator-(const HeapUse& one, const HeapUse& other) {
  return {one.blocks - other.blocks, one.bytes - other.bytes};
}

/// Over all heaps, those of the C runtimes among them.
HeapUse UseOfHeaps() {
  std::array<HANDLE, 64> heaps{};
  const DWORD count = ::GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
  HeapUse use;
  for (const HANDLE heap : std::span(heaps).first(std::min<std::size_t>(count, heaps.size()))) {
    ::HeapLock(heap);
    PROCESS_HEAP_ENTRY entry{};
    while (::HeapWalk(heap, &entry)) {
      if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) == 0) continue;
      ++use.blocks;
      use.bytes += entry.cbData;
    }
    ::HeapUnlock(heap);
  }
  return use;
}

struct Sample {
  std::size_t jobs = 0;
  std::size_t hosts = 0;
  std::size_t hostsWithoutImages = 0;
  double seconds = 0;
  std::size_t threads = 0;
  HeapUse heap;
  std::int64_t workingSet = 0;
  std::int64_t keysLeftOpen = 0;  ///< by reads of the registry, as they are meant to
  HandleCensus handles;

  /// All but the keys that reads leave open.
  int Keys() const { return Of(L"Key") - static_cast<int>(keysLeftOpen); }
  int Of(const wchar_t* type) const {
    const auto found = handles.find(type);
    return found == handles.end() ? 0 : found->second;
  }
};

/// The types of handles that have a column of their own.
constexpr const wchar_t* kHandleTypes[] = {L"Event", L"File", L"Mutant", L"Section", L"Semaphore", L"Thread"};

class Samples {
 public:
  explicit Samples(const std::string& file) : m_File(file) {
    m_All.reserve(g_options.jobs / g_options.sample + 2);
    if (m_File.empty()) return;
    std::ofstream stream(m_File, std::ios::trunc);
    stream << "jobs,seconds,threads,heap blocks,heap bytes,working set,keys left open by reads,other keys";
    for (const wchar_t* const type : kHandleTypes) stream << ',' << hosts::ToUtf8(type);
    stream << '\n';
    if (!stream) throw std::runtime_error("the samples cannot be written");
  }

  /// @param sample with what the caller knows.
  void Take(Sample sample) {
    const HeapUse before = UseOfHeaps();
    sample.heap = before - m_Own;
    sample.threads = ThreadsOfThisProcess();
    sample.handles = HandlesOfThisProcess(HighestHandle(sample.keysLeftOpen));
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters);
    sample.workingSet = static_cast<std::int64_t>(counters.WorkingSetSize);
    Write(sample);
    m_All.push_back(std::move(sample));
    m_Own = m_Own - (before - UseOfHeaps());
  }
  const Sample& Last() const { return m_All.back(); }
  /// Behind what is made once: a quarter of the way.
  const Sample& Settled() const { return m_All.at(std::min(m_All.size() - 1, 1 + m_All.size() / 4)); }

 private:
  static std::uintptr_t HighestHandle(std::int64_t keys) {
    constexpr std::uintptr_t kOthers = 32768;
    return kOthers + 4 * static_cast<std::uintptr_t>(keys);
  }
  void Write(const Sample& sample) const {
    if (m_File.empty()) return;
    std::ofstream stream(m_File, std::ios::app);
    stream << sample.jobs << ',' << sample.seconds << ',' << sample.threads << ',' << sample.heap.blocks
           << ',' << sample.heap.bytes << ',' << sample.workingSet << ',' << sample.keysLeftOpen << ','
           << sample.Keys();
    for (const wchar_t* const type : kHandleTypes) stream << ',' << sample.Of(type);
    stream << '\n';
  }

  const std::filesystem::path m_File;
  std::vector<Sample> m_All;
  /// What the samples themselves hold of the heap.
  HeapUse m_Own;
};

// --- One host ---------------------------------------------------------------------------------------------

/// What the library wrote to the registry, as the system sees it.
class ValuesSeen {
 public:
  static void See(const SeenCall& call) noexcept {
    if (std::string_view(call.function) != "RegSetValueExW") return;
    const std::wstring_view name(reinterpret_cast<const wchar_t*>(call.arguments[1]));
    for (std::size_t i = 0; i < kNames.size(); ++i) {
      if (name == kNames.at(i)) ++s_counts.at(i);
    }
  }
  static void Forget() {
    for (auto& count : s_counts) count = 0;
  }
  /// Those of which the log does not hold a record each, in words.
  static std::string Missing(const std::map<std::string, int>& logged) {
    std::string text;
    for (std::size_t i = 0; i < kNames.size(); ++i) {
      const std::string name = hosts::ToUtf8(kNames.at(i));
      const auto found = logged.find(name);
      const int records = found == logged.end() ? 0 : found->second;
      if (records != s_counts.at(i))
        text += " " + name + ": " + std::to_string(s_counts.at(i)) + " written, " + std::to_string(records) +
                " told;";
    }
    return text;
  }

 private:
  static constexpr std::array<std::wstring_view, 4> kNames{L"Flash_OnGoing", L"Flash_Progress",
                                                           L"Flash_Result", L"Time_Out"};
  static inline std::array<std::atomic<int>, kNames.size()> s_counts{};
};

/// The records that the library composed and gave the system for its log, byte for byte.
class RecordsSeen {
 public:
  /// The log's turn is the library's own: it begins with the time of the record, and ends with its writing,
  /// or with the opening of a file without a name, as long as nobody has named one.
  static void See(const SeenCall& call) noexcept {
    const std::string_view function(call.function);
    if (function == "GetLocalTime" && IsOfRecords(call.returnsTo)) ++s_begun;
    if (function == "CreateFileA" && *reinterpret_cast<const char*>(call.arguments[0]) == '\0') --s_begun;
    if (function != "WriteFile" || *reinterpret_cast<const char*>(call.arguments[1]) != '#') return;
    ++s_written;
    const auto size = static_cast<std::size_t>(static_cast<DWORD>(call.arguments[2]));
    const std::size_t at = s_size.fetch_add(size);
    if (at + size <= s_bytes.size())
      std::memcpy(s_bytes.data() + at, reinterpret_cast<const void*>(call.arguments[1]), size);
  }
  static void Forget() {
    s_begun = s_written = 0;
    s_size = 0;
    s_place = nullptr;
  }
  /// What of it the log does not hold, in words; empty when it is the log.
  static std::string Missing(std::string_view log, std::size_t records) {
    if (s_size > s_bytes.size()) return "more was written than can be kept here";
    if (s_begun != s_written)
      return std::to_string(s_begun) + " records were begun and " + std::to_string(s_written) + " written";
    const std::string_view written(s_bytes.data(), s_size);
    if (log == written && records == static_cast<std::size_t>(s_written)) return {};
    return std::to_string(s_written) + " records of " + std::to_string(written.size()) +
           " bytes were written, and the log has " + std::to_string(records) + " of " +
           std::to_string(log.size()) + ", or other ones";
  }

 private:
  static constexpr std::size_t kMostOfAHost = std::size_t{32} * 1024 * 1024;

  /// A flash asks for the time elsewhere too; a host's first call is a record's.
  static bool IsOfRecords(const void* place) {
    const void* first = nullptr;
    return s_place.compare_exchange_strong(first, place) || first == place;
  }

  static inline std::atomic<const void*> s_place{nullptr};
  static inline std::atomic<int> s_begun{0};
  static inline std::atomic<int> s_written{0};
  static inline std::atomic<std::size_t> s_size{0};
  static inline std::array<char, kMostOfAHost> s_bytes{};
};

void SeeCall(const SeenCall& call) noexcept {
  ValuesSeen::See(call);
  RecordsSeen::See(call);
}

template <typename Condition>
bool Becomes(const Condition& condition, std::chrono::seconds patience = kPatience) {
  const auto end = RealClock::now() + patience;
  while (!condition()) {
    if (RealClock::now() > end) return false;
    ::Sleep(2);
  }
  return true;
}

class Module {
 public:
  explicit Module(HMODULE module) : m_Module(module) {
    if (m_Module == nullptr) throw std::runtime_error("a library cannot be loaded");
  }
  ~Module() { ::FreeLibrary(m_Module); }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  template <typename Function>
  Function* Get(const char* name) const {
    const auto address = reinterpret_cast<void*>(::GetProcAddress(m_Module, name));
    if (address == nullptr) throw std::runtime_error(std::string(name) + " is missing");
    return reinterpret_cast<Function*>(address);
  }

 private:
  HMODULE m_Module;
};

class Soak {
 public:
  Soak()
      : m_Folder(hosts::ProgramFolder()),
        m_Path(L"Software\\Corvel\\Test\\soak-" + std::to_wstring(::GetCurrentProcessId())),
        m_Machine(m_Path, true),
        m_Key{HKEY_CURRENT_USER, L"HKCU", m_Path + kHandshakePath},
        m_Samples(g_options.csv) {}

  int Run() {
    const auto begin = RealClock::now();
    Dice dice(g_options.seed);
    const std::size_t threads = ThreadsOfThisProcess();
    m_ThreadsAtRest = threads;
    for (std::size_t sampled = 0; m_Jobs < g_options.jobs;) {
      const Character& character = Draw(dice);
      RunHost(character);
      ++m_Hosts;
      if (!character.hasImages) ++m_HostsWithoutImages;
      if (m_Jobs / g_options.sample == sampled / g_options.sample && m_Jobs < g_options.jobs) continue;
      sampled = m_Jobs;
      Sample sample;
      sample.jobs = m_Jobs;
      sample.hosts = m_Hosts;
      sample.hostsWithoutImages = m_HostsWithoutImages;
      sample.seconds = SecondsSince(begin);
      sample.keysLeftOpen = m_KeysLeftOpen;
      m_Samples.Take(std::move(sample));
      std::printf("%zu jobs, %zu hosts, %zu records, %zu findings, %.0f s\n", m_Jobs, m_Hosts, m_Records,
                  m_Findings, SecondsSince(begin));
      std::fflush(stdout);
    }
    Compare();
    const Sample& settled = m_Samples.Settled();
    const Sample& last = m_Samples.Last();
    std::printf(
        "%zu jobs in %zu hosts (%zu flashed, %zu failed), %zu records, threads %zu -> %zu, events %d -> %d, "
        "heap blocks %lld -> %lld, heap bytes %lld -> %lld, working set %.1f -> %.1f MB, %zu findings, %.0f "
        "s\n",
        m_Jobs, m_Hosts, m_Flashed, m_Jobs - m_Flashed, m_Records, settled.threads, last.threads,
        settled.Of(L"Event"), last.Of(L"Event"), static_cast<long long>(settled.heap.blocks),
        static_cast<long long>(last.heap.blocks), static_cast<long long>(settled.heap.bytes),
        static_cast<long long>(last.heap.bytes), static_cast<double>(settled.workingSet) / 1e6,
        static_cast<double>(last.workingSet) / 1e6, m_Findings, SecondsSince(begin));
    return m_Findings == 0 ? 0 : 1;
  }

 private:
  static double SecondsSince(RealClock::time_point begin) {
    return std::chrono::duration<double>(RealClock::now() - begin).count();
  }

  void Find(const Character& character, const std::string& what) {
    ++m_Findings;
    m_HasNewFindings = true;
    std::printf("FINDING job %zu, %s: %s\n", m_Jobs, character.name, what.c_str());
    std::fflush(stdout);
  }

  /// The library comes, does some jobs, and goes.
  void RunHost(const Character& character) {
    ValuesSeen::Forget();
    RecordsSeen::Forget();
    std::array<int, kWriters> written{};
    {
      Setup setup;
      setup.route = character.route;
      const ConfigurationFile configuration(m_Folder, setup, L"HKLM\\unused", m_Folder / L"firmware");
      VirtualPcOptions options = PcOptions(setup, kSpeed, m_Folder);
      options.timing = QuickTiming();
      options.timing.bootLoaderWindow = kBootLoaderWindow;
      if (character.put != nullptr) character.put(options);
      VirtualPc pc(options);
      const Module library(pc.LoadUnderSimulation(m_Folder / kLibrary));
      const Module host(::LoadLibraryW((m_Folder / kHost).c_str()));
      pc.Hooks().Observe(&SeeCall);
      host.Get<decltype(SoakHostBegins)>("SoakHostBegins")();
      {
        const auto log = host.Get<decltype(SoakHostLogs)>("SoakHostLogs");
        std::vector<std::jthread> writers;
        writers.reserve(kWriters);
        for (int i = 0; i < kWriters; ++i) {
          writers.emplace_back(
              [log, i, &count = written.at(static_cast<std::size_t>(i))](const std::stop_token& stop) {
                for (; !stop.stop_requested(); ::Sleep(kWriterPauseMs)) log(i, ++count);
              });
        }
        const int jobs = g_options.perHost != 0 ? static_cast<int>(g_options.perHost) : character.jobs;
        for (int i = 0; i < jobs && m_Jobs < g_options.jobs; ++i) RunJob(character, pc, host);
      }
      // Whoever was given up comes back to the PC that it knows, unless that takes too long.
      const std::size_t busy = m_ThreadsAtRest + kThreadsOfPc;
      static_cast<void>(Becomes([busy] { return ThreadsOfThisProcess() <= busy; }, kPatienceWithLateOnes));
      pc.Uninstall();
    }
    if (!Becomes([] { return ::GetModuleHandleW(kLibrary) == nullptr; }))
      Find(character, "the library stays");
    if (!Becomes([this] { return ThreadsOfThisProcess() <= m_ThreadsAtRest; }))
      Find(character, "threads stay");
    JudgeLog(character, written);
  }

  void RunJob(const Character& character, VirtualPc& pc, const Module& host) {
    if (character.route == Route::Bbrst) pc.Modem().Put(ModemState::Restarting);
    if (character.route == Route::FlashPort) pc.Modem().Put(ModemState::FlashPort);
    if (character.route == Route::Mbim || character.route == Route::At) pc.Modem().Put(ModemState::Normal);
    const FlashImage image = BuildImage(SmallImagePlan(static_cast<std::uint32_t>(m_Jobs + 1)));
    const auto file = m_Folder / L"firmware" / L"nvm.fls";
    std::filesystem::create_directories(file.parent_path());
    if (character.hasImages && !Becomes([&] { return SaveImageFile(image, file); }))
      throw std::runtime_error("the image cannot be laid");
    if (hosts::WriteHandshakeValue(m_Key, L"Fls_Ready", 1) != ERROR_SUCCESS)
      throw std::runtime_error("the registry cannot be written");

    std::jthread(host.Get<decltype(SoakHostFlashes)>("SoakHostFlashes")).join();
    ++m_Jobs;
    const auto values = hosts::ReadHandshake(m_Key);
    const int result = static_cast<int>(values.result.value_or(0));
    const bool isExpected =
        character.result == kEither ? result == kFailed || result == kSucceeded : result == character.result;
    if (!isExpected) Find(character, "the result is " + std::to_string(result));
    if (character.hasImages && values.ready != 0u) Find(character, "the flag is not taken back");
    if (result == kSucceeded) {
      ++m_Flashed;
      if (!pc.Modem().CompareWith(nullptr, &image).equal)
        Find(character, "success, and the memory is not equal");
    }
    if (std::filesystem::exists(file) && result == kSucceeded) Find(character, "the image is left");
    pc.ClearJournal();
  }

  void JudgeLog(const Character& character, const std::array<int, kWriters>& written) {
    const std::string log = soak::ReadLog(m_Folder / kLogFile);
    const soak::LogCheck check = soak::CheckLog(log);
    m_Records += check.records;
    m_KeysLeftOpen += check.keysLeftOpen;
    for (const std::string& finding : check.findings) Find(character, finding);
    for (int writer = 0; writer < kWriters; ++writer) {
      const auto found = check.numbersOfWriter.find(writer);
      const std::vector<int> numbers =
          found == check.numbersOfWriter.end() ? std::vector<int>() : found->second;
      std::vector<int> all(static_cast<std::size_t>(written.at(static_cast<std::size_t>(writer))));
      for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<int>(i) + 1;
      if (numbers != all)
        Find(character, "records of writer " + std::to_string(writer) + " are lost or out of order");
    }
    if (const std::string missing = RecordsSeen::Missing(log, check.records); !missing.empty())
      Find(character, "records are lost: " + missing);
    if (const std::string missing = ValuesSeen::Missing(check.valuesWritten); !missing.empty())
      Find(character, "not every value that was written is told:" + missing);
    if (!std::exchange(m_HasNewFindings, false) || g_options.csv.empty()) return;
    const std::filesystem::path kept = g_options.csv + "-" + std::to_string(m_Jobs) + ".log";
    std::error_code ignored;
    std::filesystem::copy_file(m_Folder / kLogFile, kept, std::filesystem::copy_options::overwrite_existing,
                               ignored);
  }

  /// Nothing of the process may have grown since the beginning.
  void Compare() {
    static constexpr Character kAll{"the whole run", 0, Route::Mbim, 0, 0, false, nullptr};
    const Sample& settled = m_Samples.Settled();
    const Sample& last = m_Samples.Last();
    if (last.threads > settled.threads) Find(kAll, "there are more threads");
    if (last.Keys() > settled.Keys()) Find(kAll, "there are more keys than reads have left open");
    for (const auto& [type, count] : last.handles) {
      if (type != L"Key" && count > settled.Of(type.c_str()) + kHandleTolerance)
        Find(kAll, "handles: " + hosts::ToUtf8(type) + " " + std::to_string(settled.Of(type.c_str())) +
                       " -> " + std::to_string(count));
    }
    const auto more = static_cast<std::int64_t>(last.hosts - settled.hosts);
    const auto without = static_cast<std::int64_t>(last.hostsWithoutImages - settled.hostsWithoutImages);
    const HeapUse grown = last.heap - settled.heap;
    if (grown.bytes > kHeapTolerance + kHeapTolerancePerHostWithoutImages * without)
      Find(kAll, "there is more memory in use");
    // Of hosts that are alike one block each shows; what the system makes once does not.
    if (!g_options.only.empty() && without == 0 && 2 * grown.blocks >= more)
      Find(kAll, std::to_string(more) + " hosts that are alike leave " + std::to_string(grown.blocks) +
                     " blocks of memory");
  }

  const std::filesystem::path m_Folder;
  const std::wstring m_Path;
  const SessionKey m_Machine;
  const hosts::HandshakeKey m_Key;
  Samples m_Samples;
  std::size_t m_ThreadsAtRest = 0;
  std::size_t m_Jobs = 0;
  std::size_t m_Hosts = 0;
  std::size_t m_HostsWithoutImages = 0;
  std::size_t m_Flashed = 0;
  std::size_t m_Records = 0;
  std::size_t m_Findings = 0;
  bool m_HasNewFindings = false;
  std::int64_t m_KeysLeftOpen = 0;
};

// --- The command line -------------------------------------------------------------------------------------

bool TakeNumber(std::string_view value, std::size_t& number) {
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  return error == std::errc() && end == value.data() + value.size() && number > 0;
}

bool TakeValue(std::string_view word, std::string_view value) {
  if (word == "--jobs") return TakeNumber(value, g_options.jobs);
  if (word == "--seed") return TakeNumber(value, g_options.seed);
  if (word == "--per-host") return TakeNumber(value, g_options.perHost);
  if (word == "--sample") return TakeNumber(value, g_options.sample);
  if (word == "--only") {
    g_options.only = value;
    return CharacterOf(value) != nullptr;
  }
  if (word != "--csv" || value.empty()) return false;
  g_options.csv = value;
  return true;
}

constexpr campaign::Switch kSwitches[] = {{"--in-place", &g_options.inPlace}};

int RunInFolder() {
  const WorkFolder folder;
  std::filesystem::copy_file(std::filesystem::path(hosts::ProgramFolder()) / kHost, folder.Path() / kHost);
  std::vector<std::wstring> words{L"--in-place",
                                  L"--jobs",
                                  std::to_wstring(g_options.jobs),
                                  L"--seed",
                                  std::to_wstring(g_options.seed),
                                  L"--sample",
                                  std::to_wstring(g_options.sample)};
  if (g_options.perHost != 0) words.insert(words.end(), {L"--per-host", std::to_wstring(g_options.perHost)});
  if (!g_options.only.empty()) words.insert(words.end(), {L"--only", hosts::ToWide(g_options.only)});
  if (!g_options.csv.empty())
    words.insert(words.end(), {L"--csv", std::filesystem::absolute(hosts::ToWide(g_options.csv)).wstring()});
  const ChildResult child = RunChild(folder.Program(), words, kRunLimit);
  if (child.exitCode > 1) std::printf("FINDING the process ended with 0x%lx\n", child.exitCode);
  return child.ended && child.exitCode == 0 ? 0 : 1;
}

}  // namespace

int main(int count, char** words) try {
  if (!campaign::TakeWords("corvel_cmdline_soak",
                           std::span(words, static_cast<std::size_t>(count)).subspan(1), kSwitches,
                           &TakeValue))
    return 2;
  return g_options.inPlace ? Soak().Run() : RunInFolder();
} catch (const std::exception& error) {
  std::fprintf(stderr, "corvel_cmdline_soak: %s\n", error.what());
  return 1;
}
