#include "toolkit/flashjob.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>

#include "common/narrow.h"
#include "support/job_bench.h"

using corvel::FlashJob;
using corvel::FlashJobRules;
using corvel::kCommandLineRules;
using corvel::kServiceRules;
using corvel::Narrow;
using corvel::Utf8FromWide;
using corvel::WideFromUtf8;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Mode = FakeModem::Mode;

constexpr int kGate = 1;

struct Rules {
  const char* name;
  const FlashJobRules* rules;
};

/// What service and command line have in common. The flag is raised, the job runs on the test's thread.
class FlashJobTest : public testing::TestWithParam<Rules> {
 protected:
  void RunJob() {
    FlashJob job(*GetParam().rules);
    job.AwaitRequest();
    ASSERT_TRUE(job.FindImages());
    job.Run();
  }
  void AllowRetries(DWORD times) const { bench.key.SetNumber(L"Retry_Times", times); }
  std::vector<std::string> Said() const { return bench.SaidUnder(GetParam().rules->procedure); }
  std::vector<std::string> SaidByWorker() const {
    return bench.SaidUnder("ToolKit::DownloadFirmwareImplementation");
  }
  std::vector<std::string> SaidByWatcher() const {
    return bench.SaidUnder("ToolKit::WaitForMBIMRearrivedImplementation");
  }
  DWORD Pause() const { return GetParam().rules->pauseBeforeRetryMs; }
  int Slept(DWORD milliseconds) const {
    return static_cast<int>(
        std::count(bench.clock.Sleeps().begin(), bench.clock.Sleeps().end(), milliseconds));
  }

  JobBench bench;
};

INSTANTIATE_TEST_SUITE_P(BothWays, FlashJobTest,
                         testing::Values(Rules{"Service", &kServiceRules},
                                         Rules{"CommandLine", &kCommandLineRules}),
                         [](const auto& row) { return row.param.name; });

// --- Before the download ---------------------------------------------------------------------------------

TEST_P(FlashJobTest, WritesFourInitialValues) {
  FlashJob::WriteInitialValues();
  EXPECT_THAT(bench.Writes(),
              ElementsAre("Time_Out: 153000", "Flash_OnGoing: 0", "Flash_Progress: 0", "Flash_Result: 0"));
}

TEST_P(FlashJobTest, ReadiesTheRegistryBeforeItWaitsForTheFlag) {
  ToolKit::g_retry_times = 7;
  FlashJob(*GetParam().rules).AwaitRequest();
  EXPECT_EQ(ToolKit::g_retry_times, 0u);
  EXPECT_THAT(bench.Writes(), ElementsAre("Time_Out: 153000", "Flash_OnGoing: 0"));
  EXPECT_THAT(Said(), ElementsAre("\t Initialze registry", "\t Monitor flash ready flag to be ready"));
}

TEST_P(FlashJobTest, AllowsThreeRetriesUnlessTheControllerSaysOtherwise) {
  FlashJob(*GetParam().rules).AwaitRequest();
  EXPECT_EQ(ToolKit::mRetry_times, 3u);
  AllowRetries(0);
  FlashJob(*GetParam().rules).AwaitRequest();
  EXPECT_EQ(ToolKit::mRetry_times, 0u);
}

TEST_P(FlashJobTest, TakesTheImagesFromTheConfiguredFolder) {
  EXPECT_TRUE(FlashJob(*GetParam().rules).FindImages());
  EXPECT_THAT(bench.Writes(), ElementsAre("Flash_Progress: 0", "Flash_Result: 0"));
  EXPECT_THAT(Said(), ElementsAre("\t fetch modem & NVM folder, m_nModemNVMFolder:" +
                                  Utf8FromWide(bench.images.Path().wstring())));
  EXPECT_EQ(Narrow(ToolKit::m_ModemFlsFile), bench.modemImage);
  EXPECT_EQ(Narrow(ToolKit::m_NVMFlsFile), bench.nvmImage);
}

TEST_P(FlashJobTest, TellsThatThereAreNoImages) {
  FlashBench::Configure(L"[ModemAndNVMFirmwareFolder]", L"C:\\no\\such\\folder");
  EXPECT_FALSE(FlashJob(*GetParam().rules).FindImages());
  EXPECT_EQ(Said().back(),
            "\t Can't find available fls, monitor again, continue to monitor registry change and fetch "
            "modem/nvm files");
}

// --- A job that succeeds ---------------------------------------------------------------------------------

TEST_P(FlashJobTest, SucceedsWhenTheModemIsFlashedAndComesBack) {
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_EQ(bench.OnGoing(), 0);
  EXPECT_EQ(bench.Progress(), 100);
  EXPECT_EQ(bench.Downloads(), 1);
}

