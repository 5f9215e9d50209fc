#include <gmock/gmock.h>

#include <cstdlib>
#include <cwchar>

#include "simulator/import_patch.h"
#include "support/job_bench.h"

using corvel::Utf8FromWide;

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

/// The service's supervisor on a thread of its own. Between jobs it waits for the controlling program.
class SupervisorTest : public testing::Test {
 protected:
  void RunSupervisor() {
    bench.clock.Start([] { ToolKit::MainThreadImplementation(nullptr); });
    bench.clock.RunUntilIdle();
  }
  void RaiseFlag() {
    bench.key.SetNumber(L"Fls_Ready", 1);
    bench.clock.DeliverSignals();
    bench.clock.RunUntilIdle();
  }
  void LowerFlag() const { bench.key.SetNumber(L"Fls_Ready", 0); }
  bool IsWaiting() const { return bench.clock.LivingThreads() == 1; }
  std::vector<std::string> Said() const { return bench.SaidUnder("ToolKit::MainThreadImplementation"); }

  JobBench bench;
};

TEST_F(SupervisorTest, WritesTheInitialValuesAndThenWaits) {
  LowerFlag();
  RunSupervisor();
  EXPECT_TRUE(IsWaiting());
  EXPECT_THAT(bench.Writes(), ElementsAre("Time_Out: 153000", "Flash_OnGoing: 0", "Flash_Progress: 0",
                                          "Flash_Result: 0", "Time_Out: 153000", "Flash_OnGoing: 0"));
  EXPECT_THAT(Said(), ElementsAre("\t MainThreadImplementation ++", "\t Start a new loop process...",
                                  "\t Initialze registry", "\t Monitor flash ready flag to be ready"));
  EXPECT_EQ(bench.library.loads, 0);
}

TEST_F(SupervisorTest, DetectsTheModemBranchBeforeItWritesAnything) {
  LowerFlag();
  ToolKit::g_bIsFiveBranch = false;
  RunSupervisor();
  EXPECT_TRUE(ToolKit::g_bIsFiveBranch);
  const std::vector<std::string> said = bench.Said({"modembranch.cpp", "registryhandshake.cpp"});
  EXPECT_EQ(said.front(), "ToolKit::CheckModemBranch ++\n");
}

TEST_F(SupervisorTest, FlashesAtOnceWhenTheFlagIsRaisedAlready) {
  RunSupervisor();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_TRUE(IsWaiting());
}

TEST_F(SupervisorTest, FlashesWhenTheFlagIsRaised) {
  LowerFlag();
  RunSupervisor();
  EXPECT_EQ(bench.Downloads(), 0);
  RaiseFlag();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_TRUE(IsWaiting());
}

TEST_F(SupervisorTest, BeginsANewPassBehindEachJob) {
  RunSupervisor();
  EXPECT_EQ(bench.TimesSaid("\t Start a new loop process..."), 2);
  const std::vector<std::string> writes = bench.Writes();
  EXPECT_EQ(writes[writes.size() - 2], "Time_Out: 153000");
  EXPECT_EQ(writes[writes.size() - 1], "Flash_OnGoing: 0");
}

TEST_F(SupervisorTest, ClearsTheOnGoingFlagOfAFailedJobWithTheNextPass) {
  bench.FailDownloads(100);
  RunSupervisor();
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.OnGoing(), 0);
}

TEST_F(SupervisorTest, RunsOneJobAfterTheOther) {
  RunSupervisor();
  bench.AddImage(L"modem.fls", {1}, JobBench::kSmallestModemImage);
  RaiseFlag();
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_EQ(bench.Downloads(), 2);
  EXPECT_EQ(bench.library.loads, 2);
}

TEST_F(SupervisorTest, GivesEachJobTheWholeRetryBudget) {
  bench.modem.takesCommands = false;
  RunSupervisor();
  EXPECT_EQ(ToolKit::g_retry_times, 0u);
}

// --- Without images --------------------------------------------------------------------------------------

class NoImagesTest : public SupervisorTest {
 protected:
  NoImagesTest() { FlashBench::Configure(L"[ModemAndNVMFirmwareFolder]", empty.Path().c_str()); }
  TemporaryFolder empty;
};

TEST_F(NoImagesTest, ReportsAFailureAndClearsTheFlag) {
  RunSupervisor();
  EXPECT_EQ(bench.Result(), 3);
  EXPECT_EQ(bench.Ready(), 0);
  EXPECT_EQ(bench.library.loads, 0);
  EXPECT_TRUE(bench.HasImages());
}

