// Everything that can happen to a flash, a row each. What is expected follows from how the library is meant
// to work, not from a run of it.

#include "scenario.h"

#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kTimeOut = 153000;
constexpr std::uint32_t kFailed = 3;
constexpr std::uint32_t kSucceeded = 4;

// Overall percentages after parts of the default images. An item's own percentages are scaled by its share
// of the 57 progress steps, rounded, and only rises count, so the sum stays below 100.
constexpr std::uint32_t kProgressBeforeCode = 5;
constexpr std::uint32_t kProgressBeforeNvm = 64;
constexpr std::uint32_t kProgressOfAllItems = 93;

constexpr int kItemPsi = 0;
constexpr int kItemCode = 2;
constexpr int kItemRootDisk = 7;
constexpr int kAnyItem = -1;

/// What the controlling program finds after a job.
Handshake After(std::uint32_t result, std::uint32_t progress,
                std::optional<std::uint32_t> retry_times = std::nullopt) {
  return {.ready = 0,
          .retryTimes = retry_times,
          .timeOut = kTimeOut,
          .onGoing = 0,
          .progress = progress,
          .result = result};
}
Handshake Success(std::optional<std::uint32_t> retry_times = std::nullopt) {
  return After(kSucceeded, 100, retry_times);
}
Handshake Failure(std::uint32_t progress = 0, std::optional<std::uint32_t> retry_times = std::nullopt) {
  return After(kFailed, progress, retry_times);
}
/// What it finds when nobody heard its request.
Handshake Unheard() {
  return {.ready = 1,
          .retryTimes = std::nullopt,
          .timeOut = std::nullopt,
          .onGoing = std::nullopt,
          .progress = std::nullopt,
          .result = std::nullopt};
}

// --- Routes ----------------------------------------------------------------------------------------------

const std::vector<Scenario>& Routes() {
  static const std::vector<Scenario> rows{
      {.name = "route-mbim",
       .group = "routes",
       .description = "the modem takes the Mobile Broadband reboot command",
       .setup = {.route = Route::kMbim},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"Start LoadConfig ++",
                            "VERSION: 1.8.1",
                            "\t to GetLabelsLocation",
                            "mMainKey:HKCU",
                            "\t to create MainThreadImplementation",
                            "\t Start a new loop process...",
                            "\t Initialze registry",
                            "\t Monitor flash ready flag to be ready",
                            "MonitorFlashReadyFlag ++",
                            "\t Registry is changed",
                            "\t flash flag changed to 1",
                            "MonitorFlashReadyFlag --",
                            "\t fetch modem & NVM folder, m_nModemNVMFolder:",
                            "FetchModemNVMFls ++",
                            "   Found, modem fls file: ",
                            "   Found, NVM fls file: ",
                            "FetchModemNVMFls --",
                            "\t IPC Type :USB",
                            "++ CDownloadToolDll::Load",
                            "CDownloadToolDll::Load ,SetFunctionPointers()",
                            "\t WriteRegistry Flash_OnGoing: 1",
                            "\t WriteRegistry Flash_Result: 1",
                            "\t MarkFirmwareFileForDownload OK",
                            "\t GO BootDeviceInFirmwareMode, g_retry_times: 0",
                            "\t BootDeviceInFirmwareMode ++",
                            "\t MBIM device present.",
                            "RebootModemByMbimCmd ++",
                            "\t to SetCommand",
                            "RebootModemByMbimCmd --",
                            "\t RebootModem OK, waiting for flash port",
                            "\t Flash channel = ",
                            "\t Downloader, GetNextFreeChannel",
                            "\t Downloader, OpenCommPort",
                            "\t Downloader, BootTarget",
                            "\t InjectBootTargetThread return OK",
                            "\t BootDeviceInFirmwareMode OK",
                            "\t DownloadFirmwareIntoDevice OK",
                            "\t ForceTargetReset OK.",
                            "\t Download finished, result: 1",
                            "\t WriteRegistry Flash_Progress: 100",
                            "ToolKit::DownloadFirmwareImplementation --, result: 1",
                            "\t Flash OK, to wait for MBIM Modem re-arrival",
                            "\t MBIM modem re-found",
                            "\t check m_MBIM_Modem_presence: 1, Re-arrived",
                            "\t MBIM Modem re-arrival, FW update OK",
                            "\t WriteRegistry Flash_OnGoing: 0",
                            "\t WriteRegistry Flash_Result: 4",
                            "\t Unload ++",
                            "CDownloadToolDll::Unload, release library",
                            "\t Unload --",
                            Error("\t DeleteFLSFiles ++"),
                            Error("\t DeleteFLSFiles --"),
                            "\t Start a new loop process..."},
                    .forbidden = {"RebootModemByXlog4", "BB_RST"}}},
      {.name = "route-at",
       .group = "routes",
       .description = "the modem takes the reboot command on its AT port",
       .setup = {.route = Route::kAt},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"\t MBIM device present.", "RebootModemByXlog4 ++", "find port:7",
                            Error("write at command success"), "RebootModemByXlog4 --",
                            "\t RebootModem OK, waiting for flash port", "\t Flash channel = ",
                            "\t DownloadFirmwareIntoDevice OK", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"RebootModemByMbimCmd", "BB_RST"}}},
      {.name = "route-bbrst",
       .group = "routes",
       .description = "the modem is away, and a baseband reset brings it into flash mode",
       .setup = {.route = Route::kBbrst},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"\t MBIM device NOT available.", "\t Call BB_RST, g_retry_times: 0",
                            "TriggerFlashReset ++", "Only one device interface instance found.",
                            "-- GetOverlappedResult: OK, bytes transferred: ", "TriggerFlashReset --",
                            "\t Call BB_RST OK, waiting for flash port.",
                            "\t Flash channel = ", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"RebootModem"}}},
      {.name = "route-flash-port",
       .group = "routes",
       .description = "the modem is in flash mode already",
       .setup = {.route = Route::kFlashPort},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"\t MBIM device NOT available.",
                            "\t Flash port available. Getting flash port path",
                            "\t Flash channel = ", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"RebootModem", "BB_RST", "\t Timeout in waiting for flash channel"}}},
  };
  return rows;
}

