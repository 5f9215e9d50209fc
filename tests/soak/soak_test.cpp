// The service over a long time, in a process of its own per test: the library reads its configuration once
// per process and stays loaded.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tlhelp32.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <iterator>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "simulator/import_patch.h"
#include "simulator/program/debug_log.h"
#include "simulator/program/firmware_folder.h"
#include "support/handle_census.h"
#include "support/service_in_virtual_pc.h"

using namespace simulator;

namespace {

using namespace std::chrono_literals;
using RealClock = std::chrono::steady_clock;

constexpr wchar_t kLogFile[] = L"FlashServiceDebugLogger_DLL.log";
constexpr auto kPatience = 60s;

/// Tells records that are traces with this message.
auto IsTrace(std::string_view message) {
  return
      [message](const DebugRecord& record) { return record.level == "Trace" && record.message == message; };
}

class SoakTest : public ServiceInVirtualPc {
 protected:
  SoakTest() : ServiceInVirtualPc(L"soak") {}

  void Prepare(double speed, Route route = Route::At) {
    ::Setup setup;
    setup.route = route;
    m_Configuration.emplace(m_Folder, setup, m_Key.Location(), m_Folder / L"firmware");
    VirtualPcOptions options;
    options.speed = speed;
    if (speed > 1) options.pace = Pace::Elastic;
    options.folder = m_Folder;
    options.timing = QuickTiming();
    m_Pc.emplace(options);
  }

  void StartService(double speed, Route route = Route::At) {
    Prepare(speed, route);
    ASSERT_TRUE(ServiceBegins());
  }

  /// How often the service saw the raised flag.
  std::ptrdiff_t CountRequestsHeard() const {
    const auto log = Log();
    return std::ranges::count_if(log, IsTrace("\t flash flag changed to 1"));
  }

  /// One whole flash, up to the service's next wait.
  void FlashOnce(ImageSet images) {
    const FirmwareFolder firmware(m_Folder / L"firmware", images, ImageHolder::Nobody);
    const int rounds = Rounds();
    m_Key.Write(L"Fls_Ready", 1);
    ASSERT_TRUE(Becomes([&] { return m_Key.Read().ready == 0u && Rounds() > rounds; }));
    ASSERT_TRUE(m_Key.Read().Is(hosts::FlashResult::Succeeded));
  }

  std::vector<DebugRecord> Log() const { return ReadDebugLog(m_Folder / kLogFile); }
};

// --- What the process holds ------------------------------------------------------------------------------

std::vector<DWORD> ThreadsOfThisProcess() {
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  std::vector<DWORD> threads;
  for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) threads.push_back(entry.th32ThreadID);
  }
  ::CloseHandle(snapshot);
  return threads;
}

/// The sizes of all blocks in use, in order. They lie outside the heaps that they describe.
struct HeapCensus {
  std::array<DWORD, 1 << 18> sizes;
  std::size_t count;

  std::span<const DWORD> Sizes() const { return std::span(sizes).first(count); }
};
HeapCensus g_heapBefore;
HeapCensus g_heapAfter;

void AddBlocks(HANDLE heap, HeapCensus& census) {
  ::HeapLock(heap);
  PROCESS_HEAP_ENTRY entry{};
  while (::HeapWalk(heap, &entry)) {
    if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) census.sizes.at(census.count++) = entry.cbData;
  }
  ::HeapUnlock(heap);
}

/// Looks through all heaps, those of the C runtimes among them.
void Take(HeapCensus& census) {
  std::array<HANDLE, 64> heaps{};
  const DWORD count = ::GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
  census.count = 0;
  for (const HANDLE heap : std::span(heaps).first(std::min<std::size_t>(count, heaps.size()))) {
    AddBlocks(heap, census);
  }
  std::ranges::sort(std::span(census.sizes).first(census.count));
}

/// The blocks that are there only once of the two times, by their sizes.
std::string Differences(const HeapCensus& before, const HeapCensus& after) {
  std::vector<DWORD> gone;
  std::vector<DWORD> added;
  std::ranges::set_difference(before.Sizes(), after.Sizes(), std::back_inserter(gone));
  std::ranges::set_difference(after.Sizes(), before.Sizes(), std::back_inserter(added));
  std::string text;
  for (const DWORD size : gone) text += " -" + std::to_string(size);
  for (const DWORD size : added) text += " +" + std::to_string(size);
  return text;
}