TEST_P(FlashJobTest, ReportsEachStageOfASuccess) {
  RunJob();
  EXPECT_THAT(bench.Writes(), ElementsAre("Time_Out: 153000", "Flash_OnGoing: 0", "Flash_Progress: 0",
                                          "Flash_Result: 0", "Flash_OnGoing: 1", "Flash_Result: 1",
                                          "Flash_Progress: 100", "Flash_OnGoing: 0", "Flash_Result: 4"));
}

TEST_P(FlashJobTest, GivesTheLibraryBackAndDeletesTheImagesInTheEnd) {
  RunJob();
  EXPECT_FALSE(bench.library.IsMapped());
  EXPECT_FALSE(bench.HasAnyImage());
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
}

TEST_P(FlashJobTest, HandsTheModemImageAndTheNvmImageToTheEngine) {
  RunJob();
  EXPECT_TRUE(bench.HasSaid("\t m_FirmwareFile:" + bench.modemImage + ", m_CustFile:" + bench.nvmImage));
}

TEST_P(FlashJobTest, FlashesAnNvmImageAlone) {
  std::filesystem::remove(bench.images.Path() / L"modem.fls");
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
}

TEST_P(FlashJobTest, FlashesWithoutProgressWhenTheCallbackIsRefused) {
  bench.library.results["init_callback"] = 1;
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(bench.library.loads, 1);
}

TEST_P(FlashJobTest, TellsTheConfiguredIpcType) {
  FlashBench::Configure(L"[IPCTYPE]", L"PCIE");
  RunJob();
  EXPECT_THAT(Said(), Contains("\t IPC Type :PCIE"));
}

TEST_P(FlashJobTest, WorkerTellsItsResult) {
  RunJob();
  EXPECT_THAT(SaidByWorker(), ElementsAre("ToolKit::DownloadFirmwareImplementation ++",
                                          "ToolKit::DownloadFirmwareImplementation --, result: 1"));
}

// --- Downloads that fail ---------------------------------------------------------------------------------

TEST_P(FlashJobTest, EndsWithTheFirstFailedDownloadWhenNoRetryIsAllowed) {
  AllowRetries(0);
  bench.FailDownloads(1);
  RunJob();
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_EQ(bench.Downloads(), 1);
  EXPECT_FALSE(bench.HasAnyImage());
  EXPECT_FALSE(bench.library.IsMapped());
  EXPECT_THAT(Said(), Contains("E:\t Flash still failed after reach maximum retry value"));
}

TEST_P(FlashJobTest, MakesAtMostFourDownloadsByDefault) {
  bench.FailDownloads(100);
  RunJob();
  EXPECT_EQ(bench.Downloads(), 4);
  EXPECT_EQ(bench.Result(), 3);
}

TEST_P(FlashJobTest, LeavesTheOnGoingFlagSetBehindFailedDownloads) {
  bench.FailDownloads(100);
  RunJob();
  EXPECT_EQ(bench.OnGoing(), 1);
}

TEST_P(FlashJobTest, HasNoLimitWithMinusOneRetries) {
  AllowRetries(static_cast<DWORD>(-1));
  bench.FailDownloads(12);
  RunJob();
  EXPECT_EQ(bench.Downloads(), 13);
  EXPECT_EQ(bench.Result(), 4);
}

TEST_P(FlashJobTest, ReportsARetriedDownload) {
  bench.FailDownloads(1);
  RunJob();
  EXPECT_THAT(bench.Writes(),
              ElementsAre("Time_Out: 153000", "Flash_OnGoing: 0", "Flash_Progress: 0", "Flash_Result: 0",
                          "Flash_OnGoing: 1", "Flash_Result: 1", "Flash_Result: 2", "Flash_OnGoing: 1",
                          "Flash_Result: 1", "Flash_Progress: 100", "Flash_OnGoing: 0", "Flash_Result: 4"));
}

TEST_P(FlashJobTest, LoadsTheLibraryAnewForEachDownload) {
  bench.FailDownloads(2);
  RunJob();
  EXPECT_EQ(bench.library.loads, 3);
}

TEST_P(FlashJobTest, UnloadsTheLibraryBeforeItPausesAndTriggersNoReset) {
  bench.FailDownloads(1);
  RunJob();
  EXPECT_EQ(Slept(Pause()), 1);
  EXPECT_EQ(bench.modem.Count("reset"), 0);
  const std::vector<std::string> all = bench.host.Said();
  const auto unloaded = std::find(all.begin(), all.end(), "\t Unload --");
  ASSERT_NE(unloaded, all.end());
  EXPECT_EQ(*(unloaded + 1), GetParam().rules->pauseBeforeRetry);
}