// --- Downloads that fail ---------------------------------------------------------------------------------

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
       .setup = {.retry_times = 0,
                 .faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Always())};
                     }},
       .expected = {.values = Failure(0, 0),
                    .attempts = 1,
                    .modem = ModemState::kFlashPort,
                    .memory = Memory::kUntouched,
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
                    .modem = ModemState::kFlashPort,
                    .memory = Memory::kUntouched,
                    .log = {Error("\t Flash FAIL, retry again, g_retry_times: 3(Max 3)"),
                            Error("\t Flash FAILED, goto Flash_FAILED"),
                            Error("\t Flash still failed after reach maximum retry value"),
                            "\t WriteRegistry Flash_Result: 3", "\t Start a new loop process...",
                            "\t WriteRegistry Flash_OnGoing: 0"}}},
      {.name = "download-fails-stated-limit",
       .group = "download",
       .description = "\"Retry_Times\" is 3: the same",
       .setup = {.retry_times = 3,
                 .faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Always())};
                     }},
       .expected = {.values = Failure(0, 3),
                    .attempts = 4,
                    .modem = ModemState::kFlashPort,
                    .memory = Memory::kUntouched,
                    .log = {"\t Read regedit Retry_Times successfully, data:3",
                            Error("\t Flash FAIL, retry again, g_retry_times: 3(Max 3)"),
                            Error("\t Flash still failed after reach maximum retry value")}}},
      {.name = "parameters-refused",
       .group = "download",
       .description = "the flashing library refuses a parameter: the modem is left alone",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.library.calls = {ParameterRefused(17)}; }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::kUntouched,
                    .log = {Error("Setting parameter, 1 failed"), "\t InitializeParametersForDownload FAIL, ",
                            "ToolKit::DownloadFirmwareImplementation --, result: 0",
                            Error("\t Flash still failed after reach maximum retry value")},
                    .forbidden = {"Adding Flashfls:", "\t GO BootDeviceInFirmwareMode"}}},
      {.name = "no-progress-steps",
       .group = "download",
       .description = "the flashing library announces no progress steps: nothing is written",
       .setup = {.retry_times = 0,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.library.calls = {NoProgressBars()}; }},
       .expected = {.values = Failure(0, 0),
                    .attempts = 1,
                    .modem = ModemState::kFlashPort,
                    .memory = Memory::kUntouched,
                    .log = {"\t DownloadFirmwareIntoDevice FAIL, set m_return_result = FirmwareUpdateFailed;",
                            "\t Download finished, result: 5"}}},
  };
  return rows;
}

