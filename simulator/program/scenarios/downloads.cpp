#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

using namespace std::chrono_literals;

const std::vector<Scenario>& Downloads() {
  static const std::vector<Scenario> rows{
      {.name = "download-fails-once",
       .group = "download",
       .description = "the first download fails, the second succeeds",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Times(1))};
                     }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {Error("\t Could not download file(|0|"),
                            "\t DownloadFirmwareIntoDevice FAIL, set m_return_result = FirmwareUpdateFailed;",
                            "\t Download finished, result: 5", Error("\t Flash FAILED, goto Flash_FAILED"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            "\t WriteRegistry Flash_Result: 2", "\t Unload ++",
                            "\t After unload dll, wait 5s for UDE CALL BB_RST", "++ CDownloadToolDll::Load",
                            "\t WriteRegistry Flash_Result: 1",
                            "\t Flash port available. Getting flash port path",
                            "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "download-fails-three-times",
       .group = "download",
       .description = "the last attempt within the limit succeeds",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Times(3))};
                     }},
       .expected = {.values = Success(),
                    .attempts = 4,
                    .log = {Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 2(Max 3)"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 3(Max 3)"),
                            "\t Flash OK, to wait for MBIM Modem re-arrival",
                            "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "download-fails-no-retries",
       .group = "download",
       .description = "\"Retry_Times\" is 0: one failed download ends the job",
       .setup = {.retryTimes = 0,
                 .faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Always())};
                     }},
       .expected = {.values = Failure(0, 0),
                    .attempts = 1,
                    .modem = ModemState::FlashPort,
                    .memory = Memory::Untouched,
                    .log = {Error("\t Flash FAILED, goto Flash_FAILED"),
                            Error("\t Flash still failed after reach maximum retry value"),
                            "\t WriteRegistry Flash_Result: 3", "\t Unload ++", Error("\t DeleteFLSFiles ++"),
                            "\t Start a new loop process..."},
                    .forbidden = {"\t Flash FAIL, retry again", "\t WriteRegistry Flash_Result: 2"}}},
      {.name = "download-fails-default-limit",
       .group = "download",
       .description = "\"Retry_Times\" is absent: four failed downloads end the job",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Always())};
                     }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .modem = ModemState::FlashPort,
                    .memory = Memory::Untouched,
                    .log = {Error("\t Flash FAIL, retry again, g_retry_times: 3(Max 3)"),
                            Error("\t Flash FAILED, goto Flash_FAILED"),
                            Error("\t Flash still failed after reach maximum retry value"),
                            "\t WriteRegistry Flash_Result: 3", "\t Start a new loop process...",
                            "\t WriteRegistry Flash_OnGoing: 0"}}},
      {.name = "download-fails-stated-limit",
       .group = "download",
       .description = "\"Retry_Times\" is 3: the same",
       .setup = {.retryTimes = 3,
                 .faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Always())};
                     }},
       .expected = {.values = Failure(0, 3),
                    .attempts = 4,
                    .modem = ModemState::FlashPort,
                    .memory = Memory::Untouched,
                    .log = {"\t Read regedit Retry_Times successfully, data:3",
                            Error("\t Flash FAIL, retry again, g_retry_times: 3(Max 3)"),
                            Error("\t Flash still failed after reach maximum retry value")}}},
      {.name = "parameters-refused",
       .group = "download",
       .description = "the flashing library refuses a parameter: the modem is left alone",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.library.calls = {ParameterRefused(17)}; }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::Untouched,
                    .log = {Error("Setting parameter, 1 failed"), "\t InitializeParametersForDownload FAIL, ",
                            "ToolKit::DownloadFirmwareImplementation --, result: 0",
                            Error("\t Flash still failed after reach maximum retry value")},
                    .forbidden = {"Adding Flashfls:", "\t GO BootDeviceInFirmwareMode"}}},
      {.name = "no-progress-steps",
       .group = "download",
       .description = "the flashing library announces no progress steps: nothing is written",
       .setup = {.retryTimes = 0,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.library.calls = {NoProgressBars()}; }},
       .expected = {.values = Failure(0, 0),
                    .attempts = 1,
                    .modem = ModemState::FlashPort,
                    .memory = Memory::Untouched,
                    .log = {"\t DownloadFirmwareIntoDevice FAIL, set m_return_result = FirmwareUpdateFailed;",
                            "\t Download finished, result: 5"}}},
  };
  return rows;
}

}  // namespace simulator
