// Ends the service's process at one call of the system after the other, and starts it anew. The modem
// outlives it.
//
// usage: kill_campaign [--route mbim|at|bbrst|flash-port] [--step N] [--seed N] [--from N] [--large]
//                      [--at-start | --torn N | --before-deletion]
//
// For every N-th call of the system in a job, beginning with the one that --seed chooses: a process that ends
// there, then one as the service manager would start it. That one has to do what is left to do; in the end
// the modem runs and holds the images, and the next job is done too. --large flashes 12 MB.
//
// --at-start lets the process that is started behind such a kill end as well, at every N-th call from its
// loading of the library to the end of the job that it has found standing. --torn ends a process N times (up
// to 252) in the middle of an item, behind another block of it each time, by --seed: half of them in the
// flashing library itself, half at the next call of the library. Each time the memory has to be partly the
// new image's and partly the one's before. --before-deletion ends a process between the end of the request
// and the deletion of its images. Exit status 1 when any of that does not hold.

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <numeric>
#include <optional>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fault/campaign_service.h"
#include "fault/fault_cases.h"
#include "fault/job_judgement.h"
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
/// The kills in front of those at the start are spread over so many calls of a job.
constexpr std::size_t kCallsOfAJob = 400;
constexpr std::size_t kSpread = 37;
/// So small that a process can end at very many places in the small item.
constexpr std::uint32_t kTornBlockSize = 256;
/// A percentage is told behind every third block at the latest: the library has one more to write by then.
constexpr std::size_t kBlocksStillToCome = 4;
constexpr wchar_t kMemoryFile[] = L"modem_flash.bin";

struct Options {
  Route route = Route::Mbim;
  std::size_t step = 1;
  std::size_t seed = 0;
  std::size_t from = 0;
  std::size_t torn = 0;
  bool atStart = false;
  bool beforeDeletion = false;
  bool large = false;
  bool inPlace = false;
  bool inItem = false;      ///< of the child: blocks of an item are counted
  bool atNextCall = false;  ///< of the child: it ends at the call of the library behind that block
  std::size_t killAt = 0;   ///< of the child: 0 for never
  bool killStart = false;   ///< of the child: it is counted from its loading on
  std::string key;
};
Options g_options;

// --- One process -------------------------------------------------------------------------------------------

/// The number of the image that was laid last: it outlives the process, as the image does.
class ImageSeed {
 public:
  explicit ImageSeed(const std::filesystem::path& folder) : m_File(folder / kSeedFile) {}

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
  const std::filesystem::path m_File;
};

class Host {
 public:
  explicit Host(const Options& options)
      : m_Options(options),
        m_Service({.route = options.route,
                   .images = options.large ? Images::Large : Images::Small,
                   .key = hosts::ToWide(options.key),
                   .begins = Begins::WithModemAsLeft}) {}

  int Run() {
    const bool isFirst = m_Seed.Last() == 0;
    if (!isFirst) m_Service.ExpectImages(m_Seed.Last());
    const auto values = m_Service.Values();
    if (m_Options.killStart) {
      m_Service.Pc().WhenPlaced(
          [this](CallHooks& hooks) { hooks.EndProcessAt(static_cast<unsigned>(m_Options.killAt), kKilled); });
    }
    if (!m_Service.Begin()) return Fail("the new host does not come to wait for a request");
    if (const std::string finding = isFirst ? "" : JudgeRecovery(values); !finding.empty())
      return Fail(finding);
    if (m_Options.killStart) return 0;
    if (const std::string finding = isFirst ? "" : JobOfImagesLeft(); !finding.empty())
      return Fail("the images that were left: " + finding);
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
    std::string finding = WhatIsWrongWithGoingOn(before, end);
    if (!finding.empty()) return finding;
    const bool wasOver = before.Is(hosts::FlashResult::Succeeded) || before.Is(hosts::FlashResult::Failed);
    if (before.ready != 1u && wasOver) {
      if (ExcuseOf({}, m_Options.route, kResultForgotten) == nullptr) return kResultForgotten;
      std::printf("not held %s: %s (known)\n", NameOf(m_Options.route), kResultForgotten);
    }
    return m_Options.beforeDeletion && !end.isImageLeft ? "no image is left" : "";
  }

  /// Nobody takes away what is left of a job whose request was over: the next request flashes it.
  std::string JobOfImagesLeft() {
    if (!m_Service.Look(true).isImageLeft) return {};
    std::printf("  images were left\n");
    return JudgeJob(m_Service.Run());
  }

  std::string SoundJob() {
    m_Service.LayImages(m_Seed.Next());
    return JudgeJob(m_Service.Run());
  }

  static std::string JudgeJob(const JobEnd& end) {
    if (!end.ended) return "it does not end";
    if (!end.Succeeded() || !end.isMemoryEqual || end.modem != ModemState::Normal)
      return std::string("it fails, the modem is ") + NameOf(end.modem);
    return {};
  }

