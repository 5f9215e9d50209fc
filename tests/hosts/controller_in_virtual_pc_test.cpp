// The example of a controlling program, with the real service in a virtual PC.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "hosts/common/text.h"
#include "simulator/host/kept_key.h"
#include "tests/hosts/child_process.h"
#include "tests/hosts/host_workspace.h"

namespace hosts {

using testing::HasSubstr;

namespace {

constexpr DWORD kLookPeriodMs = 50;

class ControllerInVirtualPcTest : public testing::Test {
 protected:
  void StartService(const std::vector<std::string>& pc) {
    workspace.SetServiceKey(ToWide(key.Location().Text()));
    workspace.MakeVirtualPc(pc);
    service =
        std::make_unique<ChildProcess>(workspace.Service(), std::vector<std::wstring>{L"run", L"--console"});
    ASSERT_TRUE(service->Says("Waiting for Fls_Ready"));
  }
  /// Once it does, the library has written its values and has not begun to wait for a request.
  bool LibraryFindsItsNameTaken() const {
    constexpr int kMostLooks = 600;
    const auto hasSaidSo = [this] {
      return workspace.Content(L"FlashServiceDebugLogger_DLL.log").find("CreateEvent FAIL") !=
             std::string::npos;
    };
    for (int look = 0; look < kMostLooks && !hasSaidSo(); ++look) ::Sleep(kLookPeriodMs);
    return hasSaidSo();
  }
  /// They are deleted behind the end of the request; until then nobody else may lay new ones.
  bool ImagesAreGone() const {
    constexpr int kMostLooks = 600;
    const auto isThere = [this] {
      return std::filesystem::exists(workspace.ModemImage()) || std::filesystem::exists(workspace.NvmImage());
    };
    for (int look = 0; look < kMostLooks && isThere(); ++look) ::Sleep(kLookPeriodMs);
    return !isThere();
  }
  ~ControllerInVirtualPcTest() override {
    if (service != nullptr) service->Kill();
  }
  std::filesystem::path Program() const { return ProgramFolder() + L"controller_example.exe"; }
  std::vector<std::wstring> Arguments(const std::wstring& seconds = L"600") const {
    return {ToWide(key.Location().Text()), seconds};
  }

  simulator::KeptKey key{
      {.root = HKEY_CURRENT_USER,
       .rootName = L"HKCU",
       .path = L"Software\\Corvel\\Test\\" + std::to_wstring(::GetCurrentProcessId()) + L"\\InVirtualPc"}};
  HostWorkspace workspace{L" controller"};
  std::unique_ptr<ChildProcess> service;
};

TEST_F(ControllerInVirtualPcTest, FlashesTwiceInARow) {
  StartService({"speed=60"});
  for (int time = 1; time <= 2; ++time) {
    workspace.PutImages();
    const RunResult controller = RunToEnd(Program(), Arguments());
    EXPECT_EQ(controller.exitCode, 0) << time << controller.output << controller.errors;
    EXPECT_THAT(controller.output, HasSubstr("Flash_Result 4: flashed"));
    ASSERT_TRUE(service->Says("Flash_Result 4"));
    ASSERT_TRUE(ImagesAreGone());
  }
  EXPECT_TRUE(workspace.CompareModemMemory().equal);
}

TEST_F(ControllerInVirtualPcTest, SeesAnAttemptRepeated) {
  StartService({"speed=60", "scenario=download-fails-once"});
  const RunResult controller = RunToEnd(Program(), Arguments());
  EXPECT_EQ(controller.exitCode, 0) << controller.errors;
  EXPECT_THAT(controller.output, HasSubstr("Flash_Result 2"));
}

TEST_F(ControllerInVirtualPcTest, LeavesTheRequestOfAServiceThatIsKilledInAFlash) {
  StartService({"speed=1"});
  ChildProcess controller(Program(), Arguments());
  ASSERT_TRUE(controller.Says("Flash_Result 1"));
  service->Kill();
  key.Write(L"Time_Out", 500);
  EXPECT_EQ(controller.WaitForEnd(), 3);
  EXPECT_THAT(controller.Errors(), HasSubstr("The service fell silent"));
  EXPECT_EQ(key.Read().ready, 1u);
}

/// Such a service lives and hears of no request.
TEST_F(ControllerInVirtualPcTest, TakesTheRequestBackWhenAnotherProgramHasTheNameThatTheLibraryNeeds) {
  StartService({"name-taken=RegistryNotify"});
  EXPECT_TRUE(service->Says("nother program has the name \"RegistryNotify\""));
  ASSERT_TRUE(LibraryFindsItsNameTaken());
  const RunResult controller = RunToEnd(Program(), Arguments(L"2"));
  EXPECT_EQ(controller.exitCode, 3);
  EXPECT_THAT(controller.errors, HasSubstr("Nobody took the request"));
  EXPECT_EQ(key.Read().ready, 0u);
}

TEST_F(ControllerInVirtualPcTest, SeesTheEndAlthoughItsRequestWasTakenBackInTheMiddle) {
  StartService({"speed=10"});
  ChildProcess controller(Program(), Arguments());
  ASSERT_TRUE(controller.Says("Flash_Result 1"));
  key.Write(L"Fls_Ready", 0);
  EXPECT_EQ(controller.WaitForEnd(), 1);
  EXPECT_THAT(controller.Output(), HasSubstr("the request was taken back"));
  ASSERT_TRUE(service->Says("Flash_Result 4"));
}

TEST_F(ControllerInVirtualPcTest, LeavesTheFlashAloneWhenItsTimeIsUp) {
  StartService({"speed=2"});
  ChildProcess controller(Program(), Arguments(L"3"));
  EXPECT_EQ(controller.WaitForEnd(), 3);
  EXPECT_THAT(controller.Errors(), HasSubstr("The time limit passed"));
  EXPECT_EQ(key.Read().ready, 1u);
}

TEST_F(ControllerInVirtualPcTest, IsInterruptedInAFlashThatGoesOn) {
  StartService({"speed=10"});
  ChildProcess controller(Program(), Arguments());
  ASSERT_TRUE(controller.Says("Flash_Result 1"));
  ASSERT_TRUE(controller.Interrupt());
  EXPECT_EQ(controller.WaitForEnd(), 3);
  EXPECT_THAT(controller.Errors(), HasSubstr("Interrupted"));
  EXPECT_EQ(key.Read().ready, 1u);
}

}  // namespace

}  // namespace hosts
