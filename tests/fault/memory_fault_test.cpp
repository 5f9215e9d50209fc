// Flash jobs of the service while allocations fail, in the virtual PC. After each of them the service must be
// there, its report must be true, and with memory the next job must flash.
//
// usage: memory_fault_test [--route mbim|at|bbrst|flash-port] [--log] [--step N [--seed N]]
//
// Without --step a few places per length of a burst are tried. With it every N-th allocation of a whole job,
// beginning with the one that --seed chooses, is the first that fails, for some lengths of bursts and one
// from 2 to 50 that differs from place to place: --step 1 tries all places.

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/failing_allocations.h"
#include "simulator/flash_image.h"
#include "simulator/import_patch.h"
#include "support/service_in_virtual_pc.h"

using namespace simulator;

namespace {

using namespace std::chrono_literals;

// Not faster: a thread that has to wait for a processor must not miss the time limits of what it does.
constexpr double kSpeed = 200;
constexpr unsigned kBursts[] = {1, 2, 3, 10, 50, FailingAllocations::kForGood};
/// So many allocations fail before memory comes back in a job that goes on meanwhile.
constexpr unsigned kRefusalsUntilMemoryIsBack = 60;
constexpr unsigned kPlacesPerBurst = 2;
/// From this length on a burst takes long: the service pauses after each failure that it meets itself.
constexpr unsigned kLongBurst = 50;

struct TestOptions {
  Route route = Route::Mbim;
  bool log = false;
  std::optional<unsigned> step;
  unsigned seed = 0;
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

/// Counts how often the service begins to wait while nothing is asked for: with its job all done. It waits
/// while something is asked for as well, when it begins again after a lack of memory.
class RoundsAtRest {
 public:
  static LSTATUS WINAPI Notify(HKEY key, BOOL subtree, DWORD filter, HANDLE event, BOOL asynchronous) {
    {
      const std::lock_guard lock(s_lock);
      if (s_key->Read().ready != 1u) ++s_count;
    }
    return ::RegNotifyChangeKeyValue(key, subtree, filter, event, asynchronous);
  }

  /// Raises the flag. @return the count by then: one more, and the job is done.
  static int Raise() {
    const std::lock_guard lock(s_lock);
    s_key->Write(L"Fls_Ready", 1);
    return s_count;
  }
  static int Count() { return s_count; }
  static void Watch(SessionKey& key) { s_key = &key; }

 private:
  // Looking and counting are one step, as are raising and reading the count.
  static inline std::mutex s_lock;
  static inline std::atomic<int> s_count{0};
  static inline SessionKey* s_key = nullptr;
};

class LackOfMemory : public ServiceInVirtualPc {
 protected:
  LackOfMemory() : ServiceInVirtualPc(L"memory") {}

  void SetUp() override {
    ::Setup setup;
    setup.route = g_options.route;
    m_Configuration.emplace(m_Folder, setup, m_Key.Location(), m_Folder / L"firmware");
    if (!g_options.log) TurnLogOff();
    VirtualPcOptions options = PcOptions(setup, kSpeed, m_Folder);
    options.timing = QuickTiming();
    m_Pc.emplace(options);
    ASSERT_TRUE(ServiceBegins());
    const HMODULE product = ::GetModuleHandleW(kLibrary);
    // Never destroyed: the service goes on until the process ends.
    static FailingAllocations& allocations = *new FailingAllocations(product);
    ASSERT_TRUE(allocations.IsInPlace());
    static ImportPatch& patch = *new ImportPatch(product);
    RoundsAtRest::Watch(m_Key);
    patch.Replace("RegNotifyChangeKeyValue", &RoundsAtRest::Notify);
    // The present wait may know the function that it began with. A request that finds no images ends it.
    RoundsAtRest::Raise();
    ASSERT_TRUE(Becomes([] { return RoundsAtRest::Count() > 0; })) << "the service does not wait again";
  }

  /// One job on which allocations fail. @return its result.
  std::optional<std::uint32_t> FlashWithout(const Burst& burst) {
    const FlashImage image = LayNewImage();
    FailingAllocations::Fail(burst.first, burst.count);
    const int rounds = RoundsAtRest::Raise();
    const auto over = [&] { return RoundsAtRest::Count() > rounds; };
    EXPECT_TRUE(Becomes([&] {
      return over() || FailingAllocations::Refused() >= kRefusalsUntilMemoryIsBack;
    })) << "the job neither ends nor goes on";
    FailingAllocations::Restore();
    EXPECT_TRUE(Becomes(over)) << "the service does not wait for the next request";
    std::optional<std::uint32_t> result = m_Key.Read().result;
    EXPECT_TRUE(result == Code(hosts::FlashResult::Failed) || result == Code(hosts::FlashResult::Succeeded))
        << "result " << result.value_or(~0u);
    if (result == Code(hosts::FlashResult::Succeeded)) ExpectInModem(image);
    return result;
  }

