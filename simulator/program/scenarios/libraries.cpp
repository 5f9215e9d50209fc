#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

const std::vector<Scenario>& Libraries() {
  static const std::vector<Scenario> rows{
      {.name = "library-missing",
       .group = "library",
       .description = "the flashing library is missing",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.library.missing = true; }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::Untouched,
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
                       pc.faults.library.missingExports = {"_ZEMO_DL_boot_target"};
                     }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .resets = 2,
                    .memory = Memory::Untouched,
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
                       pc.faults.library.missingExports = {"_ZEMO_DL_set_dll_parameter"};
                     }},
       .expected = {.values = Failure(),
                    .attempts = 4,
                    .memory = Memory::Untouched,
                    .log = {Error("GetProcAddress(_ZEMO_DL_set_dll_parameter) failed with: 127"),
                            Error("Setting parameter, "), "\t InitializeParametersForDownload FAIL, ",
                            Error("\t Flash still failed after reach maximum retry value")}}},
      {.name = "library-without-version",
       .group = "library",
       .description = "the flashing library lacks an export that is never called: no progress, no harm",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) {
                       pc.faults.library.missingExports = {"_ZEMO_DL_get_sys_version"};
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
                       pc.faults.library.missingExports = {"_ZEMO_DL_out_of_session_comm"};
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
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.library.exportsWithoutUnderscore = true; }},
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

}  // namespace simulator