TEST_P(FlashJobTest, CountsAnyResultButOneAsAFailureThoughTheWorkerEndedInTime) {
  AllowRetries(0);
  bench.library.results["download_fls_file"] = 1;
  RunJob();
  EXPECT_THAT(SaidByWorker(), Contains("ToolKit::DownloadFirmwareImplementation --, result: 5"));
  EXPECT_EQ(bench.Result(), 3);
}

TEST_P(FlashJobTest, FailsWithoutAnyImageInAFolderThatIsAFile) {
  FlashBench::Configure(L"[ModemAndNVMFirmwareFolder]", WideFromUtf8(bench.nvmImage).c_str());
  RunJob();
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.TimesSaid("E:\t both Modem and NVM fls file is empty, Download --"), 4);
  EXPECT_EQ(Slept(Pause()), 3);
}

TEST_P(FlashJobTest, FailsWithoutTheLibrary) {
  bench.library.loadError = ERROR_MOD_NOT_FOUND;
  RunJob();
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.TimesSaid("ToolKit::DownloadFirmwareImplementation --, result: 0"), 4);
}

// The attempts of a job share what the engine spends on recovery.
TEST_P(FlashJobTest, EndsFurtherAttemptsBeforeTheBootOnceTheRecoveryBudgetIsSpent) {
  bench.modem.Become(Mode::Absent);
  bench.modem.takesResets = {false};
  RunJob();
  EXPECT_EQ(bench.modem.Count("reset"), 4);
  EXPECT_EQ(bench.TimesSaid("\t GO BootDeviceInFirmwareMode, g_retry_times: 0\n"), 1);
  EXPECT_EQ(bench.TimesSaid("ToolKit::DownloadFirmwareImplementation --, result: 5"), 4);
}

TEST_P(FlashJobTest, ProgressFallsWithARetryAndNothingWritesZeroBetween) {
  bench.library.bars["|0|" + bench.modemImage] = 98;
  bench.library.during["download_fls_file(7, |0|" + bench.modemImage + ")"] = [this] {
    bench.library.ReportSending();
    bench.library.ReportPercent(bench.library.loads == 1 ? "57" : "1");
  };
  bench.FailDownloads(1);
  RunJob();
  std::vector<std::string> progress = bench.Writes();
  std::erase_if(progress, [](const auto& write) { return !write.starts_with("Flash_Progress"); });
  EXPECT_THAT(progress, ElementsAre("Flash_Progress: 0", "Flash_Progress: 56", "Flash_Progress: 1",
                                    "Flash_Progress: 100"));
}

// --- Downloads that hang ---------------------------------------------------------------------------------

class HangingJobTest : public FlashJobTest {
 protected:
  /// The first call of this function hangs until the test lets it return.
  void HangOnceIn(const std::string& function) {
    const auto usual = bench.library.during[function];
    bench.library.during[function] = [this, function, usual] {
      bench.library.during[function] = usual;
      bench.clock.WaitAtGate(kGate);
      bench.library.ReportSending();
      bench.library.ReportPercent("99");
    };
  }
  void Return() {
    bench.clock.Open(kGate);
    bench.clock.RunUntilIdle();
  }
};

INSTANTIATE_TEST_SUITE_P(BothWays, HangingJobTest,
                         testing::Values(Rules{"Service", &kServiceRules},
                                         Rules{"CommandLine", &kCommandLineRules}),
                         [](const auto& row) { return row.param.name; });

TEST_P(HangingJobTest, GivesAnAttemptUpAfter130Seconds) {
  AllowRetries(0);
  HangOnceIn("set_dll_parameter(41, 0)");
  RunJob();
  EXPECT_EQ(bench.clock.Now(), 130000u);
  EXPECT_EQ(bench.Result(), 3);
  Return();
}

// The system may take its time to let a thread begin.
TEST_P(HangingJobTest, WorkerThatBeginsDuringTheNextAttemptTakesNoPartInIt) {
  bench.clock.HoldThread(0, kGate);
  bool isForgotten = true;
  std::vector<std::string> duringTheBeginning;
  const auto usual = bench.library.during["force_target_reset"];
  bench.library.during["force_target_reset"] = [&, usual] {
    ToolKit::mFlashResult = FirmwareUpdateFailed;
    const std::size_t before = bench.library.calls.size();
    bench.clock.Open(kGate);
    bench.clock.Pause(1000);
    isForgotten = ToolKit::mFlashResult != FirmwareUpdateFailed;
    duringTheBeginning.assign(bench.library.calls.begin() + static_cast<std::ptrdiff_t>(before),
                              bench.library.calls.end());
    usual();
  };
  RunJob();
  EXPECT_FALSE(isForgotten);
  EXPECT_THAT(duringTheBeginning, IsEmpty());
  EXPECT_EQ(bench.Downloads(), 1);
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_THAT(SaidByWorker(), ElementsAre("ToolKit::DownloadFirmwareImplementation ++",
                                          "W:\t Given up before it began, nothing is downloaded",
                                          "ToolKit::DownloadFirmwareImplementation --, result: 1"));
}

