#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

using namespace std::chrono_literals;

const std::vector<Scenario>& MobileBroadbands() {
  static const std::vector<Scenario> rows{
      {.name = "mbim-session-open",
       .group = "mbim",
       .description = "somebody else has a command session open",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobileBroadband.commandSessionIsOpen = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {Error("\t Command session is open; cannot proceed, RebootModemByMbimCmd --"),
                            Error("\t RebootModem FAIL."), "\t Call BB_RST, g_retry_times: 1",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"Reboot Modem", "\t new CMbnSinks OK"}}},
      {.name = "mbim-open-pending",
       .group = "mbim",
       .description = "opening the command session is pending: waited for, then refused",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) { pc.mobileBroadband.openCommandSession.answer = E_PENDING; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"\t OpenCommandSession call successful... waiting for callback",
                            "\t pMbnDeviceService = g_MbnDeviceService;",
                            Error("\t OpenCommandSession (FAILED(hr))"), "\t DeInitilazation()",
                            "RebootModemByMbimCmd --", Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t to SetCommand"}}},
      {.name = "mbim-open-lost",
       .group = "mbim",
       .description = "the open session is never reported: 60 s, and the reboot passes for accepted",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.mobileBroadband.openCommandSession.completesAfter = std::nullopt;
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"\t OpenCommandSession call successful... waiting for callback",
                            Error("\t OpenCommandSession failed with timeOut or other issue"),
                            "RebootModemByMbimCmd --", "\t RebootModem OK, waiting for flash port",
                            Error("\t Timeout in waiting for flash channel"),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t to SetCommand", "\t RebootModem FAIL."}}},
      {.name = "mbim-query-lost",
       .group = "mbim",
       .description = "the supported commands are never reported: 60 s, and no command is sent",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.mobileBroadband.querySupportedCommands.completesAfter = std::nullopt;
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"\t QuerySupportedCommands call successful, hr:0x",
                            Error("\t QuerySupportedCommands failed with other issue, waitObject: 0x102"),
                            "RebootModemByMbimCmd --", Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t to SetCommand"}}},
      {.name = "mbim-set-lost",
       .group = "mbim",
       .description = "the reboot command is never reported: 90 s, and the modem is reset once more",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.mobileBroadband.setCommand.completesAfter = std::nullopt;
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"\t SetCommand call successful... waiting for callback -> requestID=",
                            Error("\t SetCommand timeout or failed with other issue"),
                            "RebootModemByMbimCmd --", Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "mbim-set-pending",
       .group = "mbim",
       .description = "the reboot command is pending and reported: it still counts as refused",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobileBroadband.setCommand.answer = E_PENDING; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"\t SetCommand result, errorCode:0x8000000a", "\t SetCommand call successful",
                            "RebootModemByMbimCmd --", Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t SetCommand timeout or failed with other issue"}}},
      {.name = "mbim-command-refused",
       .group = "mbim",
       .description = "the service refuses the reboot command",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobileBroadband.setCommand.answer = E_FAIL; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {Error("IMbnDeviceService::SetCommand() failed with: 80004005"),
                            "RebootModemByMbimCmd --", Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "mbim-slow",
       .group = "mbim",
       .description = "each completion takes its time: the attempt is given up while it waits for the last",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.mobileBroadband.openCommandSession.completesAfter = 50s;
                       pc.mobileBroadband.querySupportedCommands.completesAfter = 50s;
                       pc.mobileBroadband.setCommand.completesAfter = std::nullopt;
                     }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {"\t to SetCommand", Error("\t Flash TIMEOUT or other issue, goto Flash_FAILED"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"),
                            "\t Flash port available. Getting flash port path",
                            "\t WriteRegistry Flash_Result: 4",
                            Error("\t SetCommand timeout or failed with other issue"),
                            "RebootModemByMbimCmd --",
                            "ToolKit::DownloadFirmwareImplementation --, result: 5"}}},
      {.name = "mbim-release-hangs",
       .group = "mbim",
       .description = "the service never comes back from being released: the attempt is given up, the next "
                      "one finds the modem in flash mode",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobileBroadband.firstReleaseHangs = true; }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {"\t SetCommand call successful... waiting for callback -> requestID=",
                            "\t DeInitilazation()",
                            Error("\t Flash TIMEOUT or other issue, goto Flash_FAILED"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"), "\t Unload --",
                            "\t Flash port available. Getting flash port path",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"RebootModemByMbimCmd --"},
                    .workersBack = 1}},
      {.name = "mbim-no-service",
       .group = "mbim",
       .description = "the modem's device service is missing",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.mobileBroadband.deviceServices = {L"{533FBEEB-14FE-4467-9F90-33A223E56C3F}"};
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {Error("\t Service Not found"),
                            Error("\t IMbnDeviceServicesContext::GetDeviceService('"),
                            Error("\t RebootModem FAIL."), "\t Call BB_RST, g_retry_times: 1",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t new CMbnSinks OK"}}},
      {.name = "mbim-no-interface",
       .group = "mbim",
       .description = "there is no Mobile Broadband interface",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobileBroadband.interfaces.clear(); }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"RebootModemByMbimCmd ++", Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t new CMbnSinks OK", "\t fetched interfaceID :"}}},
      {.name = "mbim-ignored",
       .group = "mbim",
       .description = "the modem takes the reboot command and stays as it is",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.ignoresMbimReboot = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"\t RebootModem OK, waiting for flash port",
                            Error("\t Timeout in waiting for flash channel"),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"}}},
  };
  return rows;
}

}  // namespace simulator
