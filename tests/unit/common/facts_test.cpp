#include "common/facts.h"

#include <gtest/gtest.h>

#include <objbase.h>

#include <array>
#include <string>

// Every fact in words of its own, so that a slip in the header cannot hide: nothing of the header stands on
// the expected side.
namespace {

namespace facts = corvel::facts;

std::wstring TextOf(const GUID& id) {
  std::array<wchar_t, 39> text{};
  ::StringFromGUID2(id, text.data(), static_cast<int>(text.size()));
  return text.data();
}

TEST(Facts, NameTheModemsDevices) {
  EXPECT_STREQ(facts::kMbimModemId, L"VID_1D5A&PID_0AC9&MI_00");
  EXPECT_STREQ(facts::kFlashPortId, L"VID_1D5A&PID_0ACC&MI_00");
  EXPECT_STREQ(facts::kAtPortId, L"USB\\VID_1D5A&PID_0AE2&MI_00");
}

TEST(Facts, NameTheInterfaceClasses) {
  EXPECT_EQ(TextOf(facts::kSerialPortClass), L"{86E0D1E0-8089-11D0-9CE4-08003E301F73}");
  EXPECT_EQ(TextOf(facts::kControlClass), L"{E7B2CCDC-4DD8-4B33-88F3-C0561B9470C9}");
  EXPECT_EQ(TextOf(facts::kResetClass), L"{6568C4A1-B6EE-4E4B-BC5F-CE819E627213}");
}

TEST(Facts, NameTheRegistryRoots) {
  EXPECT_STREQ(facts::kLocalMachineRoot, L"HKLM");
  EXPECT_STREQ(facts::kUsersRoot, L"HKU");
  EXPECT_STREQ(facts::kCurrentUserRoot, L"HKCU");
  EXPECT_STREQ(facts::kClassesRoot, L"HKCR");
  EXPECT_STREQ(facts::kCurrentConfigRoot, L"HCC");
  EXPECT_STREQ(facts::kCommandLineKey, L"SOFTWARE\\WOW6432Node\\Quenta\\FlashService");
}

TEST(Facts, NameTheHandshakesValues) {
  EXPECT_STREQ(facts::kReadyFlagValue, L"Fls_Ready");
  EXPECT_STREQ(facts::kRetryTimesValue, L"Retry_Times");
  EXPECT_STREQ(facts::kTimeOutValue, L"Time_Out");
  EXPECT_STREQ(facts::kProgressValue, L"Flash_Progress");
  EXPECT_STREQ(facts::kOnGoingValue, L"Flash_OnGoing");
  EXPECT_STREQ(facts::kResultValue, L"Flash_Result");
}

TEST(Facts, NumberTheResults) {
  EXPECT_EQ(facts::kResultIdle, 0);
  EXPECT_EQ(facts::kResultFlashing, 1);
  EXPECT_EQ(facts::kResultRetrying, 2);
  EXPECT_EQ(facts::kResultFailed, 3);
  EXPECT_EQ(facts::kResultSucceeded, 4);
}

TEST(Facts, NameTheFlashingLibraryAndItsSixteenFunctions) {
  EXPECT_STREQ(facts::kFlashingLibrary, "Firmwareflashdownload.dll");
  EXPECT_STREQ(facts::kBootTarget, "_ZEMO_DL_boot_target");
  EXPECT_STREQ(facts::kCloseCommPort, "_ZEMO_DL_close_comm_port");
  EXPECT_STREQ(facts::kDownloadCustFile, "_ZEMO_DL_download_cust_file");
  EXPECT_STREQ(facts::kDownloadFlsFile, "_ZEMO_DL_download_fls_file");
  EXPECT_STREQ(facts::kDownloadDffsFile, "_ZEMO_DL_download_dffs_file");
  EXPECT_STREQ(facts::kForceTargetReset, "_ZEMO_DL_force_target_reset");
  EXPECT_STREQ(facts::kGetSysVersion, "_ZEMO_DL_get_sys_version");
  EXPECT_STREQ(facts::kGetNextFreeChannel, "_ZEMO_get_next_free_channel");
  EXPECT_STREQ(facts::kGetNofProgressBars, "_ZEMO_DL_dll_get_nof_progressbars");
  EXPECT_STREQ(facts::kInitCallback, "_ZEMO_DL_init_callback");
  EXPECT_STREQ(facts::kOpenCommPort, "_ZEMO_DL_open_comm_port");
  EXPECT_STREQ(facts::kSetDllParameter, "_ZEMO_DL_set_dll_parameter");
  EXPECT_STREQ(facts::kTocGetFlashTechnology, "_ZEMO_DL_TOC_get_flash_technogy");
  EXPECT_STREQ(facts::kTocGetMemoryClass, "_ZEMO_DL_TOC_get_memory_class");
  EXPECT_STREQ(facts::kTocGetNofItems, "_ZEMO_DL_TOC_get_nof_items");
  EXPECT_STREQ(facts::kOutOfSessionComm, "_ZEMO_DL_out_of_session_comm");
}

TEST(Facts, TellTheVersion) {
  EXPECT_STREQ(facts::kVersion, "1.8.1");
}

}  // namespace
