#include "simulator/program/scenarios/groups.h"

#include "simulator/program/scenarios/outcomes.h"

namespace simulator {

const std::vector<Scenario>& Progresses() {
  static const std::vector<Scenario> rows{
      {.name = "progress-not-numeric",
       .group = "progress",
       .description = "percentages that are no numbers",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) { pc.faults.library.progress = ProgressStyle::NonNumeric; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"Status: 2, StatusText: abc", "Status: 2, StatusText: 4x",
                            "Status: 2, StatusText: +45", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "progress-falling",
       .group = "progress",
       .description = "percentages that fall",
       .setup = {.faults = [](VirtualPcOptions& pc) { pc.faults.library.progress = ProgressStyle::Falling; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"Status: 2, StatusText: 60", "Status: 2, StatusText: 30",
                            "Status: 2, StatusText: 100", "Status: 2, StatusText: 20",
                            "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "progress-past-hundred",
       .group = "progress",
       .description = "percentages up to 250",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) { pc.faults.library.progress = ProgressStyle::PastHundred; }},
       .expected = {.values = Success(),
                    .attempts = 1,
                    .log = {"Status: 2, StatusText: 250", "\t WriteRegistry Flash_Result: 4"}}},
      {.name = "progress-before-sending",
       .group = "progress",
       .description = "all percentages come before the library says that it sends data",
       .setup = {.faults =
                     [](VirtualPcOptions& pc) { pc.faults.library.progress = ProgressStyle::BeforeRawMode; }},
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
                       pc.faults.library.progress = ProgressStyle::NearRawModeText;
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

}  // namespace simulator