// --- Hanging calls ---------------------------------------------------------------------------------------

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
                    .modem = ModemState::kFlashPort,
                    .memory = Memory::kIncomplete,
                    .images_left = 1,
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

// --- Booting ---------------------------------------------------------------------------------------------

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
                    .memory = Memory::kUntouched,
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
       .setup = {.retry_times = 0,
                 .faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {BootTargetRefused(Occurrence::Always())};
                     }},
       .expected = {.values = Failure(0, 0),
                    .attempts = 1,
                    .modem = ModemState::kFlashPort,
                    .memory = Memory::kUntouched,
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
                    .memory = Memory::kUntouched,
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

// --- The flash port --------------------------------------------------------------------------------------

const std::vector<Scenario>& Ports() {
  static const std::vector<Scenario> rows{
      {.name = "flash-port-late",
       .group = "port",
       .description = "the flash port comes 20 s late: a baseband reset instead of it",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) { pc.faults.modem.flash_port_late = Occurrence::Only(1); }},
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
                     [](VirtualPcOptions& pc) { pc.faults.modem.flash_port_missing = Occurrence::Always(); }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .resets = 2,
                    .modem = ModemState::kRestarting,
                    .memory = Memory::kUntouched,
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
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.flash_port_lower_case = true; }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .resets = 2,
                    .memory = Memory::kUntouched,
                    .log = {"vid_1d5a&pid_0acc&mi_00", Error("\t Timeout in waiting for flash channel"),
                            "\t Call BB_RST, g_retry_times: 1",
                            Error("\t Call BB_RST 5 times, reached maximum retry times!!!"),
                            Error("\t Flash still failed after reach maximum retry value")},
                    .forbidden = {"\t Flash channel = "}}},
      {.name = "device-ids-lower-case",
       .group = "port",
       .description = "all device ids come in lower case: the modem is recognised all the same",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.tree.lower_case_ids = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"\t MBIM device present.", "\t MBIM modem re-found",
                            "\t WriteRegistry Flash_Result: 4"}}},
  };
  return rows;
}

// --- Writing ---------------------------------------------------------------------------------------------

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
                    .modem = ModemState::kFlashPort,
                    .memory = Memory::kIncomplete,
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

// --- Progress --------------------------------------------------------------------------------------------

const std::vector<Scenario>& Progresses() {
  static const std::vector<Scenario> rows{
      {.name = "progress-not-numeric",
       .group = "progress",
       .description = "percentages that are no numbers",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) { pc.faults.library.progress = ProgressStyle::kNonNumeric; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"Status: 2, StatusText: abc", "Status: 2, StatusText: 4x",
                            "Status: 2, StatusText: +45", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "progress-falling",
       .group = "progress",
       .description = "percentages that fall",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) { pc.faults.library.progress = ProgressStyle::kFalling; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"Status: 2, StatusText: 60", "Status: 2, StatusText: 30",
                            "Status: 2, StatusText: 100", "Status: 2, StatusText: 20",
                            "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "progress-past-hundred",
       .group = "progress",
       .description = "percentages up to 250",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) { pc.faults.library.progress = ProgressStyle::kPastHundred; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"Status: 2, StatusText: 250", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "progress-before-sending",
       .group = "progress",
       .description = "all percentages come before the library says that it sends data",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.progress = ProgressStyle::kBeforeRawMode;
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"Status: 2, StatusText: 50",
                            "Status: 4, StatusText:   - Sending data. (RAW mode)",
                            "\t WriteRegistry Flash_Progress: 100", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t return m_CurrentProgress:"}}},
      {.name = "progress-near-text",
       .group = "progress",
       .description = "the text that announces sending has one leading blank only",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.progress = ProgressStyle::kNearRawModeText;
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"Status: 4, StatusText:  - Sending data. (RAW mode)",
                            "Status: 2, StatusText: 100", "\t WriteRegistry Flash_Progress: 100",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t return m_CurrentProgress:"}}},
  };
  return rows;
}

// --- The forced reset ------------------------------------------------------------------------------------

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
       .setup = {.retry_times = 1,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.library.calls = {ForcedResetRefused()}; }},
       .expected = {.values = Failure(kProgressOfAllItems, 1),
                    .attempts = 2,
                    .modem = ModemState::kFlashPort,
                    .log = {"\t ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;",
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 1)"),
                            "\t ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;",
                            Error("\t Flash still failed after reach maximum retry value"),
                            "\t WriteRegistry Flash_Result: 3"}}},
  };
  return rows;
}

