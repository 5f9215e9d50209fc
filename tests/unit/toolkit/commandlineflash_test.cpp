#include <gmock/gmock.h>

#include <objbase.h>

#include "support/job_bench.h"
#include "support/scarce_memory.h"
#include "toolkit/flashjob.h"

using corvel::kCommandLineRules;
using corvel::kServiceRules;

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Mode = FakeModem::Mode;

constexpr int kGate = 1;

/// One flash on the test's own thread, as the command-line host asks for it.
class CommandLineFlashTest : public testing::Test {
 protected:
  bool Flash(int traceLevel = 3) {
    before = bench.host.Log().size();
    return ToolKit::FirmwareFlash_CmdLine(traceLevel, usb, 0, nullptr, nullptr);
  }
  /// What the flash itself said once the download had begun.
  std::vector<std::string> SaidByJob() const {
    std::vector<std::string> said = bench.SaidUnder("ToolKit::FirmwareFlash_CmdLine");
    said.erase(said.begin(), std::find(said.begin(), said.end(), "\t IPC Type :USB"));
    return said;
  }
  std::vector<std::string> SaidSince() const {
    std::vector<std::string> all = bench.host.Said();
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(before));
    return all;
  }
  void AllowRetries(DWORD times) const { bench.key.SetNumber(L"Retry_Times", times); }
  int Slept(DWORD milliseconds) const {
    return static_cast<int>(
        std::count(bench.clock.Sleeps().begin(), bench.clock.Sleeps().end(), milliseconds));
  }

  JobBench bench;
  char usb[4] = "USB";
  std::size_t before = 0;
};

TEST_F(CommandLineFlashTest, ReturnsFalseForASuccess) {
  EXPECT_FALSE(Flash());
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_EQ(bench.OnGoing(), 0);
  EXPECT_FALSE(bench.HasAnyImage());
  EXPECT_FALSE(bench.library.IsMapped());
}

/// Only a failed search and a worker that cannot be started leave the library as it is.
TEST_F(CommandLineFlashTest, WithoutMemoryForTheFlashItselfGivesTheLibraryBack) {
  constexpr int kAllocations = 30;
  int notFlashed = 0;
  for (int number = 1; number <= kAllocations; ++number) {
    bench.AddImage(L"nvm.fls", {5});
    bench.key.SetNumber(L"Fls_Ready", 1);
    bench.modem.Become(Mode::Normal);
    ToolKit::FetchModemNVMFls(CTString(bench.images.Path().c_str()));
    ScarceMemory memory;
    memory.Fail(number);
    EXPECT_NO_THROW(EXPECT_FALSE(Flash(0))) << "allocation " << number;
    memory.Suffice();
    const bool searchFailed = ToolKit::GetNVMFlsFile().IsEmpty();
    const bool workerMissing = bench.OnGoing() == 1;
    EXPECT_TRUE(!bench.library.IsMapped() || searchFailed || workerMissing) << "allocation " << number;
    if (bench.Result() != 4) ++notFlashed;
    CFirmwareDownloader::Unload();
  }
  EXPECT_GT(notFlashed, 0);
}

TEST_F(CommandLineFlashTest, RunsOneJobOnly) {
  Flash();
  EXPECT_EQ(bench.TimesSaid("\t start a new loop process"), 1);
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
  EXPECT_THAT(bench.Writes(),
              ElementsAre("Time_Out: 153000", "Flash_OnGoing: 0", "Flash_Progress: 0", "Flash_Result: 0",
                          "Time_Out: 153000", "Flash_OnGoing: 0", "Flash_Progress: 0", "Flash_Result: 0",
                          "Flash_OnGoing: 1", "Flash_Result: 1", "Flash_Progress: 100", "Flash_OnGoing: 0",
                          "Flash_Result: 4"));
}

TEST_F(CommandLineFlashTest, BeginsWithItsOwnMessage) {
  Flash();
  EXPECT_EQ(SaidSince().front(), "++ MainThreadImplementation");
  EXPECT_EQ(SaidSince()[1], "ToolKit::CheckModemBranch ++\n");
}

TEST_F(CommandLineFlashTest, LoadsTheLibraryBeforeThePassOnceForAll) {
  Flash();
  const std::vector<std::string> all = SaidSince();
  const auto pass = std::find(all.begin(), all.end(), "\t start a new loop process");
  ASSERT_NE(pass, all.end());
  EXPECT_EQ(*(pass + 1), "++ CDownloadToolDll::Load");
  EXPECT_EQ(*(pass + 2), "CDownloadToolDll::Load ,SetFunctionPointers()");
  EXPECT_EQ(*(pass + 3), "\t Initialze registry");
  EXPECT_EQ(bench.library.loads, 1);
}

