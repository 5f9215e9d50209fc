#include <gmock/gmock.h>

#include "unit/simulator/hook_calls.h"

#include <memory>
#include <stdexcept>
#include "simulator/call_hooks.h"
#include "simulator/import_patch.h"
#include "unit/simulator/simulation_test.h"

using corvel::UniqueHandle;

namespace simulator {

namespace {

using PlatformFaultsTest = SimulationTest;

DWORD WINAPI Nothing(void*) {
  return 0;
}

TEST_F(PlatformFaultsTest, OnlyTheChosenCallFails) {
  options.faults.platform = {{"CreateThread", Occurrence::Only(2), ERROR_NO_SYSTEM_RESOURCES}};
  Start();
  const UniqueHandle first(platform.StartThread(nullptr, 0, &Nothing, nullptr, 0, nullptr));
  const UniqueHandle second(platform.StartThread(nullptr, 0, &Nothing, nullptr, 0, nullptr));
  const DWORD error = ::GetLastError();
  const UniqueHandle third(platform.StartThread(nullptr, 0, &Nothing, nullptr, 0, nullptr));
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(error, static_cast<DWORD>(ERROR_NO_SYSTEM_RESOURCES));
  EXPECT_NE(third, nullptr);
  EXPECT_EQ(pc->PlatformCalls()["CreateThread"], 3);
}

TEST_F(PlatformFaultsTest, RegistryCallsFailByTheirResult) {
  options.faults.platform = {{"RegOpenKeyExW", Occurrence::Always(), ERROR_ACCESS_DENIED}};
  Start();
  HKEY key = nullptr;
  EXPECT_EQ(platform.OpenKey(HKEY_CURRENT_USER, L"Software", 0, KEY_READ, &key), ERROR_ACCESS_DENIED);
}

TEST_F(PlatformFaultsTest, AnExpiredWaitFails) {
  options.faults.platform = {{"WaitForSingleObject", Occurrence::Times(1), ERROR_INVALID_HANDLE}};
  Start();
  const UniqueHandle event(::CreateEventW(nullptr, TRUE, TRUE, nullptr));
  EXPECT_EQ(platform.Wait(event.get(), 0), WAIT_FAILED);
  EXPECT_EQ(platform.Wait(event.get(), 0), WAIT_OBJECT_0);
}

TEST_F(PlatformFaultsTest, AFaultThatNamesACallWhichIsNotMadeIsRefused) {
  options.faults.platform = {{"CreateDirectoryW", Occurrence::Always()}};
  pc = std::make_unique<VirtualPc>(options);
  caller.reset(::LoadLibraryW(L"platform_caller.dll"));
  EXPECT_THROW(pc->Install(caller.get()), std::runtime_error);
}

/// Loads a library that makes an event in its entry routine.
class EntryFaultsTest : public SimulationTest {
 protected:
  void Load(PlatformCallFault::When when) {
    options.faults.platform = {{"CreateEventW", Occurrence::Only(1), ERROR_ACCESS_DENIED, when}};
    pc = std::make_unique<VirtualPc>(options);
    caller.reset(pc->LoadUnderSimulation(L"hook_caller.dll"));
    ASSERT_NE(caller, nullptr);
    const auto get = reinterpret_cast<GetHookCallsFunction>(::GetProcAddress(caller.get(), "GetHookCalls"));
    get(&calls);
  }

  HookCalls calls{};
};

TEST_F(EntryFaultsTest, OneOfTheEntryRoutineIsThereInFrontOfIt) {
  Load(PlatformCallFault::When::Loading);
  EXPECT_EQ(calls.madeWhileLoading, nullptr);
  EXPECT_NE(calls.CreateNewEvent(nullptr, TRUE, FALSE, nullptr), nullptr);
}

TEST_F(EntryFaultsTest, OneOfTheInstallationComesBehindIt) {
  Load(PlatformCallFault::When::Installed);
  EXPECT_NE(calls.madeWhileLoading, nullptr);
  EXPECT_EQ(calls.CreateNewEvent(nullptr, TRUE, FALSE, nullptr), nullptr);
}

TEST(ImportPatchTest, RefusesAFunctionThatIsNotImported) {
  ImportPatch patch(::GetModuleHandleW(nullptr));
  EXPECT_THROW(patch.Replace("NoSuchFunction", &Nothing), std::runtime_error);
  EXPECT_FALSE(patch.ReplaceIfImported("NoSuchFunction", &Nothing));
}

}  // namespace

}  // namespace simulator
