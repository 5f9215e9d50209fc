#include "simulator/program/session.h"

#include <algorithm>
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
      : m_Plan(plan),
        m_Show(show),
        m_Key(plan.key, NamesNoKey(plan.setup.configuration)),
        m_Firmware(plan.folder / L"firmware", plan.setup.images, plan.setup.holder),
        m_Configuration(plan.folder, plan.setup, m_Key.Location(), m_Firmware.Folder()),
        m_Pc(PcOptions(plan.setup, plan.speed, plan.folder)) {
    m_Report.logFile = plan.folder / kLogFile;
  }

  SessionReport Run() {
    if (m_Plan.setup.retryTimes) m_Key.Write(L"Retry_Times", *m_Plan.setup.retryTimes);
    if (m_Pc.LoadUnderSimulation(m_Plan.folder / kLibrary) == nullptr) {
      throw std::runtime_error("the library cannot be loaded: " + hosts::SystemErrorText(::GetLastError()));
    }
    const bool starts = m_Plan.awaited == nullptr || m_Plan.awaited->serviceStarts;
    m_Report.serviceStarted = WaitUntil(starts ? kServiceStartLimit : kNoServiceLimit,
                                        [this] { return m_Now.values.timeOut.has_value(); });
    RaiseFlag();
    if (!m_Report.serviceStarted) {
      m_Report.finished = !starts;
      m_Report.difficulty = "the library does not begin its service";
    } else {
      m_Report.finished = FinishJob();
    }
    Collect();
    return std::move(m_Report);
  }

 private:
  void RaiseFlag() {
    m_Begin = m_Pc.Clock().Now();
    m_RealBegin = RealClock::now();
    m_Key.Write(L"Fls_Ready", 1);
  }

  bool FinishJob() {
    if (!WaitUntil(kJobLimit, [this] { return m_Now.values.ready == 0u; })) {
      m_Report.difficulty = "the job does not end";
      return false;
    }
    m_Report.duration = m_Now.elapsed;
    m_Report.realDuration =
        std::chrono::duration_cast<std::chrono::milliseconds>(RealClock::now() - m_RealBegin);
    if (!WaitUntil(kSettleLimit, [this] { return IsSettled(); })) {
      m_Report.difficulty = "the library or the modem does not come to rest";
      return false;
    }
    return true;
  }

  /// Looks, shows and waits for the next change until `done` holds. @return false when time ran out.
  template <typename Condition>
  bool WaitUntil(Milliseconds limit, const Condition& done) {
    const Milliseconds end = m_Pc.Clock().Now() + limit;
    for (;;) {
      m_Key.ArmWatch();
      Look();
      if (done()) return true;
      if (m_Pc.Clock().Now() >= end) return false;
      m_Key.WaitForChange(kLookPeriod);
    }
  }

  void Look() {
    m_Now.values = m_Key.Read();
    m_Now.modem = m_Pc.Modem().State();
    // The library is bound once per attempt, whether or not it is there.
    m_Now.attempt = CountOf(m_Pc.PlatformCalls(), "LoadLibraryW");
    m_Now.elapsed = m_Pc.Clock().Now() - m_Begin;
    const bool due = RealClock::now() - m_LastShown >= kDisplayPeriod;
    if (m_ShownValues == m_Now.values.progress && m_ShownModem == m_Now.modem && !due) return;
    m_ShownValues = m_Now.values.progress;
    m_ShownModem = m_Now.modem;
    m_LastShown = RealClock::now();
    if (m_Begin != Milliseconds::zero()) m_Show(m_Now);
  }

  static int CountOf(const std::map<std::string, int>& counts, const char* name) {
    const auto found = counts.find(name);
    return found == counts.end() ? 0 : found->second;
  }

  /// The job is over, the library waits for the next one, and whatever came late has come.
  bool IsSettled() {
    const Expectation* const awaited = m_Plan.awaited;
    if (awaited != nullptr && m_Now.modem != awaited->modem) return false;
    // Without a debug log nothing is left to come: no attempt was made.
    if (NamesNoKey(m_Plan.setup.configuration)) return true;
    const auto log = ReadDebugLog(m_Report.logFile);
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
    m_Report.values = m_Key.Read();
    m_Report.log = ReadDebugLog(m_Report.logFile);
    m_Report.attempts = CountAttempts(m_Report.log);
    m_Report.workersBack = CountWorkersBack(m_Report.log);
    m_Report.resets = m_Pc.BasebandResets();
    m_Report.mbimReboots = m_Pc.MbimReboots();
    m_Report.atCommands = static_cast<int>(m_Pc.AtCommands().size());
    m_Report.modem = m_Pc.Modem().State();
    m_Report.itemsWritten = m_Pc.Modem().ItemsWritten();
    m_Report.bytesWritten = m_Pc.Modem().BytesWritten();
    m_Report.comparison = m_Pc.Modem().CompareWith(m_Firmware.Modem(), m_Firmware.Nvm());
    m_Report.memory = MemoryAfter(m_Pc.Modem(), m_Report.comparison);
    m_Report.imagesLeft = m_Firmware.ImagesLeft();
    m_Report.journal = m_Pc.Journal();
  }

  const SessionPlan& m_Plan;
  const std::function<void(const Snapshot&)>& m_Show;
  SessionKey m_Key;
  FirmwareFolder m_Firmware;
  ConfigurationFile m_Configuration;
  VirtualPc m_Pc;
  SessionReport m_Report;

  Snapshot m_Now;
  Milliseconds m_Begin{0};
  RealClock::time_point m_RealBegin;
  std::optional<std::uint32_t> m_ShownValues;
  ModemState m_ShownModem = ModemState::Dead;
  RealClock::time_point m_LastShown;
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