TEST_F(CommandLineFlashTest, WithTraceLevelZeroWritesNoLogAtAll) {
  EXPECT_FALSE(Flash(0));
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_THAT(SaidSince(), IsEmpty());
}

TEST_F(CommandLineFlashTest, WithANegativeTraceLevelWritesNoLogAtAll) {
  Flash(-1);
  EXPECT_THAT(SaidSince(), IsEmpty());
}

TEST_F(CommandLineFlashTest, WithAPositiveTraceLevelTurnsTheLogOn) {
  ToolKit::TurnLoggingOff();
  Flash(1);
  EXPECT_EQ(SaidSince().front(), "++ MainThreadImplementation");
}

TEST_F(CommandLineFlashTest, UsesTheIpcTypeThatItIsGiven) {
  char pcie[] = "PCIE";
  ToolKit::FirmwareFlash_CmdLine(3, pcie, 1, nullptr, nullptr);
  EXPECT_TRUE(bench.HasSaid("\t IPC Type :PCIE"));
  EXPECT_EQ(bench.library.parameter39, "PCIE");
}

TEST_F(CommandLineFlashTest, TakesUsbWithoutAnIpcType) {
  ToolKit::FirmwareFlash_CmdLine(3, nullptr, 0, nullptr, nullptr);
  EXPECT_TRUE(bench.HasSaid("\t IPC Type :USB"));
  EXPECT_EQ(bench.Result(), 4);
}

TEST_F(CommandLineFlashTest, IgnoresItsLastThreeArguments) {
  char modem[] = "C:\\other\\modem.fls";
  char nvm[] = "C:\\other\\nvm.fls";
  ToolKit::FirmwareFlash_CmdLine(3, usb, 99, modem, nvm);
  EXPECT_TRUE(bench.HasSaid("\t m_FirmwareFile:" + bench.modemImage + ", m_CustFile:" + bench.nvmImage));
  EXPECT_EQ(bench.Result(), 4);
}

TEST_F(CommandLineFlashTest, WaitsForTheFlagAsTheServiceDoes) {
  bench.key.SetNumber(L"Fls_Ready", 0);
  bench.clock.Start([this] { Flash(); });
  bench.clock.RunUntilIdle();
  EXPECT_EQ(bench.clock.LivingThreads(), 1u);
  EXPECT_EQ(bench.Downloads(), 0);
  bench.key.SetNumber(L"Fls_Ready", 1);
  bench.clock.DeliverSignals();
  bench.clock.RunUntilIdle();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
}

// --- Early ends ------------------------------------------------------------------------------------------

TEST_F(CommandLineFlashTest, EndsWithoutTheFolderAndLeavesResultAndFlag) {
  FlashBench::Configure(L"[ModemAndNVMFirmwareFolder]", L"C:\\no\\such\\folder");
  EXPECT_FALSE(Flash());
  EXPECT_EQ(bench.Result(), 0);
  EXPECT_EQ(bench.Ready(), 1);
  EXPECT_EQ(bench.clock.Now(), 0u);
  EXPECT_EQ(SaidSince().back(),
            "\t Can't find available fls, monitor again, continue to monitor registry change and fetch "
            "modem/nvm files");
}

TEST_F(CommandLineFlashTest, EndsWithoutAConfiguredFolder) {
  FlashBench::Configure(L"[ModemAndNVMFirmwareFolder]", L"");
  EXPECT_FALSE(Flash());
  EXPECT_EQ(bench.Result(), 0);
  EXPECT_EQ(bench.Ready(), 1);
  EXPECT_TRUE(bench.HasImages());
}

