#include "fault/two_processes.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "fault/perturber.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "simulator/program/fleet/pc_plan.h"
#include "simulator/program/work_folder.h"
#include "simulator/shared_data.h"

namespace campaign {

using namespace simulator;

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

constexpr unsigned long kKilled = 77;
constexpr unsigned long kLeft = 78;
constexpr int kRounds = 4;
constexpr int kMostRounds = 4 * kRounds;
constexpr wchar_t kImage[] = L"nvm.fls";
constexpr auto kHostLimit = 1h;
/// Longer than all attempts of both take.
constexpr auto kPatience = 120s;
/// A request stands for so long and no host works: none hears of it.
constexpr auto kUnheard = 30s;
/// A host that ends does so at one of so many calls of a job that both work on.
constexpr int kFirstEnd = 20;
constexpr int kLastEnd = 300;

/// What a host and whoever watches it tell each other, in memory of both.
struct HostSign {
  // Of the host.
  std::atomic<unsigned> waits;  ///< for a request; all that was asked for before is done
  std::atomic<bool> rests;      ///< waits so
  std::atomic<unsigned> results;
  std::atomic<std::uint32_t> lastResult;
  // Of the other one.
  wchar_t folder[MAX_PATH];             ///< of images and the modem's memory
  std::atomic<std::uint64_t> seed;      ///< of a disturbed schedule; 0: undisturbed
  std::atomic<unsigned> callsToEnd;     ///< counted down; 0: it goes on
  std::atomic<unsigned long> endsWith;  ///< kKilled or kLeft
};

class SharedSign {
 public:
  SharedSign(const std::wstring& pair, unsigned number)
      : m_Memory(pair + L"-host-" + std::to_wstring(number), sizeof(HostSign)) {}
  HostSign& Get() const { return *static_cast<HostSign*>(m_Memory.Address()); }
  HostSign* operator->() const { return &Get(); }

 private:
  const SharedMemory m_Memory;
};

// --- A host -----------------------------------------------------------------------------------------------

class Host {
 public:
  Host(const PairPlan& plan, unsigned number)
      : m_Sign(plan.name, number),
        m_Service({.route = plan.route,
                   .key = plan.key,
                   .sharedBy = plan.name,
                   .folder = std::filesystem::path(m_Sign->folder)}) {
    s_sign = &m_Sign;
  }

  /// Leaves when it is told to, with everything going on.
  int Run() {
    Service::AlsoTell(&See);
    if (m_Service.Load() == nullptr) return 1;
    ::WaitForSingleObject(s_leaves, INFINITE);
    ::ExitProcess(kLeft);
  }

 private:
  static void See(const SeenCall& call) noexcept {
    HostSign& sign = s_sign->Get();
    // Nobody else may tell: what another thread has read of it may be old by then.
    if (::GetCurrentThreadId() == Service::Supervisor()) {
      sign.waits = Service::Waits();
      sign.rests = Service::Rests();
    }
    if (std::string_view(call.function) == "RegSetValueExW" &&
        std::wstring_view(reinterpret_cast<const wchar_t*>(call.arguments[1])) == hosts::kResultValue) {
      sign.lastResult = *reinterpret_cast<const DWORD*>(call.stacked[0]);
      ++sign.results;
    }
    for (unsigned left = sign.callsToEnd; left != 0;) {
      if (!sign.callsToEnd.compare_exchange_weak(left, left - 1)) continue;
      if (left == 1) End(sign.endsWith);
      break;
    }
    if (const std::uint64_t seed = sign.seed; s_seed.exchange(seed) != seed) {
      seed != 0 ? Perturber::Begin(seed) : Perturber::End();
    }
    Perturber::See(call);
  }

  static void End(unsigned long way) {
    if (way == kKilled) ::TerminateProcess(::GetCurrentProcess(), kKilled);
    ::SetEvent(s_leaves);
  }

  static inline const SharedSign* s_sign = nullptr;
  static inline HANDLE s_leaves = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  static inline std::atomic<std::uint64_t> s_seed{0};

