#include <fstream>
#include <vector>

#include "hosts/common/file_digest.h"
#include "hosts/common/text.h"
#include "simulator/host/virtual_pc_file.h"
#include "simulator/program/debug_log.h"
#include "tests/hosts/cmdline_test.h"

namespace hosts {

using simulator::DebugRecord;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char kFast[] = "speed=200";
/// Slow enough for each stage to be seen.
constexpr char kStageByStage[] = "speed=60";

MATCHER_P(Trace, message, "is a trace that says this") {
  return arg.level == "Trace" && arg.message == message;
}

class FlashTest : public CommandLineTest {
 protected:
  RunResult Flash(const Arguments& more = {}) const {
    Arguments arguments{L"flash"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunHost(arguments);
  }
  bool ImagesAreThere() const {
    return std::filesystem::exists(workspace.ModemImage()) && std::filesystem::exists(workspace.NvmImage());
  }
  std::string Log() const { return workspace.Content(L"FlashCommandLineLogger_DLL.log"); }
  std::vector<DebugRecord> Records() const {
    return simulator::ReadDebugLog(workspace.File(L"FlashCommandLineLogger_DLL.log"));
  }
  /// Waits until the library has written what it writes before it waits for a request.
  bool AwaitsRequest(ChildProcess& host) const {
    while (Log().find("Monitor flash ready flag") == std::string::npos) {
      if (host.WaitForEnd(std::chrono::milliseconds(20))) return false;
    }
    return true;
  }
  /// The values as the library leaves them before it releases what it holds and deletes the images.
  void ShowEnd(std::uint32_t result) const {
    key.Write(L"Flash_OnGoing", 0);
    key.Write(L"Flash_Progress", 100);
    key.Write(L"Flash_Result", result);
    key.Write(L"Fls_Ready", 0);
  }
};

// --- Flashes that end ------------------------------------------------------------------------------------

TEST_F(FlashTest, WritesTheImagesIntoTheModem) {
  workspace.MakeVirtualPc({kFast});
  const RunResult result = Flash();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output,
              HasSubstr("The modem was flashed and is back. Result 4 (succeeded), 1 attempt, "));
  EXPECT_THAT(result.output, HasSubstr("The images were deleted. Nothing is left to do."));
  const simulator::MemoryComparison comparison = workspace.CompareModemMemory();
  EXPECT_TRUE(comparison.equal) << comparison.difference;
}

TEST_F(FlashTest, LeavesTheHandshakeAsASucceededJobDoes) {
  workspace.MakeVirtualPc({kFast});
  ASSERT_EQ(Flash().exitCode, 0);
  const Handshake values = key.Read();
  EXPECT_EQ(values.ready, 0u);
  EXPECT_EQ(values.result, 4u);
  EXPECT_EQ(values.onGoing, 0u);
  EXPECT_EQ(values.progress, 100u);
  EXPECT_FALSE(std::filesystem::exists(workspace.ModemImage()));
}

TEST_F(FlashTest, WithJsonPrintsOneDocumentAndNothingElse) {
  workspace.MakeVirtualPc({kFast});
  const RunResult result = Flash({L"--json", L"--quiet"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.errors, IsEmpty());
  const nlohmann::json document = Document(result.output);
  ASSERT_TRUE(document.is_object()) << result.output;
  EXPECT_EQ(document["flashed"], true);
  EXPECT_EQ(document["result"], 4);
  EXPECT_EQ(document["attempts"], 1);
  EXPECT_EQ(document["progress"], 100);
  EXPECT_EQ(document["images_deleted"], true);
  EXPECT_EQ(document["log"], ToUtf8(workspace.File(L"FlashCommandLineLogger_DLL.log").wstring()));
  EXPECT_FALSE(document.contains("error"));
}

TEST_F(FlashTest, ShowsItsStagesLineByLineWithoutATerminal) {
  workspace.MakeVirtualPc({kStageByStage});
  const RunResult result = Flash();
  EXPECT_THAT(result.errors, AllOf(HasSubstr("into flash mode, 0 %, attempt 1"), HasSubstr("writing, "),
                                   HasSubstr("awaiting the modem, 100 %"), HasSubstr("flashed, 100 %")));
}

TEST_F(FlashTest, TakesNothingThatAnEarlierRunLeftForItsOwn) {
  workspace.MakeVirtualPc({kFast});
  key.Write(L"Flash_Result", 3);
  key.Write(L"Flash_OnGoing", 1);
  key.Write(L"Flash_Progress", 77);
  const RunResult result = Flash();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.errors, AllOf(Not(HasSubstr("failed")), Not(HasSubstr("70 %, attempt 1\n0 s"))));
}

TEST_F(FlashTest, NamesTheImagesThatWillBeDeletedAtTheStart) {
  workspace.MakeVirtualPc({kFast});
  EXPECT_THAT(Flash().errors, HasSubstr("corvel_cmdline: When the flash ends, it deletes " +
                                        ToUtf8(workspace.ModemImage().wstring()) + ", " +
                                        ToUtf8(workspace.NvmImage().wstring()) + "\r\n"));
  workspace.PutImages();
  workspace.Remove(L"firmware\\modem.fls");
  EXPECT_THAT(Flash().errors, HasSubstr("it deletes " + ToUtf8(workspace.NvmImage().wstring()) + "\r\n"));
}

TEST_F(FlashTest, SpeaksOfNoDeletionThatDidNotHappen) {
  workspace.MakeVirtualPc({kFast});
  ::SetFileAttributesW(workspace.NvmImage().c_str(), FILE_ATTRIBUTE_READONLY);
  const RunResult result = Flash();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, AllOf(HasSubstr("Delete what could not be deleted, or the next flash writes it "
                                             "again: " +
                                             ToUtf8(workspace.NvmImage().wstring()) + "\r\n"),
                                   Not(HasSubstr("Nothing is left to do"))));
  workspace.Remove(L"firmware\\modem.fls");
  EXPECT_EQ(Document(Flash({L"--json"}).output)["images_deleted"], false);
  ::SetFileAttributesW(workspace.NvmImage().c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(FlashTest, SpeaksOfNoRemovalAfterAFailureThatLeftTheImages) {
  key.Write(L"Retry_Times", 0);
  workspace.MakeVirtualPc({kFast, "scenario=download-fails-default-limit"});
  ::SetFileAttributesW(workspace.ModemImage().c_str(), FILE_ATTRIBUTE_READONLY);
  const RunResult one = Flash();
  EXPECT_EQ(one.exitCode, 1);
  EXPECT_THAT(one.output, HasSubstr("Of the image files only " + ToUtf8(workspace.ModemImage().wstring()) +
                                    " is still there: copy the other one anew and run the flash again."));
  const RunResult all = Flash({L"--json"});
  EXPECT_EQ(Document(all.output)["images_deleted"], false);
  EXPECT_THAT(all.output, HasSubstr("The image files are still there: run the flash again."));
  ::SetFileAttributesW(workspace.ModemImage().c_str(), FILE_ATTRIBUTE_NORMAL);
}

// --- Images that were meant ------------------------------------------------------------------------------

TEST_F(FlashTest, RefusesAnImageThatIsNotTheOneThatWasMeantBeforeItAsksForAnything) {
  workspace.MakeVirtualPc({kFast});
  const std::filesystem::path list = workspace.File(L"SHA256SUMS");
  std::ofstream(list) << std::string(64, 'a') << "  modem.fls\n"
                      << DigestOf(workspace.NvmImage().wstring()).sha256 << "  nvm.fls\n";
  const RunResult result = Flash({L"--json", L"--expect", list.wstring()});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "image_differs");
  EXPECT_FALSE(key.Exists());
  EXPECT_TRUE(ImagesAreThere());
  EXPECT_FALSE(workspace.Holds(L"FlashCommandLineLogger_DLL.log"));
}

TEST_F(FlashTest, TakesImagesThatWereMeant) {
  workspace.MakeVirtualPc({kFast});
  const std::filesystem::path list = workspace.File(L"SHA256SUMS");
  std::ofstream(list) << DigestOf(workspace.ModemImage().wstring()).sha256 << " *modem.fls\n"
                      << DigestOf(workspace.NvmImage().wstring()).sha256 << " *nvm.fls\n";
  EXPECT_EQ(Flash({L"--expect", list.wstring()}).exitCode, 0);
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

/// It could not look at what the other program brings.
TEST_F(FlashTest, ExpectsNothingOfImagesThatAControllingProgramBrings) {
  EXPECT_EQ(Flash({L"--wait-for-controller", L"--expect", L"SHA256SUMS"}).exitCode, 2);
}

// --- Power -----------------------------------------------------------------------------------------------

TEST_F(FlashTest, AsksThatThePcStaysAwakeFromBeforeTheJobToItsEnd) {
  workspace.MakeVirtualPc({kFast});
  ASSERT_EQ(Flash().exitCode, 0);
  const auto end = simulator::ReadVirtualPcEnd(workspace.File(L""));
  ASSERT_TRUE(end);
  EXPECT_EQ(end->powerRequests, 2);
  EXPECT_TRUE(end->keptAwake);
}

TEST_F(FlashTest, GoesOnWithOneWarningWhereThePcMayFallAsleep) {
  workspace.MakeVirtualPc({kFast, "power-refused=1"});
  const RunResult result = Flash();
  EXPECT_EQ(result.exitCode, 0);
  const std::string warning = "corvel_cmdline: Windows does not promise to keep the PC awake: ";
  const std::size_t place = result.errors.find(warning);
  ASSERT_NE(place, std::string::npos);
  EXPECT_EQ(result.errors.find(warning, place + 1), std::string::npos);
}

TEST_F(FlashTest, WarnsOnBattery) {
  workspace.MakeVirtualPc({kFast, "battery=40"});
  const RunResult result = Flash({L"--min-battery", L"40"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.errors,
              HasSubstr("corvel_cmdline: Warning, the PC runs on its battery, 40 % charged. Connect "
                        "the PC to the mains"));
}

TEST_F(FlashTest, RefusesABatteryBelowWhatIsAskedFor) {
  workspace.MakeVirtualPc({kFast, "battery=39"});
  const RunResult result = Flash({L"--json", L"--min-battery", L"40"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "battery_low");
  EXPECT_EQ(Document(result.output)["error"]["message"],
            "Not ready, power: the PC runs on its battery, 39 % charged; --min-battery asks for 40 %.");
  EXPECT_FALSE(key.Exists());
  workspace.MakeVirtualPc({kFast, "battery=unknown"});
  EXPECT_EQ(ErrorCode(Flash({L"--json", L"--min-battery", L"1"}).output), "battery_low");
}

TEST_F(FlashTest, AsksNothingOfTheBatteryOnTheMains) {
  workspace.MakeVirtualPc({kFast});
  EXPECT_EQ(Flash({L"--min-battery", L"100"}).exitCode, 0);
}

TEST_F(FlashTest, RefusesAChargeThatIsNoPercentage) {
  EXPECT_EQ(Flash({L"--min-battery", L"0"}).exitCode, 2);
  EXPECT_EQ(Flash({L"--min-battery", L"101"}).exitCode, 2);
  EXPECT_EQ(Flash({L"--min-battery", L"half"}).exitCode, 2);
}

// --- The bus ---------------------------------------------------------------------------------------------

TEST_F(FlashTest, TakesTheBusOfTheConfigurationUnlessToldOtherwise) {
  const auto busOf = [this](const wchar_t* configured, const Arguments& more) {
    workspace.WriteConfiguration("[IPCTYPE]=", configured);
    workspace.PutImages();
    Flash(more);
    return Records();
  };
  workspace.MakeVirtualPc({kFast});
  EXPECT_THAT(busOf(L"PCIE", {}), Contains(Trace("\t IPC Type :PCIE")));
  EXPECT_THAT(busOf(L"pcie", {}), Contains(Trace("\t IPC Type :USB")));
  EXPECT_THAT(busOf(L"PCIE", {L"--ipc", L"usb"}), Contains(Trace("\t IPC Type :USB")));
  EXPECT_THAT(busOf(L"USB", {L"--ipc", L"pcie"}), Contains(Trace("\t IPC Type :PCIE")));
}

TEST_F(FlashTest, RepeatsAFailedDownload) {
  workspace.MakeVirtualPc({kFast, "scenario=download-fails-once"});
  const RunResult result = Flash({L"--json"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(Document(result.output)["attempts"], 2);
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

TEST_F(FlashTest, FlashesAModemThatAnEarlierRunLeftInFlashMode) {
  workspace.MakeVirtualPc({kFast, "state=flash port"});
  EXPECT_EQ(Flash().exitCode, 0);
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

TEST_F(FlashTest, BringsAModemBackThatIsAway) {
  workspace.MakeVirtualPc({kFast, "state=restarting"});
  EXPECT_EQ(Flash().exitCode, 0);
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

TEST_F(FlashTest, FailsWhenEveryDownloadFails) {
  workspace.MakeVirtualPc({kFast, "scenario=download-fails-default-limit"});
  const RunResult result = Flash({L"--json"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(ErrorCode(result.output), "flash_failed");
  const nlohmann::json document = Document(result.output);
  EXPECT_EQ(document["attempts"], 4);
  EXPECT_THAT(document["cause"].value("message", ""), HasSubstr("Could not download file"));
  EXPECT_THAT(document["error"].value("what_to_do", ""),
              StartsWith(document["cause"].value("what_to_do", "-")));
  const Handshake values = key.Read();
  EXPECT_EQ(values.result, 3u);
  EXPECT_EQ(values.ready, 0u);
  // Nobody begins another round that would clear it.
  EXPECT_EQ(values.onGoing, 1u);
}

TEST_F(FlashTest, MakesNoSecondAttemptWhenRetryTimesIsZero) {
  key.Write(L"Retry_Times", 0);
  workspace.MakeVirtualPc({kFast, "scenario=download-fails-default-limit"});
  const RunResult result = Flash();
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, AllOf(HasSubstr("The flash failed. Result 3 (failed), 1 attempt, "),
                                   HasSubstr("\r\nWhy: \"Could not download file"),
                                   HasSubstr("copy them anew"), HasSubstr("corvel_flashlog \"")));
}

TEST_F(FlashTest, TellsNoCauseOfAFailureThatNoLogTells) {
  key.Write(L"Retry_Times", 0);
  workspace.MakeVirtualPc({kFast, "scenario=download-fails-default-limit"});
  const RunResult result = Flash({L"--trace", L"0", L"--json"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_TRUE(Document(result.output)["cause"].is_null());
}

TEST_F(FlashTest, FailsWhenTheModemDoesNotComeBack) {
  key.Write(L"Retry_Times", 1);
  workspace.MakeVirtualPc({kFast, "scenario=return-never"});
  EXPECT_EQ(Flash().exitCode, 1);
  const Handshake values = key.Read();
  EXPECT_EQ(values.result, 3u);
  EXPECT_EQ(values.onGoing, 0u);
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

TEST_F(FlashTest, FailsAndKeepsTheImagesWhenNoDownloadCanBeStarted) {
  workspace.MakeVirtualPc({kFast, "fault=no-worker"});
  const RunResult result = Flash();
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, HasSubstr("The download could not be started"));
  EXPECT_TRUE(ImagesAreThere());
  EXPECT_EQ(key.Read().ready, 0u);
}

// --- Options ---------------------------------------------------------------------------------------------

TEST_F(FlashTest, HandsTheBusToTheLibrary) {
  workspace.MakeVirtualPc({kFast});
  EXPECT_EQ(Flash({L"--ipc", L"pcie"}).exitCode, 0);
  EXPECT_THAT(Records(), Contains(Trace("\t IPC Type :PCIE")));
}

TEST_F(FlashTest, KeepsItsRecordsOutOfTheServicesLog) {
  workspace.MakeVirtualPc({kFast});
  EXPECT_EQ(Flash().exitCode, 0);
  EXPECT_THAT(Records(),
              AllOf(Contains(Trace("Start LoadConfig ++")), Contains(Trace("++ MainThreadImplementation"))));
  EXPECT_FALSE(workspace.Holds(L"FlashServiceDebugLogger_DLL.log"));
}

TEST_F(FlashTest, WritesNoLogAtAllWithoutTrace) {
  workspace.MakeVirtualPc({kFast});
  EXPECT_EQ(Flash({L"--trace", L"0"}).exitCode, 0);
  EXPECT_FALSE(workspace.Holds(L"FlashCommandLineLogger_DLL.log"));
  EXPECT_FALSE(workspace.Holds(L"FlashServiceDebugLogger_DLL.log"));
}

TEST_F(FlashTest, LeavesTheRequestToTheControllerWhenAsked) {
  workspace.MakeVirtualPc({kFast});
  ChildProcess host(workspace.CommandLineHost(), {L"flash", L"--wait-for-controller"});
  ASSERT_TRUE(host.Says("waiting to begin"));
  EXPECT_NE(key.Read().ready, 1u);
  key.Write(L"Fls_Ready", 1);
  EXPECT_EQ(host.WaitForEnd(), 0);
}

TEST_F(FlashTest, LetsTheControllerBringTheImagesLater) {
  workspace.MakeVirtualPc({kFast});
  workspace.Remove(L"firmware");
  ChildProcess host(workspace.CommandLineHost(), {L"flash", L"--wait-for-controller"});
  ASSERT_TRUE(host.Says("waiting to begin"));
  workspace.PutImages();
  key.Write(L"Fls_Ready", 1);
  EXPECT_EQ(host.WaitForEnd(), 0);
}

TEST_F(FlashTest, TellsAControllerThatBroughtNoImages) {
  workspace.MakeVirtualPc({kFast});
  workspace.Remove(L"firmware");
  ChildProcess host(workspace.CommandLineHost(), {L"flash", L"--wait-for-controller", L"--json", L"--quiet"});
  key.Write(L"Fls_Ready", 1);
  EXPECT_EQ(host.WaitForEnd(), 3);
  EXPECT_EQ(ErrorCode(host.Output()), "no_images");
  EXPECT_EQ(Document(host.Output())["images_deleted"], false);
  EXPECT_THAT(workspace.Content(L"CorvelFlashHistory.txt"), HasSubstr("\tcmdline\t0\t0\t"));
  // The request is the controller's own, so it stays.
  EXPECT_EQ(key.Read().ready, 1u);
}

// --- Flashes that cannot begin ---------------------------------------------------------------------------

TEST_F(FlashTest, WithoutImagesItAsksForNothing) {
  workspace.MakeVirtualPc();
  workspace.Remove(L"firmware\\modem.fls");
  workspace.Remove(L"firmware\\nvm.fls");
  const RunResult result = Flash({L"--json"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(ErrorCode(result.output), "no_images");
  EXPECT_FALSE(key.Exists());
}

TEST_F(FlashTest, WithoutFolderItAsksForNothing) {
  workspace.MakeVirtualPc();
  workspace.Remove(L"firmware");
  EXPECT_EQ(Flash().exitCode, 3);
  EXPECT_FALSE(key.Exists());
}

TEST_F(FlashTest, IsNotReadyWithoutConfiguration) {
  workspace.MakeVirtualPc();
  workspace.Remove(L"CorvelConfig.ini");
  const RunResult result = Flash();
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_THAT(result.errors, HasSubstr("Put CorvelConfig.ini beside this program"));
}

TEST_F(FlashTest, IsNotReadyWithoutFlashingLibraryAndKeepsTheImages) {
  workspace.MakeVirtualPc();
  workspace.Remove(L"Firmwareflashdownload.dll");
  const RunResult result = Flash({L"--json"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "no_flashing_library");
  EXPECT_TRUE(ImagesAreThere());
}

TEST_F(FlashTest, IsNotReadyWithoutAccessToTheRegistry) {
  const UnwritableKey parent;
  const RunResult result = Flash({L"--json"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "no_registry_access");
  EXPECT_TRUE(ImagesAreThere());
}

TEST_F(FlashTest, IsNotReadyWhileAnotherOneFlashes) {
  workspace.MakeVirtualPc({kFast});
  ChildProcess first(workspace.CommandLineHost(), {L"flash", L"--wait-for-controller"});
  ASSERT_TRUE(first.Says("waiting to begin"));
  const RunResult second = Flash({L"--json"});
  EXPECT_EQ(second.exitCode, 4);
  EXPECT_EQ(ErrorCode(second.output), "already_running");
}

TEST_F(FlashTest, CheckSaysThatAnotherOneFlashes) {
  workspace.MakeVirtualPc({kFast});
  ChildProcess first(workspace.CommandLineHost(), {L"flash", L"--wait-for-controller"});
  ASSERT_TRUE(first.Says("waiting to begin"));
  const RunResult check = RunHost({L"check", L"--json"});
  EXPECT_EQ(check.exitCode, 4);
  EXPECT_EQ(ErrorCode(check.output), "already_running");
  first.Kill();
  EXPECT_EQ(RunHost({L"check"}).exitCode, 0);
}

TEST_F(FlashTest, TakesNoForeignObjectForAnotherOne) {
  workspace.MakeVirtualPc({kFast});
  const OwnedHandle event(::CreateEventW(nullptr, TRUE, FALSE, L"Global\\corvel_cmdline flash"));
  for (const wchar_t* verb : {L"flash", L"check"}) {
    const RunResult result = RunHost({verb, L"--json"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(ErrorCode(result.output), "claim_impossible");
    EXPECT_THAT(result.output, AllOf(HasSubstr("Another program holds the name"),
                                     Not(HasSubstr("corvel_cmdline is flashing already"))));
  }
  EXPECT_TRUE(ImagesAreThere());
}

TEST_F(FlashTest, IsNotReadyWhenTheFolderCannotBeReadToItsEnd) {
  workspace.MakeVirtualPc({kFast, "fault=folder-breaks-off"});
  const RunResult result = Flash({L"--json"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "folder_unreadable");
  EXPECT_FALSE(key.Exists());
  EXPECT_TRUE(ImagesAreThere());
}

/// The first look finds none, and the service begins while the host makes ready.
TEST_F(FlashTest, IsNotReadyWhenAServiceComesBehindTheFirstLook) {
  workspace.MakeVirtualPc({kFast, "service-starts=2"});
  const RunResult result = Flash({L"--json", L"--quiet"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "service_starting");
  EXPECT_FALSE(key.Exists());
  EXPECT_TRUE(ImagesAreThere());
}

TEST_F(FlashTest, IsNotReadyWithoutFlashingLibraryAlsoWhenTheImagesAreStillToCome) {
  workspace.Remove(L"firmware");
  workspace.Remove(L"Firmwareflashdownload.dll");
  const RunResult result = Flash({L"--wait-for-controller", L"--json"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "no_flashing_library");
}

// --- Flashes that are given up ---------------------------------------------------------------------------

TEST_F(FlashTest, TakesItsRequestBackWhenTheTimeLimitPassesInVain) {
  workspace.MakeVirtualPc({kFast, "fault=request-not-heard"});
  const RunResult result = Flash({L"--timeout", L"1", L"--json"});
  EXPECT_EQ(result.exitCode, 5);
  EXPECT_EQ(ErrorCode(result.output), "timed_out");
  EXPECT_EQ(Document(result.output)["images_deleted"], false);
  EXPECT_EQ(key.Read().ready, 0u);
  EXPECT_TRUE(ImagesAreThere());
}

TEST_F(FlashTest, LeavesTheControllersFlagAloneWhenTheTimeLimitPasses) {
  workspace.MakeVirtualPc({kFast, "fault=request-not-heard"});
  key.Write(L"Fls_Ready", 1);
  EXPECT_EQ(Flash({L"--wait-for-controller", L"--timeout", L"1"}).exitCode, 5);
  EXPECT_EQ(key.Read().ready, 1u);
}

TEST_F(FlashTest, SaysWhatTheTimeLimitDidToARunningFlash) {
  workspace.MakeVirtualPc({"speed=1"});
  const RunResult result = Flash({L"--timeout", L"2"});
  EXPECT_EQ(result.exitCode, 5);
  EXPECT_THAT(result.errors, HasSubstr("may be left in flash mode; the next run recovers it"));
  EXPECT_EQ(key.Read().ready, 0u);
}

TEST_F(FlashTest, TakesItsRequestBackWhenItIsInterruptedWhileWaiting) {
  workspace.MakeVirtualPc({kFast, "fault=request-not-heard"});
  ChildProcess host(workspace.CommandLineHost(), {L"flash", L"--json"});
  ASSERT_TRUE(host.Says("waiting to begin"));
  ASSERT_TRUE(host.Interrupt());
  EXPECT_EQ(host.WaitForEnd(), 5);
  EXPECT_EQ(ErrorCode(host.Output()), "interrupted");
  EXPECT_EQ(Document(host.Output())["images_deleted"], false);
  EXPECT_EQ(key.Read().ready, 0u);
}

TEST_F(FlashTest, LeavesTheControllersFlagAloneWhenItIsInterrupted) {
  workspace.MakeVirtualPc({kFast, "fault=request-not-heard"});
  key.Write(L"Fls_Ready", 1);
  ChildProcess host(workspace.CommandLineHost(), {L"flash", L"--wait-for-controller"});
  ASSERT_TRUE(host.Says("waiting to begin"));
  ASSERT_TRUE(host.Interrupt());
  EXPECT_EQ(host.WaitForEnd(), 5);
  EXPECT_EQ(key.Read().ready, 1u);
}

TEST_F(FlashTest, WarnsOnceBeforeItLetsAFlashBeInterrupted) {
  workspace.MakeVirtualPc({"speed=1"});
  ChildProcess host(workspace.CommandLineHost(), {L"flash"});
  ASSERT_TRUE(host.Says("into flash mode"));
  ASSERT_TRUE(host.Interrupt());
  ASSERT_TRUE(host.Says("Stopping now may leave the modem in flash mode"));
  EXPECT_EQ(host.WaitForEnd(std::chrono::milliseconds(0)), std::nullopt);
  ASSERT_TRUE(host.Interrupt());
  EXPECT_EQ(host.WaitForEnd(), 5);
  EXPECT_THAT(host.Errors(), HasSubstr("Interrupted."));
  EXPECT_EQ(key.Read().ready, 0u);
}

TEST_F(FlashTest, FinishesAFlashThatWasInterruptedOnce) {
  workspace.MakeVirtualPc({"speed=20"});
  ChildProcess host(workspace.CommandLineHost(), {L"flash"});
  ASSERT_TRUE(host.Says("into flash mode"));
  ASSERT_TRUE(host.Interrupt());
  EXPECT_EQ(host.WaitForEnd(), 0);
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

TEST_F(FlashTest, EndsAsAnInterruptedOneAfterAnErrorOfItsOwnBehindTheRequest) {
  workspace.MakeVirtualPc({"speed=1", "watch-fails=1"});
  const RunResult result = Flash({L"--json"});
  EXPECT_EQ(result.exitCode, 5);
  EXPECT_EQ(ErrorCode(result.output), "internal");
  EXPECT_EQ(key.Read().ready, 0u);
}

// --- Flashes that are over while the library is still at work --------------------------------------------

TEST_F(FlashTest, WaitsForTheEndOfAFlashThatIsOverWhenItIsInterrupted) {
  workspace.MakeVirtualPc({kFast});
  ChildProcess host(workspace.CommandLineHost(), {L"flash", L"--wait-for-controller"});
  ASSERT_TRUE(AwaitsRequest(host));
  // As if the library had come that far; the request that follows lets it end by itself.
  ShowEnd(4);
  ASSERT_TRUE(host.Interrupt());
  ASSERT_TRUE(host.Says("The flash is over."));
  key.Write(L"Fls_Ready", 1);
  EXPECT_EQ(host.WaitForEnd(), 0);
  EXPECT_THAT(host.Output(), HasSubstr("The modem was flashed and is back. Result 4 (succeeded)"));
  EXPECT_THAT(host.Errors(), Not(HasSubstr("was not touched")));
  EXPECT_THAT(workspace.Content(L"CorvelFlashHistory.txt"), HasSubstr("\tcmdline\t4\t100\t"));
}

TEST_F(FlashTest, TellsWhoeverInterruptsItTwiceHowAFlashEndedThatIsOver) {
  workspace.MakeVirtualPc({kFast, "fault=request-not-heard"});
  ChildProcess host(workspace.CommandLineHost(), {L"flash"});
  ASSERT_TRUE(AwaitsRequest(host));
  ShowEnd(4);
  ASSERT_TRUE(host.Interrupt());
  ASSERT_TRUE(host.Says("The flash is over."));
  ASSERT_TRUE(host.Interrupt());
  EXPECT_EQ(host.WaitForEnd(), 0);
  EXPECT_THAT(host.Output(), AllOf(HasSubstr("Result 4 (succeeded)"), HasSubstr("could not be deleted"),
                                   HasSubstr(ToUtf8(workspace.ModemImage().wstring()))));
}

/// The one moment when the last attempt is behind it and the result not yet written.
TEST_F(FlashTest, TakesAFlashWithoutAttemptAndResultForOver) {
  workspace.MakeVirtualPc({kFast, "fault=request-not-heard"});
  ChildProcess host(workspace.CommandLineHost(), {L"flash"});
  ASSERT_TRUE(AwaitsRequest(host));
  key.Write(L"Flash_Result", 1);
  ASSERT_TRUE(host.Interrupt());
  ASSERT_TRUE(host.Says("The flash is over."));
  EXPECT_EQ(host.WaitForEnd(std::chrono::milliseconds(0)), std::nullopt);
}

TEST_F(FlashTest, LetsNoTimeLimitPassOnceTheFlashIsOver) {
  workspace.MakeVirtualPc({kFast, "fault=request-not-heard"});
  ChildProcess host(workspace.CommandLineHost(), {L"flash", L"--timeout", L"4"});
  ASSERT_TRUE(AwaitsRequest(host));
  ShowEnd(4);
  EXPECT_EQ(host.WaitForEnd(std::chrono::seconds(5)), std::nullopt);
}

}  // namespace

}  // namespace hosts
