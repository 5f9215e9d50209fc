#include "download/flashportsearch.h"

#include <gmock/gmock.h>

#include <atomic>

#include "common/narrow.h"
#include "support/flash_bench.h"
#include "support/lock_probe.h"
#include "support/process_heap.h"

using corvel::FlashPortSearch;
using corvel::Narrow;
using corvel::UniqueHandle;
using corvel::Utf8FromWide;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Sight = FlashPortSearch::Sight;

class FlashPortSearchTest : public testing::Test {
 protected:
  std::vector<std::string> Said() const { return bench.Said({"flashportsearch.cpp"}); }
  std::string FlashPort() const { return Utf8FromWide(bench.modem.flashPortPath); }
  void FlashPortIsPresent() { bench.modem.Become(FakeModem::Mode::Flash); }
  /// A semaphore as an earlier search left it, with a count that nobody took.
  static UniqueHandle StaleSignal() {
    return UniqueHandle(
        ::CreateSemaphoreW(nullptr, 1, 1, simulator::OwnName(L"CFirmwareDownloader").c_str()));
  }

  FlashBench bench;
  FlashPortSearch search;
  std::atomic<bool> abandoned{false};
};

TEST_F(FlashPortSearchTest, LooksThroughThePathsUpToTheFlashPort) {
  bench.modem.otherPorts = {L"\\\\?\\ACPI#PNP0501#1"};
  FlashPortIsPresent();
  EXPECT_EQ(search.Look(), Sight::Found);
  EXPECT_EQ(Narrow(search.Port()), FlashPort());
  const std::size_t length = bench.modem.otherPorts[0].size() + 1 + bench.modem.flashPortPath.size() + 1 + 1;
  EXPECT_THAT(Said(),
              ElementsAre("deviceInterfaceListLength:" + std::to_string(length) + "\n",
                          "Device Path: \\\\?\\ACPI#PNP0501#1\n", "Device Path: " + FlashPort() + "\n",
                          "Flash port found, pDeviceContext->HwId: VID_1D5A&PID_0ACC&MI_00 found\n",
                          "mCFirmwareDownloader->m_COMPort: " + FlashPort()));
}

FlashPortSearch* g_search = nullptr;
bool g_isSetWhenTold = false;
BOOL WINAPI WatchRecords(HANDLE file, const void* bytes, DWORD size, DWORD* written, OVERLAPPED* overlapped) {
  const std::string_view record(static_cast<const char*>(bytes), size);
  if (record.find("->m_COMPort: ") != std::string_view::npos) g_isSetWhenTold = !g_search->Port().IsEmpty();
  return ::WriteFile(file, bytes, size, written, overlapped);
}

TEST_F(FlashPortSearchTest, TellsThePortOnceItIsSet) {
  FlashPortIsPresent();
  g_search = &search;
  g_isSetWhenTold = false;
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("WriteFile", &WatchRecords);
  search.Look();
  EXPECT_TRUE(g_isSetWhenTold);
}

class SearchRecordTest : public FlashPortSearchTest {
 protected:
  void ExpectTheSearchsName(std::size_t records) const {
    const std::vector<LogRecord> all = bench.Records({"flashportsearch.cpp"});
    EXPECT_THAT(FunctionsOf(all), testing::Each("CFirmwareDownloader::CheckFlashPortImplementation"));
    EXPECT_EQ(all.size(), records);
  }
};

TEST_F(SearchRecordTest, OfAFlashPortCarriesTheSearchsName) {
  FlashPortIsPresent();
  search.Look();
  ExpectTheSearchsName(4);
}

TEST_F(SearchRecordTest, OfARefusalCarriesTheSearchsName) {
  bench.modem.portListSizeResult = CR_FAILURE;
  bench.modem.portListLength = 0;
  search.Look();
  ExpectTheSearchsName(2);
}

TEST_F(SearchRecordTest, OfAListThatCannotBeFetchedCarriesTheSearchsName) {
  bench.modem.portListLength = 10;
  bench.modem.portListResult = CR_FAILURE;
  search.Look();
  ExpectTheSearchsName(3);
}

