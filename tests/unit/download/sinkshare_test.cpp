#include "download/sinkshare.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "common/handles.h"
#include "download/cmbnsink.h"
#include "download/firmwaredownloader.h"
#include "simulator/import_patch.h"
#include "support/lock_turns.h"
#include "support/test_log.h"

using corvel::DeleteRetiredSinks;
using corvel::SinkShare;
using corvel::UniqueHandle;

#if defined(__GNUC__)
// The interfaces have no destructor: one would take a slot.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

using namespace std::chrono_literals;

namespace {

constexpr DWORD kPatienceMs = 10000;
constexpr std::chrono::milliseconds kPatience{kPatienceMs};
/// Longer than anybody's patience: who waits for a blocked service is seen to.
constexpr DWORD kBlockMs = 6 * kPatienceMs;

UniqueHandle NewEvent() {
  return UniqueHandle(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

/// A place that threads reach and are held at until they may go on.
class Barrier {
 public:
  ~Barrier() { Open(); }
  void PassThrough() {
    ::SetEvent(m_Reached.get());
    ::WaitForSingleObject(m_Open.get(), kBlockMs);
  }
  bool WaitUntilReached() const {
    return ::WaitForSingleObject(m_Reached.get(), kPatienceMs) == WAIT_OBJECT_0;
  }
  bool WasReached() const { return ::WaitForSingleObject(m_Reached.get(), 0) == WAIT_OBJECT_0; }
  void Open() { ::SetEvent(m_Open.get()); }

 private:
  UniqueHandle m_Reached = NewEvent();
  UniqueHandle m_Open = NewEvent();
};

/// An object of a service whose Release does not come back before the test lets it.
class ObjectThatBlocks final : public IUnknown {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_References; }
  ULONG STDMETHODCALLTYPE Release() override {
    release.PassThrough();
    return --m_References;
  }
  template <typename Interface>
  Interface* As() {
    return reinterpret_cast<Interface*>(this);
  }
  ULONG References() const { return m_References; }

  Barrier release;

 private:
  std::atomic<ULONG> m_References{0};
};

Barrier* g_disconnect = nullptr;
HRESULT WINAPI BlockInDisconnect(IUnknown*, DWORD) {
  g_disconnect->PassThrough();
  return S_OK;
}

std::atomic<void*> g_watchedSink{nullptr};
void __cdecl WatchFree(void* memory) {
  void* freed = memory;
  if (memory != nullptr) g_watchedSink.compare_exchange_strong(freed, nullptr);
  std::free(memory);
}

class SinkShareTest : public testing::Test {
 protected:
  ~SinkShareTest() override {
    EXPECT_EQ(g_CMbnSinks, nullptr);
    DeleteRetiredSinks();
  }

  /// @return false when it does not come to its end within the test's patience.
  static bool ComesToItsEnd(std::function<void()> operation) {
    // Left alone when it hangs, which is the failure that is being tested for.
    auto ended = std::make_shared<std::promise<void>>();
    std::future<void> end = ended->get_future();
    std::thread([operation = std::move(operation), ended] {
      operation();
      ended->set_value();
    }).detach();
    return end.wait_for(kPatience) == std::future_status::ready;
  }

  TestLog log;
  simulator::ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

TEST_F(SinkShareTest, TheFirstShareMakesTheSinkAndTheLastOneEndsIt) {
  std::optional<SinkShare> first(std::in_place);
  std::optional<SinkShare> second(std::in_place);
  EXPECT_TRUE(first->MadeIt());
  EXPECT_FALSE(second->MadeIt());
  EXPECT_EQ(first->Get(), g_CMbnSinks);
  EXPECT_EQ(second->Get(), g_CMbnSinks);
  first.reset();
  EXPECT_EQ(second->Get(), g_CMbnSinks);
  second.reset();
  EXPECT_EQ(g_CMbnSinks, nullptr);
}

TEST_F(SinkShareTest, TheEventsCloseWithTheLastShare) {
  std::optional<SinkShare> share(std::in_place);
  EXPECT_EQ(share->Get()->Initilazation(), S_OK);
  share.reset();
  EXPECT_EQ(g_Event_OnOpenCommandSessionComplete, nullptr);
  EXPECT_EQ(g_Event_OnQuerySupportedCommandsComplete, nullptr);
  EXPECT_EQ(g_Event_OnSetCommandComplete, nullptr);
}

// A service that takes its time

/// The last share's thread is in the service's Release of an object that the sink kept.
class BlockedReleaseTest : public SinkShareTest {
 protected:
  BlockedReleaseTest() {
    m_Share.emplace();
    m_Share->Get()->OnReadyStateChange(m_Object.As<IMbnInterface>());
    m_Old = std::thread([this] { m_Share.reset(); });
    EXPECT_TRUE(m_Object.release.WaitUntilReached());
  }
  ~BlockedReleaseTest() override {
    if (m_Old.joinable()) ServiceComesBack();
    EXPECT_EQ(m_Object.References(), 0u);
  }
  void ServiceComesBack() {
    m_Object.release.Open();
    m_Old.join();
  }

 private:
  ObjectThatBlocks m_Object;
  std::optional<SinkShare> m_Share;
  std::thread m_Old;
};

TEST_F(BlockedReleaseTest, UnloadingTheEngineDoesNotWait) {
  EXPECT_TRUE(ComesToItsEnd(&CFirmwareDownloader::Unload));
}

TEST_F(BlockedReleaseTest, ANewerRunHasASinkOfItsOwn) {
  static std::atomic<bool> madeIt;
  madeIt = false;
  EXPECT_TRUE(ComesToItsEnd([] { madeIt = SinkShare().MadeIt(); }));
  EXPECT_TRUE(madeIt);
}

TEST_F(BlockedReleaseTest, TheSinkIsDeafAlready) {
  EXPECT_EQ(g_CMbnSinks, nullptr);
  EXPECT_EQ(g_MbnInterface, nullptr);
}

TEST_F(BlockedReleaseTest, AServiceThatComesBackTouchesNothingOfTheNewerRun) {
  const SinkShare newer;
  EXPECT_EQ(newer.Get()->Initilazation(), S_OK);
  const HANDLE event = g_Event_OnSetCommandComplete;
  ServiceComesBack();
  EXPECT_EQ(g_CMbnSinks, newer.Get());
  EXPECT_EQ(g_Event_OnSetCommandComplete, event);
}

/// The last share's thread is in the call that cuts the sink off from the service, which has just let go.
class BlockedDisconnectTest : public SinkShareTest {
 protected:
  BlockedDisconnectTest() {
    g_disconnect = &m_Disconnect;
    patch.Replace("CoDisconnectObject", &BlockInDisconnect);
    freeIsWatched = patch.ReplaceIfImported("free", &WatchFree);
    m_Share.emplace();
    CMbnSinks* const sink = m_Share->Get();
    g_watchedSink = sink;
    sink->AddRef();
    m_Old = std::thread([this] { m_Share.reset(); });
    EXPECT_TRUE(m_Disconnect.WaitUntilReached());
    sink->Release();
  }
  ~BlockedDisconnectTest() override {
    if (m_Old.joinable()) DisconnectComesBack();
  }
  void DisconnectComesBack() {
    m_Disconnect.Open();
    m_Old.join();
  }

  /// False where the runtime is linked in.
  bool freeIsWatched = false;

 private:
  Barrier m_Disconnect;
  std::optional<SinkShare> m_Share;
  std::thread m_Old;
};

TEST_F(BlockedDisconnectTest, UnloadingTheEngineDoesNotWait) {
  EXPECT_TRUE(ComesToItsEnd(&CFirmwareDownloader::Unload));
}

TEST_F(BlockedDisconnectTest, ANewerRunHasASinkOfItsOwn) {
  EXPECT_TRUE(ComesToItsEnd([] { const SinkShare newer; }));
}

TEST_F(BlockedDisconnectTest, TheSinkIsNotDeletedBeforeTheCallIsBack) {
  if (!freeIsWatched) GTEST_SKIP() << "the runtime is linked in";
  DeleteRetiredSinks();
  EXPECT_NE(g_watchedSink, nullptr);
}

TEST_F(BlockedDisconnectTest, TheSinkIsDeletedOnceTheCallIsBack) {
  if (!freeIsWatched) GTEST_SKIP() << "the runtime is linked in";
  DisconnectComesBack();
  EXPECT_EQ(g_watchedSink, nullptr);
}

// Retired sinks

TEST_F(SinkShareTest, ASinkThatNobodyRefersToIsNotCutOffFromAnybody) {
  Barrier disconnect;
  disconnect.Open();
  g_disconnect = &disconnect;
  patch.Replace("CoDisconnectObject", &BlockInDisconnect);
  { const SinkShare share; }
  EXPECT_FALSE(disconnect.WasReached());
}

TEST_F(SinkShareTest, OfSeveralRetiredSinksThoseThatAreDesertedAreDeleted) {
  if (!patch.ReplaceIfImported("free", &WatchFree)) GTEST_SKIP() << "the runtime is linked in";
  std::vector<CMbnSinks*> sinks;
  for (int i = 0; i < 3; ++i) {
    const SinkShare share;
    sinks.push_back(share.Get());
    share.Get()->AddRef();
  }
  for (const int next : {1, 0, 2}) {
    g_watchedSink = sinks[static_cast<std::size_t>(next)];
    DeleteRetiredSinks();
    EXPECT_NE(g_watchedSink, nullptr);
    sinks[static_cast<std::size_t>(next)]->Release();
    DeleteRetiredSinks();
    EXPECT_EQ(g_watchedSink, nullptr);
  }
}

// The lock

TEST_F(SinkShareTest, WhoMakesAShareKeepsOthersOutUntilItIsMade) {
  std::optional<SinkShare> share;
  {
    LockTurns turns;
    ASSERT_TRUE(turns.HoldInside([&share] { share.emplace(); }));
    EXPECT_NE(g_CMbnSinks, nullptr);
    EXPECT_TRUE(turns.AsksForTheSameLock(&DeleteRetiredSinks));
  }
  share.reset();
}

TEST_F(SinkShareTest, WhoMakesAShareWaitsForWhoeverIsIn) {
  std::optional<SinkShare> share;
  {
    LockTurns turns;
    ASSERT_TRUE(turns.HoldInside(&DeleteRetiredSinks));
    EXPECT_TRUE(turns.AsksForTheSameLock([&share] { share.emplace(); }));
    EXPECT_EQ(g_CMbnSinks, nullptr);
  }
  share.reset();
}

TEST_F(SinkShareTest, WhoEndsAShareKeepsOthersOutUntilTheSinkIsRetired) {
  // The first two turns are the sink's own, for its events and its records.
  constexpr int kRetired = 3;
  std::optional<SinkShare> share(std::in_place);
  LockTurns turns;
  ASSERT_TRUE(turns.HoldInside([&share] { share.reset(); }, kRetired));
  EXPECT_EQ(g_CMbnSinks, nullptr);
  EXPECT_TRUE(turns.AsksForTheSameLock(&DeleteRetiredSinks));
}

TEST_F(SinkShareTest, WhoEndsAShareWaitsForWhoeverIsIn) {
  std::optional<SinkShare> share(std::in_place);
  LockTurns turns;
  ASSERT_TRUE(turns.HoldInside(&DeleteRetiredSinks));
  EXPECT_TRUE(turns.AsksForTheSameLock([&share] { share.reset(); }));
  EXPECT_NE(g_CMbnSinks, nullptr);
}

TEST_F(SinkShareTest, ARetiredSinkJoinsTheOthersAlone) {
  constexpr int kJoined = 4;
  std::optional<SinkShare> share(std::in_place);
  LockTurns turns;
  ASSERT_TRUE(turns.HoldInside([&share] { share.reset(); }, kJoined));
  EXPECT_TRUE(turns.AsksForTheSameLock(&DeleteRetiredSinks));
}

TEST_F(SinkShareTest, TheDesertedSinksAreTakenOutAlone) {
  LockTurns turns;
  ASSERT_TRUE(turns.HoldInside(&DeleteRetiredSinks));
  EXPECT_TRUE(turns.AsksForTheSameLock(&DeleteRetiredSinks));
}

}  // namespace
