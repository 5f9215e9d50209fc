#include "hosts/common/serving_notice.h"

#include <sstream>
#include "hosts/common/text.h"
#include "tests/hosts/cmdline_test.h"

namespace hosts {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

class StatusTest : public CommandLineTest {
 protected:
  nlohmann::json Status(const Arguments& more = {}) const {
    Arguments arguments{L"status", L"--json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const RunResult result = RunHost(arguments);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.errors, IsEmpty());
    return Document(result.output);
  }
};

TEST_F(StatusTest, ShowsTheSixValuesWithTheirMeaning) {
  const ServingNotice host(Server::CommandLine, key.Location());
  key.Write(L"Fls_Ready", 1);
  key.Write(L"Retry_Times", 0);
  key.Write(L"Time_Out", 153000);
  key.Write(L"Flash_OnGoing", 1);
  key.Write(L"Flash_Progress", 42);
  key.Write(L"Flash_Result", 2);
  const nlohmann::json values = Status()["values"];
  EXPECT_EQ(values["Fls_Ready"]["value"], 1);
  EXPECT_EQ(values["Retry_Times"]["meaning"], "up to 0 retries");
  EXPECT_EQ(values["Time_Out"]["meaning"], "153 s for one attempt and the modem's return");
  EXPECT_EQ(values["Flash_OnGoing"]["value"], 1);
  EXPECT_EQ(values["Flash_Progress"]["meaning"], "42 % of the images are written");
  EXPECT_EQ(values["Flash_Result"]["meaning"], "retrying");
}

TEST_F(StatusTest, TellsThatAHostRuns) {
  EXPECT_EQ(Status()["host_running"], false);
  const ServingNotice host(Server::CommandLine, key.Location());
  EXPECT_EQ(Status()["host_running"], true);
}

TEST_F(StatusTest, TakesNothingThatADeadHostLeftForAFlash) {
  key.Write(L"Flash_OnGoing", 1);
  key.Write(L"Flash_Result", 1);
  const nlohmann::json values = Status()["values"];
  EXPECT_EQ(values["Flash_Result"]["value"], 1);
  EXPECT_EQ(values["Flash_Result"]["meaning"], "cut short while flashing: no host runs");
  EXPECT_EQ(values["Flash_OnGoing"]["meaning"],
            "no job is running: the last one was cut short, or ended in failure");
  EXPECT_THAT(RunHost({L"status"}).output,
              HasSubstr("             The flash was cut short. The modem may be left in flash mode;\r\n"
                        "             the next flash recovers it.\r\n"));
  key.Write(L"Flash_Result", 2);
  EXPECT_EQ(Status()["values"]["Flash_Result"]["meaning"], "cut short while retrying: no host runs");
}

TEST_F(StatusTest, TellsWhoHasANameOfTheLibrarys) {
  workspace.MakeVirtualPc();
  EXPECT_TRUE(Status()["hindrances"].empty());
  workspace.MakeVirtualPc({"name-taken=RegistryNotify"});
  ASSERT_EQ(Status()["hindrances"].size(), 1u);
  EXPECT_THAT(
      RunHost({L"status"}).output,
      HasSubstr("Hindered:    another program has the name \"RegistryNotify\" for an object of another "
                "kind, so the library cannot hear of a request.\r\n"
                "             End that program; "));
}

TEST_F(StatusTest, SpeaksOfNoFlashCutShortWhenTheLastOneEnded) {
  key.Write(L"Flash_OnGoing", 1);
  key.Write(L"Flash_Result", 3);
  const RunResult result = RunHost({L"status"});
  EXPECT_THAT(result.output, HasSubstr("Flash_Result    3          failed\r\n"));
  EXPECT_THAT(result.output, testing::Not(HasSubstr("The flash was cut short")));
}

TEST_F(StatusTest, TellsAFlashFromOneThatWasKilled) {
  workspace.MakeVirtualPc({"speed=1"});
  ChildProcess host(workspace.CommandLineHost(), {L"flash"});
  ASSERT_TRUE(host.Says("into flash mode"));
  EXPECT_EQ(Status()["values"]["Flash_Result"]["meaning"], "flashing");
  host.Kill();
  EXPECT_EQ(Status()["values"]["Flash_Result"]["meaning"], "cut short while flashing: no host runs");
}

TEST_F(StatusTest, ShowsAKeyThatIsNotThereWithoutMakingIt) {
  const nlohmann::json values = Status()["values"];
  EXPECT_TRUE(values["Fls_Ready"]["value"].is_null());
  EXPECT_TRUE(values["Flash_Result"]["value"].is_null());
  EXPECT_FALSE(key.Exists());
}

TEST_F(StatusTest, ShowsTheImagesThatWouldBeTaken) {
  const nlohmann::json images = Status()["images"];
  EXPECT_EQ(images["modem"], ToUtf8(workspace.ModemImage().wstring()));
  EXPECT_EQ(images["nvm"], ToUtf8(workspace.NvmImage().wstring()));
}

TEST_F(StatusTest, ShowsTheModemsMode) {
  EXPECT_EQ(Status()["modem"]["mode"], "absent");
  workspace.MakeVirtualPc();
  const nlohmann::json modem = Status()["modem"];
  EXPECT_EQ(modem["mode"], "mbim");
  EXPECT_EQ(modem["at_port"], true);
  EXPECT_EQ(modem["reset_driver"], true);
  workspace.MakeVirtualPc({"state=flash port"});
  EXPECT_EQ(Status()["modem"]["mode"], "flash_port");
}

TEST_F(StatusTest, PrintsTheSameForPeople) {
  key.Write(L"Flash_Result", 4);
  const RunResult result = RunHost({L"status"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("HKLM\\SOFTWARE\\WOW6432Node\\Quenta\\FlashService"));
  EXPECT_THAT(result.output, HasSubstr("Flash_Result    4          succeeded"));
  EXPECT_THAT(result.output, HasSubstr("Modem:       absent, reset driver absent"));
}

TEST_F(StatusTest, PrintsTheModemsPartsAndWhatIsMissing) {
  workspace.MakeVirtualPc();
  workspace.RemoveLine("[ModemAndNVMFirmwareFolder]=");
  EXPECT_THAT(RunHost({L"status"}).output,
              HasSubstr("Modem:       MBIM (normal), AT port present, reset driver present\r\n"
                        "Folder:      (not configured)\r\n"
                        "Modem image: -\r\n"
                        "NVM image:   -\r\n"));
}

TEST_F(StatusTest, ShowsTheKeyOfTheServiceWhenAsked) {
  const simulator::KeptKey serviceKey(
      {.root = HKEY_CURRENT_USER,
       .rootName = L"HKCU",
       .path = L"Software\\Corvel\\Test\\Status-" + std::to_wstring(::GetCurrentProcessId())});
  serviceKey.Write(L"Flash_Progress", 7);
  workspace.SetServiceKey(ToWide(serviceKey.Location().Text()));
  const nlohmann::json status = Status({L"--service"});
  EXPECT_EQ(status["key"], serviceKey.Location().Text());
  EXPECT_EQ(status["values"]["Flash_Progress"]["value"], 7);
}

/// Who watches wants to see the flash that runs.
TEST_F(StatusTest, WatchFollowsAServiceThatRunsUnlessACommandLineFlashes) {
  const simulator::KeptKey serviceKey(
      {.root = HKEY_CURRENT_USER,
       .rootName = L"HKCU",
       .path = L"Software\\Corvel\\Test\\Status-" + std::to_wstring(::GetCurrentProcessId())});
  workspace.SetServiceKey(ToWide(serviceKey.Location().Text()));
  const ServingNotice service(Server::Service, serviceKey.Location());
  const auto watched = [&](const Arguments& more) {
    Arguments arguments{L"status", L"--watch"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    ChildProcess watcher(workspace.CommandLineHost(), arguments);
    EXPECT_TRUE(watcher.Says("Flash_Result"));
    EXPECT_TRUE(watcher.Interrupt());
    EXPECT_EQ(watcher.WaitForEnd(), 5);
    return watcher.Output();
  };
  EXPECT_THAT(watched({}), HasSubstr(serviceKey.Location().Text()));
  EXPECT_THAT(watched({L"--json"}), Not(HasSubstr("HKCU")));
  EXPECT_THAT(RunHost({L"status"}).output, Not(HasSubstr("HKCU"))) << "only a watch does";
  const ServingNotice commandLine(Server::CommandLine, key.Location());
  EXPECT_THAT(watched({}), Not(HasSubstr(serviceKey.Location().Text())));
}

TEST_F(StatusTest, CannotShowTheServiceWithoutItsConfiguration) {
  workspace.Remove(L"CorvelConfig.ini");
  const RunResult result = RunHost({L"status", L"--service", L"--json"});
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(ErrorCode(result.output), "no_configuration");
}

/// The service finds no configuration while somebody else has it open.
TEST_F(StatusTest, OpensNoConfigurationWhileAServiceStarts) {
  workspace.MakeVirtualPc({"service-starts=1"});
  EXPECT_EQ(Status()["images"]["folder"], "");
  EXPECT_THAT(RunHost({L"status"}).output,
              HasSubstr("Folder:      (not read: the flash service is starting)"));
  const RunResult service = RunHost({L"status", L"--service", L"--json"});
  EXPECT_EQ(service.exitCode, 4);
  EXPECT_EQ(ErrorCode(service.output), "service_starting");
}

TEST_F(StatusTest, WatchIsSilentWhileNothingChanges) {
  ChildProcess watcher(workspace.CommandLineHost(), {L"status", L"--watch", L"--json"});
  ASSERT_TRUE(watcher.Says("\"never raised\""));
  key.Write(L"Flash_Progress", 11);
  ASSERT_TRUE(watcher.Says("\"11 % of the images are written\""));
  // More than one of its looks at what announces nothing.
  EXPECT_FALSE(watcher.Says(watcher.Output() + "{", std::chrono::milliseconds(2500)));
}

TEST_F(StatusTest, WatchPrintsALineOfJsonPerChangeUntilItIsInterrupted) {
  ChildProcess watcher(workspace.CommandLineHost(), {L"status", L"--watch", L"--json"});
  ASSERT_TRUE(watcher.Says("\"never raised\""));
  key.Write(L"Flash_Progress", 11);
  ASSERT_TRUE(watcher.Says("\"11 % of the images are written\""));
  key.Write(L"Flash_Progress", 12);
  ASSERT_TRUE(watcher.Says("\"12 % of the images are written\""));
  // The folder announces nothing.
  std::filesystem::remove(workspace.NvmImage());
  ASSERT_TRUE(watcher.Says("\"nvm\":\"\""));
  ASSERT_TRUE(watcher.Interrupt());
  EXPECT_EQ(watcher.WaitForEnd(), 5);

  std::istringstream lines(watcher.Output());
  std::vector<std::string> documents;
  for (std::string line; std::getline(lines, line); documents.push_back(line)) {
    EXPECT_TRUE(Document(line).is_object()) << line;
    if (!documents.empty()) {
      EXPECT_NE(line, documents.back());
    }
  }
  EXPECT_GE(documents.size(), 4u);
}

}  // namespace

}  // namespace hosts
