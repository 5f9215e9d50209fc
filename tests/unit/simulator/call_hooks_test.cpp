#include "simulator/call_hooks.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/handles.h"
#include "simulator/import_patch.h"
#include "simulator/known_calls.h"
#include "simulator/load_watch.h"
#include "unit/simulator/hook_calls.h"

using corvel::UniqueHandle;
using corvel::UniqueModule;

namespace simulator {

namespace {

using namespace std::chrono_literals;
using Way = CallFault::Way;

constexpr wchar_t kCaller[] = L"hook_caller.dll";
constexpr unsigned kExitCode = 77;

/// A module with hooks in front of what it imports; `calls` is what it would call.
class CallHooksTest : public testing::Test {
 protected:
  void SetUp() override { Load(); }

  void Load() {
    caller.reset();
    {
      const LoadWatch watch(kCaller, [this](HMODULE module) {
        hooks.Place(module);
        if (fault) hooks.Arm(*fault);
      });
      caller.reset(::LoadLibraryW(kCaller));
    }
    ASSERT_NE(caller, nullptr);
    Look();
  }
  void Look() {
    const auto get = reinterpret_cast<GetHookCallsFunction>(::GetProcAddress(caller.get(), "GetHookCalls"));
    ASSERT_NE(get, nullptr);
    get(&calls);
  }

  HANDLE MakeEvent() const { return calls.CreateNewEvent(nullptr, TRUE, FALSE, nullptr); }
  /// Whether the calls succeed, one after the other.
  std::vector<bool> MakeEvents(int count) const {
    std::vector<bool> made;
    for (int i = 0; i < count; ++i) {
      const UniqueHandle event(MakeEvent());
      made.push_back(event != nullptr);
    }
    return made;
  }

