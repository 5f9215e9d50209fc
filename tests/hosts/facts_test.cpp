#include "hosts/common/facts.h"

#include <gtest/gtest.h>

#include <objbase.h>

#include <array>
#include <cstddef>
#include <iterator>

#include "controller.h"

// Every fact in words of its own, so that a slip in the header cannot hide: nothing of the headers stands on
// the expected side.
namespace hosts {

namespace {

TEST(HostFacts, NameTheServiceAndTheFiles) {
  EXPECT_STREQ(kServiceName, L"CorvelFlashService");
  EXPECT_STREQ(kConfigurationName, L"CorvelConfig.ini");
  EXPECT_STREQ(kLibraryName, L"CorvelToolKit.dll");
  EXPECT_STREQ(kFlashingLibraryName, L"Firmwareflashdownload.dll");
  EXPECT_STREQ(kServiceLogName, L"FlashServiceDebugLogger_DLL.log");
  EXPECT_STREQ(kCommandLineLogName, L"FlashCommandLineLogger_DLL.log");
  EXPECT_STREQ(kHistoryName, L"CorvelFlashHistory.txt");
}

TEST(HostFacts, NameTheKeyOfTheCommandLine) {
  EXPECT_STREQ(kCommandLineKey, L"SOFTWARE\\WOW6432Node\\Quenta\\FlashService");
}

TEST(HostFacts, NameTheKeysOfTheConfiguration) {
  EXPECT_STREQ(kTraceLevelKey, L"[TraceLevel]");
  EXPECT_STREQ(kRegistryLocationKey, L"[RegistryLocation]");
  EXPECT_STREQ(kFirmwareFolderKey, L"[ModemAndNVMFirmwareFolder]");
  EXPECT_STREQ(kIpcTypeKey, L"[IPCTYPE]");
  EXPECT_STREQ(kRebootTypeKey, L"[REBOOTTYPE]");
  EXPECT_STREQ(kEraseModeKey, L"[ERASEMODE]");
}

TEST(HostFacts, NameWhatTheFlashingLibraryMustHave) {
  constexpr const char* kAll[] = {"_ZEMO_DL_boot_target",
                                  "_ZEMO_DL_close_comm_port",
                                  "_ZEMO_DL_download_cust_file",
                                  "_ZEMO_DL_download_dffs_file",
                                  "_ZEMO_DL_download_fls_file",
                                  "_ZEMO_DL_force_target_reset",
                                  "_ZEMO_DL_get_sys_version",
                                  "_ZEMO_get_next_free_channel",
                                  "_ZEMO_DL_dll_get_nof_progressbars",
                                  "_ZEMO_DL_init_callback",
                                  "_ZEMO_DL_open_comm_port",
                                  "_ZEMO_DL_set_dll_parameter",
                                  "_ZEMO_DL_TOC_get_flash_technogy",
                                  "_ZEMO_DL_TOC_get_memory_class",
                                  "_ZEMO_DL_TOC_get_nof_items"};
  ASSERT_EQ(std::size(kFlashingLibraryExports), std::size(kAll));
  for (std::size_t i = 0; i < std::size(kAll); ++i) EXPECT_STREQ(kFlashingLibraryExports[i], kAll[i]);
}

TEST(HostFacts, TellTheModemAndItsImages) {
  EXPECT_EQ(kSmallestModemImage, 10485760u);
  EXPECT_STREQ(kModemId, L"VID_1D5A&PID_0AC9&MI_00");
  EXPECT_STREQ(kFlashPortId, L"VID_1D5A&PID_0ACC&MI_00");
  EXPECT_STREQ(kAtPortId, L"USB\\VID_1D5A&PID_0AE2&MI_00");
  std::array<wchar_t, 39> text{};
  ::StringFromGUID2(kResetClass, text.data(), static_cast<int>(text.size()));
  EXPECT_STREQ(text.data(), L"{6568C4A1-B6EE-4E4B-BC5F-CE819E627213}");
}

TEST(HostFacts, NameTheValuesAndResultsForControllingPrograms) {
  EXPECT_STREQ(corvel::kReadyValue, L"Fls_Ready");
  EXPECT_STREQ(corvel::kRetryTimesValue, L"Retry_Times");
  EXPECT_STREQ(corvel::kTimeOutValue, L"Time_Out");
  EXPECT_STREQ(corvel::kOnGoingValue, L"Flash_OnGoing");
  EXPECT_STREQ(corvel::kProgressValue, L"Flash_Progress");
  EXPECT_STREQ(corvel::kResultValue, L"Flash_Result");
  EXPECT_EQ(static_cast<int>(corvel::FlashResult::Idle), 0);
  EXPECT_EQ(static_cast<int>(corvel::FlashResult::Flashing), 1);
  EXPECT_EQ(static_cast<int>(corvel::FlashResult::Retrying), 2);
  EXPECT_EQ(static_cast<int>(corvel::FlashResult::Failed), 3);
  EXPECT_EQ(static_cast<int>(corvel::FlashResult::Succeeded), 4);
}

}  // namespace

}  // namespace hosts