TEST_F(SearchRecordTest, OfLackOfMemoryCarriesTheSearchsName) {
  ProcessHeap heap;
  heap.IsFull();
  bench.modem.portListLength = 54321;
  search.Look();
  ExpectTheSearchsName(2);
}

TEST_F(FlashPortSearchTest, TellsThatItFreesAListWithoutTheFlashPort) {
  bench.modem.otherPorts = {L"COM1"};
  EXPECT_EQ(search.Look(), Sight::NotFound);
  EXPECT_THAT(Said(), ElementsAre("deviceInterfaceListLength:6\n", "Device Path: COM1\n",
                                  "free deviceInterfaceList"));
}

TEST_F(FlashPortSearchTest, DoesNotMatchAPathWithTheIdInLowerCase) {
  bench.modem.flashPortPath = L"\\\\?\\usb#vid_1d5a&pid_0acc&mi_00#1";
  FlashPortIsPresent();
  EXPECT_EQ(search.Look(), Sight::NotFound);
  EXPECT_TRUE(search.Port().IsEmpty());
}

TEST_F(FlashPortSearchTest, FindsNoActiveInterfaceInAnEmptyList) {
  EXPECT_EQ(search.Look(), Sight::NoList);
  EXPECT_THAT(Said(), ElementsAre("E:Error - No active device interfaces found.\n"));
}

TEST_F(FlashPortSearchTest, LooksThroughTheShortestListThatMayHoldAPath) {
  bench.modem.otherPorts = {L""};
  EXPECT_EQ(search.Look(), Sight::NotFound);
  EXPECT_THAT(Said(), ElementsAre("deviceInterfaceListLength:2\n", "free deviceInterfaceList"));
}

TEST_F(FlashPortSearchTest, TellsBothThatTheLengthWasRefusedAndThatItIsTooShort) {
  bench.modem.portListSizeResult = CR_FAILURE;
  bench.modem.portListLength = 0;
  EXPECT_EQ(search.Look(), Sight::NoList);
  EXPECT_THAT(Said(), ElementsAre("E:Error retrieving device interface list: 19\n",
                                  "E:Error - No active device interfaces found.\n"));
}

TEST_F(FlashPortSearchTest, FetchesNoListWhoseLengthWasRefused) {
  bench.modem.portListSizeResult = CR_FAILURE;
  bench.modem.portListLength = 100;
  EXPECT_EQ(search.Look(), Sight::NoList);
  EXPECT_THAT(Said(), ElementsAre("E:Error retrieving device interface list: 19\n"));
}

TEST_F(FlashPortSearchTest, FreesAListThatCouldNotBeFetched) {
  FlashPortIsPresent();
  bench.modem.portListLength = 10;
  EXPECT_EQ(search.Look(), Sight::NoList);
  EXPECT_THAT(Said(),
              ElementsAre("deviceInterfaceListLength:10\n", "E:Error retrieving device interface list: 26\n",
                          "free deviceInterfaceList"));
}

TEST_F(FlashPortSearchTest, TakesAtMost511CharactersOfAPath) {
  bench.modem.flashPortPath += std::wstring(600, L'x');
  FlashPortIsPresent();
  EXPECT_EQ(search.Look(), Sight::Found);
  EXPECT_EQ(Narrow(search.Port()), FlashPort().substr(0, 511));
}

TEST_F(FlashPortSearchTest, SurvivesThatThereIsNoMemoryForTheList) {
  ProcessHeap heap;
  heap.IsFull();
  bench.modem.portListLength = 54321;
  EXPECT_EQ(search.Look(), Sight::NotFound);
  EXPECT_THAT(Said(), ElementsAre("deviceInterfaceListLength:54321\n",
                                  "E:Error allocating memory for device interface list.\n"));
}

