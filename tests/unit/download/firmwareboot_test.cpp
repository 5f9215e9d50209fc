#include <gmock/gmock.h>
#include <objbase.h>

#include <cstdlib>

#include "support/flash_bench.h"

using corvel::UniqueHandle;
using corvel::Utf8FromWide;

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Mode = FakeModem::Mode;

constexpr char kSearchEnded[] =
    "CFirmwareDownloader::CheckFlashPortImplementation: OpenCdcAcmDeviceInterface --, bRet: ";

class BootTest : public testing::Test {
 protected:
  std::vector<std::string> Said() const { return bench.Said({"firmwareboot.cpp"}); }
  std::string FlashPort() const { return Utf8FromWide(bench.modem.flashPortPath); }

  FlashBench bench;
  std::shared_ptr<CFirmwareDownloader> engine = CFirmwareDownloader::GetInstance();
};

// --- Leaving normal operation ----------------------------------------------------------------------------

TEST_F(BootTest, RebootsAModemInNormalModeByAtCommand) {
  EXPECT_EQ(engine->BootDeviceInFirmwareMode(), 0);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reboot at+xlog=4\r"));
  EXPECT_EQ(ToolKit::g_retry_times, 0u);
  EXPECT_THAT(Said(), ElementsAre("\t BootDeviceInFirmwareMode ++", "\t MBIM device present.", "RebootModem",
                                  "RebootModemByXlog4 ++", "RebootModemByXlog4 --",
                                  "\t RebootModem OK, waiting for flash port",
                                  "\t CFirmwareDownloader::BootDeviceInFirmwareMode --, retValue: 0\n"));
}

TEST_F(BootTest, TellsEachStepOfARebootUnderItsProceduresName) {
  bench.modem.takesCommands = false;
  bench.modem.takesResets = {false};
  ToolKit::mRetry_times = 1;
  engine->BootDeviceInFirmwareMode();
  const std::string boot = "CFirmwareDownloader::BootDeviceInFirmwareMode";
  const std::string byAtCommand = "CFirmwareDownloader::RebootModemByXlog4";
  const std::string reset = "CFirmwareDownloader::ControlBBrst";
  EXPECT_THAT(FunctionsOf(bench.Records({"firmwareboot.cpp"})),
              ElementsAre(boot, boot, "CFirmwareDownloader::RebootModem", byAtCommand, byAtCommand, boot,
                          reset, reset, reset, reset, boot));
}

TEST_F(BootTest, TellsThatTheModemGoesUnderTheBootsName) {
  engine->BootDeviceInFirmwareMode();
  EXPECT_EQ(FunctionOf(bench.Records({"firmwareboot.cpp"}), "\t RebootModem OK, waiting for flash port"),
            "CFirmwareDownloader::BootDeviceInFirmwareMode");
}

TEST_F(BootTest, TellsOfTheFlashPortUnderTheBootsName) {
  bench.modem.Become(Mode::Flash);
  engine->BootDeviceInFirmwareMode();
  EXPECT_THAT(FunctionsOf(bench.Records({"firmwareboot.cpp"})),
              testing::Each("CFirmwareDownloader::BootDeviceInFirmwareMode"));
}

TEST_F(BootTest, DoesNotRebootTheModemForAnAttemptThatWasGivenUpMeanwhile) {
  bench.modem.onIdList = [] { CFirmwareDownloader::Unload(); };
  EXPECT_EQ(engine->BootDeviceInFirmwareMode(), 2);
  EXPECT_THAT(bench.modem.heard, IsEmpty());
}

TEST_F(BootTest, ResetsTheBasebandWhenTheRebootFails) {
  bench.modem.takesCommands = false;
  EXPECT_EQ(engine->BootDeviceInFirmwareMode(), 0);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reboot at+xlog=4\r", "reset", "reenumerate"));
  EXPECT_EQ(ToolKit::g_retry_times, 2u);
  EXPECT_THAT(Said(),
              ElementsAre("\t BootDeviceInFirmwareMode ++", "\t MBIM device present.", "RebootModem",
                          "RebootModemByXlog4 ++", "RebootModemByXlog4 --", "E:\t RebootModem FAIL.",
                          "\t Call BB_RST, g_retry_times: 1", "\t Call BB_RST OK, waiting for flash port.",
                          "\t CFirmwareDownloader::BootDeviceInFirmwareMode --, retValue: 0\n"));
}

