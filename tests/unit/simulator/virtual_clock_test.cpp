#include "simulator/virtual_clock.h"

#include <gtest/gtest.h>

#include "simulator/threads/working_threads.h"
#include "unit/simulator/simulation_test.h"

using corvel::UniqueHandle;

namespace simulator {

TEST(VirtualClockTest, DividesWaitsByItsSpeed) {
  const VirtualClock clock(20);
  EXPECT_EQ(clock.RealWait(15000), 750u);
}

TEST(VirtualClockTest, AWaitIsAtLeastOneMillisecond) {
  const VirtualClock clock(1000);
  EXPECT_EQ(clock.RealWait(10), 1u);
}

TEST(VirtualClockTest, NoWaitAndEndlessWaitStay) {
  const VirtualClock clock(10);
  EXPECT_EQ(clock.RealWait(0), 0u);
  EXPECT_EQ(clock.RealWait(INFINITE), INFINITE);
}

TEST(VirtualClockTest, ASlowClockDoesNotMakeAWaitEndless) {
  const VirtualClock clock(0.001);
  EXPECT_EQ(clock.RealWait(0x7FFFFFFF), INFINITE - 1);
}

using SimulatedClockTest = SimulationTest;

TEST_F(SimulatedClockTest, TheProductSleepsByVirtualTime) {
  options.speed = 100;
  Start();
  const auto before = pc->Clock().Now();
  const ULONGLONG realBefore = ::GetTickCount64();
  platform.SleepFor(5000);
  EXPECT_GE((pc->Clock().Now() - before).count(), 4900);
  EXPECT_LT(::GetTickCount64() - realBefore, 4000u);
}

TEST_F(SimulatedClockTest, TickCountsAgreeWithTheWaits) {
  options.speed = 100;
  Start();
  const ULONGLONG before = platform.TickCount();
  platform.SleepFor(5000);
  EXPECT_GE(platform.TickCount() - before, 4900u);
}

TEST_F(SimulatedClockTest, AWaitEndsAtOnceWhenItsObjectIsSignalled) {
  Start();
  const UniqueHandle event(::CreateEventW(nullptr, TRUE, TRUE, nullptr));
  EXPECT_EQ(platform.Wait(event.get(), INFINITE), WAIT_OBJECT_0);
}

TEST_F(SimulatedClockTest, AWaitTimesOut) {
  Start();
  const UniqueHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  EXPECT_EQ(platform.Wait(event.get(), 15000), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(SimulatedClockTest, CallsAreTheSystemsAgainAfterTheEnd) {
  options.faults.platform = {{"CreateThread", Occurrence::Always(), ERROR_NOT_ENOUGH_MEMORY}};
  Start();
  pc->Uninstall();
  const auto get =
      reinterpret_cast<GetPlatformCallsFunction>(::GetProcAddress(caller.get(), "GetPlatformCalls"));
  get(&platform);
  EXPECT_EQ(platform.SleepFor, &::Sleep);
}

/// A thread of the product that works for as long as this lives.
class WorkingThread {
 public:
  WorkingThread() { working_threads::Begin(); }
  ~WorkingThread() { working_threads::End(); }
  WorkingThread(const WorkingThread&) = delete;
  WorkingThread& operator=(const WorkingThread&) = delete;
};

TEST(ElasticClockTest, FliesWhileNobodyWorks) {
  const VirtualClock clock(1000, Pace::Elastic);
  const std::uint64_t begin = ::GetTickCount64();
  clock.Pause(Milliseconds(60'000));
  EXPECT_GE(clock.Now(), Milliseconds(60'000));
  EXPECT_LT(::GetTickCount64() - begin, 30'000u);
}

TEST(ElasticClockTest, GoesAsTheRealOneWhileAThreadWorks) {
  constexpr std::uint64_t kResolution = 50;
  const WorkingThread thread;
  const VirtualClock clock(1000, Pace::Elastic);
  const std::uint64_t begin = ::GetTickCount64();
  ::Sleep(100);
  const Milliseconds now = clock.Now();
  EXPECT_LE(static_cast<std::uint64_t>(now.count()), ::GetTickCount64() - begin + kResolution);
}

TEST(ElasticClockTest, AWaitInSlicesEndsWithWhatItWaitsFor) {
  const VirtualClock clock(1000, Pace::Elastic);
  int slices = 0;
  clock.WaitInSlices(0x7FFFFFFF, [&](DWORD) { return ++slices == 2; });
  EXPECT_EQ(slices, 2);
}

TEST(ElasticClockTest, AWaitWithoutEndIsOneSlice) {
  const VirtualClock clock(1000, Pace::Elastic);
  DWORD waited = 0;
  clock.WaitInSlices(INFINITE, [&](DWORD real) {
    waited = real;
    return true;
  });
  EXPECT_EQ(waited, INFINITE);
}

}  // namespace simulator