  std::optional<CallFault> fault;
  UniqueModule caller;
  CallHooks hooks;
  HookCalls calls{};
};

TEST_F(CallHooksTest, CountTheCallsOfEachFunction) {
  hooks.ResetCounts();
  MakeEvents(2);
  calls.TickCount();
  EXPECT_EQ(hooks.Count("CreateEventW"), 2);
  EXPECT_EQ(hooks.Count("GetTickCount64"), 1);
  EXPECT_EQ(hooks.Count("ReleaseSemaphore"), 0);
  EXPECT_THAT(hooks.Counts(), testing::Contains(testing::Pair("CreateEventW", 2)));
}

TEST_F(CallHooksTest, CountAsCallsOfThePlatformOnlyWhatLeavesATrace) {
  hooks.ResetCounts();
  MakeEvents(3);
  calls.TickCount();
  calls.LastError();
  EXPECT_EQ(hooks.PlatformCalls(), 3u);
}

/// Uses the registers in which the first four arguments may lie.
double Spoil(double first, double second, double third, double fourth) {
  return first + second + third + fourth;
}

TEST_F(CallHooksTest, PassOnArgumentsOfEveryKind) {
  ASSERT_TRUE(hooks.Knows("MixedArguments"));
  hooks.Observe([](const SeenCall&) noexcept {
    volatile const double sum = Spoil(101, 102, 103, 104);
    static_cast<void>(sum);
  });
  EXPECT_EQ(calls.Mixed(1.5, 2, 3.25f, 4.5, -5, 6, 7.75f, 8.5), 1.5 + 4 + 9.75 + 18 - 25 + 36 + 54.25 + 68);
  EXPECT_EQ(hooks.Count("MixedArguments"), 1);
}

TEST_F(CallHooksTest, FailTheChosenCallAlone) {
  hooks.Arm({.function = "CreateEventW", .calls = Occurrence::Only(2)});
  EXPECT_EQ(MakeEvents(3), (std::vector{true, false, true}));
  EXPECT_EQ(hooks.Hits(), 1u);
}

TEST_F(CallHooksTest, FailTheChosenCallAndTheNext) {
  hooks.Arm({.function = "CreateEventW", .calls = {2, 2}});
  EXPECT_EQ(MakeEvents(4), (std::vector{true, false, false, true}));
  EXPECT_EQ(hooks.Hits(), 2u);
}

TEST_F(CallHooksTest, FailFromTheChosenCallOnForGood) {
  hooks.Arm({.function = "CreateEventW", .calls = Occurrence::From(2)});
  EXPECT_EQ(MakeEvents(5), (std::vector{true, false, false, false, false}));
  hooks.Disarm();
  EXPECT_EQ(MakeEvents(1), (std::vector{true}));
}

TEST_F(CallHooksTest, CountForAFaultFromItsArmingOn) {
  MakeEvents(2);
  hooks.Arm({.function = "CreateEventW", .calls = Occurrence::Only(3)});
  MakeEvents(1);
  hooks.ResetCounts();
  EXPECT_EQ(MakeEvents(3), (std::vector{true, false, true}));
}

TEST_F(CallHooksTest, LeaveTheLastErrorOfAFailedCall) {
  hooks.Arm({.function = "CreateEventW", .calls = Occurrence::Only(1)});
  hooks.Arm({.function = "CreateEventW", .calls = Occurrence::Only(2), .error = ERROR_ACCESS_DENIED});
  ::SetLastError(ERROR_SUCCESS);
  EXPECT_EQ(MakeEvent(), nullptr);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NO_SYSTEM_RESOURCES));
  EXPECT_EQ(MakeEvent(), nullptr);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST_F(CallHooksTest, FailByTheResultWhereThatIsTheError) {
  hooks.Arm({.function = "RegOpenKeyExW", .calls = Occurrence::Only(1)});
  hooks.Arm({.function = "RegOpenKeyExW", .calls = Occurrence::Only(2), .error = ERROR_KEY_DELETED});
  HKEY key = nullptr;
  ::SetLastError(1234);
  EXPECT_EQ(calls.OpenKey(HKEY_CURRENT_USER, L"Software", 0, KEY_READ, &key), ERROR_ACCESS_DENIED);
  EXPECT_EQ(calls.OpenKey(HKEY_CURRENT_USER, L"Software", 0, KEY_READ, &key), ERROR_KEY_DELETED);
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(::GetLastError(), 1234u);
}

TEST_F(CallHooksTest, KeepTheLastErrorInFrontOfACallThatIsPassedOn) {
  hooks.Arm({.function = "GetLastError", .calls = Occurrence::Only(1), .way = Way::Delayed, .delay = 1ms});
  ::SetLastError(1234);
  EXPECT_EQ(calls.LastError(), 1234u);
  EXPECT_EQ(hooks.Hits(), 1u);
}

TEST_F(CallHooksTest, FailACallThatTookEffect) {
  const UniqueHandle semaphore(::CreateSemaphoreW(nullptr, 0, 10, nullptr));
  hooks.Arm({.function = "ReleaseSemaphore", .calls = Occurrence::Only(1), .way = Way::RefusedAfterEffect});
  EXPECT_FALSE(calls.Release(semaphore.get(), 1, nullptr));
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_TOO_MANY_POSTS));
  LONG before = 0;
  EXPECT_TRUE(calls.Release(semaphore.get(), 1, &before));
  EXPECT_EQ(before, 1);
}

TEST_F(CallHooksTest, FailCallsThatTookEffectOnManyThreadsEachAtItsOwnPlace) {
  constexpr int kThreads = 4;
  constexpr int kCalls = 500;
  const UniqueHandle semaphore(::CreateSemaphoreW(nullptr, 0, kThreads * kCalls, nullptr));
  hooks.Arm({.function = "ReleaseSemaphore", .calls = Occurrence::Always(), .way = Way::RefusedAfterEffect});
  std::array<int, kThreads> refused{};
  {
    std::vector<std::jthread> threads;
    threads.reserve(refused.size());
    for (int& count : refused) {
      threads.emplace_back([&] {
        for (int i = 0; i < kCalls; ++i) count += calls.Release(semaphore.get(), 1, nullptr) ? 0 : 1;
      });
    }
  }
  EXPECT_THAT(refused, testing::Each(kCalls));
  hooks.Disarm();
  EXPECT_FALSE(calls.Release(semaphore.get(), 1, nullptr)) << "some calls took no effect";
}