TEST_F(BootTest, FailsAtOnceWithoutModemAndFlashPortWhenNoResetIsAllowed) {
  bench.modem.Become(Mode::Absent);
  ToolKit::g_bIsFiveBranch = false;
  EXPECT_EQ(engine->BootDeviceInFirmwareMode(), 2);
  EXPECT_THAT(bench.modem.heard, IsEmpty());
  EXPECT_EQ(bench.clock.Now(), 0u);
  EXPECT_EQ(ToolKit::g_retry_times, 0u);
  EXPECT_THAT(Said(), ElementsAre("\t BootDeviceInFirmwareMode ++", "\t MBIM device NOT available.",
                                  "\t CFirmwareDownloader::BootDeviceInFirmwareMode --, retValue: 2\n"));
}

TEST_F(BootTest, FailsWhenTheRebootFailsAndNoResetIsAllowed) {
  bench.modem.takesCommands = false;
  ToolKit::g_bIsFiveBranch = false;
  EXPECT_EQ(engine->BootDeviceInFirmwareMode(), 2);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reboot at+xlog=4\r"));
  EXPECT_EQ(ToolKit::g_retry_times, 1u);
}

TEST_F(BootTest, DoesNotRebootAModemThatIsInFlashModeAlready) {
  bench.modem.Become(Mode::Flash);
  EXPECT_EQ(engine->BootDeviceInFirmwareMode(), 0);
  EXPECT_THAT(bench.modem.heard, IsEmpty());
  EXPECT_THAT(Said(), ElementsAre("\t BootDeviceInFirmwareMode ++", "\t MBIM device NOT available.",
                                  "\t Flash port available. Getting flash port path",
                                  "\t CFirmwareDownloader::BootDeviceInFirmwareMode --, retValue: 0\n"));
}

TEST_F(BootTest, ResetsTheBasebandOfAModemThatIsNowhere) {
  bench.modem.Become(Mode::Absent);
  EXPECT_EQ(engine->BootDeviceInFirmwareMode(), 0);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reset", "reenumerate"));
}

TEST_F(BootTest, IsThereInSingleStepsToo) {
  EXPECT_EQ(engine->RebootModem(), 0);
  EXPECT_EQ(engine->RebootModemByXlog4(), 0);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reboot at+xlog=4\r", "reboot at+xlog=4\r"));
  bench.modem.heard.clear();
  EXPECT_TRUE(engine->ControlBBrst());
  EXPECT_THAT(bench.modem.heard, ElementsAre("reset", "reenumerate"));
  EXPECT_EQ(engine->InjectBootTargetThread(), 2);
  EXPECT_TRUE(bench.HasSaid("E:\t Boot File is NULL!, CFirmwareDownloader::InjectBootTargetThread --"));
}

TEST_F(BootTest, SearchFindsThePortForWhoeverGivesItOne) {
  bench.modem.Become(Mode::Flash);
  corvel::FlashPortSearch search;
  EXPECT_TRUE(CFirmwareDownloader::CheckFlashPortImplementation(nullptr, search));
  EXPECT_TRUE(search.Port().IsEmpty());
  EXPECT_TRUE(CFirmwareDownloader::CheckFlashPortImplementation(engine.get(), search));
  EXPECT_EQ(search.Port(), CTString(bench.modem.flashPortPath));
}

int g_creations = 0;
HRESULT WINAPI RefuseCreation(REFCLSID, IUnknown*, DWORD, REFIID, void**) {
  ++g_creations;
  return REGDB_E_CLASSNOTREG;
}

class RebootTypeTest : public BootTest, public testing::WithParamInterface<const wchar_t*> {};

TEST_P(RebootTypeTest, AnyTypeButOneRebootsByMobileBroadbandCommand) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("CoCreateInstance", &RefuseCreation);
  g_creations = 0;
  FlashBench::Configure(L"[REBOOTTYPE]", GetParam());
  engine->BootDeviceInFirmwareMode();
  EXPECT_EQ(g_creations, 1);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reset", "reenumerate"));
  EXPECT_THAT(Said(), AllOf(Contains("RebootModem"), Contains("E:\t RebootModem FAIL."),
                            Not(Contains("RebootModemByXlog4 ++"))));
}

INSTANTIATE_TEST_SUITE_P(Types, RebootTypeTest, testing::Values(L"0", L"2", L"-1", L"", L"11"));

// --- The baseband reset ----------------------------------------------------------------------------------

