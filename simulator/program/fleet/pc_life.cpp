#include "simulator/program/fleet/pc_life.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "hosts/common/handshake.h"
#include "hosts/common/text.h"
#include "simulator/call_hooks.h"
#include "simulator/flash_image.h"
#include "simulator/load_watch.h"
#include "simulator/program/configuration.h"
#include "simulator/program/debug_log.h"
#include "simulator/program/fleet/pc_plan.h"
#include "simulator/program/fleet/service_watch.h"
#include "simulator/program/fleet/why_failed.h"
#include "simulator/virtual_pc.h"

namespace simulator {

namespace {

using namespace std::chrono_literals;

constexpr wchar_t kLibrary[] = L"CorvelToolKit.dll";
constexpr wchar_t kLogFile[] = L"FlashServiceDebugLogger_DLL.log";
constexpr wchar_t kRequestsFile[] = L"requests.txt";
constexpr wchar_t kStateFile[] = L"modem_state.txt";
constexpr wchar_t kImagesFile[] = L"images.txt";
constexpr char kWorkerBegins[] = "ToolKit::DownloadFirmwareImplementation ++";
/// Longer than the longest job there is, in virtual time.
constexpr Milliseconds kJobLimit = 2400s;
constexpr DWORD kLookPeriodMs = 10;

/// What a modem comes up as when power comes back.
ModemState StateAfterPowerCut(ModemState left, const Interruption& cut) {
  // Its memory may be half written.
  if (left == ModemState::Booted)
    return cut.modemShowsFlashPort ? ModemState::FlashPort : ModemState::Restarting;
  return left == ModemState::Restarting || left == ModemState::Dead ? ModemState::Restarting
                                                                    : ModemState::Normal;
}

ModemState StateWhereRouteBegins(Route route) {
  if (route == Route::Bbrst) return ModemState::Restarting;
  return route == Route::FlashPort ? ModemState::FlashPort : ModemState::Normal;
}

/// How the process before has left the modem, and what has happened to it since.
ModemState StateAtStart(const LifeOrder& order, const PcPlan& plan, const std::filesystem::path& folder) {
  const auto file = folder / kStateFile;
  if (!std::filesystem::exists(file)) return StateWhereRouteBegins(plan.route);
  const ModemState left = VirtualModem::StateLeftIn(file);
  // Whoever repairs a PC switches it off first; nothing else brings a modem back that is gone.
  if (order.repaired) return left == ModemState::Dead ? ModemState::Restarting : left;
  if (order.interruptions == 0) return left;
  const Interruption& last = plan.interruptions.at(order.interruptions - 1);
  return last.kind == Interruption::Kind::PowerCut ? StateAfterPowerCut(left, last) : left;
}

VirtualPcOptions OptionsOf(const LifeOrder& order, const PcPlan& plan, const std::filesystem::path& folder) {
  VirtualPcOptions options = plan.pc;
  if (order.repaired) {
    options.faults = {};
    options.mobileBroadband = {};
  }
  options.speed = order.speed;
  options.pace = order.speed > 1 ? Pace::Elastic : Pace::Steady;
  options.folder = folder;
  options.initialState = StateAtStart(order, plan, folder);
  return options;
}

/// The images of a request: other ones each time, so that only its own flash makes the memory equal.
class Images {
 public:
  Images(ImageSet kind, std::uint32_t number) {
    if (kind == ImageSet::ModemAndNvm) m_Modem = BuildImage(ModemImagePlan(number));
    m_Nvm = BuildImage(kind == ImageSet::ModemAndNvm ? NvmImagePlan(number) : SmallImagePlan(number));
  }
  /// @return false when one cannot be written.
  bool LayIn(const std::filesystem::path& folder) const {
    std::filesystem::create_directories(folder);
    return (!m_Modem || SaveImageFile(*m_Modem, folder / L"modem.fls")) &&
           SaveImageFile(m_Nvm, folder / L"nvm.fls");
  }
  bool AreIn(VirtualModem& modem) const {
    return modem.CompareWith(m_Modem ? &*m_Modem : nullptr, &m_Nvm).equal;
  }