/// Reads of the registry that opened the key: each leaves its handle open, which is how it is meant to be.
int KeysLeftOpen(const std::vector<DebugRecord>& log) {
  return static_cast<int>(std::ranges::count_if(log, [](const DebugRecord& record) {
    return record.level == "Trace" && record.function == "ToolKit::ReadRegistry" &&
           record.message.starts_with("\t Read regedit ");
  }));
}

struct Holdings {
  std::size_t threads = 0;
  HandleCensus handles;
  bool operator==(const Holdings&) const = default;
};

Holdings Count() {
  return {ThreadsOfThisProcess().size(), HandlesOfThisProcess()};
}

class HundredFlashes : public SoakTest {
 protected:
  static constexpr int kWarmUp = 20;
  static constexpr int kFlashes = 100;
  static constexpr int kMostHundreds = 3;
  static constexpr DWORD kSteadyFor = 100;

  /// The service has done everything that it does before it waits.
  bool IsAtRest() const {
    const auto log = Log();
    return !log.empty() && IsTrace("\t WaitForSingleObject, wait registry to be changed...")(log.back());
  }

  /// Until the service is idle and the threads whose end nobody waits for are gone.
  void ComeToRest() {
    ASSERT_TRUE(Becomes([this] { return IsAtRest(); }));
    Holdings last = Count();
    ASSERT_TRUE(Becomes([&last] {
      ::Sleep(kSteadyFor);
      const Holdings now = Count();
      return std::exchange(last, now) == now;
    }));
    m_Pc->ClearJournal();
  }

  /// Every tenth flash has a modem image too.
  void Flash(int from, int to) {
    for (int i = from; i < to; ++i) {
      FlashOnce(i % 10 == 0 ? ImageSet::ModemAndNvm : ImageSet::NvmOnly);
      if (HasFatalFailure()) return;
    }
  }

  /// Flashes on and compares what the process holds before and after.
  /// @return whether there are the same events and blocks of memory as before; all else must be exact.
  bool LeavesNothing(int from, int to) {
    const Holdings before = Count();
    const int keysBefore = KeysLeftOpen(Log());
    Take(g_heapBefore);

    Flash(from, to);
    ComeToRest();
    // First of all, while nothing of what follows is held.
    Take(g_heapAfter);
    const Holdings after = Count();
    const int keys = KeysLeftOpen(Log()) - keysBefore;
    const std::string blocks = Differences(g_heapBefore, g_heapAfter);
    std::printf("threads %zu -> %zu, events %d -> %d, keys left open by reads %d, blocks %zu -> %zu:%s\n",
                before.threads, after.threads, before.handles.at(L"Event"), after.handles.at(L"Event"), keys,
                g_heapBefore.count, g_heapAfter.count, blocks.c_str());

    EXPECT_GE(keys, to - from);
    HandleCensus expected = before.handles;
    expected[L"Key"] += keys;
    expected[L"Event"] = after.handles.at(L"Event");
    EXPECT_EQ(after.handles, expected);
    EXPECT_EQ(after.threads, before.threads);
    return blocks.empty() && after.handles.at(L"Event") == before.handles.at(L"Event");
  }

  /// The C runtime's thread library makes an event when two threads first meet at a lock of its own, and
  /// keeps records of ended threads for the next ones: as many as ever ran at once. A hundred flashes in
  /// which one came or went are followed by others. What flashes leave behind would be there again each time.
  void FlashAndCompare(Route route) {
    StartService(100, route);
    ASSERT_NO_FATAL_FAILURE(Flash(0, kWarmUp));
    ASSERT_NO_FATAL_FAILURE(ComeToRest());
    bool exact = false;
    for (int hundreds = 0; hundreds < kMostHundreds && !exact && !HasFailure(); ++hundreds) {
      exact = LeavesNothing(kWarmUp, kFlashes);
    }
    EXPECT_TRUE(exact) << "each hundred flashes leave events or memory behind";
  }
};

TEST_F(HundredFlashes, LeaveNothingBehindButTheKeysOfTheirReads) {
  FlashAndCompare(Route::At);
}

TEST_F(HundredFlashes, LeaveNothingBehindWhenTheServiceReboots) {
  FlashAndCompare(Route::Mbim);
}

// --- Waiting for a request -------------------------------------------------------------------------------

using Waiting = SoakTest;

std::uint64_t ProcessorTimeOf(DWORD thread) {
  const HANDLE handle = ::OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, thread);
  FILETIME created{}, ended{}, kernel{}, user{};
  ::GetThreadTimes(handle, &created, &ended, &kernel, &user);
  ::CloseHandle(handle);
  const auto number = [](const FILETIME& time) {
    return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
  };
  return number(kernel) + number(user);
}