TEST_F(FlashPortSearchTest, GivesEveryListBack) {
  const ProcessHeap heap;
  FlashPortIsPresent();
  EXPECT_EQ(search.Look(), Sight::Found);
  bench.modem.portListLength = 10;
  EXPECT_EQ(search.Look(), Sight::NoList);
  EXPECT_EQ(heap.Allocations(), 2);
  EXPECT_EQ(heap.Frees(), 2);
}

// --- The signal ------------------------------------------------------------------------------------------

TEST_F(FlashPortSearchTest, APortFoundBeforeTheSignalExistsEndsTheWaitAtOnce) {
  FlashPortIsPresent();
  search.Look();
  ASSERT_TRUE(search.CreateSignal());
  EXPECT_EQ(search.Wait(15000, abandoned), WAIT_OBJECT_0);
  EXPECT_EQ(bench.clock.Now(), 0u);
}

TEST_F(FlashPortSearchTest, APortFoundMeanwhileEndsTheWait) {
  ASSERT_TRUE(search.CreateSignal());
  bench.modem.Become(FakeModem::Mode::Flash, 3000);
  bench.clock.Start([this] {
    while (search.Look() != Sight::Found) bench.clock.Pause(1000);
  });
  EXPECT_EQ(search.Wait(15000, abandoned), WAIT_OBJECT_0);
  EXPECT_EQ(bench.clock.Now(), 3000u);
}