 private:
  std::optional<FlashImage> m_Modem;
  FlashImage m_Nvm;
};

class PcLife {
 public:
  explicit PcLife(const LifeOrder& order)
      : m_Order(order),
        m_Plan(PlanOf(order.seed, order.pc)),
        m_Folder(hosts::ProgramFolder()),
        m_Key{HKEY_CURRENT_USER, L"HKCU", order.key},
        m_Watch(m_Key),
        m_Pc(OptionsOf(order, m_Plan, m_Folder)) {
    Setup setup;
    setup.route = m_Plan.route;
    const ConfigurationFile written(m_Folder, setup, m_Key.rootName + L"\\" + m_Key.path,
                                    m_Folder / L"firmware");
    m_Pc.Modem().KeepStateIn(m_Folder / kStateFile);
  }

  LifeEnd Run() {
    const bool isStanding = hosts::ReadHandshake(m_Key).ready == 1u;
    // Nobody may miss the first wait: whoever watches is there before the library's thread is.
    const LoadWatch watch(kLibrary, [this](HMODULE) { m_Pc.Hooks().Observe(&ServiceWatch::See); });
    if (m_Pc.LoadUnderSimulation(m_Folder / kLibrary) == nullptr)
      throw std::runtime_error("the library cannot be loaded");
    if (isStanding) {
      m_Images.emplace(m_Plan.images, LastImages());
      ArmInterruption();
      if (!FinishRequest(true)) return LifeEnd::NoEnd;
    } else if (!WaitUntil(&ServiceWatch::Waits)) {
      return LifeEnd::NoEnd;
    }
    for (; m_Requests < m_Order.requests && !m_IsFlashed;) {
      if (!LayImages()) {
        // A call of the flashing library that hangs has an image open for as long as the process lives.
        if (m_Requests == 0) throw std::runtime_error("an image cannot be written");
        return LifeEnd::Done;
      }
      Ask();
      if (!FinishRequest(false)) return LifeEnd::NoEnd;
    }
    return LifeEnd::Done;
  }

 private:
  /// @return false when it takes too long.
  template <typename Condition>
  bool WaitUntil(const Condition& done) {
    const Milliseconds end = m_Pc.Clock().Now() + kJobLimit;
    for (;;) {
      const bool isArmed = m_Watch.Arm() == ERROR_SUCCESS;
      if (done()) return true;
      if (m_Pc.Clock().Now() > end) return false;
      if (isArmed) {
        ::WaitForSingleObject(m_Watch.Event(), kLookPeriodMs);
      } else {
        ::Sleep(kLookPeriodMs);
      }
    }
  }

  std::uint32_t LastImages() const {
    std::uint32_t number = 0;
    std::ifstream(m_Folder / kImagesFile) >> number;
    return number;
  }

  void ArmInterruption() {
    if (m_Order.repaired || m_Order.interruptions >= m_Plan.interruptions.size()) return;
    m_Pc.Hooks().EndProcessAt(m_Plan.interruptions[m_Order.interruptions].atCall,
                              static_cast<unsigned>(LifeEnd::Interrupted));
  }

  bool LayImages() {
    const std::uint32_t number = LastImages() + 1;
    m_Images.emplace(m_Plan.images, number);
    std::ofstream(m_Folder / kImagesFile) << number;
    return m_Images->LayIn(m_Folder / L"firmware");
  }