// --- Coming back -----------------------------------------------------------------------------------------

const std::vector<Scenario>& Returns() {
  static const std::vector<Scenario> rows{
      {.name = "return-late",
       .group = "return",
       .description = "the modem comes back 10 s late, within the limit",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.return_delay = 10s; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"\t Flash OK, to wait for MBIM Modem re-arrival", "\t MBIM modem re-found",
                            "\t check m_MBIM_Modem_presence: 1, Re-arrived",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t Wait Modem re-arrival timeout"}}},
      {.name = "return-at-last-check",
       .group = "return",
       .description = "the modem is found only by the look behind the 23 s",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.returns_at_last_check = true; }},
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
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.returns_after_resets = 1; }},
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
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.never_returns = true; }},
       .expected = {.values = Failure(100),
                    .attempts = 1,
                    .resets = 3,
                    .modem = ModemState::kDead,
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
       .setup = {.retry_times = 0,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.modem.never_returns = true; }},
       .expected = {.values = Failure(100, 0),
                    .attempts = 1,
                    .modem = ModemState::kDead,
                    .log = {Error("\t Flash FAIL when reach the maximum retry time."),
                            Error("\t Flash OK, but wait Modem re-arrived failed")},
                    .forbidden = {"TriggerFlashReset"}}},
      {.name = "mixed-within-limit",
       .group = "return",
       .description = "two failed downloads and one failed return draw on one counter, just enough",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {ItemRefused(kAnyItem, Occurrence::Times(2))};
                       pc.faults.modem.returns_after_resets = 1;
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
                       pc.faults.modem.never_returns = true;
                     }},
       .expected = {.values = Failure(100),
                    .attempts = 3,
                    .resets = 1,
                    .modem = ModemState::kDead,
                    .log = {Error("\t Flash FAIL, retry again, g_retry_times: 2(Max 3)"),
                            Error("\t Wait Modem re-arrival timeout or other issue"),
                            Error("\t MBIM device not arrival, retry again, 3(Max 3)"),
                            Error("\t Wait Modem re-arrival timeout or other issue"),
                            Error("\t Flash FAIL when reach the maximum retry time."),
                            "\t WriteRegistry Flash_Result: 3"}}},
  };
  return rows;
}

// --- Images ----------------------------------------------------------------------------------------------

