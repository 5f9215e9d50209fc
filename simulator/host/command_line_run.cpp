#include "simulator/host/command_line_run.h"

#include <windows.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <optional>
#include <string_view>

#include "hosts/common/text.h"
#include "simulator/host/kept_key.h"
#include "simulator/host/virtual_pc_file.h"
#include "simulator/program/configuration.h"
#include "simulator/program/firmware_folder.h"
#include "simulator/program/work_folder.h"

namespace simulator {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kRunLimit = 30min;
constexpr std::chrono::milliseconds kLookPeriod = 10ms;
constexpr wchar_t kHost[] = L"corvel_cmdline.exe";
constexpr wchar_t kLog[] = L"FlashCommandLineLogger_DLL.log";
constexpr std::string_view kWorkerBegins = "ToolKit::DownloadFirmwareImplementation ++";
constexpr std::string_view kWorkerEnds = "ToolKit::DownloadFirmwareImplementation --, result: ";

/// The modem of each route, as the scenarios name it.
std::string NameOfSetup(const CommandLinePlan& plan) {
  return plan.scenario.empty() ? std::string("route-") + NameOf(plan.setup.route) : plan.scenario;
}

/// One run: the folder, what lies in it, the host, and the controlling program in front of it.
class CommandLineRun {
 public:
  explicit CommandLineRun(const CommandLinePlan& plan)
      : m_Plan(plan), m_Begin(std::chrono::steady_clock::now()) {
    MakeFolder();
    if (plan.asker == Asker::Host) LayImages();
    m_Configuration.emplace(plan.folder, plan.setup, L"HKLM\\SOFTWARE\\Corvel\\NotUsed", FirmwarePath());
    if (plan.setup.retryTimes) m_Key.Write(L"Retry_Times", *plan.setup.retryTimes);
  }

  CommandLineReport Run() {
    auto host = std::async(std::launch::async, [this] {
      return RunChild(m_Plan.folder / kHost, Words(), kRunLimit, m_Plan.output);
    });
    if (m_Plan.asker == Asker::Controller) {
      AwaitTurn(host);
      LayImages();
      m_Key.Write(L"Fls_Ready", 1);
    }
    return Report(host.get());
  }

 private:
  std::filesystem::path FirmwarePath() const { return m_Plan.folder / L"firmware"; }

  void MakeFolder() const {
    std::filesystem::remove_all(m_Plan.folder);
    std::filesystem::create_directories(m_Plan.folder);
    const std::filesystem::path programs = hosts::ProgramFolder();
    Bring(programs / L"simulated" / kHost);
    for (const wchar_t* name : {L"CorvelToolKit.dll", L"Firmwareflashdownload.dll", L"virtual_pc_host.dll"}) {
      Bring(programs / name);
    }
    std::ofstream(m_Plan.folder / kVirtualPcFile)
        << "scenario=" << NameOfSetup(m_Plan) << "\nspeed=" << m_Plan.speed << "\n";
  }
  /// A copy: a link could not be removed while any process runs the file that it is a link to.
  void Bring(const std::filesystem::path& file) const {
    std::filesystem::copy_file(file, m_Plan.folder / file.filename());
  }
  void LayImages() { m_Firmware.emplace(FirmwarePath(), m_Plan.setup.images, m_Plan.setup.holder); }

  std::vector<std::wstring> Words() const {
    std::vector<std::wstring> words{L"flash"};
    if (m_Plan.asker == Asker::Controller) words.emplace_back(L"--wait-for-controller");
    words.insert(words.end(), m_Plan.options.begin(), m_Plan.options.end());
    return words;
  }

  /// The library writes this value when it begins, and waits for the request then.
  void AwaitTurn(const std::future<ChildResult>& host) const {
    while (!m_Key.Read().timeOut && host.wait_for(kLookPeriod) == std::future_status::timeout) {
    }
  }

  CommandLineReport Report(const ChildResult& child) const {
    CommandLineReport report{.exitCode = child.exitCode, .session = {}};
    SessionReport& session = report.session;
    session.realDuration =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_Begin);
    session.values = m_Key.Read();
    ReportLog(session);
    ReportEnd(session, child);
    ReportMemory(session);
    return report;
  }

  void ReportLog(SessionReport& session) const {
    session.logFile = m_Plan.folder / kLog;
    session.log = ReadDebugLog(session.logFile);
    session.attempts =
        static_cast<int>(std::ranges::count(session.log, kWorkerBegins, &DebugRecord::message));
    session.workersBack = static_cast<int>(std::ranges::count_if(
        session.log, [](const DebugRecord& record) { return record.message.starts_with(kWorkerEnds); }));
  }

  void ReportEnd(SessionReport& session, const ChildResult& child) const {
    const auto end = ReadVirtualPcEnd(m_Plan.folder);
    session.finished = child.ended && end.has_value();
    if (!session.finished) {
      session.difficulty = child.ended ? "the host did not end by itself" : "the host does not end";
      return;
    }
    session.modem = end->modem;
    session.resets = end->resets;
    session.mbimReboots = end->mbimReboots;
    session.atCommands = end->atCommands;
    session.itemsWritten = end->itemsWritten;
    session.bytesWritten = end->bytesWritten;
    session.duration = end->elapsed;
  }

  void ReportMemory(SessionReport& session) const {
    const VirtualClock clock(1.0);
    VirtualModem modem(clock, m_Plan.folder / L"modem_flash.bin", {}, {}, ModemState::Normal,
                       [](JournalEvent, const std::string&) {});
    session.comparison = modem.CompareWith(m_Firmware->Modem(), m_Firmware->Nvm());
    session.memory = MemoryAfter(modem, session.comparison);
    session.imagesLeft = m_Firmware->ImagesLeft();
  }

  const CommandLinePlan& m_Plan;
  std::chrono::steady_clock::time_point m_Begin;
  KeptKey m_Key{KeyOfCommandLine()};
  std::optional<FirmwareFolder> m_Firmware;
  std::optional<ConfigurationFile> m_Configuration;
};

}  // namespace

CommandLineReport FlashByCommandLine(const CommandLinePlan& plan) {
  return CommandLineRun(plan).Run();
}

}  // namespace simulator