  int JobWithKill() {
    m_Service.PutModemWhereTheRouteBegins();
    m_Service.LayImages(m_Seed.Next());
    if (m_Options.killAt == 0) return 0;
    const auto call = static_cast<unsigned>(m_Options.killAt);
    if (m_Options.beforeDeletion) {
      Service::EndProcessBefore("DeleteFileW", kKilled);
    } else if (m_Options.inItem) {
      m_Service.EndProcessInItem(kTornBlockSize, call,
                                 m_Options.atNextCall ? InItem::AtNextCall : InItem::AtBlock, kKilled);
    } else {
      m_Service.Hooks().EndProcessAt(call, kKilled);
    }
    m_Service.Hooks().ResetCounts();
    m_Service.Run();
    // The job came to its end first.
    return 0;
  }

  const Options m_Options;
  const ImageSeed m_Seed{hosts::ProgramFolder()};
  Service m_Service;
};

// --- The program that starts them --------------------------------------------------------------------------

struct Summary {
  unsigned kills = 0;
  unsigned torn = 0;  ///< those that left the memory partly old and partly new
  unsigned findings = 0;
};

/// The small item as the modem has it in its memory.
class ItemInMemory {
 public:
  /// @param folder of the process that has died.
  explicit ItemInMemory(const std::filesystem::path& folder) : m_Latest(ImageSeed(folder).Last()) {
    const ImageItem item = BuildImage(SmallImagePlan(m_Latest)).items.front();
    m_Bytes.resize(item.size);
    std::ifstream memory(folder / kMemoryFile, std::ios::binary);
    memory.seekg(item.flashOffset);
    memory.read(reinterpret_cast<char*>(m_Bytes.data()), static_cast<std::streamsize>(m_Bytes.size()));
    if (!memory) throw std::runtime_error("the modem's memory cannot be read");
  }

  /// @return how many bytes, in whole blocks, are of the latest image, when all others are of the one before;
  /// nothing otherwise. A byte behind them may happen to be the same in both.
  std::optional<std::size_t> NewBytes() const {
    const auto now = BytesOf(m_Latest);
    const auto before = BytesOf(m_Latest - 1);
    const auto end = std::ranges::mismatch(m_Bytes, now).in1;
    const auto count = static_cast<std::size_t>(end - m_Bytes.begin());
    if (!std::equal(end, m_Bytes.end(), before.begin() + (end - m_Bytes.begin()))) return std::nullopt;
    return count - count % kTornBlockSize;
  }
  std::size_t Size() const { return m_Bytes.size(); }

 private:
  static std::vector<std::uint8_t> BytesOf(std::uint32_t seed) {
    const FlashImage image = BuildImage(SmallImagePlan(seed));
    const auto bytes = image.Bytes(image.items.front());
    return {bytes.begin(), bytes.end()};
  }

  const std::uint32_t m_Latest;
  std::vector<std::uint8_t> m_Bytes;
};

/// The blocks of the small item in the middle of which a process may end, in an order of the seed's.
std::vector<std::size_t> BlocksToEndBehind() {
  const std::size_t size = BuildImage(SmallImagePlan(1)).items.front().size;
  std::vector<std::size_t> blocks(size / kTornBlockSize - kBlocksStillToCome);
  std::iota(blocks.begin(), blocks.end(), 1);
  std::ranges::shuffle(blocks, std::mt19937(static_cast<std::uint32_t>(g_options.seed)));
  return blocks;
}

class Kills {
 public:
  /// Each process sees to what the one before left, and then ends at its own place.
  Summary Run() {
    Summary summary;
    unsigned long status = 0;
    if (g_options.beforeDeletion) {
      Step(1, "before the deletion of the images", summary);
    } else if (g_options.torn > 0) {
      bool atNextCall = false;
      for (const std::size_t block : BlocksToEndBehind()) {
        if (summary.kills == g_options.torn) break;
        if (KillInItem(block, atNextCall, summary) != kKilled) break;
        atNextCall = !atNextCall;
      }
    } else {
      for (std::size_t call = 1 + std::max(g_options.from, g_options.seed % g_options.step);;
           call += g_options.step) {
        status = g_options.atStart ? KillTwice(call, summary) : KillAt(call, summary);
        // There are not so many, or no host begins any more.
        if (status != kKilled) break;
      }
    }
    Step(0, "at the end", summary);
    return summary;
  }

 private:
  unsigned long KillAt(std::size_t call, Summary& summary) {
    return Step(call, "at call " + std::to_string(call), summary);
  }

  unsigned long KillInItem(std::size_t block, bool atNextCall, Summary& summary) {
    m_AtNextCall = atNextCall;
    const std::string place =
        (atNextCall ? "at the call behind block " : "at block ") + std::to_string(block);
    const unsigned long status = Step(block, place, summary);
    if (status != kKilled) return status;
    const ItemInMemory item(m_Folder->Path());
    const auto written = item.NewBytes();
    const std::size_t least = block * kTornBlockSize;
    const std::size_t most = atNextCall ? item.Size() - 1 : least;
    if (written && *written >= least && *written <= most) {
      ++summary.torn;
    } else {
      Find(summary,
           "killed " + place + ": of the memory " +
               (written ? std::to_string(*written) + " bytes are new" : "some is neither old nor new"));
    }
    return status;
  }

