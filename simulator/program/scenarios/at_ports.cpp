#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

const std::vector<Scenario>& AtPorts() {
  static const std::vector<Scenario> rows{
      {.name = "at-port-absent",
       .group = "at",
       .description = "there is no AT port: COM0 is tried, then the baseband reset",
       .setup = {.route = Route::At, .faults = [](VirtualPcOptions& pc) { pc.faults.atPort.absent = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"RebootModemByXlog4 ++", "find port:0", Error("openPort failed"),
                            "RebootModemByXlog4 --", Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"Can't find COM port", "RebootModemByMbimCmd"}}},
      {.name = "at-open-refused",
       .group = "at",
       .description = "the AT port cannot be opened",
       .setup = {.route = Route::At,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.atPort.openError = ERROR_ACCESS_DENIED; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"find port:7", Error("openPort failed"), Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"send command"}}},
      {.name = "at-write-refused",
       .group = "at",
       .description = "the AT port takes no bytes",
       .setup = {.route = Route::At,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.atPort.writeError = ERROR_SEM_TIMEOUT; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"find port:7", Error("write at command failed with error 0x79"),
                            Error("writeCmd failed"), Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"write at command success"}}},
      {.name = "at-ignored",
       .group = "at",
       .description = "the modem hears the reboot command and stays as it is",
       .setup = {.route = Route::At,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.modem.ignoresAtCommand = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {Error("write at command success"), "\t RebootModem OK, waiting for flash port",
                            Error("\t Timeout in waiting for flash channel"),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"}}},
  };
  return rows;
}

}  // namespace simulator