TEST_P(HangingJobTest, WorkerThatBeginsBehindTheJobMakesNoEngine) {
  AllowRetries(0);
  bench.clock.HoldThread(0, kGate);
  RunJob();
  EXPECT_EQ(bench.Result(), 3);
  Return();
  EXPECT_EQ(bench.library.loads, 1);
  EXPECT_EQ(CFirmwareDownloader::Present(), nullptr);
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
}

TEST_P(HangingJobTest, MakesAnotherAttemptThatSucceeds) {
  HangOnceIn("download_fls_file");
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_EQ(bench.library.loads, 2);
  Return();
  EXPECT_EQ(bench.Result(), 4);
}

TEST_P(HangingJobTest, KeepsTheLibraryMappedForTheWorkerThatIsStillInside) {
  HangOnceIn("download_fls_file");
  RunJob();
  EXPECT_EQ(bench.library.references, 1);
  EXPECT_EQ(bench.clock.LivingThreads(), 1u);
  Return();
  EXPECT_EQ(bench.library.references, 0);
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
}

TEST_P(HangingJobTest, WorkerThatComesBackBehindTheJobChangesNothing) {
  HangOnceIn("download_fls_file");
  RunJob();
  const std::vector<std::string> calls = bench.library.calls;
  const std::vector<std::string> heard = bench.modem.heard;
  const std::vector<std::string> writes = bench.Writes();
  Return();
  EXPECT_EQ(bench.library.calls, calls);
  EXPECT_EQ(bench.modem.heard, heard);
  EXPECT_EQ(bench.Writes(), writes);
  EXPECT_EQ(ToolKit::mFlashResult, FirmwareUpdated);
  EXPECT_EQ(ToolKit::g_retry_times, 0u);
}

TEST_P(HangingJobTest, WorkerThatComesBackDuringTheNextAttemptChangesNothing) {
  HangOnceIn("download_fls_file");
  const auto usual = bench.library.during["force_target_reset"];
  bench.library.during["force_target_reset"] = [this, usual] {
    bench.clock.Open(kGate);
    bench.clock.Pause(1000);
    EXPECT_EQ(bench.clock.LivingThreads(), 1u);
    EXPECT_EQ(bench.Progress(), 0);
    usual();
  };
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(ToolKit::mFlashResult, FirmwareUpdated);
}

// It did flash the modem, but a newer attempt counts by now.
TEST_P(HangingJobTest, SuccessOfAWorkerThatWasGivenUpCountsForNothing) {
  AllowRetries(0);
  HangOnceIn("force_target_reset");
  RunJob();
  EXPECT_EQ(bench.Result(), 3);
  Return();
  EXPECT_THAT(SaidByWorker(), Contains("ToolKit::DownloadFirmwareImplementation --, result: 1"));
  EXPECT_EQ(ToolKit::mFlashResult, FirmwareNotUpdated);
  EXPECT_EQ(bench.Progress(), 0);
  EXPECT_EQ(bench.Result(), 3);
}

// --- The modem's return ----------------------------------------------------------------------------------

TEST_P(FlashJobTest, FindsTheModemWithinASecondOfItsReturn) {
  bench.ComesBackAfter(7500);
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_THAT(SaidByWatcher(), ElementsAre("WaitForMBIMRearrivedImplementation ++", "\t MBIM modem re-found",
                                           "WaitForMBIMRearrivedImplementation --"));
  EXPECT_THAT(Said(), Contains("\t check m_MBIM_Modem_presence: 1, Re-arrived\n"));
  EXPECT_TRUE(ToolKit::m_MBIM_Modem_presence);
  EXPECT_FALSE(ToolKit::m_MBIM_Modem_monitor);
}

TEST_P(FlashJobTest, ResetsTheBasebandOfAModemThatDoesNotComeBackAndDownloadsNothingAgain) {
  bench.NeverComesBack();
  bench.modem.onReset = [this] { bench.modem.LeaveAndBecome(Mode::Normal, 2000); };
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(bench.modem.Count("reset"), 1);
  EXPECT_EQ(bench.Downloads(), 1);
  EXPECT_EQ(Slept(3000), 1);
  EXPECT_THAT(Said(), Contains("E:\t MBIM device not arrival, retry again, 1(Max 3)"));
}