const std::vector<Scenario>& Images() {
  static const std::vector<Scenario> rows{
      {.name = "images-none",
       .group = "images",
       .description = "the firmware folder is empty",
       .setup = {.images = ImageSet::kNone},
       .expected = {.values = Failure(),
                    .memory = Memory::kUntouched,
                    .log = {"\t flash flag changed to 1", "ToolKit::FetchModemNVMFls: FindFirstFile failed",
                            "\t Can't find available fls, monitor again, continue to monitor registry change "
                            "and fetch modem/nvm files",
                            "\t WriteRegistry Flash_Result: 3", "\t Start a new loop process..."},
                    .forbidden = {"\t WriteRegistry Flash_OnGoing: 1", "++ CDownloadToolDll::Load"}}},
      {.name = "images-no-folder",
       .group = "images",
       .description = "the firmware folder is missing",
       .setup = {.images = ImageSet::kNoFolder},
       .expected = {.values = Failure(),
                    .memory = Memory::kUntouched,
                    .log = {Error(") is not a folder, exit"), "\t Can't find available fls, monitor again",
                            "\t WriteRegistry Flash_Result: 3", "\t Start a new loop process..."},
                    .forbidden = {"\t WriteRegistry Flash_OnGoing: 1"}}},
      {.name = "images-modem-only",
       .group = "images",
       .description = "only a modem image",
       .setup = {.images = ImageSet::kModemOnly},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"   Found, modem fls file: ", "Adding Flashfls:",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"   Found, NVM fls file: ", "Adding NVMfls:"}}},
      {.name = "images-nvm-only",
       .group = "images",
       .description = "only an NVM image: it is flashed in the modem image's place",
       .setup = {.images = ImageSet::kNvmOnly},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"   Found, NVM fls file: ",
                            "\t Only NVM fls, use NVM as Modem fls to flash. pFirmwarePath:",
                            "\t  cannot be opened!", "Adding Flashfls:", "\t WriteRegistry Flash_Result: 4"},
                    .once = {"\t  cannot be opened!"},
                    .forbidden = {"Adding NVMfls:"}}},
      {.name = "images-two-small",
       .group = "images",
       .description = "two NVM images: the later one is flashed, the other one stays",
       .setup = {.images = ImageSet::kTwoSmall},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .images_left = 1,
                    .log = {"a.fls", "   Found, NVM fls file: ", "b.fls",
                            "\t Only NVM fls, use NVM as Modem fls to flash. pFirmwarePath:",
                            "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "images-empty",
       .group = "images",
       .description = "one image, of zero length",
       .setup = {.images = ImageSet::kEmptyOnly},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::kUntouched,
                    .log = {"\t Only NVM fls, use NVM as Modem fls to flash. pFirmwarePath:",
                            "Could not get the flash technology for ",
                            Error("\t MarkFirmwareFileForDownload FAIL, set FirmwareNotUpdated"),
                            "\t Download finished, result: 0",
                            Error("\t Flash still failed after reach maximum retry value")},
                    .forbidden = {"\t GO BootDeviceInFirmwareMode"}}},
      {.name = "images-empty-nvm",
       .group = "images",
       .description = "a modem image and an NVM image of zero length",
       .setup = {.images = ImageSet::kModemAndEmptyNvm},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::kUntouched,
                    .log = {"nvm.fls: 0", "Adding NVMfls:", "Could not get the flash technology for ",
                            "Could not get the memory class for ",
                            Error("\t MarkFirmwareFileForDownload FAIL, set FirmwareNotUpdated"),
                            "\t Download finished, result: 0",
                            Error("\t Flash still failed after reach maximum retry value")},
                    .forbidden = {"\t GO BootDeviceInFirmwareMode"}}},
      {.name = "images-modem-locked",
       .group = "images",
       .description = "somebody else has the modem image to himself",
       .setup = {.holder = ImageHolder::kOwnerOfModem},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::kUntouched,
                    .images_left = 1,
                    .log = {"modem.fls cannot be opened, ERROR: 32", Error("IsFirmwareFileValid FAIL, "),
                            "ToolKit::DownloadFirmwareImplementation --, result: 0",
                            Error("\t Flash still failed after reach maximum retry value"),
                            Error("\t DeleteFLSFiles ++"), Error("modem.fls) failed with: 20"),
                            Error("\t DeleteFLSFiles --")},
                    .forbidden = {"\t InitializeParametersForDownload", "Setting parameter"}}},
      {.name = "images-nvm-locked",
       .group = "images",
       .description = "the NVM image cannot be opened",
       .setup = {.holder = ImageHolder::kOwnerOfNvm},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::kUntouched,
                    .images_left = 1,
                    .log = {"nvm.fls cannot be opened!", "Adding NVMfls:",
                            "Could not get the flash technology for ", "Could not get the memory class for ",
                            Error("\t MarkFirmwareFileForDownload FAIL, set FirmwareNotUpdated"),
                            Error("\t Flash still failed after reach maximum retry value"),
                            Error("nvm.fls) failed with: 20")},
                    .forbidden = {"\t GO BootDeviceInFirmwareMode"}}},
      {.name = "images-nvm-read-by-other",
       .group = "images",
       .description = "somebody else reads the NVM image: it is listed, and cannot be written",
       .setup = {.retry_times = 1, .holder = ImageHolder::kReaderOfNvm},
       .expected = {.values = Failure(kProgressBeforeNvm, 1),
                    .attempts = 2,
                    .modem = ModemState::kFlashPort,
                    .memory = Memory::kIncomplete,
                    .images_left = 1,
                    .log = {"nvm.fls cannot be opened!", "NVM, Memory Class(0): 5",
                            "\t MarkFirmwareFileForDownload OK", Error("\t Could not download file(|0|"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 1)"),
                            Error("\t Flash still failed after reach maximum retry value"),
                            Error("nvm.fls) failed with: 20")}}},
  };
  return rows;
}