  void FlashWithMemory() {
    const FlashImage image = LayNewImage();
    const int rounds = RoundsAtRest::Raise();
    EXPECT_TRUE(Becomes([&] { return RoundsAtRest::Count() > rounds; }))
        << "the service does not do the next job";
    EXPECT_EQ(m_Key.Read().result, Code(hosts::FlashResult::Succeeded));
    ExpectInModem(image);
    m_Pc->ClearJournal();
  }

 private:
  static std::optional<std::uint32_t> Code(hosts::FlashResult result) {
    return static_cast<std::uint32_t>(result);
  }

  void TurnLogOff() const {
    const auto path = m_Folder / L"CorvelConfig.ini";
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    file.close();
    constexpr std::string_view kOn = "[TraceLevel]=1";
    text.replace(text.find(kOn), kOn.size(), "[TraceLevel]=0");
    std::ofstream(path, std::ios::binary) << text;
  }

  /// Another one each time: what an earlier job wrote must not pass for the work of a later one.
  FlashImage LayNewImage() {
    FlashImage image = BuildImage(SmallImagePlan(++m_Images));
    const auto folder = m_Folder / L"firmware";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    EXPECT_TRUE(SaveImageFile(image, folder / L"nvm.fls"));
    return image;
  }

  void ExpectInModem(const FlashImage& image) {
    const MemoryComparison comparison = m_Pc->Modem().CompareWith(nullptr, &image);
    EXPECT_TRUE(comparison.equal) << comparison.difference;
  }

  std::uint32_t m_Images = 0;
};

TEST_F(LackOfMemory, IsSurvivedAndReportedByEveryJobAndForgottenByTheNext) {
  FlashWithMemory();
  ASSERT_FALSE(HasFailure());
  // Counted, and none refused.
  FailingAllocations::Fail(FailingAllocations::kForGood, 0);
  FlashWithMemory();
  const unsigned allocations = FailingAllocations::Asked();
  ASSERT_GT(allocations, 0u);

  unsigned failed = 0;
  unsigned hit = 0;
  const std::vector<Burst> bursts =
      g_options.step ? EveryNth(*g_options.step, g_options.seed, allocations) : Spread(allocations);
  for (const Burst& burst : bursts) {
    SCOPED_TRACE(NameOf(burst));
    if (FlashWithout(burst) == static_cast<std::uint32_t>(hosts::FlashResult::Failed)) ++failed;
    if (FailingAllocations::Refused() > 0) ++hit;
    FlashWithMemory();
    if (HasFailure()) break;
  }
  std::printf("%zu jobs of %u allocations: memory was refused in %u, %u of them failed\n", bursts.size(),
              allocations, hit, failed);
  EXPECT_GT(2 * hit, bursts.size()) << "memory was hardly ever refused";
}

/// What becomes of one word of the command line. @return false when it means nothing.
bool Take(std::string_view word, std::string_view value, TestOptions& options) {
  if (word == "--log") return options.log = true;
  if (word == "--route") {
    const auto route = RouteOfName(value);
    if (route) options.route = *route;
    return route.has_value();
  }
  unsigned number = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (error != std::errc() || end != value.data() + value.size()) return false;
  if (word == "--seed") options.seed = number;
  if (word == "--step" && number > 0) options.step = number;
  return word == "--seed" || (word == "--step" && number > 0);
}

}  // namespace

int main(int count, char** words) {
  testing::InitGoogleTest(&count, words);
  bool inPlace = false;
  for (int i = 1; i < count; ++i) {
    const std::string_view word = words[i];
    if (word == kInPlace) {
      inPlace = true;
      continue;
    }
    const std::string_view value = i + 1 < count ? words[i + 1] : "";
    if (!Take(word, value, g_options)) {
      std::fprintf(stderr, "memory_fault_test: what is \"%s\"?\n", words[i]);
      return 2;
    }
    if (word != "--log") ++i;
  }
  if (inPlace) return RUN_ALL_TESTS();
  return RunInWorkFolder(count, words, g_options.step ? 24h : 5min) == 0 ? 0 : 1;
}