TEST_P(FlashJobTest, GivesAModemThatNeverComesBackUpAfterThreeRetries) {
  bench.NeverComesBack();
  RunJob();
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_EQ(bench.OnGoing(), 0);
  EXPECT_EQ(bench.modem.Count("reset"), 3);
  EXPECT_EQ(bench.Downloads(), 1);
  EXPECT_FALSE(bench.HasAnyImage());
  EXPECT_EQ(Said()[Said().size() - 1], "E:\t Flash OK, but wait Modem re-arrived failed");
  EXPECT_EQ(Said()[Said().size() - 2], std::string("E:") + GetParam().rules->rearrivalLimitReached);
}

TEST_P(FlashJobTest, ForgetsThatTheModemCameBackFromAnEarlierFlash) {
  AllowRetries(0);
  ToolKit::m_MBIM_Modem_presence = true;
  bench.NeverComesBack();
  RunJob();
  EXPECT_FALSE(ToolKit::m_MBIM_Modem_presence);
}

TEST_P(FlashJobTest, ReportsAModemThatNeverComesBack) {
  AllowRetries(1);
  bench.NeverComesBack();
  RunJob();
  EXPECT_THAT(bench.Writes(),
              ElementsAre("Time_Out: 153000", "Flash_OnGoing: 0", "Flash_Progress: 0", "Flash_Result: 0",
                          "Flash_OnGoing: 1", "Flash_Result: 1", "Flash_Progress: 100", "Flash_Result: 2",
                          "Flash_OnGoing: 0", "Flash_Result: 3"));
}

TEST_P(FlashJobTest, WaitsForTheModemFor23SecondsEachTime) {
  AllowRetries(1);
  ULONGLONG flashed = 0;
  bench.library.during["force_target_reset"] = [this, &flashed] {
    flashed = bench.clock.Now();
    bench.modem.Become(Mode::Absent);
  };
  bench.modem.onReset = [] {};
  RunJob();
  EXPECT_EQ(bench.clock.Now() - flashed, 23000u + 3000u + 23000u);
}

TEST_P(FlashJobTest, TriggersNoResetOnAModemThatDoesNotSupportIt) {
  bench.library.during["force_target_reset"] = [this] {
    ToolKit::g_bIsFiveBranch = false;
    bench.modem.LeaveAndBecome(Mode::Normal, 30000);
  };
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_THAT(bench.modem.heard, Not(Contains("reset")));
}

TEST_P(FlashJobTest, WatcherEndsWithItsNextPollWhenTheWaitIsOver) {
  AllowRetries(0);
  bench.NeverComesBack();
  RunJob();
  bench.clock.RunUntilIdle();
  EXPECT_EQ(bench.clock.LivingThreads(), 0u);
  EXPECT_THAT(SaidByWatcher(),
              ElementsAre("WaitForMBIMRearrivedImplementation ++", "WaitForMBIMRearrivedImplementation --"));
}

// Downloads and waits draw on the same counter: with three retries, four of them may fail.
TEST_P(FlashJobTest, TwoFailedDownloadsLeaveTwoWaitsForTheModem) {
  bench.NeverComesBack();
  const auto leave = bench.library.during["force_target_reset"];
  bench.library.results["force_target_reset"] = 1;
  bench.library.during["force_target_reset"] = [this, leave] {
    if (bench.Downloads() < 3) return;
    bench.library.results.clear();
    leave();
  };
  RunJob();
  EXPECT_EQ(bench.Downloads(), 3);
  EXPECT_EQ(bench.TimesSaid("WaitForMBIMRearrivedImplementation ++"), 2);
  EXPECT_EQ(bench.TimesSaid("E:\t MBIM device not arrival, retry again, 3(Max 3)"), 1);
  EXPECT_EQ(bench.Result(), 3);
}

TEST_P(FlashJobTest, CountsAWatcherThatCannotBeStartedAsAFailedWait) {
  // After the download worker, the port search and the boot thread.
  bench.clock.RefuseThread(3, ERROR_NO_SYSTEM_RESOURCES);
  bench.modem.onReset = [] {};
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_THAT(Said(), Contains("E:\t CreateThread WaitForMBIMRearrivedImplementation error: 5aa\n"));
  EXPECT_THAT(Said(), Contains("E:\t MBIM device not arrival, retry again, 1(Max 3)"));
}

// --- The end ---------------------------------------------------------------------------------------------

