#include "fault/campaign_service.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include "hosts/common/text.h"
#include "simulator/load_watch.h"
#include "support/quick_modem.h"

namespace campaign {

using namespace simulator;

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

constexpr wchar_t kLibrary[] = L"CorvelToolKit.dll";
constexpr wchar_t kSecondLibrary[] = L"CorvelToolKit of another host.dll";
constexpr unsigned kMostHosts = 2;
constexpr wchar_t kModemImage[] = L"modem.fls";
constexpr wchar_t kNvmImage[] = L"nvm.fls";
// Time flies less while somebody waits for a thread that hangs.
constexpr auto kPatience = 240s;

/// The thread of a host that serves its requests, as its calls show it. It waits endlessly for a change of
/// the key only when it has looked and nothing is asked for, and on the event that it has armed.
struct ServingThread {
  std::atomic<DWORD> thread{0};
  std::atomic<std::uint64_t> event{0};
  std::atomic<unsigned> waits{0};
  std::atomic<bool> rests{false};
};

/// The keys that were read from and not closed since, as the calls show it. Whoever writes gives his key
/// back.
class KeysRead {
 public:
  void See(const SeenCall& call, std::string_view function) noexcept {
    if (!function.starts_with("Reg")) return;
    const std::size_t key = call.arguments[0] / kHandleStep;
    // The roots, which nobody opens, are far beyond.
    if (key >= m_AreRead.size()) return;
    if (function == "RegQueryValueExW") Set(key, true);
    if (function == "RegCloseKey" || function == "RegSetValueExW") Set(key, false);
  }
  std::size_t Count() const { return m_Count; }

 private:
  void Set(std::size_t key, bool isRead) noexcept {
    if (m_AreRead[key].exchange(isRead) == isRead) return;
    isRead ? ++m_Count : --m_Count;
  }

  static constexpr std::uint64_t kHandleStep = 4;
  std::array<std::atomic<bool>, 65536> m_AreRead{};
  std::atomic<std::size_t> m_Count{0};
};

/// Sees the service begin to wait for a request, and what the modem is like when a result is reported.
class Witness {
 public:
  static void See(const SeenCall& call) noexcept {
    const std::string_view function = call.function;
    NoteAttemptOfThread();
    SeeServing(call, function);
    if (function == "RegSetValueExW") SeeValue(call);
    s_keys.See(call, function);
    if (const char* const last = s_lastFunction; last != nullptr && function == last)
      ::TerminateProcess(::GetCurrentProcess(), s_exitCode);
    if (s_endsAtNextCall) ::TerminateProcess(::GetCurrentProcess(), s_exitCode);
    if (s_records) s_record.Note(call, s_modem->State());
    if (const CallHooks::Observer other = s_other) other(call);
  }
  static void AlsoTell(CallHooks::Observer other) { s_other = other; }
  static void ExpectHosts(unsigned hosts) { s_hosts = hosts; }
  static unsigned Count() {
    unsigned count = 0;
    for (const ServingThread& each : s_serving) count += each.waits;
    return count;
  }
  static bool AllRest() {
    bool rest = true;
    for (unsigned i = 0; i < s_hosts; ++i) rest = rest && s_serving[i].rests;
    return rest;
  }
  static ModemState ModemAtResult() { return s_modemAtResult; }
  static bool HasBegunAttempt() { return s_hasBegunAttempt; }
  static bool HasOldAttemptWritten() { return s_hasOldAttemptWritten; }
  static void ForgetAttempts() {
    s_hasBegunAttempt = false;
    s_hasOldAttemptWritten = false;
  }
  static std::size_t KeysLeftOpenByReads() { return s_keys.Count(); }
  static DWORD SupervisorThread() { return s_serving[0].thread; }
  static void Watch(VirtualModem& modem) { s_modem = &modem; }
  static void Record(bool calls) { s_records = calls; }
  static CallRecord& TheRecord() { return s_record; }
  static void EndProcessBefore(const char* function, unsigned exitCode) {
    s_exitCode = exitCode;
    s_lastFunction = function;
  }
  static void EndProcessAtNextCall(unsigned exitCode) {
    s_exitCode = exitCode;
    s_endsAtNextCall = true;
  }