class ResetTest : public BootTest {
 protected:
  ResetTest() { bench.modem.Become(Mode::Absent); }
  int Reset() const { return engine->BootDeviceInFirmwareMode(); }
};

TEST_F(ResetTest, PausesHalfASecondTwiceAndASecondBehindASuccess) {
  EXPECT_EQ(Reset(), 0);
  EXPECT_THAT(bench.clock.Sleeps(), ElementsAre(500u, 500u, 1000u));
}

TEST_F(ResetTest, IsTriedFourTimesFiveSecondsApart) {
  bench.modem.takesResets = {false};
  EXPECT_EQ(Reset(), 2);
  EXPECT_EQ(bench.modem.Count("reset"), 4);
  EXPECT_EQ(bench.modem.Count("reenumerate"), 4);
  EXPECT_EQ(bench.clock.Now(), 20000u);
  EXPECT_EQ(ToolKit::g_retry_times, 4u);
  EXPECT_THAT(Said(),
              ElementsAre("\t BootDeviceInFirmwareMode ++", "\t MBIM device NOT available.",
                          "\t Call BB_RST, g_retry_times: 0", "E:\t Call BB_RST FAIL. Retry after 5s.",
                          "\t Call BB_RST, g_retry_times: 1", "E:\t Call BB_RST FAIL. Retry after 5s.",
                          "\t Call BB_RST, g_retry_times: 2", "E:\t Call BB_RST FAIL. Retry after 5s.",
                          "\t Call BB_RST, g_retry_times: 3", "E:\t Call BB_RST FAIL. Retry after 5s.",
                          "E:\t Call BB_RST 4 times, reached maximum retry times!!!", "\t ControlBBrst --",
                          "\t CFirmwareDownloader::BootDeviceInFirmwareMode --, retValue: 2\n"));
}

TEST_F(ResetTest, SleepsHalfASecondTwiceAndFourSecondsBehindAFailure) {
  bench.modem.takesResets = {false, true};
  EXPECT_EQ(Reset(), 0);
  EXPECT_THAT(bench.clock.Sleeps(), ElementsAre(500u, 500u, 4000u, 500u, 500u, 1000u));
}

TEST_F(ResetTest, TellsThatTheTreesRootWasNotFoundAndPausesAllTheSame) {
  bench.modem.takesResets = {false, true};
  bench.modem.locateResult = CR_NO_SUCH_DEVNODE;
  EXPECT_EQ(Reset(), 0);
  EXPECT_THAT(bench.Said({"devicepresence.cpp"}), Contains("E:\t CM_Locate_DevNode failed: d\n"));
  EXPECT_EQ(bench.clock.Now(), 7000u);
}

TEST_F(ResetTest, IsNotTriedWithTheBudgetSpent) {
  ToolKit::g_retry_times = 9;
  EXPECT_EQ(Reset(), 2);
  EXPECT_THAT(bench.modem.heard, IsEmpty());
  EXPECT_THAT(Said(), Contains("E:\t Call BB_RST 9 times, reached maximum retry times!!!"));
  // Pinned right above the limit, from wherever it was.
  EXPECT_EQ(ToolKit::g_retry_times, 4u);
}

TEST_F(ResetTest, IsTriedOnceMoreWithTheBudgetJustReached) {
  ToolKit::g_retry_times = 3;
  EXPECT_EQ(Reset(), 0);
  EXPECT_EQ(bench.modem.Count("reset"), 1);
}

TEST_F(ResetTest, HasNoLimitWithMinusOneRetries) {
  ToolKit::mRetry_times = static_cast<unsigned long>(-1);
  bench.modem.takesResets = std::vector<bool>(21, false);
  bench.modem.takesResets.back() = true;
  EXPECT_EQ(Reset(), 0);
  EXPECT_EQ(bench.modem.Count("reset"), 21);
}

// --- The flash port --------------------------------------------------------------------------------------

class FlashPortTest : public BootTest {
 protected:
  /// The engine waits for the flash port of a modem that is on its way there.
  FlashPortTest() {
    engine->BootDeviceInFirmwareMode();
    bench.modem.heard.clear();
    said = Said().size();
  }
  std::vector<std::string> SaidSince() const {
    std::vector<std::string> all = Said();
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(said));
    return all;
  }
  int Monitor() { return engine->MonitorFlashPort(); }

  std::size_t said = 0;
};