// --- The flashing library --------------------------------------------------------------------------------

const std::vector<Scenario>& Libraries() {
  static const std::vector<Scenario> rows{
      {.name = "library-missing",
       .group = "library",
       .description = "the flashing library is missing",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.library.missing = true; }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::kUntouched,
                    .log = {"++ CDownloadToolDll::Load", Error("LoadLibrary of "),
                            Error("Firmwareflashdownload.dll failed with: 126"), "-- CDownloadToolDll::Load",
                            Error("Setting parameter, "), "\t InitializeParametersForDownload FAIL, ",
                            "ToolKit::DownloadFirmwareImplementation --, result: 0",
                            Error("\t Flash still failed after reach maximum retry value")},
                    .forbidden = {"\t DownloadToolDll Load fail"}}},
      {.name = "library-without-boot",
       .group = "library",
       .description = "the flashing library lacks the export that boots the target",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.missing_exports = {"_ZEMO_DL_boot_target"};
                     }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .resets = 2,
                    .memory = Memory::kUntouched,
                    .log = {Error("GetProcAddress(_ZEMO_DL_boot_target) failed with: 127"),
                            "-- CDownloadToolDll::Load", Error("\t ERROR: Boot Target failed due to "),
                            Error("\t Call BB_RST 5 times, reached maximum retry times!!!"),
                            Error("\t Flash still failed after reach maximum retry value")},
                    .forbidden = {"CDownloadToolDll::Load ,SetFunctionPointers()"}}},
      {.name = "library-without-parameters",
       .group = "library",
       .description = "the flashing library lacks the export that takes parameters",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.missing_exports = {"_ZEMO_DL_set_dll_parameter"};
                     }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::kUntouched,
                    .log = {Error("GetProcAddress(_ZEMO_DL_set_dll_parameter) failed with: 127"),
                            Error("Setting parameter, "), "\t InitializeParametersForDownload FAIL, ",
                            Error("\t Flash still failed after reach maximum retry value")}}},
      {.name = "library-without-version",
       .group = "library",
       .description = "the flashing library lacks an export that is never called: no progress, no harm",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.missing_exports = {"_ZEMO_DL_get_sys_version"};
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {Error("GetProcAddress(_ZEMO_DL_get_sys_version) failed with: 127"),
                            "-- CDownloadToolDll::Load", "\t WriteRegistry Flash_Progress: 100",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"CDownloadToolDll::Load ,SetFunctionPointers()", "StatusText:"}}},
      {.name = "library-without-out-of-session",
       .group = "library",
       .description = "the flashing library lacks the one export that it may lack",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.missing_exports = {"_ZEMO_DL_out_of_session_comm"};
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {Error("GetProcAddress(_ZEMO_DL_out_of_session_comm) failed with: 127"),
                            "CDownloadToolDll::Load ,SetFunctionPointers()",
                            "Status: 4, StatusText:   - Sending data. (RAW mode)",
                            "Status: 2, StatusText: 100", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "library-without-underscores",
       .group = "library",
       .description = "the flashing library's exports have no leading underscore",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.library.exports_without_underscore = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"CDownloadToolDll::Load ,SetFunctionPointers()",
                            "Status: 4, StatusText:   - Sending data. (RAW mode)",
                            "Status: 2, StatusText: 100", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"GetProcAddress("}}},
      {.name = "callback-refused",
       .group = "library",
       .description = "registering the callback answers 1: flashed without progress",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {CallbackRegistrationAnswers(1)};
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"CDownloadToolDll::Load ,SetFunctionPointers()",
                            Error("PROGRESS: InitCallback failed due to "),
                            Error("\t DownloadToolDll Load fail"), "\t WriteRegistry Flash_OnGoing: 1",
                            "\t WriteRegistry Flash_Progress: 100", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"StatusText:"}}},
      {.name = "callback-answers-2",
       .group = "library",
       .description = "registering the callback answers 2, which is no failure",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.calls = {CallbackRegistrationAnswers(2)};
                     }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"CDownloadToolDll::Load ,SetFunctionPointers()",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"PROGRESS: InitCallback failed due to ", "\t DownloadToolDll Load fail"}}},
  };
  return rows;
}