  /// What the log has behind so many bytes.
  std::string LogSince(std::size_t before) const {
    std::ifstream file(m_Folder / kLogFile, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(before));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  void Ask() {
    m_Begun = m_Pc.Clock().Now();
    m_LogBefore = LogSince(0).size();
    ServiceWatch::Forget();
    m_Pc.Hooks().ResetCounts();
    if (m_Requests == 0) ArmInterruption();
    if (hosts::WriteHandshakeValue(m_Key, L"Fls_Ready", 1) != ERROR_SUCCESS)
      throw std::runtime_error("the registry cannot be written");
  }

  /// The job is done, and the service waits for the next one. @return false when that takes too long.
  bool FinishRequest(bool wasStanding) {
    RequestEnd end;
    end.wasStanding = wasStanding;
    end.isRepaired = m_Order.repaired;
    const bool isOver = WaitUntil([this] { return hosts::ReadHandshake(m_Key).ready != 1u; });
    end.duration = m_Pc.Clock().Now() - m_Begun;
    if (!isOver || !WaitUntil(&ServiceWatch::Waits)) return false;
    ++m_Requests;
    end.result = static_cast<int>(hosts::ReadHandshake(m_Key).result.value_or(~0u));
    end.isMemoryEqual = m_Images->AreIn(m_Pc.Modem());
    end.isModemNormal = m_Pc.Modem().State() == ModemState::Normal;
    const std::string log = LogSince(m_LogBefore);
    end.attempts = static_cast<int>(std::ranges::count(RecordsIn(log), kWorkerBegins, &DebugRecord::message));
    m_IsFlashed = end.Succeeded();
    if (!m_IsFlashed) end.why = WhyFailed(log, (m_Folder / L"").string());
    Note(end);
    return true;
  }

  void Note(const RequestEnd& end) const {
    const nlohmann::ordered_json line{{"repaired", end.isRepaired},
                                      {"standing", end.wasStanding},
                                      {"result", end.result},
                                      {"attempts", end.attempts},
                                      {"duration_ms", end.duration.count()},
                                      {"memory_equal", end.isMemoryEqual},
                                      {"modem_normal", end.isModemNormal},
                                      {"why", end.why}};
    std::ofstream file(m_Folder / kRequestsFile, std::ios::app);
    file << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n' << std::flush;
    if (!file) throw std::runtime_error("what a request came to cannot be noted");
  }

  const LifeOrder m_Order;
  const PcPlan m_Plan;
  const std::filesystem::path m_Folder;
  const hosts::HandshakeKey m_Key;
  hosts::HandshakeWatch m_Watch;
  VirtualPc m_Pc;
  std::optional<Images> m_Images;
  Milliseconds m_Begun{0};
  std::size_t m_LogBefore = 0;  ///< bytes
  int m_Requests = 0;
  bool m_IsFlashed = false;
};

}  // namespace

bool RequestEnd::Succeeded() const {
  return result == static_cast<int>(hosts::FlashResult::Succeeded);
}

bool RequestEnd::IsFalse() const {
  return Succeeded() && !(isMemoryEqual && isModemNormal);
}

void RunLife(const LifeOrder& order) {
  // Never destroyed: the service goes on until the process ends.
  const LifeEnd end = (new PcLife(order))->Run();
  ::TerminateProcess(::GetCurrentProcess(), static_cast<unsigned>(end));
  std::abort();
}

std::vector<RequestEnd> ReadRequests(const std::filesystem::path& folder) {
  std::vector<RequestEnd> requests;
  std::ifstream file(folder / kRequestsFile);
  for (std::string line; std::getline(file, line);) {
    const auto json = nlohmann::json::parse(line, nullptr, false);
    // The process may have ended in the middle of a line.
    if (json.is_discarded()) continue;
    requests.push_back({.isRepaired = json.at("repaired"),
                        .wasStanding = json.at("standing"),
                        .result = json.at("result"),
                        .attempts = json.at("attempts"),
                        .duration = std::chrono::milliseconds(json.at("duration_ms").get<std::int64_t>()),
                        .isMemoryEqual = json.at("memory_equal"),
                        .isModemNormal = json.at("modem_normal"),
                        .why = json.at("why")});
  }
  return requests;
}

}  // namespace simulator
