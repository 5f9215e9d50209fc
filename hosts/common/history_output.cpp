#include "hosts/common/history_output.h"

#include <iostream>

#include "hosts/common/flash_history.h"
#include "hosts/common/json_output.h"
#include "hosts/common/problem.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

nlohmann::ordered_json AsJson(const HistoryEntry& entry) {
  return {{"time", entry.time},
          {"host", entry.host},
          {"flashed", entry.job.flashed},
          {"result", entry.job.result},
          {"meaning", MeaningOfResult(entry.job.result)},
          {"progress", entry.job.progress},
          {"seconds", entry.job.seconds}};
}

void Print(const HistoryReading& reading) {
  if (reading.entries.empty()) std::cout << "No flash has come to its end here yet.\n";
  for (const HistoryEntry& entry : reading.entries) {
    std::cout << entry.time << "  " << entry.host << "  " << (entry.job.flashed ? "succeeded" : "failed")
              << ": " << entry.job.Text() << "\n";
  }
  std::cout << std::flush;
}

}  // namespace

bool ShowHistory(const char* program, bool json) {
  const FlashHistory history;
  const HistoryReading reading = history.Read();
  if (reading.error != ERROR_SUCCESS) {
    Report(
        program,
        {"no_history",
         "The history " + ToUtf8(history.Path()) + " cannot be read: " + SystemErrorText(reading.error) + ".",
         "Run this program as an administrator, and close whatever holds the file."},
        json);
    return false;
  }
  if (!json) {
    Print(reading);
    return true;
  }
  auto entries = nlohmann::ordered_json::array();
  for (const HistoryEntry& entry : reading.entries) entries.push_back(AsJson(entry));
  PrintJson({{"history", entries}, {"file", ToUtf8(history.Path())}});
  return true;
}

}  // namespace hosts