  const SharedSign m_Sign;
  Service m_Service;
};

// --- Whoever watches them ---------------------------------------------------------------------------------

/// A host as its watcher sees it, from its beginning to its end.
class WatchedHost {
 public:
  WatchedHost(const std::wstring& pair, unsigned number, const std::filesystem::path& folder,
              std::vector<std::wstring> words)
      : m_Stop(::CreateEventW(nullptr, TRUE, FALSE, nullptr)), m_Sign(pair, number) {
    folder.wstring().copy(m_Sign->folder, MAX_PATH - 1);
    m_End = std::async(std::launch::async, [this, words = std::move(words)] {
      return RunChild(m_Folder.Program(), words, kHostLimit, {}, m_Stop.get());
    });
  }
  ~WatchedHost() {
    ::SetEvent(m_Stop.get());
    m_End.wait();
  }
  WatchedHost(const WatchedHost&) = delete;
  WatchedHost& operator=(const WatchedHost&) = delete;

  const SharedSign& Sign() const { return m_Sign; }
  bool Lives() const { return m_End.wait_for(0s) != std::future_status::ready; }
  /// How a dead one ended.
  unsigned long Status() const { return m_End.get().exitCode; }

 private:
  const WorkFolder m_Folder;
  const hosts::OwnedHandle m_Stop;
  const SharedSign m_Sign;
  std::shared_future<ChildResult> m_End;
};

bool Becomes(const std::function<bool()>& condition) {
  return BecomesWithin(kPatience, condition);
}

std::string Text(const std::optional<std::uint32_t>& value) {
  return value ? std::to_string(*value) : "none";
}

constexpr std::size_t kHosts = 2;

class Pair {
 public:
  Pair(const PairPlan& plan, HostWords words)
      : m_Plan(plan),
        m_Key{HKEY_CURRENT_USER, L"HKCU", plan.key},
        m_Words(std::move(words)),
        m_Pc(PcOf({.route = plan.route, .key = plan.key, .sharedBy = plan.name, .folder = m_Folder.Path()})),
        m_Dice(plan.seed) {}

  void Run(const std::function<void(const PairRound&)>& tell) {
    PairRound begin{.what = "the beginning", .isReached = true};
    for (unsigned i = 0; i < kHosts && begin.finding.empty(); ++i) begin.finding = Start(i);
    if (begin.finding.empty() && !HaveNamesInCommon()) begin.finding = "the hosts have no event in common";
    if (!begin.finding.empty()) return tell(begin);
    // A request that only one of them has heard of is made again; that is how it is with two.
    int reached = 0;
    for (int i = 0; i < kMostRounds && reached < kRounds; ++i) {
      PairRound round = RunRound();
      if (round.isReached) ++reached;
      if (!round.finding.empty()) round.what += ", " + State();
      if (round.isReached || round.toOneLeft > 0 || !round.finding.empty()) tell(round);
      if (!round.finding.empty()) return;
    }
    for (; reached < kRounds; ++reached) tell({.what = "a request that both hear of", .isReached = false});
  }

 private:
  // --- The hosts

  std::string Start(unsigned number) {
    m_Hosts[number].reset();
    m_Hosts[number].emplace(m_Plan.name, number, m_Folder.Path(), m_Words(number));
    const WatchedHost& host = *m_Hosts[number];
    const bool begins = Becomes([&] { return !host.Lives() || (host.Sign()->waits > 0 && AllRest()); });
    return begins && host.Lives() ? "" : "host " + std::to_string(number) + " does not begin";
  }

  /// The library of a host that waits for a request holds the event open by which it hears of one.
  bool HaveNamesInCommon() const {
    const std::wstring name = L"RegistryNotify-" + m_Plan.name;
    return hosts::OwnedHandle(::OpenEventW(SYNCHRONIZE, FALSE, name.c_str())).get() != nullptr;
  }

  bool AllRest() const {
    bool rest = true;
    for (const auto& host : m_Hosts) {
      if (host && host->Lives()) rest = rest && host->Sign()->rests;
    }
    return rest;
  }

  // --- Requests

  void LayImages() {
    m_Image = BuildImage(SmallImagePlan(++m_Images));
    const auto folder = m_Folder.Path() / L"firmware";
    std::filesystem::create_directories(folder);
    // An attempt that was given up may have the former one open.
    if (!Becomes([&] { return SaveImageFile(m_Image, folder / kImage); }))
      throw std::runtime_error("the images cannot be laid");
  }

