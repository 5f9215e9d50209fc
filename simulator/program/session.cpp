#include "simulator/program/session.h"

#include <algorithm>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "hosts/common/text.h"
#include "simulator/program/configuration.h"
#include "simulator/program/firmware_folder.h"
#include "simulator/program/session_key.h"

namespace simulator {

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

constexpr wchar_t kLogFile[] = L"FlashServiceDebugLogger_DLL.log";
constexpr wchar_t kLibrary[] = L"CorvelToolKit.dll";
constexpr char kWorkerBegins[] = "ToolKit::DownloadFirmwareImplementation ++";
constexpr char kWorkerEnds[] = "ToolKit::DownloadFirmwareImplementation --, result: ";
constexpr char kNewPass[] = "\t Start a new loop process...";
constexpr char kWaitsForRequest[] = "\t WaitForSingleObject, wait registry to be changed...";

// Limits of virtual time: four attempts of 130 s and four re-arrivals are the longest job there is.
// The rest is for machines that are slow to start a thread: at high speed, virtual time flies meanwhile.
constexpr Milliseconds kServiceStartLimit = 300s;
constexpr Milliseconds kNoServiceLimit = 50s;
constexpr Milliseconds kJobLimit = 2000s;
constexpr Milliseconds kSettleLimit = 600s;
/// How often somebody looks at what tells no changes, in real time.
constexpr std::chrono::milliseconds kLookPeriod = 20ms;
constexpr std::chrono::milliseconds kDisplayPeriod = 200ms;

bool NamesNoKey(Configuration configuration) {
  return configuration == Configuration::Empty || configuration == Configuration::OneLine;
}

/// One session: the PC, what lies on its disk, and the controlling program in front of it.
class Session {
 public:
  Session(const SessionPlan& plan, const std::function<void(const Snapshot&)>& show)
      : m_plan(plan),
        m_show(show),
        m_key(plan.key, NamesNoKey(plan.setup.configuration)),
        m_firmware(plan.folder / L"firmware", plan.setup.images, plan.setup.holder),
        m_configuration(plan.folder, plan.setup, m_key.Location(), m_firmware.Folder()),
        m_pc(PcOptions(plan.setup, plan.speed, plan.folder)) {
    m_report.logFile = plan.folder / kLogFile;
  }

  SessionReport Run() {
    if (m_plan.setup.retryTimes) m_key.Write(L"Retry_Times", *m_plan.setup.retryTimes);
    if (m_pc.LoadUnderSimulation(m_plan.folder / kLibrary) == nullptr) {
      throw std::runtime_error("the library cannot be loaded: " + hosts::SystemErrorText(::GetLastError()));
    }
    const bool starts = m_plan.awaited == nullptr || m_plan.awaited->serviceStarts;
    m_report.serviceStarted = WaitUntil(starts ? kServiceStartLimit : kNoServiceLimit,
                                        [this] { return m_now.values.timeOut.has_value(); });
    RaiseFlag();
    if (!m_report.serviceStarted) {
      m_report.finished = !starts;
      m_report.difficulty = "the library does not begin its service";
    } else {
      m_report.finished = FinishJob();
    }
    Collect();
    return std::move(m_report);
  }

 private:
  void RaiseFlag() {
    m_begin = m_pc.Clock().Now();
    m_realBegin = RealClock::now();
    m_key.Write(L"Fls_Ready", 1);
  }

  bool FinishJob() {
    if (!WaitUntil(kJobLimit, [this] { return m_now.values.ready == 0u; })) {
      m_report.difficulty = "the job does not end";
      return false;
    }
    m_report.duration = m_now.elapsed;
    m_report.realDuration =
        std::chrono::duration_cast<std::chrono::milliseconds>(RealClock::now() - m_realBegin);
    if (!WaitUntil(kSettleLimit, [this] { return IsSettled(); })) {
      m_report.difficulty = "the library or the modem does not come to rest";
      return false;
    }
    return true;
  }

  /// Looks, shows and waits for the next change until `done` holds. @return false when time ran out.
  template <typename Condition>
  bool WaitUntil(Milliseconds limit, const Condition& done) {
    const Milliseconds end = m_pc.Clock().Now() + limit;
    for (;;) {
      m_key.ArmWatch();
      Look();
      if (done()) return true;
      if (m_pc.Clock().Now() >= end) return false;
      m_key.WaitForChange(kLookPeriod);
    }
  }

