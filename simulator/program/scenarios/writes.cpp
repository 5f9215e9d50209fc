#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

const std::vector<Scenario>& Writes() {
  static const std::vector<Scenario> rows{
      {.name = "write-fails-first-item",
       .group = "write",
       .description = "the first item cannot be written once",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kItemPsi, Occurrence::Times(1))};
                     }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {"\t memType:(1)", Error("\t Could not download file(|0|"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "write-fails-middle-item",
       .group = "write",
       .description = "an item in the middle cannot be written once",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kItemCode, Occurrence::Times(1))};
                     }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {"\t memType:(1)", "\t memType:(3)", "\t memType:(19)", "\t memType:(4)",
                            Error("\t Could not download file(|2|"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "write-fails-last-item",
       .group = "write",
       .description = "the last item cannot be written once",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kItemRootDisk, Occurrence::Times(1))};
                     }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {"\t memType:(1)", "\t memType:(3)", "\t memType:(19)", "\t memType:(4)",
                            "\t memType:(7)", "\t memType:(12)", "\t memType:(5)", "\t memType:(5)",
                            "\t memType:(11)", "\t memType:(14)", Error("\t Could not download file(|7|"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "write-fails-always",
       .group = "write",
       .description = "an item can never be written",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kItemCode, Occurrence::Always())};
                     }},
       .expected = {.values = Failure(kProgressBeforeCode),
                    .attempts = 4,
                    .modem = ModemState::FlashPort,
                    .memory = Memory::Incomplete,
                    .log = {Error("\t Could not download file(|2|"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            Error("\t Could not download file(|2|"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 2(Max 3)"),
                            Error("\t Could not download file(|2|"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 3(Max 3)"),
                            Error("\t Could not download file(|2|"),
                            Error("\t Flash still failed after reach maximum retry value")},
                    .forbidden = {"\t memType:(7)"}}},
  };
  return rows;
}

}  // namespace simulator