// --- The driver behind the baseband reset ----------------------------------------------------------------

const std::vector<Scenario>& Drivers() {
  static const std::vector<Scenario> rows{
      {.name = "driver-absent",
       .group = "driver",
       .description = "the modem is away and nothing can reset it",
       .setup = {.route = Route::kBbrst,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.driver.absent = true; }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .modem = ModemState::kRestarting,
                    .memory = Memory::kUntouched,
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
       .setup = {.route = Route::kBbrst,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.driver.never_completes = true; }},
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
       .setup = {.route = Route::kBbrst,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.driver.two_instances = true; }},
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
       .setup = {.route = Route::kBbrst,
                 .faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.driver.two_instances = true;
                       pc.faults.driver.right_instance_first = true;
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

// --- Mobile Broadband ------------------------------------------------------------------------------------

const std::vector<Scenario>& MobileBroadbands() {
  static const std::vector<Scenario> rows{
      {.name = "mbim-session-open",
       .group = "mbim",
       .description = "somebody else has a command session open",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobile_broadband.commandSessionIsOpen = true; }},
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
                     [](VirtualPcOptions& pc) { pc.mobile_broadband.openCommandSession.answer = E_PENDING; }},
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
                       pc.mobile_broadband.openCommandSession.completesAfter = std::nullopt;
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
                       pc.mobile_broadband.querySupportedCommands.completesAfter = std::nullopt;
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
                       pc.mobile_broadband.setCommand.completesAfter = std::nullopt;
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
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobile_broadband.setCommand.answer = E_PENDING; }},
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
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobile_broadband.setCommand.answer = E_FAIL; }},
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
                       pc.mobile_broadband.openCommandSession.completesAfter = 50s;
                       pc.mobile_broadband.querySupportedCommands.completesAfter = 50s;
                       pc.mobile_broadband.setCommand.completesAfter = std::nullopt;
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
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobile_broadband.firstReleaseHangs = true; }},
       .expected = {.values = Success(),
                    .attempts = 2,
                    .log = {"\t SetCommand call successful... waiting for callback -> requestID=",
                            "\t DeInitilazation()",
                            Error("\t Flash TIMEOUT or other issue, goto Flash_FAILED"),
                            Error("\t Flash FAIL, retry again, g_retry_times: 1(Max 3)"), "\t Unload --",
                            "\t Flash port available. Getting flash port path",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"RebootModemByMbimCmd --"},
                    .workers_back = 1}},
      {.name = "mbim-no-service",
       .group = "mbim",
       .description = "the modem's device service is missing",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.mobile_broadband.deviceServices = {L"{533FBEEB-14FE-4467-9F90-33A223E56C3F}"};
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
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.mobile_broadband.interfaces.clear(); }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"RebootModemByMbimCmd ++", Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"\t new CMbnSinks OK", "\t fetched interfaceID :"}}},
      {.name = "mbim-ignored",
       .group = "mbim",
       .description = "the modem takes the reboot command and stays as it is",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.modem.ignores_mbim_reboot = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"\t RebootModem OK, waiting for flash port",
                            Error("\t Timeout in waiting for flash channel"),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"}}},
  };
  return rows;
}

// --- The AT port -----------------------------------------------------------------------------------------

const std::vector<Scenario>& AtPorts() {
  static const std::vector<Scenario> rows{
      {.name = "at-port-absent",
       .group = "at",
       .description = "there is no AT port: COM0 is tried, then the baseband reset",
       .setup = {.route = Route::kAt,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.at_port.absent = true; }},
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
       .setup = {.route = Route::kAt,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.at_port.open_error = ERROR_ACCESS_DENIED; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {"find port:7", Error("openPort failed"), Error("\t RebootModem FAIL."),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"send command"}}},
      {.name = "at-write-refused",
       .group = "at",
       .description = "the AT port takes no bytes",
       .setup = {.route = Route::kAt,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.at_port.write_error = ERROR_SEM_TIMEOUT; }},
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
       .setup = {.route = Route::kAt,
                 .faults = [](VirtualPcOptions& pc) { pc.faults.modem.ignores_at_command = true; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .resets = 1,
                    .log = {Error("write at command success"), "\t RebootModem OK, waiting for flash port",
                            Error("\t Timeout in waiting for flash channel"),
                            "\t Call BB_RST, g_retry_times: 1", "\t WriteRegistry Flash_Result: 4"}}},
  };
  return rows;
}