  void Look() {
    m_now.values = m_key.Read();
    m_now.modem = m_pc.Modem().State();
    // The library is bound once per attempt, whether or not it is there.
    m_now.attempt = CountOf(m_pc.PlatformCalls(), "LoadLibraryW");
    m_now.elapsed = m_pc.Clock().Now() - m_begin;
    const bool due = RealClock::now() - m_lastShown >= kDisplayPeriod;
    if (m_shownValues == m_now.values.progress && m_shownModem == m_now.modem && !due) return;
    m_shownValues = m_now.values.progress;
    m_shownModem = m_now.modem;
    m_lastShown = RealClock::now();
    if (m_begin != Milliseconds::zero()) m_show(m_now);
  }

  static int CountOf(const std::map<std::string, int>& counts, const char* name) {
    const auto found = counts.find(name);
    return found == counts.end() ? 0 : found->second;
  }

  /// The job is over, the library waits for the next one, and whatever came late has come.
  bool IsSettled() {
    const Expectation* const awaited = m_plan.awaited;
    if (awaited != nullptr && m_now.modem != awaited->modem) return false;
    // Without a debug log nothing is left to come: no attempt was made.
    if (NamesNoKey(m_plan.setup.configuration)) return true;
    const auto log = ReadDebugLog(m_report.logFile);
    const int back = CountWorkersBack(log);
    const int expected =
        awaited != nullptr && awaited->workersBack ? *awaited->workersBack : CountAttempts(log);
    return back >= expected && WaitsAgain(log);
  }

  static int CountAttempts(const std::vector<DebugRecord>& log) {
    return static_cast<int>(std::ranges::count(log, kWorkerBegins, &DebugRecord::message));
  }
  static int CountWorkersBack(const std::vector<DebugRecord>& log) {
    return static_cast<int>(std::ranges::count_if(
        log, [](const DebugRecord& record) { return record.message.starts_with(kWorkerEnds); }));
  }
  static bool WaitsAgain(const std::vector<DebugRecord>& log) {
    int passes = 0;
    for (const DebugRecord& record : log) {
      if (record.message == kNewPass) ++passes;
      if (passes == 2 && record.message == kWaitsForRequest) return true;
    }
    return false;
  }

  void Collect() {
    m_report.values = m_key.Read();
    m_report.log = ReadDebugLog(m_report.logFile);
    m_report.attempts = CountAttempts(m_report.log);
    m_report.workersBack = CountWorkersBack(m_report.log);
    m_report.resets = m_pc.BasebandResets();
    m_report.mbimReboots = m_pc.MbimReboots();
    m_report.atCommands = static_cast<int>(m_pc.AtCommands().size());
    m_report.modem = m_pc.Modem().State();
    m_report.itemsWritten = m_pc.Modem().ItemsWritten();
    m_report.bytesWritten = m_pc.Modem().BytesWritten();
    m_report.comparison = m_pc.Modem().CompareWith(m_firmware.Modem(), m_firmware.Nvm());
    m_report.memory = MemoryAfter(m_pc.Modem(), m_report.comparison);
    m_report.imagesLeft = m_firmware.ImagesLeft();
    m_report.journal = m_pc.Journal();
  }

  const SessionPlan& m_plan;
  const std::function<void(const Snapshot&)>& m_show;
  SessionKey m_key;
  FirmwareFolder m_firmware;
  ConfigurationFile m_configuration;
  VirtualPc m_pc;
  SessionReport m_report;

  Snapshot m_now;
  Milliseconds m_begin{0};
  RealClock::time_point m_realBegin;
  std::optional<std::uint32_t> m_shownValues;
  ModemState m_shownModem = ModemState::Dead;
  RealClock::time_point m_lastShown;
};

}  // namespace

std::string StageOf(const Snapshot& now) {
  if (now.values.Is(hosts::FlashResult::Succeeded)) return "flashed";
  if (now.values.Is(hosts::FlashResult::Failed)) return "failed";
  if (now.values.Is(hosts::FlashResult::Idle) || !now.values.result) return "starting";
  if (now.values.Is(hosts::FlashResult::Retrying)) return "retrying";
  switch (now.modem) {
    case ModemState::Normal:
      return now.values.progress == 100u ? "modem is back" : "rebooting the modem";
    case ModemState::Leaving:
    case ModemState::Restarting:
      return "rebooting the modem";
    case ModemState::FlashPort:
      return "opening the flash port";
    case ModemState::ChannelOpen:
      return "booting the target";
    case ModemState::Booted:
    case ModemState::Writing:
      return "writing";
    case ModemState::Returning:
    case ModemState::Dead:
      return "waiting for the modem";
  }
  return "";
}

SessionReport RunSession(const SessionPlan& plan, const std::function<void(const Snapshot&)>& show) {
  return Session(plan, show).Run();
}

}  // namespace simulator