LSTATUS WINAPI RefuseReadyFlag(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data,
                               DWORD size) {
  if (std::wcscmp(name, L"Fls_Ready") == 0) return ERROR_ACCESS_DENIED;
  return ::RegSetValueExW(key, name, reserved, type, data, size);
}

TEST_P(FlashJobTest, TellsOnceThatTheFlagCouldNotBeCleared) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("RegSetValueExW", &RefuseReadyFlag);
  RunJob();
  EXPECT_EQ(bench.Ready(), 1);
  EXPECT_EQ(bench.TimesSaid("\t Could not set registry value"), 1);
  EXPECT_THAT(bench.Said({"registryhandshake.cpp"}), Contains("\t Could not set registry value"));
  EXPECT_FALSE(bench.HasAnyImage());
}

/// What a controlling program sees of a job's end, in its order.
class JobsEndTest : public FlashJobTest {
 protected:
  JobsEndTest() {
    s_test = this;
    m_Patch.Replace("RegSetValueExW", &SetValue);
    m_Patch.Replace("DeleteFileW", &Delete);
  }
  ~JobsEndTest() override {
    m_Patch.Restore();
    s_test = nullptr;
  }

  /// The steps from the last "Flash_Result" on.
  std::vector<std::string> End() const {
    const auto result = std::find_if(m_Steps.rbegin(), m_Steps.rend(),
                                     [](const auto& step) { return step.starts_with("Flash_Result"); });
    return result == m_Steps.rend() ? m_Steps : std::vector<std::string>(result.base() - 1, m_Steps.end());
  }

 private:
  void Note(const std::string& step) {
    m_Steps.push_back(step + (bench.library.IsMapped() ? "" : ", library unloaded"));
  }
  static LSTATUS WINAPI SetValue(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data,
                                 DWORD size) {
    DWORD value = 0;
    std::memcpy(&value, data, size);
    s_test->Note(Utf8FromWide(name) + " " + std::to_string(value));
    return ::RegSetValueExW(key, name, reserved, type, data, size);
  }
  static BOOL WINAPI Delete(LPCWSTR path) {
    s_test->Note("delete " + std::filesystem::path(path).filename().string());
    return ::DeleteFileW(path);
  }

  static inline JobsEndTest* s_test = nullptr;
  std::vector<std::string> m_Steps;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

INSTANTIATE_TEST_SUITE_P(BothWays, JobsEndTest,
                         testing::Values(Rules{"Service", &kServiceRules},
                                         Rules{"CommandLine", &kCommandLineRules}),
                         [](const auto& row) { return row.param.name; });

TEST_P(JobsEndTest, OfASuccessIsTheResultThenTheFlagThenTheUnloadedLibraryThenTheImages) {
  RunJob();
  EXPECT_THAT(End(), ElementsAre("Flash_Result 4", "Fls_Ready 0", "delete modem.fls, library unloaded",
                                 "delete nvm.fls, library unloaded"));
}

TEST_P(JobsEndTest, OfAFailureIsTheSame) {
  AllowRetries(0);
  bench.FailDownloads(1);
  RunJob();
  EXPECT_THAT(End(), ElementsAre("Flash_Result 3", "Fls_Ready 0", "delete modem.fls, library unloaded",
                                 "delete nvm.fls, library unloaded"));
}

// --- Without memory --------------------------------------------------------------------------------------

int g_enginesRefused = 0;
void* __cdecl RefuseEngines(std::size_t size) {
  if (size != sizeof(CFirmwareDownloader) || g_enginesRefused == 0) return std::malloc(size);
  --g_enginesRefused;
  return nullptr;
}

class NoEngineTest : public FlashJobTest {
 protected:
  void RefuseEngine(int times) {
    g_enginesRefused = times;
    m_Patch.Replace("malloc", &RefuseEngines);
  }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

INSTANTIATE_TEST_SUITE_P(BothWays, NoEngineTest,
                         testing::Values(Rules{"Service", &kServiceRules},
                                         Rules{"CommandLine", &kCommandLineRules}),
                         [](const auto& row) { return row.param.name; });

TEST_P(NoEngineTest, WorkerAsksAgainForAnEngineThatTheJobDidNotGet) {
  RefuseEngine(1);
  RunJob();
  EXPECT_EQ(g_enginesRefused, 0);
  EXPECT_EQ(bench.Downloads(), 1);
  EXPECT_EQ(bench.Result(), 4);
}

TEST_P(NoEngineTest, AttemptWithoutAnEngineIsAFailedOne) {
  RefuseEngine(2);
  RunJob();
  EXPECT_EQ(g_enginesRefused, 0);
  EXPECT_THAT(SaidByWorker(), Contains("ToolKit::DownloadFirmwareImplementation --, result: 0"));
  EXPECT_EQ(Slept(Pause()), 1);
  EXPECT_EQ(bench.Result(), 4);
}

TEST_P(NoEngineTest, ResultOfAnEarlierAttemptIsForgotten) {
  ToolKit::mFlashResult = FirmwareUpdated;
  RefuseEngine(1);
  EXPECT_TRUE(ToolKit::DownloadFirmwareImplementation(nullptr));
  EXPECT_EQ(ToolKit::mFlashResult, FirmwareNotUpdated);
}

TEST_P(NoEngineTest, JobEndsAsFailedWhenNoAttemptGetsAnEngine) {
  AllowRetries(1);
  RefuseEngine(100);
  RunJob();
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_EQ(bench.Downloads(), 0);
}

/// The text of a path cannot be copied, nor a record that happens to be of its size.
class LostPathTest : public testing::TestWithParam<bool> {
 protected:
  static void* __cdecl RefuseOneSize(std::size_t size) {
    if (size != s_refused) return std::malloc(size);
    ++s_refusals;
    return nullptr;
  }
  static std::size_t SizeOf(const CTString& path) {
    return (static_cast<std::size_t>(path.GetLength()) + 1) * sizeof(wchar_t);
  }

