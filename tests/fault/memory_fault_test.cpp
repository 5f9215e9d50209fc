// Flash jobs of the service while allocations fail, in the virtual PC. Each of them has to end as documented,
// and with memory the next job must flash: the judge is that of the campaigns.
//
// usage: memory_fault_test [--route mbim|at|bbrst|flash-port] [--log] [--step N [--seed N]]
//
// Without --step a few places per length of a burst are tried. With it every N-th allocation of a whole job,
// beginning with the one that --seed chooses, is the first that fails, for some lengths of bursts and one
// from 2 to 50 that differs from place to place: --step 1 tries all places. A place is one that every job
// without faults has come to; a job in which memory was not refused at it is tried again, and then fails.

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fault/campaign_service.h"
#include "fault/job_judgement.h"
#include "hosts/common/text.h"
#include "simulator/failing_allocations.h"
#include "simulator/program/session_key.h"
#include "simulator/program/work_folder.h"

using namespace campaign;
using namespace simulator;

namespace {

using namespace std::chrono_literals;

constexpr unsigned kBursts[] = {1, 2, 3, 10, 50, FailingAllocations::kForGood};
/// So many allocations fail before memory comes back in a job that goes on meanwhile.
constexpr unsigned kRefusalsUntilMemoryIsBack = 60;
constexpr unsigned kPlacesPerBurst = 2;
/// Threads run side by side, so the number of allocations differs by a few from job to job.
constexpr int kJobsToCount = 3;
/// So often is a place tried at which no memory was refused.
constexpr int kTries = 3;
/// From this length on a burst takes long: the service pauses after each failure that it meets itself.
constexpr unsigned kLongBurst = 50;

struct TestOptions {
  Route route = Route::Mbim;
  bool log = false;
  std::optional<unsigned> step;
  unsigned seed = 0;
  std::string key;
  bool inPlace = false;
};
TestOptions g_options;

struct Burst {
  unsigned first;
  unsigned count;
};

std::string NameOf(const Burst& burst) {
  return (burst.count == FailingAllocations::kForGood ? "all" : std::to_string(burst.count)) + " from " +
         std::to_string(burst.first);
}

/// Places spread over a job, the very first among them.
std::vector<Burst> Spread(unsigned allocations) {
  std::vector<Burst> bursts;
  unsigned shift = 0;
  for (const unsigned count : kBursts) {
    if (count < kLongBurst) bursts.push_back({1, count});
    for (unsigned i = 0; i < (count < kLongBurst ? kPlacesPerBurst : 1); ++i) {
      // Shifted from length to length, so that together they come to many places.
      const unsigned part = i * static_cast<unsigned>(std::size(kBursts)) + shift;
      bursts.push_back(
          {2 + allocations * part / (kPlacesPerBurst * static_cast<unsigned>(std::size(kBursts))), count});
    }
    ++shift;
  }
  return bursts;
}

/// From 2 to 50, and all of them over the places of a job.
unsigned LengthAt(unsigned place) {
  constexpr unsigned kLengths = kLongBurst - 1;
  constexpr unsigned kSpread = 19;
  return 2 + place * kSpread % kLengths;
}

std::vector<Burst> EveryNth(unsigned step, unsigned seed, unsigned allocations) {
  std::vector<Burst> bursts;
  for (unsigned first = 1 + seed % step; first <= allocations; first += step) {
    for (const unsigned count : kBursts) bursts.push_back({first, count});
    bursts.push_back({first, LengthAt(first)});
  }
  return bursts;
}

class LackOfMemory : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_Service.Begin()) << "the service does not begin";
    // Never destroyed: the service goes on until the process ends.
    static FailingAllocations& allocations =
        *new FailingAllocations(::GetModuleHandleW(L"CorvelToolKit.dll"));
    ASSERT_TRUE(allocations.IsInPlace());
  }

  struct Tried {
    JobEnd end;
    unsigned refused = 0;
  };

  /// One job on which allocations fail.
  Tried FlashWithout(const Burst& burst) {
    m_Service.PutModemWhereTheRouteBegins();
    m_Service.LayImages(++m_Images);
    FailingAllocations::Fail(burst.first, burst.count);
    bool goesOn = false;
    Tried tried;
    tried.end =
        m_Service.Run([&] { return goesOn = FailingAllocations::Refused() >= kRefusalsUntilMemoryIsBack; });
    FailingAllocations::Restore();
    tried.refused = FailingAllocations::Refused();
    if (tried.end.ended) return tried;
    EXPECT_TRUE(goesOn) << "the job neither ends nor goes on";
    tried.end = m_Service.GoOn();
    return tried;
  }

  /// The same until memory was refused.
  Tried FlashAndReach(const Burst& burst) {
    Tried tried = FlashWithout(burst);
    for (int tries = 1; tries < kTries && tried.refused == 0; ++tries) tried = FlashWithout(burst);
    return tried;
  }

  void FlashWithMemory() {
    m_Service.LayImages(++m_Images);
    EXPECT_EQ(WhatIsWrongWithSound(m_Service.Run()), "") << "with memory";
  }

  /// @return how many allocations a job has at the least.
  unsigned CountAllocations() {
    unsigned least = ~0u;
    for (int job = 0; job < kJobsToCount; ++job) {
      m_Service.PutModemWhereTheRouteBegins();
      FailingAllocations::Fail(FailingAllocations::kForGood, 0);
      FlashWithMemory();
      least = std::min(least, FailingAllocations::Asked());
    }
    return least;
  }

 private:
  // Never destroyed, as above.
  Service& m_Service =
      *new Service({.route = g_options.route, .log = g_options.log, .key = hosts::ToWide(g_options.key)});
  std::uint32_t m_Images = 0;
};