TEST_F(FlashPortTest, IsFoundByTheFirstPollWhenItIsThere) {
  bench.modem.Become(Mode::Flash);
  EXPECT_EQ(Monitor(), 0);
  EXPECT_EQ(bench.clock.Now(), 0u);
  EXPECT_EQ(bench.modem.portLists, 1);
  EXPECT_EQ(ToolKit::g_retry_times, 0u);
  EXPECT_THAT(SaidSince(),
              ElementsAre(std::string(kSearchEnded) + "1\n", "\t Flash channel = " + FlashPort()));
}

TEST_F(FlashPortTest, TellsEachStepUnderItsProceduresName) {
  bench.modem.Become(Mode::Flash);
  Monitor();
  EXPECT_EQ(FunctionOf(bench.Records({"firmwareboot.cpp"}), "\t Flash channel = " + FlashPort()),
            "CFirmwareDownloader::MonitorFlashPort");
  EXPECT_EQ(FunctionOf(bench.Records({"firmwareboot.cpp"}), std::string(kSearchEnded) + "1\n"),
            "CFirmwareDownloader::CheckFlashPortImplementation");
}

TEST_F(FlashPortTest, TellsThatItDoesNotComeUnderTheMonitorsName) {
  bench.modem.Become(Mode::Absent);
  ToolKit::g_bIsFiveBranch = false;
  Monitor();
  const std::vector<LogRecord> records = bench.Records({"firmwareboot.cpp"});
  EXPECT_EQ(FunctionOf(records, "E:\t Timeout in waiting for flash channel"),
            "CFirmwareDownloader::MonitorFlashPort");
  EXPECT_EQ(FunctionOf(records, "E:\t Cannot get flash port, call BB_RST\n"),
            "CFirmwareDownloader::MonitorFlashPort");
}

SYSTEM_INFO SystemInfo() {
  SYSTEM_INFO info{};
  ::GetSystemInfo(&info);
  return info;
}

TEST_F(FlashPortTest, IsLookedForOnAThreadWhoseStackIsTheAllocationGranularity) {
  bench.modem.Become(Mode::Flash);
  Monitor();
  EXPECT_THAT(bench.clock.StackSizes(), ElementsAre(SystemInfo().dwAllocationGranularity));
}

// The search thread may have finished before its starter goes on.
TEST_F(FlashPortTest, IsFoundAtOnceBeforeTheSemaphoreExists) {
  bench.modem.Become(Mode::Flash);
  bench.clock.RunNewThreadsFirst();
  EXPECT_EQ(Monitor(), 0);
  EXPECT_EQ(bench.clock.Now(), 0u);
  EXPECT_THAT(SaidSince(), Contains("\t Flash channel = " + FlashPort()));
}

TEST_F(FlashPortTest, IsLookedForOnceASecond) {
  bench.modem.Become(Mode::Flash, 3500);
  EXPECT_EQ(Monitor(), 0);
  EXPECT_EQ(bench.clock.Now(), 4000u);
  EXPECT_EQ(bench.modem.portLists, 5);
}

TEST_F(FlashPortTest, IsWaitedForFor15Seconds) {
  bench.modem.Become(Mode::Absent);
  ToolKit::g_bIsFiveBranch = false;
  EXPECT_EQ(Monitor(), 2);
  EXPECT_EQ(bench.clock.Now(), 15000u);
  EXPECT_EQ(ToolKit::g_retry_times, 1u);
  EXPECT_THAT(bench.modem.heard, IsEmpty());
  EXPECT_THAT(SaidSince(), ElementsAre("E:\t Timeout in waiting for flash channel",
                                       "E:\t Cannot get flash port, call BB_RST\n"));
}

TEST_F(FlashPortTest, SearchEndsWithTheNextPollBehindTheTimeLimit) {
  bench.modem.Become(Mode::Absent);
  ToolKit::g_bIsFiveBranch = false;
  Monitor();
  bench.clock.RunUntilIdle();
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
  EXPECT_EQ(bench.modem.portLists, 15);
  EXPECT_THAT(SaidSince(), Contains(std::string(kSearchEnded) + "0\n"));
}

TEST_F(FlashPortTest, IsLookedForAgainBehindAReset) {
  bench.modem.Become(Mode::Absent);
  EXPECT_EQ(Monitor(), 0);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reset", "reenumerate"));
  // One for the search in vain, one for the reset.
  EXPECT_EQ(ToolKit::g_retry_times, 2u);
  EXPECT_THAT(SaidSince(), Contains("\t Flash channel = " + FlashPort()));
}