decltype(&::ReleaseSemaphore) g_deeper = nullptr;

std::atomic<int> g_inside{0};
std::atomic<bool> g_firstIsBack{false};

/// The call that came first returns first, while the second is still there.
BOOL WINAPI ReturnInTheOrderOfComing(HANDLE, LONG, LPLONG) {
  const bool isFirst = ++g_inside == 1;
  while (isFirst ? g_inside < 2 : !g_firstIsBack) ::Sleep(1);
  return TRUE;
}

TEST_F(CallHooksTest, FailCallsThatTookEffectWhicheverReturnsFirst) {
  hooks.Lift();
  ImportPatch patch(caller.get());
  patch.Replace("ReleaseSemaphore", &ReturnInTheOrderOfComing);
  hooks.Place(caller.get());
  Look();
  for (const DWORD number : {1u, 2u}) {
    hooks.Arm({.function = "ReleaseSemaphore",
               .calls = Occurrence::Only(static_cast<int>(number)),
               .way = Way::RefusedAfterEffect,
               .error = number});
  }
  const auto errorOfRelease = [this] {
    calls.Release(nullptr, 1, nullptr);
    const DWORD error = ::GetLastError();
    g_firstIsBack = true;
    return error;
  };
  auto first = std::async(std::launch::async, errorOfRelease);
  while (g_inside == 0) ::Sleep(1);
  auto second = std::async(std::launch::async, errorOfRelease);
  EXPECT_EQ(first.get(), 1u);
  EXPECT_EQ(second.get(), 2u);
  hooks.Lift();
}

TEST_F(CallHooksTest, HoldBackADelayedCall) {
  hooks.Arm({.function = "CreateEventW", .calls = Occurrence::Only(1), .way = Way::Delayed, .delay = 60ms});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(MakeEvents(1), (std::vector{true}));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
}

TEST_F(CallHooksTest, HoldACallUntilTheyAreLifted) {
  hooks.Arm({.function = "CreateEventW", .calls = Occurrence::Only(1), .way = Way::NeverReturns});
  auto made = std::async(std::launch::async, [this] { return MakeEvents(1); });
  while (hooks.Hits() == 0) ::Sleep(1);
  EXPECT_EQ(made.wait_for(50ms), std::future_status::timeout);
  hooks.Lift();
  EXPECT_EQ(made.get(), (std::vector{true}));
}

TEST_F(CallHooksTest, LetCallsGoOnThatDoNotReturn) {
  hooks.Arm({.function = "CreateEventW", .calls = Occurrence::Only(1), .way = Way::NeverReturns});
  auto made = std::async(std::launch::async, [this] { return MakeEvents(2); });
  while (hooks.HeldThreads().empty()) ::Sleep(1);
  EXPECT_NE(hooks.HeldThreads().front(), ::GetCurrentThreadId());
  hooks.LetGo();
  EXPECT_EQ(made.get(), (std::vector{true, true}));
  EXPECT_THAT(hooks.HeldThreads(), testing::IsEmpty());
}

/// More calls at a time than the hooks can make to fail after their effect.
BOOL WINAPI CallDeeper(HANDLE depth, LONG, LPLONG) {
  return depth == nullptr || g_deeper(static_cast<HANDLE>(static_cast<char*>(depth) - 1), 1, nullptr);
}

TEST_F(CallHooksTest, TellOfCallsThatShouldHaveFailedAndCouldNotBeMadeTo) {
  hooks.Lift();
  ImportPatch patch(caller.get());
  patch.Replace("ReleaseSemaphore", &CallDeeper);
  hooks.Place(caller.get());
  Look();
  g_deeper = calls.Release;
  hooks.Arm({.function = "ReleaseSemaphore", .calls = Occurrence::Always(), .way = Way::RefusedAfterEffect});
  constexpr std::uintptr_t kDepth = 100;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): a number in the place of a handle.
  calls.Release(reinterpret_cast<HANDLE>(kDepth), 1, nullptr);
  EXPECT_EQ(hooks.Hits(), kDepth + 1);
  EXPECT_GT(hooks.Missed(), 0u);
  hooks.Disarm();
  EXPECT_EQ(hooks.Missed(), 0u);
  hooks.Lift();
}