TEST_F(LackOfMemory, IsSurvivedAndReportedByEveryJobAndForgottenByTheNext) {
  FlashWithMemory();
  const unsigned allocations = CountAllocations();
  ASSERT_FALSE(HasFailure());
  ASSERT_GT(allocations, 0u);

  unsigned failed = 0;
  unsigned hit = 0;
  const std::vector<Burst> bursts =
      g_options.step ? EveryNth(*g_options.step, g_options.seed, allocations) : Spread(allocations);
  for (const Burst& burst : bursts) {
    SCOPED_TRACE(NameOf(burst));
    const Tried tried = FlashAndReach(burst);
    EXPECT_EQ(WhatIsWrongWith(tried.end), "");
    EXPECT_GT(tried.refused, 0u) << "memory was not refused";
    if (tried.end.Failed()) ++failed;
    if (tried.refused > 0) ++hit;
    FlashWithMemory();
    if (HasFailure()) break;
  }
  std::printf("%zu jobs of %u allocations: memory was refused in %u, %u of them failed\n", bursts.size(),
              allocations, hit, failed);
}

/// What becomes of one word of the command line. @return false when it means nothing.
bool Take(std::string_view word, std::string_view value, TestOptions& options) {
  if (word == "--route") {
    const auto route = RouteOfName(value);
    if (route) options.route = *route;
    return route.has_value();
  }
  if (word == "--key") {
    options.key = value;
    return !value.empty();
  }
  unsigned number = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (error != std::errc() || end != value.data() + value.size()) return false;
  if (word == "--seed") options.seed = number;
  if (word == "--step" && number > 0) options.step = number;
  return word == "--seed" || (word == "--step" && number > 0);
}

constexpr Switch kSwitches[] = {{"--log", &g_options.log}, {"--in-place", &g_options.inPlace}};

/// The library reads its configuration once per process, and from beside the program.
int RunInWorkFolder(std::span<char* const> words, std::chrono::milliseconds limit) {
  const std::wstring path = L"Software\\Corvel\\Test\\memory-" + std::to_wstring(::GetCurrentProcessId());
  std::vector<std::wstring> arguments{L"--in-place", L"--key", path};
  for (const char* word : words) arguments.push_back(hosts::ToWide(word));
  const WorkFolder folder;
  const SessionKey key(path, false);
  const ChildResult child = RunChild(folder.Program(), arguments, limit);
  if (!child.ended) std::printf("the test did not come to an end and was stopped\n");
  if (child.exitCode > 1) std::printf("the process ended with 0x%lx\n", child.exitCode);
  return child.ended && child.exitCode == 0 ? 0 : 1;
}

}  // namespace

int main(int count, char** words) try {
  testing::InitGoogleTest(&count, words);
  const auto own = std::span(words, static_cast<std::size_t>(count)).subspan(1);
  const auto take = [](std::string_view word, std::string_view value) {
    return Take(word, value, g_options);
  };
  if (!TakeWords("memory_fault_test", own, kSwitches, take)) return 2;
  if (!g_options.inPlace) return RunInWorkFolder(own, g_options.step ? 24h : 5min);
  EndProcess(RUN_ALL_TESTS());
} catch (const std::exception& error) {
  std::fprintf(stderr, "memory_fault_test: %s\n", error.what());
  return 1;
}
