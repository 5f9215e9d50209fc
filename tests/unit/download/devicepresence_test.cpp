#include "download/devicepresence.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "common/facts.h"
#include "download/firmwaredownloader.h"
#include "support/device_tree.h"
#include "support/manual_clock.h"
#include "support/process_heap.h"
#include "support/test_log.h"

using corvel::IsDevicePresent;

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr wchar_t kMbimModem[] = L"USB\\VID_1D5A&PID_0AC9&MI_00\\6&1234&0&0000";
constexpr wchar_t kFlashPort[] = L"USB\\VID_1D5A&PID_0ACC&MI_00\\6&1234&0&0000";
constexpr wchar_t kOtherDevice[] = L"PCI\\VEN_8086&DEV_1234\\3&11583659&0&B8";

class DevicePresenceTest : public testing::Test {
 protected:
  bool ModemIsPresent() { return CFirmwareDownloader::IsMBIMModemPresence(); }
  bool FlashPortIsPresent() { return CFirmwareDownloader::IsFlashPortPresence(); }

  TestLog log;
  DeviceTree tree;
  ProcessHeap heap;
};

TEST_F(DevicePresenceTest, AModemAmongOtherDevicesIsFound) {
  tree.Has(kOtherDevice);
  tree.Has(kMbimModem);
  EXPECT_TRUE(ModemIsPresent());
  EXPECT_THAT(log.Said(),
              ElementsAre("IsMBIMModemPresence ++", "MBIM modem presence", "IsMBIMModemPresence --"));
  EXPECT_THAT(FunctionsOf(log.Records()), Each("CFirmwareDownloader::IsMBIMModemPresence"));
}

TEST_F(DevicePresenceTest, AFlashPortAmongOtherDevicesIsFound) {
  tree.Has(kOtherDevice);
  tree.Has(kFlashPort);
  EXPECT_TRUE(FlashPortIsPresent());
  EXPECT_THAT(log.Said(),
              ElementsAre("IsFlashPortPresence ++", "Flash port presence", "IsFlashPortPresence --"));
  EXPECT_THAT(FunctionsOf(log.Records()), Each("CFirmwareDownloader::IsFlashPortPresence"));
}

TEST_F(DevicePresenceTest, AnIdInLowerCaseIsFound) {
  tree.Has(L"usb\\vid_1d5a&pid_0ac9&mi_00\\6&1234&0&0000");
  EXPECT_TRUE(ModemIsPresent());
}

TEST_F(DevicePresenceTest, TheThirdInterfaceOfTheModemIsNotTheModem) {
  tree.Has(L"USB\\VID_1D5A&PID_0AC9&MI_02\\6&1234&0&0002");
  EXPECT_FALSE(ModemIsPresent());
  EXPECT_THAT(log.Said(), ElementsAre("IsMBIMModemPresence ++", "IsMBIMModemPresence --"));
}

TEST_F(DevicePresenceTest, AModemThatIsNoLongerThereIsNotFound) {
  tree.OnceHad(kMbimModem);
  EXPECT_FALSE(ModemIsPresent());
}

TEST_F(DevicePresenceTest, AModemInMbimModeIsNoFlashPort) {
  tree.Has(kMbimModem);
  EXPECT_FALSE(FlashPortIsPresent());
}

TEST_F(DevicePresenceTest, AModemInBootLoaderModeIsNoMbimModem) {
  tree.Has(kFlashPort);
  EXPECT_FALSE(ModemIsPresent());
}

TEST_F(DevicePresenceTest, BetweenTheModesNeitherIsPresent) {
  tree.Has(kOtherDevice);
  EXPECT_FALSE(ModemIsPresent());
  EXPECT_FALSE(FlashPortIsPresent());
}

TEST_F(DevicePresenceTest, AnEmptyListTakesOneBlockAndGivesItBack) {
  EXPECT_FALSE(ModemIsPresent());
  EXPECT_EQ(heap.Allocations(), 1);
  EXPECT_EQ(heap.Frees(), 1);
}

TEST_F(DevicePresenceTest, ARefusedLengthMeansAbsenceAndTakesNoMemory) {
  tree.Has(kMbimModem);
  tree.Refuses("CM_Get_Device_ID_List_SizeW", CR_FAILURE);
  EXPECT_FALSE(ModemIsPresent());
  EXPECT_EQ(heap.Allocations(), 0);
  EXPECT_THAT(log.Said(), Contains("IsMBIMModemPresence --").Times(1));
}

TEST_F(DevicePresenceTest, AFullHeapMeansAbsence) {
  tree.Has(kMbimModem);
  heap.IsFull();
  EXPECT_FALSE(ModemIsPresent());
  EXPECT_EQ(heap.Frees(), 0);
  EXPECT_EQ(tree.CallsOf("CM_Get_Device_ID_ListW"), 0);
  EXPECT_THAT(log.Said(), Contains("IsMBIMModemPresence --").Times(1));
}

