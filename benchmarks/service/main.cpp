// A host that measures the library, unmodified, from inside its process. Started by corvel_benchmarks in a
// folder of its own, for the library is configured once per process and from beside the program.

#include <windows.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/service/bare_reaction.h"
#include "benchmarks/service/footprint.h"
#include "benchmarks/service/instant_service.h"
#include "benchmarks/service/library_load.h"
#include "benchmarks/service/stopwatch.h"
#include "hosts/common/facts.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "simulator/program/firmware_folder.h"

namespace benchmarks {

namespace {

using simulator::Route;
using Words = std::vector<std::string>;

constexpr DWORD kSettleMs = 1000;

std::filesystem::path Folder() {
  return hosts::ProgramFolder();
}

/// The next line of what corvel_benchmarks reads.
void Tell(double subject, double floor) {
  std::printf("%.0f %.0f\n", subject, floor);
}

void MeasureJobs(Route route, int rounds) {
  InstantService service(Folder(), route, true);
  for (int round = 0; round < rounds; ++round) {
    const Ticks begin = Now();
    InstantService::WaitAsTheProcedure(route);
    const double floor = NanosecondsBetween(begin, Now());
    Tell(service.Flash().untilResult, floor);
  }
}

void MeasureReaction(int rounds) {
  // Without a log: its records have rows of their own.
  InstantService service(Folder(), Route::FlashPort, false);
  const simulator::FirmwareFolder images(Folder() / L"images", simulator::ImageSet::ModemAndNvm,
                                         simulator::ImageHolder::Nobody);
  BareReaction bare(OwnKey(L"-bare"), images.Folder(), Folder() / hosts::kFlashingLibraryName);
  for (int round = 0; round < rounds; ++round) {
    const double floor = bare.React();
    Tell(service.Flash().untilAttempt, floor);
  }
}

/// The key and the configuration that a library finds.
struct Surroundings {
  simulator::SessionKey key{OwnKey(), false};
  simulator::ConfigurationFile configuration{Folder(), simulator::Setup{}, key.Location(),
                                             Folder() / L"firmware"};
};

void MeasureLoad(const std::string& library) {
  const Surroundings surroundings;
  std::printf("%.0f\n", TimeUntilItWaits(Folder() / library));
}

/// Processor time, wake-ups, private memory: over so many seconds of nothing.
void MeasureIdling(DWORD seconds, const std::optional<std::string>& library) {
  const Surroundings surroundings;
  if (library) TimeUntilItWaits(Folder() / *library);
  // Whatever is looked up only once is looked up now.
  FootprintOfThisProcess();
  ::Sleep(kSettleMs);
  const Footprint before = FootprintOfThisProcess();
  ::Sleep(seconds * 1000);
  const Footprint after = FootprintOfThisProcess();
  std::printf("%.0f %llu %llu\n", after.processorNanoseconds - before.processorNanoseconds,
              static_cast<unsigned long long>(after.wakeUps - before.wakeUps),
              static_cast<unsigned long long>(after.privateBytes));
}

void Run(const Words& words) {
  if (words.size() == 3 && words[0] == "job") {
    if (const auto route = simulator::RouteOfName(words[1])) return MeasureJobs(*route, std::stoi(words[2]));
  }
  if (words.size() == 2 && words[0] == "reaction") return MeasureReaction(std::stoi(words[1]));
  if (words.size() == 2 && words[0] == "load") return MeasureLoad(words[1]);
  if ((words.size() == 2 || words.size() == 3) && words[0] == "idle") {
    return MeasureIdling(std::stoul(words[1]), words.size() == 3 ? std::optional(words[2]) : std::nullopt);
  }
  throw std::invalid_argument("not started by corvel_benchmarks");
}

}  // namespace

}  // namespace benchmarks

int main() {
  try {
    benchmarks::Run(hosts::CommandLineWords());
    return 0;
  } catch (const std::exception& error) {
    std::printf("%s\n", error.what());
    return 1;
  }
}