// --- Functions that are not imported ---------------------------------------------------------------------

constexpr KnownCall kDouble{.name = "Double",
                            .kind = KnownCall::Kind::Library,
                            .failure = KnownCall::Failure::Plausible,
                            .tells = KnownCall::Tells::ByResult,
                            .result = 1,
                            .success = 0,
                            .undocumented = 99};

int g_doubled = 0;
int Double(int number) {
  ++g_doubled;
  return 2 * number;
}

int Sum(int first, int second) {
  return first + second;
}

class ForeignCallHooksTest : public CallHooksTest {
 protected:
  void SetUp() override {
    CallHooksTest::SetUp();
    hooks.Expect({&kDouble, 1});
    g_doubled = 0;
  }
  int CallWith(int number) {
    return reinterpret_cast<decltype(&Double)>(hooks.InFrontOf("Double", reinterpret_cast<void*>(&Double)))(
        number);
  }
};

TEST_F(ForeignCallHooksTest, StandInFrontOfAFunctionThatIsBoundByName) {
  EXPECT_EQ(CallWith(4), 8);
  EXPECT_EQ(hooks.Count("Double"), 1);
  hooks.Arm({.function = "Double", .calls = Occurrence::Only(1)});
  EXPECT_EQ(CallWith(4), 1);
  EXPECT_EQ(g_doubled, 1);
}

TEST_F(ForeignCallHooksTest, AnswerWhatIsNeitherSuccessNorFailure) {
  hooks.Arm({.function = "Double", .calls = Occurrence::Only(1), .way = Way::Undocumented});
  EXPECT_EQ(CallWith(4), 99);
  EXPECT_EQ(g_doubled, 0);
}

TEST_F(ForeignCallHooksTest, TellOfSuccessWithoutHavingDoneAnything) {
  hooks.Arm({.function = "Double", .calls = Occurrence::Only(1), .way = Way::DoesNothing});
  EXPECT_EQ(CallWith(4), 0);
  EXPECT_EQ(g_doubled, 0);
}

TEST_F(ForeignCallHooksTest, LeaveBehindWhatElseTellsOfAFailure) {
  // The hooks know it longer than this test lasts.
  static const KnownCall spoiling = [] {
    KnownCall call = kDouble;
    call.name = "Spoil";
    call.leaves = [](std::uint64_t argument) { g_doubled = static_cast<int>(argument); };
    call.leavesFor = 1;
    return call;
  }();
  hooks.Expect({&spoiling, 1});
  auto* const spoil =
      reinterpret_cast<decltype(&Sum)>(hooks.InFrontOf("Spoil", reinterpret_cast<void*>(&Sum)));
  hooks.Arm({.function = "Spoil", .calls = Occurrence::Only(1)});
  EXPECT_EQ(spoil(4, 17), 1);
  EXPECT_EQ(g_doubled, 17);
}

TEST_F(ForeignCallHooksTest, RefuseToLieForAFunctionWhoseSuccessNobodyKnows) {
  EXPECT_THROW(hooks.Arm({.function = "CreateEventW", .calls = Occurrence::Only(1), .way = Way::DoesNothing}),
               std::runtime_error);
  EXPECT_THROW(
      hooks.Arm({.function = "CreateEventW", .calls = Occurrence::Only(1), .way = Way::Undocumented}),
      std::runtime_error);
}

TEST_F(ForeignCallHooksTest, LeaveAFunctionAloneOnceTheyAreLifted) {
  void* const function = reinterpret_cast<void*>(&Double);
  EXPECT_NE(hooks.InFrontOf("Double", function), function);
  hooks.Lift();
  EXPECT_EQ(hooks.InFrontOf("Double", function), function);
  EXPECT_EQ(hooks.InFrontOf("Unheard", function), function);
}

constexpr const char* kStreamCalls[] = {"QueryInterface", "Double"};

