#include <objbase.h>
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <thread>

#include "simulator/import_patch.h"
#include "support/host_folder.h"
#include "support/scarce_memory.h"
#include "toolkit/toolkit.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::Not;

/// Counts the threads that the library asks for instead of starting them.
class ThreadRequests {
 public:
  ThreadRequests() {
    s_count = 0;
    s_refused = false;
    m_Patch.Replace("CreateThread", &Create);
  }
  static void Refuse() { s_refused = true; }
  static int Count() { return s_count; }
  static SIZE_T StackSize() { return s_stackSize; }
  static DWORD Flags() { return s_flags; }

 private:
  static HANDLE WINAPI Create(SECURITY_ATTRIBUTES*, SIZE_T stackSize, LPTHREAD_START_ROUTINE, void*,
                              DWORD flags, DWORD*) {
    ++s_count;
    s_stackSize = stackSize;
    s_flags = flags;
    if (!s_refused) return ::CreateEventW(nullptr, TRUE, TRUE, nullptr);
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }

  static inline int s_count = 0;
  static inline bool s_refused = false;
  static inline SIZE_T s_stackSize = 0;
  static inline DWORD s_flags = 0;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

class ReleasableToolKit : public ToolKit {
 public:
  using ToolKit::ReleaseInstance;
};

class InitializeTest : public testing::Test {
 protected:
  ~InitializeTest() override {
    ReleasableToolKit::ReleaseInstance();
    ToolKit::hMainKey = HKEY_LOCAL_MACHINE;
    ToolKit::mMainKey[0] = ToolKit::mStrKey[0] = ToolKit::mRegitstryLocation[0] = L'\0';
  }