TEST_F(NoImagesTest, PausesThreeSecondsBeforeItReports) {
  RunSupervisor();
  EXPECT_EQ(bench.clock.Now(), 3000u);
  const std::vector<std::string> all = bench.host.Said();
  EXPECT_THAT(all, Contains("\t Can't find available fls, monitor again, continue to monitor registry change "
                            "and fetch modem/nvm files"));
  EXPECT_THAT(bench.Writes(),
              ElementsAre("Time_Out: 153000", "Flash_OnGoing: 0", "Flash_Progress: 0", "Flash_Result: 0",
                          "Time_Out: 153000", "Flash_OnGoing: 0", "Flash_Progress: 0", "Flash_Result: 0",
                          "Flash_Result: 3", "Time_Out: 153000", "Flash_OnGoing: 0"));
}

const JobBench* g_bench = nullptr;
std::vector<int> g_resultsAtTheFlag;
LSTATUS WINAPI NoteTheResultAtTheFlag(HKEY key, const wchar_t* name, DWORD reserved, DWORD type,
                                      const BYTE* data, DWORD size) {
  if (std::wcscmp(name, L"Fls_Ready") == 0) g_resultsAtTheFlag.push_back(g_bench->Result());
  return ::RegSetValueExW(key, name, reserved, type, data, size);
}

// The controlling program reads the result as soon as the flag is taken back.
TEST_F(NoImagesTest, ReportsTheFailureBeforeItTakesTheFlagBack) {
  g_bench = &bench;
  g_resultsAtTheFlag.clear();
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("RegSetValueExW", &NoteTheResultAtTheFlag);
  RunSupervisor();
  EXPECT_THAT(g_resultsAtTheFlag, ElementsAre(3));
}

TEST_F(NoImagesTest, TriesAgainOnlyWhenTheFlagIsRaisedAnew) {
  RunSupervisor();
  EXPECT_EQ(bench.TimesSaid("\t Start a new loop process..."), 2);
  FlashBench::Configure(L"[ModemAndNVMFirmwareFolder]", bench.images.Path().c_str());
  RaiseFlag();
  EXPECT_EQ(bench.Result(), 4);
}

// --- Without memory --------------------------------------------------------------------------------------

std::size_t g_refusedSize = 0;
int g_refusals = 0;
void* __cdecl RefuseOneSize(std::size_t size) {
  if (size != g_refusedSize || g_refusals == 0) return std::malloc(size);
  --g_refusals;
  return nullptr;
}

class LackOfMemoryTest : public SupervisorTest {
 protected:
  LackOfMemoryTest() {
    // The first thing of this size that a pass makes is the text of the folder's name.
    std::wstring folder = bench.images.Path().wstring();
    folder.append(230 - folder.size(), L'\\');
    FlashBench::Configure(L"[ModemAndNVMFirmwareFolder]", folder.c_str());
    bench.library.images[Utf8FromWide(folder + L"\\modem.fls")] = {1, 4};
    bench.library.images[Utf8FromWide(folder + L"\\nvm.fls")] = {5};
    g_refusedSize = (folder.size() + 1) * sizeof(wchar_t);
    g_refusals = 1;
    m_Patch.Replace("malloc", &RefuseOneSize);
  }

 private:
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

TEST_F(LackOfMemoryTest, OfAPassIsSurvivedAndTheNextPassServesTheRequest) {
  RunSupervisor();
  EXPECT_EQ(g_refusals, 0);
  EXPECT_EQ(bench.TimesSaid("\t Start a new loop process..."), 3);
  EXPECT_EQ(bench.Result(), 4);
  EXPECT_TRUE(IsWaiting());
}

TEST_F(LackOfMemoryTest, OfAPassUnloadsTheLibraryAndIsFollowedByAPauseOfThreeSeconds) {
  RunSupervisor();
  EXPECT_EQ(bench.clock.Sleeps().front(), 3000u);
  const std::vector<std::string> all = bench.host.Said();
  const auto again = std::find(std::find(all.begin(), all.end(), "\t Start a new loop process...") + 1,
                               all.end(), "\t Start a new loop process...");
  ASSERT_NE(again, all.end());
  EXPECT_EQ(*(again - 1), "\t Unload --");
}

}  // namespace
