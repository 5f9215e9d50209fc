// Ends the service's process at one call of the system after the other, and starts it anew. The modem
// outlives it.
//
// usage: kill_campaign [--route mbim|at|bbrst|flash-port] [--step N] [--seed N] [--from N] [--torn N]
//
// For every N-th call of the system in a small job, beginning with the one that --seed chooses: a process
// that ends there, then one as the service manager would start it. That one has to do what is left to do; in
// the end the modem runs and holds the image, and the next job is done too. --torn ends the process N times
// in the middle of an item instead. Exit status 1 when any of that does not hold.

#include <windows.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fault/campaign_service.h"
#include "hosts/common/text.h"
#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"

using namespace simulator;
using namespace campaign;

namespace {

using namespace std::chrono_literals;

constexpr unsigned kKilled = 77;
constexpr auto kProcessLimit = 120s;
constexpr wchar_t kSeedFile[] = L"image_seed.txt";
/// Calls of the library while the small item is written, at the least.
constexpr std::size_t kPlacesInAnItem = 4;

struct Options {
  Route route = Route::Mbim;
  std::size_t step = 1;
  std::size_t seed = 0;
  std::size_t from = 0;
  std::size_t torn = 0;
  bool inPlace = false;
  bool inItem = false;     ///< of the child: calls are counted while an item is written
  std::size_t killAt = 0;  ///< of the child: 0 for never
  std::string key;
};
Options g_options;

// --- One process -------------------------------------------------------------------------------------------

/// The number of the image that was laid last: it outlives the process, as the image does.
class ImageSeed {
 public:
  std::uint32_t Last() const {
    std::uint32_t seed = 0;
    std::ifstream(m_File) >> seed;
    return seed;
  }
  std::uint32_t Next() const {
    const std::uint32_t seed = Last() + 1;
    std::ofstream(m_File) << seed;
    return seed;
  }

 private:
  const std::filesystem::path m_File = std::filesystem::path(hosts::ProgramFolder()) / kSeedFile;
};

class Host {
 public:
  explicit Host(const Options& options)
      : m_Options(options),
        m_Service(options.route, false, hosts::ToWide(options.key), Begins::WithModemAsLeft) {}

  int Run() {
    const bool isFirst = m_Seed.Last() == 0;
    if (!isFirst) m_Service.ExpectImage(m_Seed.Last());
    const auto values = m_Service.Values();
    if (!m_Service.Begin()) return Fail("the new host does not come to wait for a request");
    if (const std::string finding = isFirst ? "" : JudgeRecovery(values); !finding.empty())
      return Fail(finding);
    if (const std::string finding = SoundJob(); !finding.empty()) return Fail("the next job: " + finding);
    m_Service.Hooks().ResetCounts();
    return JobWithKill();
  }

 private:
  static int Fail(const std::string& finding) {
    std::printf("  %s\n", finding.c_str());
    return 1;
  }

  /// What a request that stood when the process died has come to; and one that did not.
  std::string JudgeRecovery(const hosts::Handshake& before) {
    const JobEnd end = m_Service.Look(true);
    std::string modem = std::string("the modem is ") + NameOf(end.modem);
    if (before.ready == 1u && !end.Succeeded()) return "the job is not done by the new host, " + modem;
    if (before.ready != 1u && !end.values.Is(hosts::FlashResult::Idle))
      return "the new host tells of an old job";
    if (end.values.ready != 0u) return "the flag is not taken back";
    if (!end.isMemoryEqual) return "the memory is not equal";
    if (end.modem != ModemState::Normal) return modem;
    if (end.Succeeded() && end.modemAtResult != ModemState::Normal)
      return std::string("success was reported while the modem was ") + NameOf(end.modemAtResult);
    if (before.ready == 1u && end.isImageLeft) return "the image is left";
    return {};
  }

  std::string SoundJob() {
    m_Service.LayImage(m_Seed.Next());
    const JobEnd end = m_Service.Run();
    if (!end.ended) return "it does not end";
    if (!end.Succeeded() || !end.isMemoryEqual || end.modem != ModemState::Normal)
      return std::string("it fails, the modem is ") + NameOf(end.modem);
    return {};
  }

  int JobWithKill() {
    m_Service.PutModemWhereTheRouteBegins();
    m_Service.LayImage(m_Seed.Next());
    if (m_Options.killAt == 0) return 0;
    const auto call = static_cast<unsigned>(m_Options.killAt);
    if (m_Options.inItem) {
      Service::EndProcessWhileWriting(call, kKilled);
    } else {
      m_Service.Hooks().EndProcessAt(call, kKilled);
    }
    m_Service.Hooks().ResetCounts();
    m_Service.Run();
    // The job came to its end first.
    return 0;
  }