  HostFolder host;
  ThreadRequests threads;
};

TEST_F(InitializeTest, LoadsTheConfigurationAndStartsOneThread) {
  host.WriteConfig("title\n[TraceLevel]=1\n[RegistryLocation]=HKCU\\Software\\Some\n");
  EXPECT_TRUE(ToolKit::Initialize());
  EXPECT_TRUE(ToolKit::IsConfigLoaded());
  EXPECT_EQ(ToolKit::hMainKey, HKEY_CURRENT_USER);
  EXPECT_STREQ(ToolKit::mStrKey, L"Software\\Some");
  EXPECT_EQ(threads.Count(), 1);
}

TEST_F(InitializeTest, TheThreadsFirstStackIsTheAllocationGranularity) {
  host.WriteConfig("title\n");
  ToolKit::Initialize();
  SYSTEM_INFO system{};
  ::GetSystemInfo(&system);
  EXPECT_EQ(threads.StackSize(), system.dwAllocationGranularity);
  EXPECT_EQ(threads.Flags(), 0u);
}

DWORD g_pinned = 0;
BOOL WINAPI RecordPin(DWORD flags, LPCWSTR address, HMODULE* module) {
  if ((flags & GET_MODULE_HANDLE_EX_FLAG_PIN) != 0 && ThreadRequests::Count() == 0) g_pinned = flags;
  return ::GetModuleHandleExW(flags, address, module);
}

TEST_F(InitializeTest, KeepsTheLibraryLoadedForGoodBeforeItStartsTheThread) {
  host.WriteConfig("title\n");
  g_pinned = 0;
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("GetModuleHandleExW", &RecordPin);
  ToolKit::Initialize();
  EXPECT_EQ(threads.Count(), 1);
  EXPECT_EQ(g_pinned,
            static_cast<DWORD>(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS));
}

TEST_F(InitializeTest, ASecondCallSucceedsAndStartsNoSecondThread) {
  host.WriteConfig("title\n");
  ToolKit::Initialize();
  EXPECT_TRUE(ToolKit::Initialize());
  EXPECT_EQ(threads.Count(), 1);
}

TEST_F(InitializeTest, TheStepsAreLoggedOnceTheLogHasItsName) {
  host.WriteConfig("title\n[TraceLevel]=2\n");
  ToolKit::Initialize();
  EXPECT_THAT(host.Said(), ElementsAre("Start LoadConfig ++", "VERSION: " CORVEL_VERSION,
                                       "\t get Config Var, [TraceLevel] : 2", "\t to GetLabelsLocation",
                                       "mMainKey:", "mStrKey:", "hMainKey:0x80000002",
                                       "\t to create MainThreadImplementation", "\t Initialize --"));
  EXPECT_EQ(CDebugLogger::GetLevel(), 3);
}

class LoggingOffTest : public InitializeTest, public testing::WithParamInterface<const char*> {};

TEST_P(LoggingOffTest, TurnsLoggingOffBeforeTheRegistryLocationIsRead) {
  host.WriteConfig(std::string("title\n") + GetParam());
  EXPECT_TRUE(ToolKit::Initialize());
  EXPECT_EQ(CDebugLogger::GetLevel(), 0);
  EXPECT_EQ(host.Said().back(), "\t Log Turn OFF");
}

INSTANTIATE_TEST_SUITE_P(TraceLevels, LoggingOffTest,
                         testing::Values("[TraceLevel]=0\n", "[TraceLevel]=abc\n", "[TraceLevel]=-1\n", ""));

TEST_F(InitializeTest, WithoutAConfigurationItFailsAndStartsNothing) {
  EXPECT_FALSE(ToolKit::Initialize());
  EXPECT_EQ(threads.Count(), 0);
  EXPECT_THAT(
      host.Log(),
      Contains(AllOf(Field(&LogRecord::level, "Error"), Field(&LogRecord::function, "ToolKit::Initialize"),
                     Field(&LogRecord::message, "\t Load Config failed, Initialize --"))));
  EXPECT_THAT(host.Said(), Not(Contains("\t to GetLabelsLocation")));
}

TEST_F(InitializeTest, AfterAFailureASecondCallSucceedsAndStillStartsNothing) {
  ToolKit::Initialize();
  host.WriteConfig("title\n");
  EXPECT_TRUE(ToolKit::Initialize());
  EXPECT_FALSE(ToolKit::IsConfigLoaded());
  EXPECT_EQ(threads.Count(), 0);
}

TEST_F(InitializeTest, AThreadThatCannotBeStartedIsAFailureWithTheSystemsError) {
  host.WriteConfig("title\n[TraceLevel]=1\n");
  threads.Refuse();
  EXPECT_FALSE(ToolKit::Initialize());
  EXPECT_THAT(host.Log(),
              Contains(AllOf(Field(&LogRecord::level, "Error"),
                             Field(&LogRecord::message, "\t CreateThread error: 8, Initialize --\n"))));
}

// Or a service whose library serves nobody would run on, and nobody would start it anew.
TEST_F(InitializeTest, AHostSeesByTheConfigurationThatNothingWasStarted) {
  host.WriteConfig("title\n[TraceLevel]=1\n");
  threads.Refuse();
  ToolKit::Initialize();
  EXPECT_FALSE(ToolKit::IsConfigLoaded());
}

TEST_F(InitializeTest, OnAThreadOfAnotherApartmentItFailsWithoutACrash) {
  host.WriteConfig("title\n");
  bool initialized = true;
  std::thread([&] {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    initialized = ToolKit::Initialize();
    ::CoUninitialize();
  }).join();
  EXPECT_FALSE(initialized);
  EXPECT_EQ(threads.Count(), 0);
}

TEST_F(InitializeTest, LoadingOnAThreadOfAnotherApartmentFailsWithoutACrash) {
  bool loaded = true;
  bool isLoaded = true;
  std::thread([&] {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    loaded = ToolKit::LoadConfig(nullptr);
    isLoaded = ToolKit::IsConfigLoaded();
    ToolKit::CloseConfig();
    ::CoUninitialize();
  }).join();
  EXPECT_FALSE(loaded);
  EXPECT_FALSE(isLoaded);
}

// A part of it would be another key, and the supervisor would watch that one for good.
TEST_F(InitializeTest, WithoutMemoryForTheLocationNothingIsStarted) {
  host.WriteConfig(
      "title\n[RegistryLocation]=HKCU\\Software\\A key whose name is too long for a small text\n");
  ASSERT_TRUE(ToolKit::LoadConfig(nullptr));
  ToolKit::TurnLoggingOff();
  ScarceMemory memory;
  memory.FailEachOf([&] {
    ReleasableToolKit::ReleaseInstance();
    ToolKit::mStrKey[0] = L'\0';
    ToolKit::hMainKey = HKEY_LOCAL_MACHINE;
    const int before = threads.Count();
    const bool initialized = ToolKit::Initialize();
    const bool taken =
        std::wstring_view(ToolKit::mStrKey) == L"Software\\A key whose name is too long for a small text" &&
        ToolKit::hMainKey == HKEY_CURRENT_USER;
    EXPECT_EQ(threads.Count() - before, initialized ? 1 : 0);
    EXPECT_TRUE(taken || !initialized);
    memory.Suffice();
    EXPECT_EQ(ToolKit::IsConfigLoaded(), initialized);
  });
}

TEST_F(InitializeTest, AnInstanceThatThereIsNoMemoryForIsToldOfAsAnError) {
  host.WriteConfig("title\n");
  ASSERT_TRUE(ToolKit::LoadConfig(nullptr));
  ScarceMemory memory;
  int missing = 0;
  memory.FailEachOf([&] {
    ReleasableToolKit::ReleaseInstance();
    if (ToolKit::GetInstance() == nullptr) ++missing;
  });
  EXPECT_EQ(missing, 1);
  EXPECT_THAT(host.Said(), Contains("E:CFirmwareCore::Initialize() failed").Times(1));
}

TEST_F(InitializeTest, WithoutMemoryForTheConfigurationItIsNotLoaded) {
  host.WriteConfig(
      "title\n[ModemAndNVMFirmwareFolder]=C:\\A folder whose name is too long for a small text\n");
  ScarceMemory memory;
  int loadedCount = 0;
  const int failedCount = memory.FailEachOf([&] {
    ToolKit::CloseConfig();
    const bool loaded = ToolKit::LoadConfig(nullptr);
    memory.Suffice();
    EXPECT_EQ(ToolKit::IsConfigLoaded(), loaded);
    if (loaded) ++loadedCount;
  });
  EXPECT_LT(loadedCount, failedCount);
}

TEST_F(InitializeTest, WithoutMemoryToLookForTheConfigurationItIsNotLoaded) {
  ScarceMemory memory;
  memory.FailEachOf([] {
    ToolKit::CloseConfig();
    EXPECT_FALSE(ToolKit::IsConfigLoaded());
  });
}

TEST_F(InitializeTest, LoadingTheConfigurationTurnsTheLogOn) {
  host.WriteConfig("title\n[TraceLevel]=0\n");
  ToolKit::TurnLoggingOff();
  EXPECT_TRUE(ToolKit::LoadConfig(nullptr));
  EXPECT_EQ(CDebugLogger::GetLevel(), 3);
  EXPECT_THAT(host.Said(), ElementsAre("Start LoadConfig ++", "VERSION: " CORVEL_VERSION,
                                       "\t get Config Var, [TraceLevel] : 0"));
}

TEST_F(InitializeTest, CommandLineModeFixesTheKeyAndStartsNothing) {
  EXPECT_TRUE(ToolKit::Initialize_CmdLine());
  EXPECT_EQ(ToolKit::hMainKey, HKEY_LOCAL_MACHINE);
  EXPECT_STREQ(ToolKit::mMainKey, L"HKLM");
  EXPECT_STREQ(ToolKit::mStrKey, L"SOFTWARE\\WOW6432Node\\Quenta\\FlashService");
  EXPECT_EQ(threads.Count(), 0);
}

TEST_F(InitializeTest, CommandLineModeLoadsNoConfiguration) {
  TestLog log;
  ToolKit::Initialize_CmdLine();
  EXPECT_THAT(log.Said(), ElementsAre("++ Initialize_CmdLine", "CFirmwareCore::GetInstance ++",
                                      "CFirmwareCore::GetInstance --", "-- Initialize_CmdLine"));
}

TEST_F(InitializeTest, AServiceThatIsStartedKeepsItsKeyInCommandLineModeToo) {
  host.WriteConfig("title\n[RegistryLocation]=HKCU\\Software\\Some\n");
  ToolKit::Initialize();
  EXPECT_TRUE(ToolKit::Initialize_CmdLine());
  EXPECT_STREQ(ToolKit::mStrKey, L"Software\\Some");
}

}  // namespace