TEST_F(DevicePresenceTest, ARefusedListMeansAbsenceAndGivesItsBlockBack) {
  tree.Has(kMbimModem);
  tree.Refuses("CM_Get_Device_ID_ListW", CR_FAILURE);
  EXPECT_FALSE(ModemIsPresent());
  EXPECT_EQ(heap.Frees(), 1);
  EXPECT_THAT(log.Said(), Contains("IsMBIMModemPresence --").Times(1));
}

TEST_F(DevicePresenceTest, ADeviceThatArrivesBehindTheLengthMeansAbsenceWithoutAnotherTry) {
  tree.AfterTellingALength([this] { tree.Has(kMbimModem); });
  EXPECT_FALSE(ModemIsPresent());
  EXPECT_EQ(tree.CallsOf("CM_Get_Device_ID_ListW"), 1);
}

TEST_F(DevicePresenceTest, AListThatBecomesEmptyBehindTheLengthMeansAbsence) {
  tree.Has(kMbimModem);
  tree.AfterTellingALength([this] { tree.LosesAllDevices(); });
  EXPECT_FALSE(ModemIsPresent());
  EXPECT_EQ(heap.Frees(), 1);
}

TEST_F(DevicePresenceTest, OnlyPresentDevicesAreAskedForAndTheBufferIsCountedInCharacters) {
  tree.Has(kMbimModem);
  ModemIsPresent();
  EXPECT_EQ(tree.LastFlags(), 0x100u);
  EXPECT_EQ(tree.LastBufferLength(), std::wstring(kMbimModem).size() + 2);
}

TEST_F(DevicePresenceTest, TheSharedTestFindsAnIdAndWritesNoRecord) {
  tree.Has(kFlashPort);
  EXPECT_TRUE(IsDevicePresent(corvel::facts::kFlashPortId));
  EXPECT_FALSE(IsDevicePresent(corvel::facts::kMbimModemId));
  EXPECT_THAT(log.Said(), IsEmpty());
}

class ReenumerationTest : public testing::Test {
 protected:
  TestLog log;
  DeviceTree tree;
  ManualClock clock;
};

TEST_F(ReenumerationTest, TheWholeTreeIsReenumeratedOnce) {
  EXPECT_TRUE(CFirmwareDownloader::ScanForHardwareChanges());
  EXPECT_EQ(tree.Reenumerations(), 1);
  EXPECT_EQ(clock.Passed(), 0u);
  EXPECT_THAT(log.Said(), IsEmpty());
}

TEST_F(ReenumerationTest, ARootThatIsNotFoundEndsTheScan) {
  tree.Refuses("CM_Locate_DevNodeW", CR_NO_SUCH_DEVNODE);
  EXPECT_FALSE(CFirmwareDownloader::ScanForHardwareChanges());
  EXPECT_EQ(tree.CallsOf("CM_Reenumerate_DevNode"), 0);
  EXPECT_EQ(log.LevelOf("\t CM_Locate_DevNode failed: d\n"), "Error");
}

TEST_F(ReenumerationTest, ARefusedReenumerationIsToldInHexadecimal) {
  tree.Refuses("CM_Reenumerate_DevNode", CR_BUFFER_SMALL);
  EXPECT_FALSE(CFirmwareDownloader::ScanForHardwareChanges());
  EXPECT_EQ(log.LevelOf("\t CM_Reenumerate_DevNode failed: 1a\n"), "Error");
}

TEST_F(ReenumerationTest, TheSettlingFormTakesASecond) {
  CFirmwareDownloader::ScanForHardwareChangesAndSettle();
  EXPECT_EQ(tree.Reenumerations(), 1);
  EXPECT_EQ(clock.Passed(), 1000u);
}

TEST_F(ReenumerationTest, TheSettlingFormTakesASecondEvenWhenTheRootIsNotFound) {
  tree.Refuses("CM_Locate_DevNodeW", CR_NO_SUCH_DEVNODE);
  CFirmwareDownloader::ScanForHardwareChangesAndSettle();
  EXPECT_EQ(clock.Passed(), 1000u);
  EXPECT_THAT(log.Said(), ElementsAre("E:\t CM_Locate_DevNode failed: d\n"));
}

TEST_F(ReenumerationTest, BothFormsTellTheirFailuresUnderTheScansName) {
  tree.Refuses("CM_Reenumerate_DevNode", CR_FAILURE);
  CFirmwareDownloader::ScanForHardwareChanges();
  CFirmwareDownloader::ScanForHardwareChangesAndSettle();
  tree.Refuses("CM_Locate_DevNodeW", CR_FAILURE);
  CFirmwareDownloader::ScanForHardwareChanges();
  CFirmwareDownloader::ScanForHardwareChangesAndSettle();
  EXPECT_THAT(FunctionsOf(log.Records()), ElementsAre("CFirmwareDownloader::ScanForHardwareChanges",
                                                      "CFirmwareDownloader::ScanForHardwareChanges",
                                                      "CFirmwareDownloader::ScanForHardwareChanges",
                                                      "CFirmwareDownloader::ScanForHardwareChanges"));
}

}  // namespace