// --- The configuration -----------------------------------------------------------------------------------

const std::vector<Scenario>& Configurations() {
  static const std::vector<Scenario> rows{
      {.name = "config-missing",
       .group = "config",
       .description = "there is no configuration: the service does not begin",
       .setup = {.configuration = Configuration::kMissing},
       .expected = {.values = Unheard(),
                    .memory = Memory::kUntouched,
                    .images_left = 2,
                    .log = {"Start LoadConfig ++", Error("CorvelConfig.ini not exist, exit"),
                            Error("\t Load Config failed, Initialize --")},
                    .forbidden = {"\t MainThreadImplementation ++"},
                    .service_starts = false}},
      {.name = "config-locked",
       .group = "config",
       .description = "somebody else has the configuration open: the service does not begin",
       .setup = {.configuration = Configuration::kLocked},
       .expected = {.values = Unheard(),
                    .memory = Memory::kUntouched,
                    .images_left = 2,
                    .log = {"Start LoadConfig ++", "CConfigParser::LoadConfig: file: ",
                            "CConfigParser::LoadConfig --", Error("\t Load Config failed, Initialize --")},
                    .forbidden = {"\t MainThreadImplementation ++", "\t get Config Var"},
                    .service_starts = false}},
      {.name = "config-empty",
       .group = "config",
       .description = "the configuration is empty: no log, the handshake lies in the root itself",
       .setup = {.configuration = Configuration::kEmpty},
       .expected = {.values = Failure(),
                    .memory = Memory::kUntouched,
                    .images_left = 2,
                    .log = {"Start LoadConfig ++", "VERSION: 1.8.1", "\t Log Turn OFF"},
                    .forbidden = {"\t get Config Var", "\t to GetLabelsLocation"}}},
      {.name = "config-one-line",
       .group = "config",
       .description = "the configuration's only line is its title, whatever it says",
       .setup = {.configuration = Configuration::kOneLine},
       .expected = {.values = Failure(),
                    .memory = Memory::kUntouched,
                    .images_left = 2,
                    .log = {"Start LoadConfig ++", "VERSION: 1.8.1", "\t Log Turn OFF"},
                    .forbidden = {"\t get Config Var", "\t to GetLabelsLocation"}}},
      {.name = "config-odd-lines",
       .group = "config",
       .description = "the configuration is full of odd lines; the later of two settings counts",
       .setup = {.route = Route::kAt, .configuration = Configuration::kOddLines},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"\t get Config Var,  : a value without a key", "\t get Config Var, [UNKNOWN] : 1",
                            "\t get Config Var, [TraceLevel] : 1 and more",
                            "\t get Config Var, [RegistryLocation] : HKLM\\SOFTWARE\\Corvel\\LaterLinesWin",
                            "\t get Config Var, [RegistryLocation] : HKCU\\",
                            "\t get Config Var, [IPCTYPE] : pcie", "\t get Config Var, [ERASEMODE] : 7",
                            "\t get Config Var, [REBOOTTYPE] : 1", "\t get Config Var, [REBOOTTYPE]  : 0",
                            "mMainKey:HKCU", "++ use IPCType: USB", "RebootModemByXlog4 ++",
                            "\t WriteRegistry Flash_Result: 4"},
                    .forbidden = {"TitleLinesDoNotCount", "a comment", "no equals sign"}}},
  };
  return rows;
}

}  // namespace

const std::vector<Scenario>& Scenarios() {
  static const std::vector<Scenario> all = [] {
    std::vector<Scenario> rows;
    for (const auto* group : {&Routes(), &Downloads(), &Hangs(), &Boots(), &Ports(), &Writes(), &Progresses(),
                              &Resets(), &Returns(), &Images(), &Libraries(), &Drivers(), &MobileBroadbands(),
                              &AtPorts(), &Configurations()}) {
      rows.insert(rows.end(), group->begin(), group->end());
    }
    return rows;
  }();
  return all;
}