  /// Somewhere in a job, and then at a call of the process that has to go on with it.
  unsigned long KillTwice(std::size_t call, Summary& summary) {
    const std::size_t first = 1 + call * kSpread % kCallsOfAJob;
    KillAt(first, summary);
    return Step(call, m_Before + ", and at call " + std::to_string(call) + " from its start on", summary,
                true);
  }

  unsigned long Step(std::size_t killAt, const std::string& place, Summary& summary, bool atStart = false) {
    unsigned long status = Start(killAt, atStart);
    if (status != 0 && status != kKilled) {
      Find(summary, "killed " + m_Before + ": the new host ends with " + std::to_string(status));
      // Nothing of it may hide what comes.
      m_Folder.emplace();
      m_Key.emplace(m_Path, false);
      status = Start(killAt, atStart);
    }
    if (status == kKilled) ++summary.kills;
    m_Before = place;
    return status;
  }

  static void Find(Summary& summary, const std::string& finding) {
    ++summary.findings;
    std::printf("FINDING %s: %s\n", NameOf(g_options.route), finding.c_str());
    std::fflush(stdout);
  }

  unsigned long Start(std::size_t killAt, bool atStart) {
    std::vector<std::wstring> words{L"--in-place",
                                    L"--route",
                                    hosts::ToWide(NameOf(g_options.route)),
                                    L"--kill-at",
                                    std::to_wstring(killAt),
                                    L"--key",
                                    m_Path};
    if (g_options.torn > 0) words.push_back(L"--in-item");
    if (m_AtNextCall) words.push_back(L"--at-next-call");
    if (atStart) words.push_back(L"--kill-start");
    if (g_options.beforeDeletion) words.push_back(L"--before-deletion");
    if (g_options.large) words.push_back(L"--large");
    const ChildResult child = RunChild(m_Folder->Program(), words, kProcessLimit);
    return child.exitCode;
  }

  const std::wstring m_Path = L"Software\\Corvel\\Test\\kill-" + std::to_wstring(::GetCurrentProcessId());
  std::optional<WorkFolder> m_Folder{std::in_place};
  std::optional<SessionKey> m_Key{std::in_place, m_Path, false};
  std::string m_Before = "nowhere";
  bool m_AtNextCall = false;
};

/// What becomes of a word of the command line that takes a value. @return false when it means nothing.
bool TakeValue(std::string_view word, std::string_view value) {
  if (word == "--step") return TakeNumber(value, g_options.step) && g_options.step > 0;
  if (word == "--seed") return TakeNumber(value, g_options.seed);
  if (word == "--from") return TakeNumber(value, g_options.from);
  if (word == "--torn")
    return TakeNumber(value, g_options.torn) && g_options.torn > 0 &&
           g_options.torn <= BlocksToEndBehind().size();
  if (word == "--kill-at") return TakeNumber(value, g_options.killAt);
  if (word == "--key") return TakeText(value, g_options.key);
  const auto route = word == "--route" ? RouteOfName(value) : std::nullopt;
  if (route) g_options.route = *route;
  return route.has_value();
}

int RunKills() {
  const auto begin = std::chrono::steady_clock::now();
  const Summary summary = Kills().Run();
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
  const std::string torn = " in the middle of an item, " + std::to_string(summary.torn) +
                           " of them with the memory partly old and partly new";
  const char* const where = g_options.torn > 0         ? torn.c_str()
                            : g_options.atStart        ? ", at the start too"
                            : g_options.beforeDeletion ? " before the deletion"
                                                       : "";
  std::printf("%s%s: %u kills%s, %u findings, %lld s\n", NameOf(g_options.route),
              g_options.large ? ", 12 MB" : "", summary.kills, where, summary.findings,
              static_cast<long long>(seconds));
  // In the middle of an item is where nothing is whole: a kill that left it whole has missed its place.
  const bool isWhole = g_options.torn > 0 ? summary.torn == g_options.torn : summary.kills > 0;
  return summary.findings == 0 && isWhole ? 0 : 1;
}

constexpr campaign::Switch kSwitches[] = {{"--in-place", &g_options.inPlace},
                                          {"--large", &g_options.large},
                                          {"--at-start", &g_options.atStart},
                                          {"--kill-start", &g_options.killStart},
                                          {"--before-deletion", &g_options.beforeDeletion},
                                          {"--in-item", &g_options.inItem},
                                          {"--at-next-call", &g_options.atNextCall}};

}  // namespace

int main(int count, char** words) try {
  if (!campaign::TakeWords("kill_campaign", std::span(words, static_cast<std::size_t>(count)).subspan(1),
                           kSwitches, &TakeValue))
    return 2;
  if (!g_options.inPlace) return RunKills();
  // Never destroyed: the service goes on until the process ends.
  campaign::EndProcess((new Host(g_options))->Run());
} catch (const std::exception& error) {
  std::fprintf(stderr, "kill_campaign: %s\n", error.what());
  return 1;
}