/// Of every thread but the calling one. One by one, because they are counted in ticks: a thread that does not
/// run stays exactly where it is, while the sum of a process may stand just below the next tick.
std::map<DWORD, std::uint64_t> ProcessorTimesOfOthers() {
  std::map<DWORD, std::uint64_t> times;
  for (const DWORD thread : ThreadsOfThisProcess()) {
    if (thread != ::GetCurrentThreadId()) times[thread] = ProcessorTimeOf(thread);
  }
  return times;
}

/// A thread that works shows in its time, or the comparison would say nothing.
bool WorkShows() {
  const std::jthread busy([](const std::stop_token& stop) {
    while (!stop.stop_requested()) continue;
  });
  const auto end = RealClock::now() + kPatience;
  while (RealClock::now() < end) {
    const auto times = ProcessorTimesOfOthers();
    if (std::ranges::any_of(times, [](const auto& time) { return time.second > 0; })) return true;
    ::Sleep(2);
  }
  return false;
}

TEST_F(Waiting, TakesNoProcessorTimeForAMinute) {
  ASSERT_TRUE(WorkShows());
  StartService(1);
  ::Sleep(1000);  // The service's last steps before its wait, and the end of whatever started it.
  const auto times = ProcessorTimesOfOthers();
  const auto calls = m_Pc->PlatformCalls();
  const std::size_t records = Log().size();

  ::Sleep(60'000);

  EXPECT_EQ(ProcessorTimesOfOthers(), times);
  EXPECT_EQ(m_Pc->PlatformCalls(), calls);
  EXPECT_EQ(Log().size(), records);
}

TEST_F(Waiting, AFlagThatIsUpAlreadyStartsTheJobAtOnce) {
  m_Key.Write(L"Fls_Ready", 1);
  Prepare(1);
  ASSERT_NE(m_Pc->LoadUnderSimulation(m_Folder / kLibrary), nullptr);
  EXPECT_TRUE(Becomes([this] { return m_Key.Read().result == 3u && m_Key.Read().ready == 0u; }));
  // No change of the key ended the wait: the first round was enough.
  const auto log = Log();
  EXPECT_EQ(std::ranges::count_if(log, IsTrace("\t flash flag changed to 1")), 1);
  EXPECT_EQ(
      std::ranges::count_if(
          log, [](const auto& record) { return record.message.starts_with("\t flash flag changed to "); }),
      1);
}

/// Raises the flag when the service begins its second round: after it looked, before it is told of changes.
class FlagBetweenRounds {
 public:
  static LSTATUS WINAPI Notify(HKEY key, BOOL subtree, DWORD filter, HANDLE event, BOOL asynchronous) {
    if (++s_rounds == 2) s_key->Write(L"Fls_Ready", 1);
    return ::RegNotifyChangeKeyValue(key, subtree, filter, event, asynchronous);
  }

  static inline std::atomic<int> s_rounds{0};
  static inline SessionKey* s_key = nullptr;
};

TEST_F(Waiting, AFlagThatGoesUpBetweenTwoRoundsStartsTheJobAtOnce) {
  StartService(1);
  FlagBetweenRounds::s_key = &m_Key;
  ImportPatch patch(::GetModuleHandleW(kLibrary));
  patch.Replace("RegNotifyChangeKeyValue", &FlagBetweenRounds::Notify);
  // The present wait may know the function that it began with. A request that finds no images ends it.
  m_Key.Write(L"Fls_Ready", 1);
  ASSERT_TRUE(Becomes([this] { return m_Key.Read().ready == 0u && FlagBetweenRounds::s_rounds == 1; }));
  ASSERT_EQ(CountRequestsHeard(), 1);

  m_Key.Write(L"Retry_Times", 3);

  EXPECT_TRUE(Becomes([this] { return CountRequestsHeard() == 2; }));
  EXPECT_EQ(FlagBetweenRounds::s_rounds, 2);
}

TEST_F(Waiting, AnotherValueOfTheFlagStartsNothing) {
  StartService(1);
  m_Key.Write(L"Fls_Ready", 2);
  ASSERT_TRUE(Becomes([this] { return Rounds() == 2; }));
  EXPECT_EQ(CountRequestsHeard(), 0);
  EXPECT_EQ(m_Key.Read().ready, 2u);
}

}  // namespace

int main(int count, char** words) {
  const bool inPlace =
      std::any_of(words, words + count, [](std::string_view word) { return word == kInPlace; });
  if (!inPlace) return static_cast<int>(RunInWorkFolder(count, words, 10min));
  testing::InitGoogleTest(&count, words);
  return RUN_ALL_TESTS();
}