TEST_F(FlashPortSearchTest, TheWaitEndsWithItsTime) {
  ASSERT_TRUE(search.CreateSignal());
  EXPECT_EQ(search.Wait(15000, abandoned), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_EQ(bench.clock.Now(), 15000u);
}

TEST_F(FlashPortSearchTest, ACountThatAnEarlierSearchLeftDoesNotEndTheWait) {
  const UniqueHandle stale = StaleSignal();
  ASSERT_TRUE(search.CreateSignal());
  EXPECT_EQ(search.Wait(15000, abandoned), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_EQ(bench.clock.Now(), 15000u);
}

TEST_F(FlashPortSearchTest, ACountThatComesMeanwhileFromElsewhereNeitherEndsNorProlongsTheWait) {
  const UniqueHandle another(
      ::CreateSemaphoreW(nullptr, 0, 1, simulator::OwnName(L"CFirmwareDownloader").c_str()));
  FlashPortSearch elsewhere;
  ASSERT_TRUE(elsewhere.CreateSignal());
  ASSERT_TRUE(search.CreateSignal());
  bench.clock.Start([this, &elsewhere] {
    bench.clock.Pause(4000);
    FlashPortIsPresent();
    elsewhere.Look();
  });
  EXPECT_EQ(search.Wait(15000, abandoned), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_EQ(bench.clock.Now(), 15000u);
}

struct Semaphore {
  bool isSecured;
  LONG initial;
  LONG maximum;
  std::wstring name;
};
std::vector<Semaphore> g_semaphores;
HANDLE WINAPI NoteSemaphore(SECURITY_ATTRIBUTES* security, LONG initial, LONG maximum, const wchar_t* name) {
  g_semaphores.push_back({security != nullptr, initial, maximum, name});
  return ::CreateSemaphoreW(security, initial, maximum, simulator::OwnName(name).c_str());
}

TEST_F(FlashPortSearchTest, TheSignalCountsToOneAndBeginsWithNone) {
  g_semaphores.clear();
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("CreateSemaphoreW", &NoteSemaphore);
  ASSERT_TRUE(search.CreateSignal());
  ASSERT_EQ(g_semaphores.size(), 1u);
  EXPECT_FALSE(g_semaphores[0].isSecured);
  EXPECT_EQ(g_semaphores[0].initial, 0);
  EXPECT_EQ(g_semaphores[0].maximum, 1);
  EXPECT_EQ(g_semaphores[0].name, L"CFirmwareDownloader");
}

TEST_F(FlashPortSearchTest, APortFoundBehindAnEarlierSearchsCountEndsTheWait) {
  const UniqueHandle stale = StaleSignal();
  ASSERT_TRUE(search.CreateSignal());
  bench.clock.Start([this] {
    bench.clock.Pause(4000);
    FlashPortIsPresent();
    search.Look();
  });
  EXPECT_EQ(search.Wait(15000, abandoned), WAIT_OBJECT_0);
  EXPECT_EQ(bench.clock.Now(), 4000u);
}

TEST_F(FlashPortSearchTest, AnAbandonedWaiterHandsTheSignalOn) {
  const UniqueHandle shared = StaleSignal();
  abandoned = true;
  ASSERT_TRUE(search.CreateSignal());
  EXPECT_EQ(search.Wait(15000, abandoned), WAIT_OBJECT_0);
  EXPECT_EQ(::WaitForSingleObject(shared.get(), 0), WAIT_OBJECT_0);
}

// Both searches report, but the semaphore counts only to one.
TEST_F(FlashPortSearchTest, AnAbandonedWaiterWithAPortOfItsOwnHandsTheSignalOnToo) {
  const UniqueHandle shared = StaleSignal();
  abandoned = true;
  FlashPortIsPresent();
  search.Look();
  ASSERT_TRUE(search.CreateSignal());
  EXPECT_EQ(search.Wait(15000, abandoned), WAIT_OBJECT_0);
  EXPECT_EQ(::WaitForSingleObject(shared.get(), 0), WAIT_OBJECT_0);
}

TEST_F(FlashPortSearchTest, AReportBehindTheEndOfTheWaitSignalsNobody) {
  const UniqueHandle another(
      ::CreateSemaphoreW(nullptr, 0, 1, simulator::OwnName(L"CFirmwareDownloader").c_str()));
  ASSERT_TRUE(search.CreateSignal());
  search.CloseSignal();
  FlashPortIsPresent();
  EXPECT_EQ(search.Look(), Sight::Found);
  EXPECT_EQ(::WaitForSingleObject(another.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(FlashPortSearchTest, HasNoSignalWhenItsNameIsTakenByAnotherKind) {
  const UniqueHandle mutex(
      ::CreateMutexW(nullptr, FALSE, simulator::OwnName(L"CFirmwareDownloader").c_str()));
  EXPECT_FALSE(search.CreateSignal());
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

// --- The lock --------------------------------------------------------------------------------------------

struct Step {
  const char* name;
  void (*run)(FlashPortSearch& search);
};

class SearchLockTest : public FlashPortSearchTest, public testing::WithParamInterface<Step> {
 protected:
  LockProbe locks;
};

TEST_P(SearchLockTest, KeepsTheOtherThreadFromThePort) {
  FlashPortIsPresent();
  ASSERT_TRUE(locks.Excludes([this] { GetParam().run(search); }, [this] { search.Port(); }));
}

LockProbe* g_locks = nullptr;
bool g_closingWaits = false;
BOOL WINAPI CloseTheSignalMeanwhile(HANDLE semaphore, LONG count, LONG* previous) {
  g_closingWaits = g_locks->IsMetBy([] { g_search->CloseSignal(); });
  return ::ReleaseSemaphore(semaphore, count, previous);
}

TEST_F(FlashPortSearchTest, TheSignalIsNotClosedWhileItIsGiven) {
  LockProbe locks;
  g_locks = &locks;
  g_search = &search;
  g_closingWaits = false;
  ASSERT_TRUE(search.CreateSignal());
  FlashPortIsPresent();
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("ReleaseSemaphore", &CloseTheSignalMeanwhile);
  EXPECT_EQ(search.Look(), Sight::Found);
  locks.Join();
  EXPECT_TRUE(g_closingWaits);
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, SearchLockTest,
    testing::Values(Step{"Look", [](FlashPortSearch& search) { search.Look(); }},
                    Step{"CreateSignal", [](FlashPortSearch& search) { search.CreateSignal(); }},
                    Step{"CloseSignal", [](FlashPortSearch& search) { search.CloseSignal(); }},
                    Step{"Port", [](FlashPortSearch& search) { search.Port(); }}),
    [](const auto& step) { return step.param.name; });

}  // namespace