TEST_F(FlashPortTest, IsGivenUpWhenTheBudgetIsSpent) {
  bench.modem.Become(Mode::Absent);
  bench.modem.onReset = [] {};
  EXPECT_EQ(Monitor(), 2);
  EXPECT_EQ(bench.modem.Count("reset"), 2);
  EXPECT_EQ(ToolKit::g_retry_times, 4u);
  EXPECT_THAT(SaidSince(), Contains("E:\t Call BB_RST 5 times, reached maximum retry times!!!"));
}

TEST_F(FlashPortTest, ResetsWhenTheSearchThreadCannotBeStarted) {
  bench.modem.Become(Mode::Flash);
  bench.clock.RefuseThread(0, ERROR_NO_SYSTEM_RESOURCES);
  EXPECT_EQ(Monitor(), 0);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reset", "reenumerate"));
  EXPECT_EQ(ToolKit::g_retry_times, 2u);
  EXPECT_EQ(SaidSince().front(), "E:\t CheckFlashPortImplementation CreateThread error: 1450, call BB_RST\n");
  EXPECT_EQ(FunctionOf(bench.Records({"firmwareboot.cpp"}), SaidSince().front()),
            "CFirmwareDownloader::MonitorFlashPort");
}

TEST_F(FlashPortTest, FailsWhenNoThreadCanBeStartedAndNoResetIsAllowed) {
  bench.clock.RefuseEveryThread(ERROR_NO_SYSTEM_RESOURCES);
  ToolKit::g_bIsFiveBranch = false;
  EXPECT_EQ(Monitor(), 2);
  EXPECT_EQ(ToolKit::g_retry_times, 1u);
}

class NoSemaphoreTest : public FlashPortTest {
 protected:
  UniqueHandle taken{::CreateMutexW(nullptr, FALSE, simulator::OwnName(L"CFirmwareDownloader").c_str())};
};

TEST_F(NoSemaphoreTest, ResetsAndGoesOnSearchingMeanwhile) {
  bench.modem.Become(Mode::Absent);
  bench.modem.onReset = [this] {
    taken.reset();
    bench.modem.LeaveAndBecome(Mode::Flash, 8000);
  };
  EXPECT_EQ(Monitor(), 0);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reset", "reenumerate"));
  EXPECT_EQ(SaidSince().front(), "E:\t CreateSemaphore failed!, call BB_RST\n");
  EXPECT_EQ(FunctionOf(bench.Records({"firmwareboot.cpp"}), SaidSince().front()),
            "CFirmwareDownloader::MonitorFlashPort");
  EXPECT_THAT(SaidSince(), Not(Contains("E:\t Cannot get flash port, call BB_RST\n")));
  // Both searches, a second apart from each other's polls.
  EXPECT_GT(bench.modem.portLists, 15);
  bench.clock.RunUntilIdle();
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
}

TEST_F(NoSemaphoreTest, SearchThatNobodyWaitsForEndsWithItsAttempt) {
  bench.modem.Become(Mode::Absent);
  ToolKit::g_bIsFiveBranch = false;
  EXPECT_EQ(Monitor(), 2);
  bench.clock.Pause(5000);
  ASSERT_EQ(bench.clock.LivingThreads(), 1u);
  CFirmwareDownloader::Unload();
  bench.clock.Pause(1000);
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
}

// --- Booting ---------------------------------------------------------------------------------------------

class InjectTest : public BootTest {
 protected:
  InjectTest() { bench.modem.Become(Mode::Flash); }
  UpdateFirmwareResult Download() {
    const UpdateFirmwareResult result = FlashBench::Download(image);
    afterDownload = bench.library.calls;
    return result;
  }
  /// What the boot thread said, the search and the reset left out.
  bool HasSaid(const std::string& message) const { return bench.HasSaid(message); }
  int Slept(DWORD milliseconds) const {
    return static_cast<int>(
        std::count(bench.clock.Sleeps().begin(), bench.clock.Sleeps().end(), milliseconds));
  }

  std::string image = bench.AddImage(L"modem.fls", {1});
  std::vector<std::string> afterDownload;
};

TEST_F(InjectTest, FindsNoBootFileInAnEmptyList) {
  EXPECT_EQ(engine->InjectBootTarget(), 2);
  EXPECT_THAT(Said(), ElementsAre("\t InjectBootTargetThread timeout: 10s",
                                  "E:\t Boot File is NULL!, CFirmwareDownloader::InjectBootTargetThread --",
                                  "E:\t InjectBootTargetThread return FINIAL_FAIL"));
  EXPECT_THAT(bench.library.CallsOf({"get_next_free_channel"}), IsEmpty());
}

