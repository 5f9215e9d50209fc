#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

using namespace std::chrono_literals;

const std::vector<Scenario>& Hangs() {
  static const std::vector<Scenario> rows{
      {.name = "library-hangs",
       .group = "hang",
       .description = "a download hangs past 130 s and comes back after the library was given up",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {OutlastsAttempt("_ZEMO_DL_download_fls_file", 1, 1s)};
                     }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {Error("\t Flash TIMEOUT or other issue, goto Flash_FAILED"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"), "\t Unload ++",
                            "CDownloadToolDll::Unload, release library", "\t Unload --",
                            "ToolKit::DownloadFirmwareImplementation --, result: ",
                            "++ CDownloadToolDll::Load", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "library-hangs-past-the-job",
       .group = "hang",
       .description = "a download hangs until the job is over and keeps the image from the other attempts",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {OutlastsAttempt("_ZEMO_DL_download_fls_file", 1, 60s)};
                     }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .modem = ModemState::FlashPort,
                    .memory = Memory::Incomplete,
                    .imagesLeft = 1,
                    .log = {Error("\t Flash TIMEOUT or other issue, goto Flash_FAILED"),
                            "modem.fls cannot be opened, ERROR: 32", Error("IsFirmwareFileValid FAIL, "),
                            Error("\t Flash still failed after reach maximum retry value"),
                            "\t WriteRegistry Flash_Result: 3", Error("modem.fls) failed with: 20"),
                            "\t Start a new loop process...",
                            "ToolKit::DownloadFirmwareImplementation --, result: "}}},
      {.name = "boot-hangs",
       .group = "hang",
       .description = "booting hangs past 10 s and comes back after the library was given up",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       LibraryCallFault hang;
                       hang.function = "_ZEMO_DL_boot_target";
                       hang.calls = Occurrence::Only(1);
                       hang.hang = 10500ms;
                       pc.faults.library.calls = {hang};
                     }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {"\t InjectBootTargetThread timeout: 10s",
                            Error("\t InjectBootTargetThread timeout or other issue, return FINIAL_FAIL"),
                            "ToolKit::DownloadFirmwareImplementation --, result: 5",
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            "\t InjectBootTargetThread return OK", "\t WriteRegistry Flash_Result: 4"}}},
  };
  return rows;
}

}  // namespace simulator