TEST_F(ForeignCallHooksTest, StandInFrontOfTheFunctionsOfAnObject) {
  void* table[] = {nullptr, reinterpret_cast<void*>(&Double)};
  void* object = table;
  hooks.CoverObject(kStreamCalls, &object);
  hooks.CoverObject(kStreamCalls, &object);
  EXPECT_EQ(table[0], nullptr) << "nobody expects that one";
  EXPECT_EQ(reinterpret_cast<decltype(&Double)>(table[1])(4), 8);
  EXPECT_EQ(hooks.Count("Double"), 1);
  hooks.Lift();
  EXPECT_EQ(table[1], reinterpret_cast<void*>(&Double));
}

TEST_F(CallHooksTest, EndTheProcessAtTheChosenCallOfThePlatform) {
  const auto steps = [this](int count) {
    MakeEvents(5);
    hooks.EndProcessAt(3, kExitCode);
    MakeEvents(1);
    hooks.ResetCounts();
    MakeEvents(count - 1);
    std::_Exit(0);
  };
  EXPECT_EXIT(steps(3), testing::ExitedWithCode(kExitCode), "");
  EXPECT_EXIT(steps(2), testing::ExitedWithCode(0), "");
}

std::atomic<int> g_seenInitialState{-1};
std::atomic<const void*> g_seenPlace{nullptr};

TEST_F(CallHooksTest, ShowEachCallWithItsArguments) {
  hooks.Observe([](const SeenCall& call) noexcept {
    if (std::string_view(call.function) == "CreateEventW")
      g_seenInitialState = static_cast<int>(call.arguments[2]);
  });
  const UniqueHandle event(calls.CreateNewEvent(nullptr, FALSE, TRUE, nullptr));
  EXPECT_EQ(g_seenInitialState, TRUE);
}

TEST_F(CallHooksTest, ShowWhatStandsOnTheStack) {
  static std::int64_t fifth = 0;
  static int sixth = 0;
  hooks.Observe([](const SeenCall& call) noexcept {
    if (std::string_view(call.function) != "MixedArguments") return;
    fifth = static_cast<std::int64_t>(call.stacked[0]);
    sixth = static_cast<int>(call.stacked[1]);
  });
  calls.Mixed(1.5, 2, 3.25f, 4.5, -5, 6, 7.75f, 8.5);
  EXPECT_EQ(fifth, -5);
  EXPECT_EQ(sixth, 6);
}

TEST_F(CallHooksTest, ShowWhereACallWasMade) {
  hooks.Observe([](const SeenCall& call) noexcept { g_seenPlace = call.returnsTo; });
  MakeEvents(1);
  HMODULE module = nullptr;
  EXPECT_TRUE(::GetModuleHandleExW(
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
      static_cast<const wchar_t*>(g_seenPlace.load()), &module));
  EXPECT_EQ(module, ::GetModuleHandleW(nullptr)) << "it was made by this program";
}

TEST_F(CallHooksTest, StandThereBeforeTheEntryRoutineRuns) {
  EXPECT_EQ(hooks.Count("CreateEventW"), 1);
  EXPECT_NE(calls.madeWhileLoading, nullptr);
  fault = CallFault{.function = "CreateEventW", .calls = Occurrence::Only(1)};
  Load();
  EXPECT_EQ(calls.madeWhileLoading, nullptr);
}

TEST_F(CallHooksTest, LeaveAloneWhatInspectsItsCaller) {
  EXPECT_FALSE(hooks.Knows("RtlCaptureContext"));
  EXPECT_EQ(calls.Capture, &::RtlCaptureContext);
}

TEST_F(CallHooksTest, GiveTheEntriesBack) {
  EXPECT_NE(calls.TickCount, &::GetTickCount64);
  hooks.Lift();
  Look();
  EXPECT_EQ(calls.TickCount, &::GetTickCount64);
}

DWORD g_answer = 0;
ULONGLONG WINAPI Answer() {
  return g_answer;
}