  static inline std::size_t s_refused = 0;
  static inline int s_refusals = 0;
  JobBench bench;
};

INSTANTIATE_TEST_SUITE_P(EachImage, LostPathTest, testing::Bool(),
                         [](const auto& row) { return row.param ? "Modem" : "Nvm"; });

// An emptied one would have the other image flashed as if it were all that there is.
TEST_P(LostPathTest, IsAFailedAttemptThatFlashesNothing) {
  CFirmwareDownloader::GetInstance();
  ToolKit::m_ModemFlsFile = CTString(bench.images.Path().c_str()) + L"\\.\\.\\.\\.\\.\\modem.fls";
  ToolKit::m_NVMFlsFile = CTString(bench.images.Path().c_str()) + L"\\.\\.\\.\\.\\.\\.\\.\\nvm.fls";
  s_refused = SizeOf(GetParam() ? ToolKit::m_ModemFlsFile : ToolKit::m_NVMFlsFile);
  s_refusals = 0;
  bench.library.calls.clear();
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("malloc", &RefuseOneSize);
  EXPECT_TRUE(ToolKit::DownloadFirmwareImplementation(nullptr));
  EXPECT_GE(s_refusals, 1);
  EXPECT_EQ(ToolKit::mFlashResult, FirmwareNotUpdated);
  EXPECT_THAT(bench.library.calls, IsEmpty());
}

// --- What the service says, in order ---------------------------------------------------------------------

class ServiceJobTest : public FlashJobTest {
 protected:
  /// What the job said once the download had begun.
  std::vector<std::string> SaidByJob() const {
    std::vector<std::string> said = Said();
    said.erase(said.begin(), std::find(said.begin(), said.end(), "\t IPC Type :USB"));
    return said;
  }
};

INSTANTIATE_TEST_SUITE_P(Alone, ServiceJobTest, testing::Values(Rules{"Service", &kServiceRules}),
                         [](const auto& row) { return row.param.name; });

TEST_P(ServiceJobTest, TellsASuccess) {
  RunJob();
  EXPECT_THAT(SaidByJob(), ElementsAre("\t IPC Type :USB", "\t DownloadFirmwareImplementation timeout: 130s",
                                       "\t Flash OK, to wait for MBIM Modem re-arrival",
                                       "\t check m_MBIM_Modem_presence: 1, Re-arrived\n",
                                       "\t MBIM Modem re-arrival, FW update OK"));
}

TEST_P(ServiceJobTest, TellsFailedDownloads) {
  AllowRetries(1);
  bench.FailDownloads(2);
  RunJob();
  EXPECT_THAT(SaidByJob(), ElementsAre("\t IPC Type :USB", "\t DownloadFirmwareImplementation timeout: 130s",
                                       "E:\t Flash FAILED, goto Flash_FAILED",
                                       "E:\t Flash FAIL, retry again, g_retry_times: 1(Max 1)",
                                       "\t After unload dll, wait 5s for UDE CALL BB_RST",
                                       "\t DownloadFirmwareImplementation timeout: 130s",
                                       "E:\t Flash FAILED, goto Flash_FAILED",
                                       "E:\t Flash still failed after reach maximum retry value"));
  EXPECT_EQ(Slept(5000), 1);
}

TEST_P(ServiceJobTest, TellsADownloadThatHangs) {
  AllowRetries(0);
  bench.library.during["download_fls_file"] = [this] { bench.clock.WaitAtGate(kGate); };
  RunJob();
  EXPECT_THAT(SaidByJob(), ElementsAre("\t IPC Type :USB", "\t DownloadFirmwareImplementation timeout: 130s",
                                       "E:\t Flash TIMEOUT or other issue, goto Flash_FAILED",
                                       "E:\t Flash still failed after reach maximum retry value"));
  bench.clock.Open(kGate);
}

TEST_P(ServiceJobTest, CountsAWorkerThatCannotBeStartedAsAFailedDownload) {
  bench.clock.RefuseThread(0, ERROR_NO_SYSTEM_RESOURCES);
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_THAT(SaidByJob(), ElementsAre("\t IPC Type :USB",
                                       "E:\t CreateThread DownloadFirmwareImplementation FAIL: 0x5aa\n",
                                       "E:\t Flash FAIL, retry again, g_retry_times: 1(Max 3)",
                                       "\t After unload dll, wait 5s for UDE CALL BB_RST",
                                       "\t DownloadFirmwareImplementation timeout: 130s",
                                       "\t Flash OK, to wait for MBIM Modem re-arrival",
                                       "\t check m_MBIM_Modem_presence: 1, Re-arrived\n",
                                       "\t MBIM Modem re-arrival, FW update OK"));
}

TEST_P(ServiceJobTest, GivesUpAfterFourWorkersThatCannotBeStarted) {
  bench.clock.RefuseEveryThread(ERROR_NO_SYSTEM_RESOURCES);
  RunJob();
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.TimesSaid("E:\t CreateThread DownloadFirmwareImplementation FAIL: 0x5aa\n"), 4);
}

TEST_P(ServiceJobTest, SucceedsWhenTheModemIsBackAtTheLastLook) {
  // The watcher looks at full seconds, and not any more when the 23rd is over.
  bench.ComesBackAfter(22500);
  RunJob();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_THAT(SaidByJob(),
              ElementsAre("\t IPC Type :USB", "\t DownloadFirmwareImplementation timeout: 130s",
                          "\t Flash OK, to wait for MBIM Modem re-arrival",
                          "E:\t Wait Modem re-arrival timeout or other issue, Let's check it last time\n",
                          "\t MBIM Modem re-arrival, FW update OK"));
  EXPECT_THAT(bench.SaidUnder("ToolKit::IsMBIMModemPresence"),
              ElementsAre("IsMBIMModemPresence ++", "MBIM modem presence", "IsMBIMModemPresence --"));
}

TEST_P(ServiceJobTest, TellsAModemThatNeverComesBack) {
  AllowRetries(1);
  bench.NeverComesBack();
  RunJob();
  EXPECT_THAT(SaidByJob(),
              ElementsAre("\t IPC Type :USB", "\t DownloadFirmwareImplementation timeout: 130s",
                          "\t Flash OK, to wait for MBIM Modem re-arrival",
                          "E:\t Wait Modem re-arrival timeout or other issue, Let's check it last time\n",
                          "E:\t MBIM device not arrival, retry again, 1(Max 1)",
                          "E:\t Wait Modem re-arrival timeout or other issue, Let's check it last time\n",
                          "E:\t Flash FAIL when reach the maximum retry time.\n",
                          "E:\t Flash OK, but wait Modem re-arrived failed"));
}

// --- The watcher alone -----------------------------------------------------------------------------------

class WatcherTest : public testing::Test {
 protected:
  JobBench bench;
};

TEST_F(WatcherTest, LooksOnceThoughNobodyMonitors) {
  ToolKit::m_MBIM_Modem_monitor = false;
  ToolKit::m_MBIM_Modem_presence = false;
  EXPECT_TRUE(ToolKit::WaitForMBIMRearrivedImplementation(nullptr));
  EXPECT_TRUE(ToolKit::m_MBIM_Modem_presence);
  EXPECT_THAT(bench.clock.Sleeps(), IsEmpty());
}

TEST_F(WatcherTest, PausesASecondBehindAListThatCannotBeHad) {
  ToolKit::m_MBIM_Modem_monitor = false;
  ToolKit::m_MBIM_Modem_presence = false;
  bench.modem.idListSizeResult = CR_FAILURE;
  EXPECT_TRUE(ToolKit::WaitForMBIMRearrivedImplementation(nullptr));
  EXPECT_FALSE(ToolKit::m_MBIM_Modem_presence);
  EXPECT_THAT(bench.clock.Sleeps(), ElementsAre(1000u));
}

}  // namespace