 private:
  static void SeeServing(const SeenCall& call, std::string_view function) noexcept {
    const bool arms = function == "RegNotifyChangeKeyValue";
    ServingThread* const own = OfThisThread(arms);
    if (own == nullptr) return;
    own->rests = false;
    if (arms) {
      own->event = call.arguments[3];
      s_record.BeginJob();
    }
    if (function == "WaitForSingleObject" && call.arguments[0] == own->event &&
        static_cast<DWORD>(call.arguments[1]) == INFINITE) {
      ++own->waits;
      own->rests = true;
    }
  }

  /// @return null for a thread that serves no requests.
  static ServingThread* OfThisThread(bool arms) noexcept {
    const DWORD thread = ::GetCurrentThreadId();
    // A host alone may have had another one before.
    if (arms && s_hosts == 1) s_serving[0].thread = thread;
    for (unsigned i = 0; i < s_hosts; ++i) {
      ServingThread& each = s_serving[i];
      DWORD nobody = 0;
      if (each.thread == thread || (arms && each.thread.compare_exchange_strong(nobody, thread)))
        return &each;
    }
    return nullptr;
  }

  static void SeeValue(const SeenCall& call) noexcept {
    const std::wstring_view name(reinterpret_cast<const wchar_t*>(call.arguments[1]));
    // Of two hosts each counts its own attempts, and nobody can tell them apart.
    if (name == hosts::kProgressValue && s_hosts == 1 && s_attemptOfThread < s_attempt && !IsServing())
      s_hasOldAttemptWritten = true;
    if (name != hosts::kResultValue) return;
    s_modemAtResult = s_modem->State();
    const auto* const data = reinterpret_cast<const DWORD*>(call.stacked[0]);
    if (*data != static_cast<DWORD>(hosts::FlashResult::Flashing)) return;
    s_hasBegunAttempt = true;
    ++s_attempt;
  }

  /// A thread works for the attempt in which it is seen first.
  static void NoteAttemptOfThread() noexcept {
    if (s_attemptOfThread == 0) s_attemptOfThread = s_attempt;
  }
  static bool IsServing() noexcept { return s_serving[0].thread == ::GetCurrentThreadId(); }

