#include "hosts/common/history_output.h"

#include <windows.h>

#include <iostream>

#include "hosts/common/json_output.h"
#include "hosts/common/problem.h"
#include "hosts/common/terminal.h"
#include "hosts/common/text.h"
#include "hosts/common/text_layout.h"

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

}  // namespace

std::string HistoryText(const std::vector<HistoryEntry>& entries, std::size_t columns) {
  if (entries.empty()) return Wrapped("No flash has come to its end here yet.", columns, "", "  ");
  std::string text;
  for (const HistoryEntry& entry : entries) {
    const std::string verdict = entry.job.flashed ? "succeeded" : "failed";
    text +=
        Wrapped(entry.time + "  " + entry.host + "  " + verdict + ": " + entry.job.Text(), columns, "", "  ");
  }
  return text;
}

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
    std::cout << HistoryText(reading.entries, TextColumns(::GetStdHandle(STD_OUTPUT_HANDLE))) << std::flush;
    return true;
  }
  auto entries = nlohmann::ordered_json::array();
  for (const HistoryEntry& entry : reading.entries) entries.push_back(AsJson(entry));
  PrintJson({{"history", entries}, {"file", ToUtf8(history.Path())}});
  return true;
}

}  // namespace hosts
