#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

const std::vector<Scenario>& Resets() {
  static const std::vector<Scenario> rows{
      {.name = "reset-refused-once",
       .group = "reset",
       .description = "the modem is not reset after the first download",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ForcedResetRefused(Occurrence::Times(1))};
                     }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {"\t DownloadFirmwareIntoDevice OK",
                            "\t ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;",
                            "\t Download finished, result: 5",
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            "\t ForceTargetReset OK.", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "reset-refused-always",
       .group = "reset",
       .description = "the modem is never reset: all is written, and the job has failed",
       .setup = {.retryTimes = 1,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.library.calls = {ForcedResetRefused()}; }},
       .expected = {.values = Failure(kProgressOfAllItems, 1),
                    .attempts = 2,
                    .modem = ModemState::FlashPort,
                    .log = {"\t ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;",
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 1)"),
                            "\t ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;",
                            Error("\t Flash still failed after reach maximum retry value"),
                            "\t WriteRegistry Flash_Result: 3"}}},
  };
  return rows;
}

}  // namespace simulator