  const Options m_Options;
  const ImageSeed m_Seed;
  Service m_Service;
};

// --- The program that starts them --------------------------------------------------------------------------

struct Summary {
  unsigned kills = 0;
  unsigned findings = 0;
};

class Kills {
 public:
  /// Each process sees to what the one before left, and then ends at its own place.
  Summary Run() {
    Summary summary;
    unsigned long status = 0;
    if (g_options.torn > 0) {
      for (std::size_t i = 0; i < g_options.torn; ++i) {
        const std::size_t call = 1 + i % kPlacesInAnItem;
        Step(call, "in the middle of an item, at call " + std::to_string(call), summary);
      }
    } else {
      for (std::size_t call = 1 + std::max(g_options.from, g_options.seed % g_options.step);;
           call += g_options.step) {
        status = Step(call, "at call " + std::to_string(call), summary);
        if (status == 0) break;  // no job has that many
      }
    }
    Step(0, "at the end", summary);
    return summary;
  }

 private:
  unsigned long Step(std::size_t killAt, const std::string& place, Summary& summary) {
    unsigned long status = Start(killAt);
    if (status != 0 && status != kKilled) {
      ++summary.findings;
      std::printf("FINDING %s: killed %s: the new host ends with %lu\n", NameOf(g_options.route),
                  m_Before.c_str(), status);
      std::fflush(stdout);
      // Nothing of it may hide what comes.
      m_Folder.emplace();
      m_Key.emplace(m_Path, false);
      status = Start(killAt);
    }
    if (status == kKilled) ++summary.kills;
    m_Before = place;
    return status;
  }

  unsigned long Start(std::size_t killAt) {
    std::vector<std::wstring> words{L"--in-place",
                                    L"--route",
                                    hosts::ToWide(NameOf(g_options.route)),
                                    L"--kill-at",
                                    std::to_wstring(killAt),
                                    L"--key",
                                    m_Path};
    if (g_options.torn > 0) words.push_back(L"--in-item");
    const ChildResult child = RunChild(m_Folder->Program(), words, kProcessLimit);
    return child.exitCode;
  }

  const std::wstring m_Path = L"Software\\Corvel\\Test\\kill-" + std::to_wstring(::GetCurrentProcessId());
  std::optional<WorkFolder> m_Folder{std::in_place};
  std::optional<SessionKey> m_Key{std::in_place, m_Path, false};
  std::string m_Before = "nowhere";
};

bool TakeNumber(std::string_view value, std::size_t& number) {
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  return error == std::errc() && end == value.data() + value.size();
}

/// What becomes of a word of the command line that takes a value. @return false when it means nothing.
bool TakeValue(std::string_view word, std::string_view value) {
  if (word == "--step") return TakeNumber(value, g_options.step) && g_options.step > 0;
  if (word == "--seed") return TakeNumber(value, g_options.seed);
  if (word == "--from") return TakeNumber(value, g_options.from);
  if (word == "--torn") return TakeNumber(value, g_options.torn);
  if (word == "--kill-at") return TakeNumber(value, g_options.killAt);
  if (word == "--key") {
    g_options.key = value;
    return !value.empty();
  }
  const auto route = word == "--route" ? RouteOfName(value) : std::nullopt;
  if (route) g_options.route = *route;
  return route.has_value();
}

int RunKills() {
  const auto begin = std::chrono::steady_clock::now();
  const Summary summary = Kills().Run();
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
  std::printf("%s: %u kills%s, %u findings, %lld s\n", NameOf(g_options.route), summary.kills,
              g_options.torn > 0 ? " in the middle of an item" : "", summary.findings,
              static_cast<long long>(seconds));
  const bool isWhole = g_options.torn > 0 ? summary.kills == g_options.torn : summary.kills > 0;
  return summary.findings == 0 && isWhole ? 0 : 1;
}

bool TakeSwitch(std::string_view word) {
  bool* const chosen = word == "--in-place"  ? &g_options.inPlace
                       : word == "--in-item" ? &g_options.inItem
                                             : nullptr;
  if (chosen != nullptr) *chosen = true;
  return chosen != nullptr;
}

}  // namespace

int main(int count, char** words) try {
  if (!campaign::TakeWords("kill_campaign", std::span(words, static_cast<std::size_t>(count)).subspan(1),
                           &TakeSwitch, &TakeValue))
    return 2;
  if (!g_options.inPlace) return RunKills();
  // Never destroyed: the service goes on until the process ends.
  campaign::EndProcess((new Host(g_options))->Run());
} catch (const std::exception& error) {
  std::fprintf(stderr, "kill_campaign: %s\n", error.what());
  return 1;
}
