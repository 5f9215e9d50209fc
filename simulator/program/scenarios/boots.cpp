#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

using namespace std::chrono_literals;

const std::vector<Scenario>& Boots() {
  static const std::vector<Scenario> rows{
      {.name = "boot-refused-once",
       .group = "boot",
       .description = "the target is refused once; a baseband reset and it boots",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {BootTargetRefused(Occurrence::Times(1))};
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {Error("\t ERROR: Boot Target failed due to "), "\t Close Comm Port",
                            "\t Wait 4s after close commport due to it will trigger UDE BB_RST",
                            "\t Call BB_RST, g_retry_times: 1", "\t Call BB_RST OK, waiting for flash port.",
                            "\t InjectBootTargetThread return NEED_BBRST",
                            "\t Flash channel = ", "\t InjectBootTargetThread return OK",
                            "\t BootDeviceInFirmwareMode OK", "\t WriteRegistry Flash_Result: 4"},
                    .once = {"\t GO BootDeviceInFirmwareMode, g_retry_times: "}}},
      {.name = "boot-refused-always",
       .group = "boot",
       .description = "the target never boots: the reset budget is spent in the first attempt",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {BootTargetRefused(Occurrence::Always())};
                     }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .resets = 2,
                    .memory = Memory::Untouched,
                    .log = {"\t Call BB_RST, g_retry_times: 1", "\t InjectBootTargetThread return NEED_BBRST",
                            "\t Call BB_RST, g_retry_times: 3", "\t InjectBootTargetThread return NEED_BBRST",
                            Error("\t Call BB_RST 5 times, reached maximum retry times!!!"),
                            "\t ControlBBrst --", Error("\t InjectBootTargetThread return FINIAL_FAIL"),
                            "ToolKit::DownloadFirmwareImplementation --, result: 5",
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            "\t MarkFirmwareFileForDownload OK",
                            "ToolKit::DownloadFirmwareImplementation --, result: 5",
                            Error("\t Flash still failed after reach maximum retry value")},
                    .once = {"\t GO BootDeviceInFirmwareMode, g_retry_times: "}}},
      {.name = "boot-refused-no-retries",
       .group = "boot",
       .description = "the target is refused and \"Retry_Times\" is 0: no baseband reset either",
       .setup = {.retryTimes = 0,
                 .faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {BootTargetRefused(Occurrence::Always())};
                     }},
       .expected = {.values = Failure(0, 0),
                    .attempts = 1,
                    .modem = ModemState::FlashPort,
                    .memory = Memory::Untouched,
                    .log = {Error("\t ERROR: Boot Target failed due to "),
                            Error("\t Call BB_RST 1 times, reached maximum retry times!!!"),
                            Error("\t Flash still failed after reach maximum retry value")}}},
      {.name = "port-refused-once",
       .group = "boot",
       .description = "the flash port cannot be opened once",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {OpenPortRefused(Occurrence::Times(1))};
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {Error("\t ERROR: Open Comm Port failed due to "), "\t Close Comm Port",
                            "\t Call BB_RST, g_retry_times: 1", "\t InjectBootTargetThread return NEED_BBRST",
                            "\t InjectBootTargetThread return OK", "\t WriteRegistry Flash_Result: 4"},
                    // What was never opened cannot be closed, and only a close needs the pause.
                    .forbidden = {"\t Wait 4s after close commport"}}},
      {.name = "port-refused-always",
       .group = "boot",
       .description = "the flash port can never be opened",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {OpenPortRefused(Occurrence::Always())};
                     }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .resets = 2,
                    .memory = Memory::Untouched,
                    .log = {Error("\t ERROR: Open Comm Port failed due to "),
                            "\t Call BB_RST, g_retry_times: 1",
                            Error("\t ERROR: Open Comm Port failed due to "),
                            "\t Call BB_RST, g_retry_times: 3",
                            Error("\t ERROR: Open Comm Port failed due to "),
                            Error("\t Call BB_RST 5 times, reached maximum retry times!!!"),
                            Error("\t Flash still failed after reach maximum retry value")},
                    .once = {"\t GO BootDeviceInFirmwareMode, g_retry_times: "},
                    .forbidden = {"\t Downloader, BootTarget"}}},
  };
  return rows;
}

}  // namespace simulator