  enum class Answer { Done, Unheard, None };

  /// Raises the flag and waits until it is dealt with.
  Answer Ask() {
    const unsigned living = Living();
    std::array<unsigned, kHosts> waits{};
    for (std::size_t i = 0; i < kHosts; ++i) waits.at(i) = m_Hosts.at(i)->Sign()->waits;
    hosts::WriteHandshakeValue(m_Key, hosts::kReadyValue, 1);
    Answer answer = Answer::None;
    auto lastHeard = RealClock::now();
    Becomes([&] {
      bool hasWaited = Living() < living;
      for (std::size_t i = 0; i < kHosts; ++i)
        hasWaited = hasWaited || m_Hosts.at(i)->Sign()->waits > waits.at(i);
      // In this order: whoever rests when nothing is asked for has nothing left to do.
      const bool stands = Values().ready == 1u;
      const bool rest = AllRest();
      if (hasWaited && !stands && rest) answer = Answer::Done;
      if (!stands || !rest) lastHeard = RealClock::now();
      if (RealClock::now() - lastHeard > kUnheard) answer = Answer::Unheard;
      return answer != Answer::None;
    });
    return answer;
  }

  /// What happens to one of the hosts while both work.
  struct Fate {
    enum class Kind { None, Killed, Leaves };
    Kind kind;
    unsigned who;
    unsigned calls;

    bool EndsHost() const { return kind != Kind::None; }
    unsigned long Status() const { return kind == Kind::Killed ? kKilled : kLeft; }
    std::string Text() const {
      if (!EndsHost()) return "";
      return ", host " + std::to_string(who) + (kind == Kind::Killed ? " is killed" : " leaves") +
             " at call " + std::to_string(calls);
    }
  };
  Fate DrawFate() {
    static constexpr std::array kKinds{Fate::Kind::None, Fate::Kind::Killed, Fate::Kind::Killed,
                                       Fate::Kind::Leaves};
    return {kKinds.at(static_cast<std::size_t>(m_Dice.Between(0, 3))),
            static_cast<unsigned>(m_Dice.Between(0, kHosts - 1)),
            static_cast<unsigned>(m_Dice.Between(kFirstEnd, kLastEnd))};
  }

  PairRound RunRound() {
    const Fate fate = DrawFate();
    m_Pc.Modem().Put(BeginOf(m_Plan.route));
    LayImages();
    PairRound round{.what = "request " + std::to_string(m_Images) + fate.Text()};
    std::array<unsigned, kHosts> results{};
    for (std::size_t i = 0; i < kHosts; ++i) {
      results.at(i) = m_Hosts.at(i)->Sign()->results;
      m_Hosts.at(i)->Sign()->seed = m_Dice.Throw() | 1;
    }
    if (fate.EndsHost()) {
      m_Hosts.at(fate.who)->Sign()->endsWith = fate.Status();
      m_Hosts.at(fate.who)->Sign()->callsToEnd = fate.calls;
    }
    const Answer answer = Ask();
    // Who has come to its last call may need a while to be gone.
    if (fate.EndsHost() && m_Hosts.at(fate.who)->Sign()->callsToEnd.exchange(0) == 0)
      Becomes([&] { return !m_Hosts.at(fate.who)->Lives(); });
    round.isReached = true;
    for (std::size_t i = 0; i < kHosts; ++i) {
      const SharedSign& sign = m_Hosts.at(i)->Sign();
      sign->callsToEnd = 0;
      sign->seed = 0;
      const bool tookPart = sign->results > results.at(i);
      round.isReached = round.isReached && tookPart;
      if (tookPart && m_Hosts.at(i)->Lives() && sign->rests && !IsEnd(sign->lastResult))
        round.finding = "host " + std::to_string(i) + " ends with " + std::to_string(sign->lastResult);
    }
    if (round.finding.empty()) round.finding = Judge(answer, fate, round);
    return round;
  }

