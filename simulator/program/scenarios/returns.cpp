#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

using namespace std::chrono_literals;

const std::vector<Scenario>& Returns() {
  static const std::vector<Scenario> rows{
      {.name = "return-late",
       .group = "return",
       .description = "the modem comes back 10 s late, within the limit",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.returnDelay = 10s; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"\t Flash OK, to wait for MBIM Modem re-arrival", "\t MBIM modem re-found",
                            "\t check m_MBIM_Modem_presence: 1, Re-arrived",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t Wait Modem re-arrival timeout"}}},
      {.name = "return-at-last-check",
       .group = "return",
       .description = "the modem is found only by the look behind the 23 s",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.returnsAtLastCheck = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {Error(
                                "\t Wait Modem re-arrival timeout or other issue, Let's check it last time"),
                            "IsMBIMModemPresence ++", "MBIM modem presence",
                            "\t MBIM Modem re-arrival, FW update OK", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t MBIM device not arrival, retry again"}}},
      {.name = "return-after-reset",
       .group = "return",
       .description = "the modem comes back after one baseband reset",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.returnsAfterResets = 1; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {Error(
                                "\t Wait Modem re-arrival timeout or other issue, Let's check it last time"),
                            Error("\t MBIM device not arrival, retry again, 1(Max 3)"),
                            "\t WriteRegistry Flash_Result: 2", "\t Unload ++", "TriggerFlashReset ++",
                            "TriggerFlashReset --", "\t MBIM modem re-found",
                            "\t MBIM Modem re-arrival, FW update OK", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "return-never",
       .group = "return",
       .description = "the modem never comes back: three resets, then the job has failed",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.neverReturns = true; }},
       .expected = {.values = Failure(100),
                    .attempts = 1,
                    .resets = 3,
                    .modem = ModemState::Dead,
                    .log = {Error("\t MBIM device not arrival, retry again, 1(Max 3)"),
                            "TriggerFlashReset ++",
                            Error("\t MBIM device not arrival, retry again, 2(Max 3)"),
                            "TriggerFlashReset ++",
                            Error("\t MBIM device not arrival, retry again, 3(Max 3)"),
                            "TriggerFlashReset ++", Error("\t Flash FAIL when reach the maximum retry time."),
                            Error("\t Flash OK, but wait Modem re-arrived failed"),
                            "\t WriteRegistry Flash_OnGoing: 0", "\t WriteRegistry Flash_Result: 3",
                            "\t Unload ++", Error("\t DeleteFLSFiles ++")}}},
      {.name = "return-never-no-retries",
       .group = "return",
       .description = "the modem never comes back and \"Retry_Times\" is 0: no baseband reset",
       .setup = {.retryTimes = 0,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.modem.neverReturns = true; }},
       .expected = {.values = Failure(100, 0),
                    .attempts = 1,
                    .modem = ModemState::Dead,
                    .log = {Error("\t Flash FAIL when reach the maximum retry time."),
                            Error("\t Flash OK, but wait Modem re-arrived failed")},
                    .forbidden = {"TriggerFlashReset"}}},
      {.name = "mixed-within-limit",
       .group = "return",
       .description = "two failed downloads and one failed return draw on one counter, just enough",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Times(2))};
                       pc.faults.modem.returnsAfterResets = 1;
                     }},
       .expected = {.values = Success(),
                    .attempts = 3,
                    .resets = 1,
                    .log = {Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 2(Max 3)"),
                            Error("\t MBIM device not arrival, retry again, 3(Max 3)"),
                            "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "mixed-past-limit",
       .group = "return",
       .description = "two failed downloads leave two waits for a modem that never comes back",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Times(2))};
                       pc.faults.modem.neverReturns = true;
                     }},
       .expected = {.values = Failure(100),
                    .attempts = 3,
                    .resets = 1,
                    .modem = ModemState::Dead,
                    .log = {Error("\t Flash FAIL, retry again, g_retry_times: 2(Max 3)"),
                            Error("\t Wait Modem re-arrival timeout or other issue"),
                            Error("\t MBIM device not arrival, retry again, 3(Max 3)"),
                            Error("\t Wait Modem re-arrival timeout or other issue"),
                            Error("\t Flash FAIL when reach the maximum retry time."),
                            "\t WriteRegistry Flash_Result: 3"}}},
  };
  return rows;
}

}  // namespace simulator
