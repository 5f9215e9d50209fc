#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

using namespace std::chrono_literals;

const std::vector<Scenario>& Drivers() {
  static const std::vector<Scenario> rows{
      {.name = "driver-absent",
       .group = "driver",
       .description = "the modem is away and nothing can reset it",
       .setup = {.route = Route::Bbrst,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.driver.absent = true; }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .modem = ModemState::Restarting,
                    .memory = Memory::Untouched,
                    .log = {"\t Call BB_RST, g_retry_times: 0",
                            Error("Error - No active device interfaces found"),
                            Error("TriggerFlashReset--: OpenFlashDevice Failed"),
                            Error("\t Call BB_RST FAIL. Retry after 5s."), "\t Call BB_RST, g_retry_times: 1",
                            "\t Call BB_RST, g_retry_times: 2", "\t Call BB_RST, g_retry_times: 3",
                            Error("\t Call BB_RST 4 times, reached maximum retry times!!!"),
                            "\t ControlBBrst --", "ToolKit::DownloadFirmwareImplementation --, result: 5",
                            Error("\t Flash still failed after reach maximum retry value")},
                    .once = {"\t GO BootDeviceInFirmwareMode, g_retry_times: "}}},
      {.name = "driver-hangs",
       .group = "driver",
       .description = "the driver resets the modem and never completes the request",
       .setup = {.route = Route::Bbrst,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.driver.neverCompletes = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"TriggerFlashReset ++",
                            Warning("RetrieveRequest-- GetOverlappedResult failed: 258 "),
                            "TriggerFlashReset --", "\t Call BB_RST OK, waiting for flash port.",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"TriggerFlashReset--: SendSyncDeviceRequest Failed",
                                  "CancelIoEx GetLastError:"}}},
      {.name = "driver-two-instances",
       .group = "driver",
       .description = "two instances of the driver, the right one listed last",
       .setup = {.route = Route::Bbrst,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.driver.twoInstances = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"More than one device interface instance found.",
                            "CreateFile Success, path length is ", "CreateFile Success, path length is ",
                            "DeviceIoControl Success: ", "\t Call BB_RST OK, waiting for flash port.",
                            "\t WriteRegistry Flash_Result: 4"},
                    .once = {"DeviceIoControl Success: "}}},
      {.name = "driver-two-instances-right-first",
       .group = "driver",
       .description = "two instances of the driver, the right one listed first",
       .setup = {.route = Route::Bbrst,
                 .faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.driver.twoInstances = true;
                       pc.faults.driver.rightInstanceFirst = true;
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"More than one device interface instance found.",
                            "CreateFile Success, path length is ", "DeviceIoControl Success: ",
                            "\t Call BB_RST OK, waiting for flash port.", "\t WriteRegistry Flash_Result: 4"},
                    .once = {"CreateFile Success, path length is ", "DeviceIoControl Success: "}}},
  };
  return rows;
}

}  // namespace simulator
