#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

const std::vector<Scenario>& Ports() {
  static const std::vector<Scenario> rows{
      {.name = "flash-port-late",
       .group = "port",
       .description = "the flash port comes 20 s late: a baseband reset instead of it",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.flashPortLate = Occurrence::Only(1); }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"\t RebootModem OK, waiting for flash port",
                            Error("\t Timeout in waiting for flash channel"),
                            Error("\t Cannot get flash port, call BB_RST"),
                            "\t Call BB_RST, g_retry_times: 1", "\t Call BB_RST OK, waiting for flash port.",
                            "\t Flash channel = ", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "flash-port-never",
       .group = "port",
       .description = "the flash port never comes",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) { pc.faults.modem.flashPortMissing = Occurrence::Always(); }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .resets = 2,
                    .modem = ModemState::Restarting,
                    .memory = Memory::Untouched,
                    .log = {Error("\t Timeout in waiting for flash channel"),
                            "\t Call BB_RST, g_retry_times: 1",
                            Error("\t Timeout in waiting for flash channel"),
                            "\t Call BB_RST, g_retry_times: 3",
                            Error("\t Timeout in waiting for flash channel"),
                            Error("\t Call BB_RST 5 times, reached maximum retry times!!!"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            Error("\t Flash still failed after reach maximum retry value")},
                    .once = {"\t GO BootDeviceInFirmwareMode, g_retry_times: "}}},
      {.name = "flash-port-lower-case",
       .group = "port",
       .description = "the flash port's path is in lower case: it is there and not found",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.flashPortLowerCase = true; }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .resets = 2,
                    .memory = Memory::Untouched,
                    .log = {"vid_1d5a&pid_0acc&mi_00", Error("\t Timeout in waiting for flash channel"),
                            "\t Call BB_RST, g_retry_times: 1",
                            Error("\t Call BB_RST 5 times, reached maximum retry times!!!"),
                            Error("\t Flash still failed after reach maximum retry value")},
                    .forbidden = {"\t Flash channel = "}}},
      {.name = "device-ids-lower-case",
       .group = "port",
       .description = "all device ids come in lower case: the modem is recognised all the same",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.tree.lowerCaseIds = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"\t MBIM device present.", "\t MBIM modem re-found",
                            "\t WriteRegistry Flash_Result: 4"}}},
  };
  return rows;
}

}  // namespace simulator