TEST_F(CallHooksTest, StandInFrontOfWhatReplacedTheSystem) {
  hooks.Lift();
  ImportPatch patch(caller.get());
  patch.Replace("GetTickCount64", &Answer);
  hooks.Place(caller.get());
  hooks.ResetCounts();
  Look();
  g_answer = 4711;
  EXPECT_EQ(calls.TickCount(), 4711u);
  EXPECT_EQ(hooks.Count("GetTickCount64"), 1);
  hooks.Lift();
}

TEST_F(CallHooksTest, RefuseAFaultThatCouldNeverHappen) {
  EXPECT_THROW(hooks.Arm({.function = "CreateDirectoryW", .calls = Occurrence::Always()}),
               std::runtime_error);
  EXPECT_THROW(hooks.Arm({.function = "GetTickCount64", .calls = Occurrence::Always()}), std::runtime_error);
}

class HooksOfOneModuleAfterTheOther : public CallHooksTest {
 protected:
  void SetUp() override {
    {
      CallHooks former;
      PlaceIn(former);
      former.Arm({.function = "CreateEventW", .calls = Occurrence::Always()});
      MakeEvents(3);
    }
    caller.reset();
  }
  void PlaceIn(CallHooks& placed) {
    const LoadWatch watch(kCaller, [&placed](HMODULE module) { placed.Place(module); });
    caller.reset(::LoadLibraryW(kCaller));
    ASSERT_NE(caller, nullptr);
    Look();
  }
};

TEST_F(HooksOfOneModuleAfterTheOther, DoNotKnowWhatOnlyTheFormerModuleImported) {
  const CallHooks next;
  EXPECT_FALSE(next.Knows("CreateEventW"));
}

TEST_F(HooksOfOneModuleAfterTheOther, CountAndFailAnew) {
  CallHooks next;
  PlaceIn(next);
  // The module makes one while it is loaded.
  EXPECT_EQ(next.Count("CreateEventW"), 1);
  EXPECT_THAT(MakeEvents(1), testing::ElementsAre(true));
  EXPECT_EQ(next.Count("CreateEventW"), 2);
  EXPECT_EQ(next.Hits(), 0u);
}

/// The library as data: nothing in it runs.
class MappedLibrary {
 public:
  MappedLibrary() : m_Module(::LoadLibraryExW(L"CorvelToolKit.dll", nullptr, DONT_RESOLVE_DLL_REFERENCES)) {}
  ~MappedLibrary() { ::FreeLibrary(m_Module); }
  MappedLibrary(const MappedLibrary&) = delete;
  MappedLibrary& operator=(const MappedLibrary&) = delete;

  std::vector<std::string> FunctionsCalled() const {
    std::vector<std::string> functions = ImportedFunctions(m_Module);
    for (std::string& name : functions) name.erase(0, name.find('!') + 1);
    return functions;
  }

 private:
  HMODULE m_Module;
};

#if !defined(_MSC_VER)
// The runtime that MSVC links in calls the system for itself, by functions that differ from version to
// version.
TEST(KnownCallsTest, AreAllThatTheLibraryImports) {
  const auto called = MappedLibrary().FunctionsCalled();
  ASSERT_GT(called.size(), 100u);
  for (const std::string& name : called)
    EXPECT_TRUE(FindKnownCall(name) != nullptr || InspectsItsCaller(name)) << name;
}
#endif

TEST(KnownCallsTest, AreNamedOnce) {
  std::vector<std::string> names;
  for (const auto& calls : {KnownCalls(), KnownForeignCalls()}) {
    for (const KnownCall& call : calls) {
      names.emplace_back(call.name);
      EXPECT_FALSE(InspectsItsCaller(call.name)) << call.name;
    }
  }
  std::ranges::sort(names);
  EXPECT_TRUE(std::ranges::adjacent_find(names) == names.end()) << *std::ranges::adjacent_find(names);
}

TEST(KnownCallsTest, TellOfAFailureByWhatIsNoSuccess) {
  for (const KnownCall& call : KnownCalls()) {
    const bool isCode = call.CanFail() && call.tells == KnownCall::Tells::ByResult;
    EXPECT_TRUE(!isCode || call.result != 0) << call.name;
  }
}

}  // namespace

}  // namespace simulator