TEST_F(InjectTest, OpensTheFlashPortAndBootsTheImage) {
  EXPECT_EQ(Download(), FirmwareUpdated);
  EXPECT_THAT(bench.library.CallsOf({"get_next_free_channel", "open_comm_port", "boot_target"}),
              ElementsAre("get_next_free_channel()",
                          "open_comm_port(7, " + FlashPort() + ", " + FlashPort() + ", 921600)",
                          "boot_target(7, " + image + ")"));
  EXPECT_THAT(Said(), testing::IsSupersetOf(
                          {"\t InjectBootTargetThread timeout: 10s", "\t Downloader, GetNextFreeChannel",
                           "\t GetNextFreeChannel, mCommChannel:7", "\t Downloader, OpenCommPort",
                           "\t Downloader, BootTarget", "\t InjectBootTargetThread return OK"}));
}

TEST_F(InjectTest, TellsEachStepUnderTheThreadsName) {
  bench.library.results = {{"boot_target", 3}};
  bench.modem.onReset = [this] {
    bench.library.results = {{"open_comm_port", 3}};
    bench.modem.LeaveAndBecome(Mode::Flash, 2000);
  };
  ToolKit::mRetry_times = 1;
  Download();
  const std::vector<LogRecord> records = bench.Records({"firmwareboot.cpp"});
  for (const char* const told :
       {"\t Downloader, GetNextFreeChannel", "\t GetNextFreeChannel, mCommChannel:7",
        "\t Downloader, OpenCommPort", "\t Downloader, BootTarget",
        "E:\t ERROR: Boot Target failed due to a reason, call BB_RST\n", "\t Close Comm Port\n",
        "\t Wait 4s after close commport due to it will trigger UDE BB_RST\n",
        "E:\t ERROR: Open Comm Port failed due to a reason, call BB_RST\n",
        "\t Wait 4s after close commport due to it will trigger UDE bbrst\n"}) {
    EXPECT_EQ(FunctionOf(records, told), "CFirmwareDownloader::InjectBootTargetThread") << told;
  }
  EXPECT_EQ(FunctionOf(records, "\t InjectBootTargetThread timeout: 10s"),
            "CFirmwareDownloader::InjectBootTarget");
}

TEST_F(InjectTest, BootsOnAThreadWhoseStackIsTheAllocationGranularity) {
  Download();
  EXPECT_THAT(bench.clock.StackSizes(), testing::Each(SystemInfo().dwAllocationGranularity));
  EXPECT_EQ(bench.clock.StackSizes().size(), 2u);
}

/// Notes what has been told whenever the library closes the handle of a thread.
class ThreadHandles {
 public:
  explicit ThreadHandles(std::function<std::vector<std::string>()> told) {
    s_told = std::move(told);
    s_toldAtClose.clear();
    m_Patch.Replace("CloseHandle", &Close);
  }
  const std::vector<std::vector<std::string>>& ToldAtClose() const { return s_toldAtClose; }

 private:
  static BOOL WINAPI Close(HANDLE handle) {
    if (::GetThreadId(handle) != 0) s_toldAtClose.push_back(s_told());
    return ::CloseHandle(handle);
  }

