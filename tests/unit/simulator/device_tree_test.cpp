#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "unit/simulator/simulation_test.h"

namespace simulator {

namespace {

constexpr wchar_t kModem[] = L"VID_1D5A&PID_0AC9&MI_00";
constexpr wchar_t kFlashPort[] = L"VID_1D5A&PID_0ACC&MI_00";
constexpr wchar_t kAtFilter[] = L"USB\\VID_1D5A&PID_0AE2&MI_00";
constexpr ULONG kFilterFlags = CM_GETIDLIST_FILTER_ENUMERATOR | CM_GETIDLIST_FILTER_PRESENT;
constexpr ULONG kPresentInterfaces = CM_GET_DEVICE_INTERFACE_LIST_PRESENT;

class DeviceTreeTest : public SimulationTest {
 protected:
  CONFIGRET Filtered(const wchar_t* filter, std::vector<std::wstring>& ids) {
    std::vector<wchar_t> list(1024);
    const CONFIGRET result = platform.IdList(filter, list.data(), 1024, kFilterFlags);
    ids = Split(list);
    return result;
  }
};

TEST_F(DeviceTreeTest, ShowsTheModemInItsMode) {
  Start();
  EXPECT_TRUE(IsPresent(kModem));
  EXPECT_FALSE(IsPresent(kFlashPort));
  pc->Modem().RebootByMbim();
  ASSERT_TRUE(Reaches(ModemState::Restarting) || Reaches(ModemState::FlashPort));
  EXPECT_FALSE(IsPresent(kModem));
  ASSERT_TRUE(Reaches(ModemState::FlashPort));
  EXPECT_TRUE(IsPresent(kFlashPort));
}

TEST_F(DeviceTreeTest, HasOtherDevicesToo) {
  Start();
  EXPECT_GE(PresentIds().size(), 8u);
  EXPECT_EQ(PresentIds().front(), L"HTREE\\ROOT\\0");
}

TEST_F(DeviceTreeTest, FilterMatchesTheWholeDeviceIdWhateverItsCase) {
  Start();
  std::vector<std::wstring> ids;
  EXPECT_EQ(Filtered(L"usb\\vid_1d5a&pid_0ae2&mi_00", ids), CR_SUCCESS);
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_TRUE(ids[0].starts_with(kAtFilter));
}

TEST_F(DeviceTreeTest, FilterDoesNotMatchAPartOfTheDeviceId) {
  Start();
  std::vector<std::wstring> ids;
  EXPECT_EQ(Filtered(L"USB\\VID_1D5A&PID_0AE2", ids), CR_NO_SUCH_VALUE);
  EXPECT_TRUE(ids.empty());
}

TEST_F(DeviceTreeTest, AnInstalledButAbsentDeviceGivesAnEmptyList) {
  options.faults.atPort.absent = true;
  Start();
  std::vector<std::wstring> ids;
  EXPECT_EQ(Filtered(kAtFilter, ids), CR_SUCCESS);
  EXPECT_TRUE(ids.empty());
}

TEST_F(DeviceTreeTest, AnEmptyIdNamesTheRootWhichHasNoFriendlyName) {
  Start();
  std::wstring empty;
  DEVINST root = 0;
  DEVINST found = 0;
  ASSERT_EQ(platform.Locate(&root, nullptr, CM_LOCATE_DEVNODE_NORMAL), CR_SUCCESS);
  ASSERT_EQ(platform.Locate(&found, empty.data(), CM_LOCATE_DEVNODE_NORMAL), CR_SUCCESS);
  EXPECT_EQ(found, root);
  std::array<wchar_t, 460> name{};
  ULONG size = sizeof(name);
  EXPECT_EQ(platform.Property(root, CM_DRP_FRIENDLYNAME, nullptr, name.data(), &size, 0), CR_NO_SUCH_VALUE);
  EXPECT_EQ(platform.Reenumerate(root, 0), CR_SUCCESS);
}

TEST_F(DeviceTreeTest, AtPortHasItsFriendlyName) {
  options.atPortNumber = 12;
  Start();
  std::vector<std::wstring> ids;
  ASSERT_EQ(Filtered(kAtFilter, ids), CR_SUCCESS);
  DEVINST port = 0;
  ASSERT_EQ(platform.Locate(&port, ids.at(0).data(), CM_LOCATE_DEVNODE_NORMAL), CR_SUCCESS);
  std::array<wchar_t, 460> name{};
  ULONG size = sizeof(name);
  ASSERT_EQ(platform.Property(port, CM_DRP_FRIENDLYNAME, nullptr, name.data(), &size, 0), CR_SUCCESS);
  EXPECT_STREQ(name.data(), L"Modem AT Port (COM12)");
}

TEST_F(DeviceTreeTest, AnAbsentDeviceIsNotLocated) {
  Start();
  std::wstring id = L"USB\\VID_1D5A&PID_0ACC&MI_00\\6&2C5F1A07&0&0000";
  DEVINST found = 0;
  EXPECT_EQ(platform.Locate(&found, id.data(), CM_LOCATE_DEVNODE_NORMAL), CR_NO_SUCH_DEVNODE);
}

TEST_F(DeviceTreeTest, AListThatGrewDoesNotFit) {
  options.faults.tree.deviceIds.grows = Occurrence::Times(1);
  Start();
  ULONG size = 0;
  ASSERT_EQ(platform.IdListSize(&size, nullptr, CM_GETIDLIST_FILTER_PRESENT), CR_SUCCESS);
  std::vector<wchar_t> list(size);
  EXPECT_EQ(platform.IdList(nullptr, list.data(), size, CM_GETIDLIST_FILTER_PRESENT), CR_BUFFER_SMALL);
  EXPECT_EQ(platform.IdList(nullptr, list.data(), size, CM_GETIDLIST_FILTER_PRESENT), CR_SUCCESS);
}

TEST_F(DeviceTreeTest, QueriesFailAsOftenAsToldTo) {
  options.faults.tree.serialInterfaces.sizeQueryFails = Occurrence::Only(2);
  options.faults.tree.serialInterfaces.code = CR_OUT_OF_MEMORY;
  Start();
  ULONG size = 0;
  GUID serial = kSerialClass;
  EXPECT_EQ(platform.InterfaceListSize(&size, &serial, nullptr, kPresentInterfaces), CR_SUCCESS);
  EXPECT_EQ(platform.InterfaceListSize(&size, &serial, nullptr, kPresentInterfaces), CR_OUT_OF_MEMORY);
  EXPECT_EQ(platform.InterfaceListSize(&size, &serial, nullptr, kPresentInterfaces), CR_SUCCESS);
}

TEST_F(DeviceTreeTest, AnEmptyInterfaceListHasSizeOne) {
  options.faults.driver.absent = true;
  Start();
  ULONG size = 0;
  GUID flash = kUdeFlashClass;
  EXPECT_EQ(platform.InterfaceListSize(&size, &flash, nullptr, kPresentInterfaces), CR_SUCCESS);
  EXPECT_EQ(size, 1u);
}

TEST_F(DeviceTreeTest, AnAbsentInterfaceIsInTheListOfAllAlone) {
  Start();
  const auto isFlashPort = [](const std::wstring& path) { return path.find(kFlashPort) != path.npos; };
  EXPECT_TRUE(std::ranges::none_of(Interfaces(kSerialClass), isFlashPort));
  const auto all = Interfaces(kSerialClass, CM_GET_DEVICE_INTERFACE_LIST_ALL_DEVICES);
  EXPECT_EQ(std::ranges::count_if(all, isFlashPort), 1);
}

TEST_F(DeviceTreeTest, RefusesFlagsThatInterfaceListsDoNotHave) {
  Start();
  ULONG size = 0;
  GUID serial = kSerialClass;
  EXPECT_EQ(platform.InterfaceListSize(&size, &serial, nullptr, CM_GETIDLIST_FILTER_PRESENT),
            CR_INVALID_FLAG);
  std::array<wchar_t, 1024> list{};
  EXPECT_EQ(platform.InterfaceList(&serial, nullptr, list.data(), 1024, CM_GETIDLIST_FILTER_PRESENT),
            CR_INVALID_FLAG);
}

TEST_F(DeviceTreeTest, FlashPortHasItsPathAmongTheSerialPorts) {
  options.initialState = ModemState::FlashPort;
  Start();
  const auto paths = Interfaces(kSerialClass);
  ASSERT_EQ(paths.size(), 2u);
  EXPECT_NE(paths[1].find(kFlashPort), std::wstring::npos);
}

TEST_F(DeviceTreeTest, FlashPortMayBeInLowerCase) {
  options.initialState = ModemState::FlashPort;
  options.faults.modem.flashPortLowerCase = true;
  Start();
  EXPECT_EQ(Interfaces(kSerialClass)[1].find(kFlashPort), std::wstring::npos);
  EXPECT_NE(Interfaces(kSerialClass)[1].find(L"vid_1d5a&pid_0acc&mi_00"), std::wstring::npos);
}

TEST_F(DeviceTreeTest, IdsMayBeInLowerCase) {
  options.faults.tree.lowerCaseIds = true;
  Start();
  EXPECT_FALSE(IsPresent(kModem));
  EXPECT_TRUE(IsPresent(L"vid_1d5a&pid_0ac9&mi_00"));
}

}  // namespace

}  // namespace simulator
