#include "simulator/program/fleet/fleet.h"

#include <windows.h>

#include <algorithm>
#include <exception>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"

namespace simulator {

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

/// With what is wrong; then it is repaired. What controlling programs are told to do.
constexpr int kRequestsBeforeRepair = 2;
constexpr int kRequestsAfterRepair = 3;
/// As long as a job may take at any speed, and what a machine may be busy with besides.
constexpr auto kPreparationLimit = 1200s;
constexpr double kLongestLifeSeconds = 8000;

constexpr auto kFilesPatience = 30s;
constexpr DWORD kFilesPauseMs = 20;

constexpr int kInterrupted = -1;
constexpr int kNoEnd = -2;

}  // namespace

/// A work folder that serves one PC after the other.
class PcFolder {
 public:
  explicit PcFolder(const std::filesystem::path& keep) : m_Folder(keep) {
    if (!keep.empty()) m_Folder.KeepAll();
    for (const auto& entry : std::filesystem::directory_iterator(Path())) m_Stays.insert(entry.path());
  }

  const std::filesystem::path& Path() const { return m_Folder.Path(); }
  const std::filesystem::path& Program() const { return m_Folder.Program(); }
  /// Leaves nothing of the PC before.
  void Empty() const {
    std::vector<std::filesystem::path> left;
    for (const auto& entry : std::filesystem::directory_iterator(Path())) {
      if (!m_Stays.contains(entry.path())) left.push_back(entry.path());
    }
    for (const auto& path : left) Remove(path);
  }

 private:
  /// A process that is over may keep its files for a moment.
  static void Remove(const std::filesystem::path& path) {
    const auto end = RealClock::now() + kFilesPatience;
    std::error_code error;
    while (std::filesystem::remove_all(path, error), error && RealClock::now() < end) ::Sleep(kFilesPauseMs);
    if (error) throw std::filesystem::filesystem_error("a PC's folder cannot be emptied", path, error);
  }

  WorkFolder m_Folder;
  std::set<std::filesystem::path> m_Stays;
};

namespace {

/// The processes of one PC, one after the other.
class PcRun {
 public:
  PcRun(const FleetOrder& order, unsigned pc, const PcFolder& folder, void* interruption)
      : m_Order(order),
        m_Folder(folder),
        m_Interruption(interruption),
        m_Path(L"Software\\Corvel\\Simulator\\" + std::to_wstring(::GetCurrentProcessId()) + L"-pc-" +
               std::to_wstring(pc)),
        m_Key(m_Path, false) {
    m_Story.pc = pc;
    m_Story.plan = PlanOf(order.seed, pc);
  }

  /// @return false when somebody stopped it.
  bool Run() {
    const auto begin = RealClock::now();
    const bool isWhole = LiveWithFaults() && LiveRepaired();
    m_Story.realDuration = std::chrono::duration_cast<std::chrono::milliseconds>(RealClock::now() - begin);
    const auto isFalse = [](const RequestEnd& each) { return each.IsFalse(); };
    if (std::ranges::any_of(m_Story.requests, isFalse))
      AddTrouble("success is told, but the modem does not run with the images");
    return isWhole;
  }
  PcStory TakeStory() { return std::move(m_Story); }

 private:
  bool LiveWithFaults() {
    const auto& interruptions = m_Story.plan.interruptions;
    for (unsigned past = 0;;) {
      const int left = kRequestsBeforeRepair - static_cast<int>(m_Story.requests.size());
      const int end = Live(past, false, left);
      if (end == kInterrupted) return false;
      m_Story.requests = ReadRequests(m_Folder.Path());
      if (end == static_cast<int>(LifeEnd::Interrupted) && past < interruptions.size()) {
        ++(interruptions[past].kind == Interruption::Kind::Kill ? m_Story.kills : m_Story.powerCuts);
        ++past;
        if (static_cast<int>(m_Story.requests.size()) < kRequestsBeforeRepair) continue;
      } else if (end != static_cast<int>(LifeEnd::Done)) {
        AddTrouble(TroubleOf(end));
      }
      return true;
    }
  }

  bool LiveRepaired() {
    if (m_Story.IsFlashed()) return true;
    const int end =
        Live(static_cast<unsigned>(m_Story.plan.interruptions.size()), true, kRequestsAfterRepair);
    m_Story.requests = ReadRequests(m_Folder.Path());
    if (end != static_cast<int>(LifeEnd::Done) && end != kInterrupted) AddTrouble(TroubleOf(end));
    return end != kInterrupted;
  }

  int Live(unsigned interruptions, bool repaired, int requests) {
    std::vector<std::wstring> words{L"--in-place",
                                    m_Path,
                                    L"--pc",
                                    std::to_wstring(m_Story.pc),
                                    L"--seed",
                                    std::to_wstring(m_Order.seed),
                                    L"--speed",
                                    std::to_wstring(m_Order.speed),
                                    L"--interruptions",
                                    std::to_wstring(interruptions),
                                    L"--requests",
                                    std::to_wstring(requests)};
    if (repaired) words.emplace_back(L"--repaired");
    const auto limit =
        kPreparationLimit +
        std::chrono::milliseconds(static_cast<std::int64_t>(kLongestLifeSeconds * 1000 / m_Order.speed));
    const ChildResult child = RunChild(m_Folder.Program(), words, limit, {}, m_Interruption);
    if (child.interrupted) return kInterrupted;
    return child.ended ? static_cast<int>(child.exitCode) : kNoEnd;
  }

  static std::string TroubleOf(int end) {
    if (end == kNoEnd) return "a process does not come to an end";
    if (end == static_cast<int>(LifeEnd::NoEnd)) return "a job does not end, or the service does not begin";
    return "a process ended with " + std::to_string(end);
  }
  void AddTrouble(const std::string& trouble) {
    m_Story.trouble += (m_Story.trouble.empty() ? "" : "; ") + trouble;
  }

  const FleetOrder& m_Order;
  const PcFolder& m_Folder;
  void* const m_Interruption;
  const std::wstring m_Path;
  const SessionKey m_Key;
  PcStory m_Story;
};

}  // namespace

bool PcStory::IsFlashed() const {
  return !requests.empty() && requests.back().Succeeded() && !requests.back().IsFalse();
}

bool Fleet::Run(const std::function<void(PcStory)>& tell) {
  m_Tell = &tell;
  {
    std::vector<std::jthread> workers;
    for (unsigned i = 0; i < std::min(m_Order.processes, m_Order.count); ++i)
      workers.emplace_back([this] { Work(); });
  }
  if (m_HasFailed) throw std::runtime_error(m_Failure);
  return !m_IsInterrupted;
}

void Fleet::Work() try {
  PcFolder folder(m_Order.keep);
  for (unsigned i = m_Next++; i < m_Order.count && !m_IsInterrupted && !m_HasFailed; i = m_Next++) {
    folder.Empty();
    PcRun run(m_Order, m_Order.first + i, folder, m_Interruption);
    if (!run.Run()) {
      m_IsInterrupted = true;
      return;
    }
    const std::lock_guard lock(m_Telling);
    (*m_Tell)(run.TakeStory());
  }
} catch (const std::exception& error) {
  const std::lock_guard lock(m_Telling);
  m_Failure = error.what();
  m_HasFailed = true;
}

}  // namespace simulator