  static inline std::atomic<CallHooks::Observer> s_other{nullptr};
  static inline VirtualModem* s_modem = nullptr;
  static inline KeysRead s_keys;
  static inline CallRecord s_record;
  static inline std::atomic<bool> s_records{false};
  static inline std::array<ServingThread, kMostHosts> s_serving;
  static inline unsigned s_hosts = 1;
  static inline std::atomic<bool> s_endsAtNextCall{false};
  static inline std::atomic<const char*> s_lastFunction{nullptr};
  static inline std::atomic<unsigned> s_exitCode{0};
  static inline std::atomic<ModemState> s_modemAtResult{ModemState::Dead};
  static inline std::atomic<bool> s_hasBegunAttempt{false};
  static inline std::atomic<bool> s_hasOldAttemptWritten{false};
  static inline std::atomic<unsigned> s_attempt{1};  ///< of the service, over all jobs
  static inline thread_local unsigned s_attemptOfThread = 0;
};

constexpr wchar_t kStateFile[] = L"modem_state.txt";

std::filesystem::path FolderOf(const ServicePlan& plan) {
  return plan.folder.empty() ? std::filesystem::path(hosts::ProgramFolder()) : plan.folder;
}

void TurnLogOff(const std::filesystem::path& configuration) {
  std::ifstream file(configuration, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  file.close();
  constexpr std::string_view kOn = "[TraceLevel]=1";
  text.replace(text.find(kOn), kOn.size(), "[TraceLevel]=0");
  std::ofstream(configuration, std::ios::binary) << text;
}

bool Becomes(const std::function<bool()>& condition) {
  return BecomesWithin(kPatience, condition);
}

}  // namespace

VirtualPcOptions PcOf(const ServicePlan& plan) {
  const bool isShared = !plan.sharedBy.empty();
  const auto folder = FolderOf(plan);
  Setup setup;
  setup.route = plan.route;
  VirtualPcOptions options = PcOptions(setup, isShared ? kSharedSpeed : kSpeed, folder);
  options.timing = QuickTiming();
  options.sharedBy = plan.sharedBy;
  if (isShared) options.pace = Pace::Steady;
  if (plan.begins == Begins::WithModemAsLeft)
    options.initialState = VirtualModem::StateLeftIn(folder / kStateFile);
  return options;
}

ModemState BeginOf(Route route) {
  if (route == Route::Bbrst) return ModemState::Restarting;
  return route == Route::FlashPort ? ModemState::FlashPort : ModemState::Normal;
}

bool BecomesWithin(std::chrono::seconds patience, const std::function<bool()>& condition) {
  const auto end = RealClock::now() + patience;
  while (!condition()) {
    if (RealClock::now() > end) return false;
    ::Sleep(1);
  }
  return true;
}

Service::Service(const ServicePlan& plan)
    : m_Folder(hosts::ProgramFolder()),
      m_Plan(plan),
      m_Images(FolderOf(plan) / L"firmware"),
      m_Key{HKEY_CURRENT_USER, L"HKCU", plan.key},
      m_Pc(PcOf(plan)) {
  Setup setup;
  setup.route = plan.route;
  m_Configuration =
      std::make_unique<ConfigurationFile>(m_Folder, setup, m_Key.rootName + L"\\" + m_Key.path, m_Images);
  if (!plan.log) TurnLogOff(m_Folder / L"CorvelConfig.ini");
  Witness::Watch(m_Pc.Modem());
  Witness::ExpectHosts(plan.hosts);
  // One that is shared outlives its processes anyway.
  if (plan.sharedBy.empty()) m_Pc.Modem().KeepStateIn(FolderOf(plan) / kStateFile);
}

HMODULE Service::Load() {
  // Nobody may miss the first wait: whoever watches is there before the library's thread is.
  const LoadWatch watch(kLibrary, [this](HMODULE) { Hooks().Observe(&Witness::See); });
  const HMODULE library = m_Pc.LoadUnderSimulation(m_Folder / kLibrary);
  return library != nullptr && m_Plan.hosts > 1 && !LoadSecondHost() ? nullptr : library;
}

/// A copy has variables of its own, as in a process of its own.
bool Service::LoadSecondHost() {
  std::filesystem::copy_file(m_Folder / kLibrary, m_Folder / kSecondLibrary,
                             std::filesystem::copy_options::overwrite_existing);
  return m_Pc.LoadBeside(m_Folder / kSecondLibrary) != nullptr;
}

bool Service::Begin() {
  return Load() != nullptr && AwaitRest(0);
}

void Service::PutModemWhereTheRouteBegins() {
  m_Pc.Modem().Put(BeginOf(m_Plan.route));
}

void Service::LayImages(std::uint32_t seed) {
  ExpectImages(seed);
  std::filesystem::create_directories(m_Images);
  // An attempt that was given up may have the former ones open.
  const bool isLaid = Becomes([&] {
    return SaveImageFile(m_Nvm, m_Images / kNvmImage) &&
           (m_Plan.images == Images::Small || SaveImageFile(m_Modem, m_Images / kModemImage));
  });
  if (!isLaid) throw std::runtime_error("the images cannot be laid");
}

void Service::ExpectImages(std::uint32_t seed) {
  if (m_Plan.images == Images::Small) {
    m_Nvm = BuildImage(SmallImagePlan(seed));
    return;
  }
  m_Modem = BuildImage(ModemImagePlan(2 * seed));
  m_Nvm = BuildImage(NvmImagePlan(2 * seed + 1));
}

void Service::LookAtImages(JobEnd& end) const {
  std::error_code ignored;
  const bool hasNvm = std::filesystem::exists(m_Images / kNvmImage, ignored);
  const bool hasModem = std::filesystem::exists(m_Images / kModemImage, ignored);
  end.isImageLeft = hasNvm || hasModem;
  end.areImagesKept = hasNvm && (hasModem || m_Plan.images == Images::Small);
}

MemoryComparison Service::Compare() {
  if (m_Nvm.items.empty()) return {};
  return m_Pc.Modem().CompareWith(m_Plan.images == Images::Large ? &m_Modem : nullptr, &m_Nvm);
}

unsigned Service::Waits() {
  return Witness::Count();
}

bool Service::Rests() {
  return Witness::AllRest();
}

void Service::AlsoTell(CallHooks::Observer observer) {
  Witness::AlsoTell(observer);
}

std::size_t Service::KeysLeftOpenByReads() {
  return Witness::KeysLeftOpenByReads();
}

DWORD Service::Supervisor() {
  return Witness::SupervisorThread();
}

void Service::Record(bool calls) {
  Witness::Record(calls);
}

std::vector<MadeCall> Service::TakeRecord() const {
  return Witness::TheRecord().Take(reinterpret_cast<std::uintptr_t>(::GetModuleHandleW(kLibrary)));
}

void Service::EndProcessBefore(const char* function, unsigned exitCode) {
  Witness::EndProcessBefore(function, exitCode);
}

void Service::EndProcessInItem(std::uint32_t blockSize, std::size_t blocks, InItem when, unsigned exitCode) {
  m_Pc.Modem().TakeInBlocks(blockSize, [=](std::uint32_t written) {
    if (written < blocks * blockSize) return;
    if (when == InItem::AtBlock) ::TerminateProcess(::GetCurrentProcess(), exitCode);
    Witness::EndProcessAtNextCall(exitCode);
  });
}

void Service::ForgetLastJob() {
  for (const wchar_t* name : {hosts::kResultValue, hosts::kOnGoingValue})
    hosts::WriteHandshakeValue(m_Key, name, 0);
}

void Service::Request() {
  m_Pc.ClearJournal();
  Witness::ForgetAttempts();
  m_WaitsBefore = Waits();
  if (const DWORD error = hosts::WriteHandshakeValue(m_Key, L"Fls_Ready", 1); error != 0)
    throw std::runtime_error("the flag cannot be raised: " + hosts::SystemErrorText(error));
}

JobEnd Service::Run(const std::function<bool()>& giveUp) {
  Request();
  bool isGivenUp = false;
  const bool isOver = Becomes([&] {
    isGivenUp = giveUp && giveUp();
    return isGivenUp || IsAtRest(m_WaitsBefore);
  });
  return Look(isOver && !isGivenUp);
}

JobEnd Service::GoOn() {
  return Look(AwaitRest(m_WaitsBefore));
}

bool Service::IsAtRest(unsigned formerWaits) const {
  // In this order: whoever rests when nothing is asked for has nothing left to do. Of two hosts one may have
  // slept through it all.
  return Waits() > formerWaits && Values().ready != 1u && Witness::AllRest();
}

bool Service::AwaitRest(unsigned formerWaits) {
  return Becomes([&] { return IsAtRest(formerWaits); });
}

JobEnd Service::Look(bool ended) {
  JobEnd end;
  end.ended = ended;
  end.values = Values();
  end.isMemoryEqual = Compare().equal;
  end.modem = m_Pc.Modem().State();
  end.modemAtResult = Witness::ModemAtResult();
  LookAtImages(end);
  end.hasOldAttemptWritten = Witness::HasOldAttemptWritten();
  // A registry that refuses to be opened sees no result written.
  end.beganAttempt = Witness::HasBegunAttempt() || m_Pc.LibraryLoads() > 0;
  return end;
}

bool TakeWords(const char* program, std::span<char* const> words, std::span<const Switch> switches,
               const ValueTaker& takeValue) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    const auto found = std::ranges::find(switches, std::string_view(words[i]), &Switch::word);
    if (found != switches.end()) {
      *found->chosen = true;
      continue;
    }
    if (i + 1 == words.size() || !takeValue(words[i], words[i + 1])) {
      std::fprintf(stderr, "%s: what is \"%s\"?\n", program, words[i]);
      return false;
    }
    ++i;
  }
  return true;
}

bool TakeNumber(std::string_view value, std::size_t& number) {
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  return error == std::errc() && end == value.data() + value.size();
}

bool TakeText(std::string_view value, std::string& text) {
  text = value;
  return !value.empty();
}

void EndProcess(int status) {
  std::fflush(stdout);
  ::TerminateProcess(::GetCurrentProcess(), static_cast<unsigned>(status));
  std::abort();
}

}  // namespace campaign