  static inline std::function<std::vector<std::string>()> s_told;
  static inline std::vector<std::vector<std::string>> s_toldAtClose;

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

class BootHandleTest : public InjectTest {
 protected:
  /// What was told last when the boot thread's handle was closed.
  std::string LastToldBeforeTheClose() const {
    const auto& closes = handles.ToldAtClose();
    return closes.size() == 2 && !closes[1].empty() ? closes[1].back() : "not closed";
  }
  ThreadHandles handles{[this] { return Said(); }};
};

TEST_F(BootHandleTest, IsClosedBeforeASuccessIsTold) {
  Download();
  EXPECT_EQ(LastToldBeforeTheClose(), "\t Downloader, BootTarget");
}

TEST_F(BootHandleTest, IsClosedBeforeATimeOutIsTold) {
  bench.library.during["boot_target"] = [this] { bench.clock.Pause(60000); };
  Download();
  EXPECT_EQ(LastToldBeforeTheClose(), "\t Downloader, BootTarget");
}

BOOL WINAPI RefuseToNoteOffTheMainThread(DWORD slot, void* value) {
  static const DWORD mainThread = ::GetCurrentThreadId();
  if (::GetCurrentThreadId() == mainThread) return ::TlsSetValue(slot, value);
  ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return FALSE;
}

TEST_F(InjectTest, FailsWhenItCannotBeNotedForWhomTheThreadWorks) {
  RefuseToNoteOffTheMainThread(TLS_OUT_OF_INDEXES, nullptr);
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("TlsSetValue", &RefuseToNoteOffTheMainThread);
  EXPECT_EQ(Download(), FirmwareUpdateFailed);
  EXPECT_THAT(Said(),
              Contains("E:\t TlsSetValue failed with: 8, CFirmwareDownloader::InjectBootTargetThread --"));
  EXPECT_EQ(Said().back(), "E:\t InjectBootTargetThread return FINIAL_FAIL");
  EXPECT_EQ(bench.library.CallCount("get_next_free_channel"), 0);
}

DWORD g_threadWithMemory = 0;
bool g_othersHaveMemory = true;
void* __cdecl RefuseTheOtherThreads(std::size_t size) {
  const bool refused = !g_othersHaveMemory && ::GetCurrentThreadId() != g_threadWithMemory;
  return refused ? nullptr : std::malloc(size);
}

// It leaves no result, and that of the boot before must not pass for one.
TEST_F(InjectTest, FailsWhenTheBootThreadRunsOutOfMemoryBehindABootThatNeededAReset) {
  g_threadWithMemory = ::GetCurrentThreadId();
  g_othersHaveMemory = true;
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("malloc", &RefuseTheOtherThreads);
  bench.library.results["boot_target"] = 3;
  bench.modem.onReset = [this] {
    bench.library.results.clear();
    bench.library.during["get_next_free_channel"] = [] { g_othersHaveMemory = false; };
    bench.modem.LeaveAndBecome(Mode::Flash, 2000);
  };
  EXPECT_EQ(Download(), FirmwareUpdateFailed);
  EXPECT_EQ(bench.library.CallCount("open_comm_port"), 1);
  EXPECT_EQ(bench.modem.Count("reset"), 1);
  EXPECT_EQ(Said().back(), "E:\t InjectBootTargetThread return FINIAL_FAIL");
}

TEST_F(InjectTest, CountsABootThreadThatCannotBeStartedAsBooted) {
  bench.library.channel = 9;
  EXPECT_EQ(Download(), FirmwareUpdated);
  CFirmwareDownloader::Unload();
  bench.library.calls.clear();
  bench.clock.RefuseThread(1, ERROR_NO_SYSTEM_RESOURCES);
  EXPECT_EQ(Download(), FirmwareUpdated);
  EXPECT_EQ(FunctionOf(bench.Records({"firmwareboot.cpp"}),
                       "E:\t CreateThread InjectBootTargetThread FAIL: 0x5aa\n"),
            "CFirmwareDownloader::InjectBootTarget");
  EXPECT_THAT(afterDownload, Not(Contains("boot_target(7, " + image + ")")));
  // The channel is that of the attempt before.
  EXPECT_THAT(afterDownload, Contains("download_fls_file(9, |0|" + image + ")"));
}

TEST_F(InjectTest, ClosesAPortThatCannotBeOpenedPausesAndResets) {
  bench.library.during["open_comm_port"] = [this] { bench.library.during.clear(); };
  bench.library.results["open_comm_port"] = 3;
  bench.library.reason = "port is busy";
  bench.modem.onReset = [this] {
    bench.library.results.clear();
    bench.modem.LeaveAndBecome(Mode::Flash, 2000);
  };
  EXPECT_EQ(Download(), FirmwareUpdated);
  EXPECT_THAT(bench.modem.heard, ElementsAre("reset", "reenumerate"));
  EXPECT_EQ(Slept(4000), 1);
  // One for the port, one for the reset.
  EXPECT_EQ(ToolKit::g_retry_times, 2u);
  const std::vector<std::string> said = Said();
  const auto failed = std::find(said.begin(), said.end(),
                                "E:\t ERROR: Open Comm Port failed due to port is busy, call BB_RST\n");
  ASSERT_NE(failed, said.end());
  EXPECT_THAT(std::vector(failed, failed + 6),
              ElementsAre("E:\t ERROR: Open Comm Port failed due to port is busy, call BB_RST\n",
                          "\t Close Comm Port\n",
                          "\t Wait 4s after close commport due to it will trigger UDE bbrst\n",
                          "\t Call BB_RST, g_retry_times: 1", "\t Call BB_RST OK, waiting for flash port.",
                          "\t InjectBootTargetThread return NEED_BBRST"));
}

TEST_F(InjectTest, ClosesThePortOfATargetThatDoesNotBootPausesAndResets) {
  bench.library.results["boot_target"] = 3;
  bench.library.reason = "bad signature";
  bench.modem.onReset = [this] {
    bench.library.results.clear();
    bench.modem.LeaveAndBecome(Mode::Flash, 2000);
  };
  EXPECT_EQ(Download(), FirmwareUpdated);
  EXPECT_EQ(Slept(4000), 1);
  EXPECT_EQ(ToolKit::g_retry_times, 2u);
  const std::vector<std::string> said = Said();
  const auto failed = std::find(said.begin(), said.end(),
                                "E:\t ERROR: Boot Target failed due to bad signature, call BB_RST\n");
  ASSERT_NE(failed, said.end());
  EXPECT_THAT(std::vector(failed, failed + 6),
              ElementsAre("E:\t ERROR: Boot Target failed due to bad signature, call BB_RST\n",
                          "\t Close Comm Port\n",
                          "\t Wait 4s after close commport due to it will trigger UDE BB_RST\n",
                          "\t Call BB_RST, g_retry_times: 1", "\t Call BB_RST OK, waiting for flash port.",
                          "\t InjectBootTargetThread return NEED_BBRST"));
}

TEST_F(InjectTest, DoesNotPauseWhenThePortDoesNotClose) {
  bench.library.results = {{"boot_target", 3}, {"close_comm_port", 4}};
  bench.modem.onReset = [this] {
    bench.library.results.clear();
    bench.modem.LeaveAndBecome(Mode::Flash, 2000);
  };
  EXPECT_EQ(Download(), FirmwareUpdated);
  EXPECT_EQ(Slept(4000), 0);
  EXPECT_EQ(ToolKit::g_retry_times, 2u);
}

TEST_F(InjectTest, FailsForGoodWhenNoResetIsAllowed) {
  ToolKit::g_bIsFiveBranch = false;
  bench.library.results["boot_target"] = 3;
  EXPECT_EQ(Download(), FirmwareUpdateFailed);
  EXPECT_THAT(Said(), Contains("E:\t InjectBootTargetThread return FINIAL_FAIL"));
  EXPECT_THAT(bench.modem.heard, IsEmpty());
}

TEST_F(InjectTest, FailsForGoodWhenTheBudgetIsSpent) {
  bench.library.results["boot_target"] = 3;
  EXPECT_EQ(Download(), FirmwareUpdateFailed);
  // Each failed boot and each reset spend one of four.
  EXPECT_EQ(bench.library.CallCount("boot_target"), 3);
  EXPECT_EQ(bench.modem.Count("reset"), 2);
  EXPECT_EQ(ToolKit::g_retry_times, 4u);
  EXPECT_THAT(Said(), Contains("E:\t InjectBootTargetThread return FINIAL_FAIL"));
}

TEST_F(InjectTest, GivesABootThat10SecondsDoNotSufficeForUp) {
  bench.library.during["boot_target"] = [this] { bench.clock.Pause(60000); };
  EXPECT_EQ(Download(), FirmwareUpdateFailed);
  EXPECT_EQ(bench.clock.Now(), 10000u);
  EXPECT_THAT(Said(), Contains("E:\t InjectBootTargetThread timeout or other issue, return FINIAL_FAIL"));
  // An early end: the channel is not closed.
  EXPECT_EQ(bench.library.CallCount("close_comm_port"), 0);
}

TEST_F(InjectTest, EmptiesThePortForTheNextSearch) {
  bench.library.results["boot_target"] = 3;
  const std::string first = FlashPort();
  bench.modem.onReset = [this] {
    bench.library.results.clear();
    bench.modem.flashPortPath += L"-again";
    bench.modem.LeaveAndBecome(Mode::Flash, 2000);
  };
  EXPECT_EQ(Download(), FirmwareUpdated);
  EXPECT_THAT(bench.library.CallsOf({"open_comm_port"}),
              ElementsAre("open_comm_port(7, " + first + ", " + first + ", 921600)",
                          "open_comm_port(7, " + FlashPort() + ", " + FlashPort() + ", 921600)"));
}

}  // namespace