TEST_F(CommandLineFlashTest, EndsWithoutAConfigurationInAHostOfAnotherApartment) {
  CConfigParser::ReleaseInstance();
  ASSERT_EQ(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
  EXPECT_FALSE(Flash());
  EXPECT_EQ(bench.Result(), 0);
  EXPECT_EQ(bench.Ready(), 1);
  ::CoUninitialize();
}

TEST_F(CommandLineFlashTest, EndsWhenTheWorkerCannotBeStartedAndLeavesEverything) {
  bench.clock.RefuseThread(0, ERROR_NO_SYSTEM_RESOURCES);
  EXPECT_FALSE(Flash());
  EXPECT_EQ(bench.Result(), 1);
  EXPECT_EQ(bench.OnGoing(), 1);
  EXPECT_EQ(bench.Ready(), 1);
  EXPECT_TRUE(bench.HasImages());
  EXPECT_EQ(bench.clock.Now(), 0u);
  EXPECT_THAT(SaidByJob(),
              ElementsAre("\t IPC Type :USB", "E:CreateThread DownloadFirmwareImplementation FAIL: 0x5aa\n"));
}

// --- What it says, in order ------------------------------------------------------------------------------

TEST_F(CommandLineFlashTest, TellsASuccess) {
  Flash();
  EXPECT_THAT(SaidByJob(), ElementsAre("\t IPC Type :USB", "DownloadFirmwareImplementation timeout: 130s",
                                       "Flash OK, to wait for MBIM Modem re-arrival",
                                       "\t check m_MBIM_Modem_presence: 1, Re-arrived\n",
                                       "\t MBIM Modem re-arrival, FW update OK"));
}

TEST_F(CommandLineFlashTest, TellsFailedDownloadsAndPausesFourSecondsBetween) {
  AllowRetries(1);
  bench.FailDownloads(2);
  EXPECT_FALSE(Flash());
  EXPECT_THAT(SaidByJob(), ElementsAre("\t IPC Type :USB", "DownloadFirmwareImplementation timeout: 130s",
                                       "E:Flash NOT success, goto Flash_FAILED",
                                       "E:Flash FAIL, retry again, g_retry_times: 1(Max 1)",
                                       "After unload dll, wait 4s for UDE CALL BB_RST",
                                       "DownloadFirmwareImplementation timeout: 130s",
                                       "E:Flash NOT success, goto Flash_FAILED",
                                       "E:\t Flash still failed after reach maximum retry value"));
  EXPECT_EQ(Slept(4000), 1);
  EXPECT_EQ(Slept(5000), 0);
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_EQ(bench.OnGoing(), 1);
}

TEST_F(CommandLineFlashTest, TellsADownloadThatHangs) {
  AllowRetries(0);
  bench.library.during["download_fls_file"] = [this] { bench.clock.WaitAtGate(kGate); };
  Flash();
  EXPECT_THAT(SaidByJob(), ElementsAre("\t IPC Type :USB", "DownloadFirmwareImplementation timeout: 130s",
                                       "E:Flash timeout or other issue, goto Flash_FAILED",
                                       "E:\t Flash still failed after reach maximum retry value"));
  bench.clock.Open(kGate);
}

TEST_F(CommandLineFlashTest, DoesNotLookOnceMoreForAModemThatIsBackTooLate) {
  bench.ComesBackAfter(22500);
  bench.modem.onReset = [] {};
  EXPECT_FALSE(Flash());
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(bench.modem.Count("reset"), 1);
  EXPECT_THAT(SaidByJob(), ElementsAre("\t IPC Type :USB", "DownloadFirmwareImplementation timeout: 130s",
                                       "Flash OK, to wait for MBIM Modem re-arrival",
                                       "E:\t Wait Modem re-arrival timeout or other issue, call BB_RST\n",
                                       "E:\t MBIM device not arrival, retry again, 1(Max 3)",
                                       "\t check m_MBIM_Modem_presence: 1, Re-arrived\n",
                                       "\t MBIM Modem re-arrival, FW update OK"));
}

TEST_F(CommandLineFlashTest, SaysRetryForAModemThatDoesNotSupportTheReset) {
  bench.library.during["force_target_reset"] = [this] {
    ToolKit::g_bIsFiveBranch = false;
    bench.modem.LeaveAndBecome(Mode::Normal, 22500);
  };
  Flash();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_THAT(SaidByJob(), Contains("E:\t Wait Modem re-arrival timeout or other issue, retry\n"));
  EXPECT_EQ(bench.modem.Count("reset"), 0);
}

TEST_F(CommandLineFlashTest, TellsAModemThatNeverComesBack) {
  AllowRetries(0);
  bench.NeverComesBack();
  Flash();
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.OnGoing(), 0);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_THAT(SaidByJob(), ElementsAre("\t IPC Type :USB", "DownloadFirmwareImplementation timeout: 130s",
                                       "Flash OK, to wait for MBIM Modem re-arrival",
                                       "E:\t Wait Modem re-arrival timeout or other issue, call BB_RST\n",
                                       "E:\t Flash still failed after reach maximum retry value.\n",
                                       "E:\t Flash OK, but wait Modem re-arrived failed"));
}

// --- The table of differences ----------------------------------------------------------------------------

TEST(FlashJobRulesTest, ServiceAndCommandLineDifferInThreeDecisions) {
  EXPECT_TRUE(kServiceRules.countsMissingWorker);
  EXPECT_FALSE(kCommandLineRules.countsMissingWorker);
  EXPECT_EQ(kServiceRules.pauseBeforeRetryMs, 5000u);
  EXPECT_EQ(kCommandLineRules.pauseBeforeRetryMs, 4000u);
  EXPECT_TRUE(kServiceRules.looksOnceMore);
  EXPECT_FALSE(kCommandLineRules.looksOnceMore);
}

}  // namespace