  std::string Judge(Answer answer, const Fate& fate, PairRound& round) {
    if (answer == Answer::None) return "the request is not dealt with";
    if (Living() == kHosts) {
      round.isReached = round.isReached && !fate.EndsHost();
      // A change wakes one of them, whichever.
      return answer == Answer::Unheard ? "no host hears of the request" : JudgeValues();
    }
    const WatchedHost& dead = *m_Hosts.at(fate.who);
    if (!fate.EndsHost() || dead.Lives()) return "a host has died";
    if (dead.Status() != fate.Status()) return "the host ends with " + std::to_string(dead.Status());
    round.isReached = round.isReached && !dead.Sign()->rests;
    const unsigned left = 1 - fate.who;
    ++round.toOneLeft;
    std::string finding = answer == Answer::Unheard ? RouseTo(left, round) : "";
    if (finding.empty()) finding = FlashAlone(left, round);
    return finding.empty() ? Start(fate.who) : finding;
  }

  /// Has a host that is left and has not heard of the request started anew. It does what stands then.
  std::string RouseTo(unsigned who, PairRound& round) {
    ++round.unheard;
    const std::string finding = Start(who);
    return finding.empty() ? JudgeFlashed() : finding;
  }

  /// Alone, with the modem as both have left it, a host flashes.
  std::string FlashAlone(unsigned who, PairRound& round) {
    if (m_Plan.route == Route::At) {
      // A port that the other one had open stays refused to the thread that was refused it, until a restart.
      if (std::string finding = Start(who); !finding.empty()) return finding;
    }
    LayImages();
    ++round.toOneLeft;
    const Answer answer = Ask();
    if (answer == Answer::None) return "the request to the host that is left is not dealt with";
    return answer == Answer::Unheard ? RouseTo(who, round) : JudgeFlashed();
  }

  std::string JudgeFlashed() {
    if (!Values().Is(hosts::FlashResult::Succeeded)) return "the host that is left does not flash";
    if (!m_Pc.Modem().CompareWith(&m_Image, nullptr).equal)
      return "the host that is left tells of success, but the memory is not equal";
    if (m_Pc.Modem().State() != ModemState::Normal)
      return "the host that is left tells of success, but the modem is not back";
    std::error_code ignored;
    if (std::filesystem::exists(m_Folder.Path() / L"firmware" / kImage, ignored))
      return "the host that is left leaves the image";
    return JudgeValues();
  }

  // --- What is seen

  static bool IsEnd(std::uint32_t result) {
    return result == static_cast<std::uint32_t>(hosts::FlashResult::Succeeded) ||
           result == static_cast<std::uint32_t>(hosts::FlashResult::Failed);
  }
  /// Of two hosts that both live, or of one alone.
  std::string JudgeValues() const {
    const hosts::Handshake values = Values();
    if (!values.result || !IsEnd(*values.result)) return "no documented end";
    if (values.ready != 0u) return "the flag is not taken back";
    return values.onGoing == 0u ? "" : "\"Flash_OnGoing\" is left";
  }
  unsigned Living() const {
    return static_cast<unsigned>(
        std::ranges::count_if(m_Hosts, [](const auto& host) { return host->Lives(); }));
  }
  hosts::Handshake Values() const { return hosts::ReadHandshake(m_Key); }
  std::string State() {
    const hosts::Handshake values = Values();
    std::string state = "result " + Text(values.result) + ", ready " + Text(values.ready) + ", on-going " +
                        Text(values.onGoing) + ", the modem is " + NameOf(m_Pc.Modem().State());
    for (std::size_t i = 0; i < kHosts; ++i) {
      const WatchedHost& host = *m_Hosts.at(i);
      state += ", host " + std::to_string(i) +
               (host.Lives() ? (host.Sign()->rests ? " rests" : " works") : " is dead");
    }
    return state;
  }

  const PairPlan m_Plan;
  const hosts::HandshakeKey m_Key;
  const HostWords m_Words;
  const WorkFolder m_Folder;
  VirtualPc m_Pc;
  Dice m_Dice;
  FlashImage m_Image;
  std::uint32_t m_Images = 0;
  std::array<std::optional<WatchedHost>, kHosts> m_Hosts;
};

}  // namespace

void RunPair(const PairPlan& plan, const HostWords& words,
             const std::function<void(const PairRound&)>& tell) {
  Pair(plan, words).Run(tell);
}

int RunHostOfPair(const PairPlan& plan, unsigned number) {
  // Never destroyed: the service goes on until the process ends.
  return (new Host(plan, number))->Run();
}

}  // namespace campaign
