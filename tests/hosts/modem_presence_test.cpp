#include "hosts/common/modem_presence.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/device_tree.h"

namespace hosts {

namespace {

constexpr GUID kResetInterface = {
    0x6568C4A1, 0xB6EE, 0x4E4B, {0xBC, 0x5F, 0xCE, 0x81, 0x9E, 0x62, 0x72, 0x13}};

class ModemPresenceTest : public testing::Test {
 protected:
  DeviceTree tree{::GetModuleHandleW(nullptr)};
};

TEST_F(ModemPresenceTest, ModemInItsNormalModeHasBothPorts) {
  tree.Has(L"USB\\VID_1D5A&PID_0AC9&MI_00\\7&1");
  tree.Has(L"USB\\VID_1D5A&PID_0AE2&MI_00\\7&2");
  EXPECT_EQ(LookForModem().mode, ModemMode::Mbim);
  EXPECT_TRUE(LookForModem().atPort);
}

TEST_F(ModemPresenceTest, ModemThatWasOnceThereIsNone) {
  tree.OnceHad(L"USB\\VID_1D5A&PID_0AC9&MI_00\\7&1");
  EXPECT_EQ(LookForModem().mode, ModemMode::Absent);
}

TEST_F(ModemPresenceTest, BootLoader) {
  tree.Has(L"USB\\VID_1D5A&PID_0ACC&MI_00\\7&1");
  EXPECT_EQ(LookForModem().mode, ModemMode::FlashPort);
  EXPECT_FALSE(LookForModem().atPort);
}

/// A list may still hold what is just leaving.
TEST_F(ModemPresenceTest, NormalModeCountsBesideTheBootLoader) {
  tree.Has(L"USB\\VID_1D5A&PID_0ACC&MI_00\\7&1");
  tree.Has(L"USB\\VID_1D5A&PID_0AC9&MI_00\\7&2");
  EXPECT_EQ(LookForModem().mode, ModemMode::Mbim);
}

TEST(ModemModeTest, HasANameForPeopleAndOneForPrograms) {
  EXPECT_STREQ(NameOf(ModemMode::Mbim), "MBIM (normal)");
  EXPECT_STREQ(NameOf(ModemMode::FlashPort), "flash port (boot loader)");
  EXPECT_STREQ(NameOf(ModemMode::AtPortOnly), "AT port only");
  EXPECT_STREQ(NameOf(ModemMode::Absent), "absent");
  EXPECT_STREQ(TokenOf(ModemMode::Mbim), "mbim");
  EXPECT_STREQ(TokenOf(ModemMode::FlashPort), "flash_port");
  EXPECT_STREQ(TokenOf(ModemMode::AtPortOnly), "at_port");
  EXPECT_STREQ(TokenOf(ModemMode::Absent), "absent");
}

TEST_F(ModemPresenceTest, AtPortAlone) {
  tree.Has(L"USB\\VID_1D5A&PID_0AE2&MI_00\\7&2");
  EXPECT_EQ(LookForModem().mode, ModemMode::AtPortOnly);
  EXPECT_STREQ(TokenOf(LookForModem().mode), "at_port");
}

TEST_F(ModemPresenceTest, NothingAmongOtherDevices) {
  tree.Has(L"USB\\VID_1234&PID_0AC9&MI_00\\7&1");
  EXPECT_EQ(LookForModem().mode, ModemMode::Absent);
}

TEST_F(ModemPresenceTest, IdsInLowerCase) {
  tree.Has(L"usb\\vid_1d5a&pid_0ac9&mi_00\\7&1");
  EXPECT_EQ(LookForModem().mode, ModemMode::Mbim);
}

TEST_F(ModemPresenceTest, DeviceThatComesWhileTheListIsTaken) {
  tree.AfterTellingALength([this] { tree.Has(L"USB\\VID_1D5A&PID_0AC9&MI_00\\7&1"); });
  EXPECT_EQ(LookForModem().mode, ModemMode::Mbim);
}

TEST_F(ModemPresenceTest, ListThatCannotBeHad) {
  tree.Has(L"USB\\VID_1D5A&PID_0AC9&MI_00\\7&1");
  tree.Refuses("CM_Get_Device_ID_List_SizeW", CR_FAILURE);
  EXPECT_EQ(LookForModem().mode, ModemMode::Absent);
}

ULONG g_interfaceFlags = 0;

CONFIGRET WINAPI RecordInterfaceFlags(PULONG length, LPGUID, DEVINSTID_W, ULONG flags) {
  g_interfaceFlags = flags;
  *length = 1;
  return CR_SUCCESS;
}

TEST_F(ModemPresenceTest, AsksForTheInterfaceOfAPresentResetDriverAlone) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("CM_Get_Device_Interface_List_SizeW", &RecordInterfaceFlags);
  EXPECT_FALSE(LookForModem().resetDriver);
  EXPECT_EQ(g_interfaceFlags, static_cast<ULONG>(CM_GET_DEVICE_INTERFACE_LIST_PRESENT));
}

TEST_F(ModemPresenceTest, ResetDriver) {
  EXPECT_FALSE(LookForModem().resetDriver);
  tree.HasInterface(kResetInterface, L"\\\\?\\UDE#1");
  EXPECT_TRUE(LookForModem().resetDriver);
}

TEST_F(ModemPresenceTest, ResetDriverThatWasOnceThereIsNone) {
  tree.OnceHadInterface(kResetInterface, L"\\\\?\\UDE#1");
  EXPECT_FALSE(LookForModem().resetDriver);
}

TEST_F(ModemPresenceTest, NamesItsDevicesWithoutTheirNumbers) {
  tree.Has(L"USB\\VID_1D5A&PID_0AC9\\356938035643809");
  tree.Has(L"usb\\vid_1d5a&pid_0ac9&mi_00\\7&1");
  tree.Has(L"USB\\VID_1234&PID_0AC9\\0001");
  EXPECT_THAT(PresentModemDevices(),
              testing::UnorderedElementsAre(L"USB\\VID_1D5A&PID_0AC9", L"USB\\VID_1D5A&PID_0AC9&MI_00"));
}

}  // namespace

}  // namespace hosts
