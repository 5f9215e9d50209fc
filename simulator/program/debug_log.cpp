#include "simulator/program/debug_log.h"

#include <fstream>
#include <iterator>

namespace simulator {

namespace {

constexpr std::string_view kRecordEnd = "##\r\n";
/// Date, time, process and thread, component, level, file, line, function; the rest is the message.
constexpr int kFieldsBeforeMessage = 8;
constexpr int kLevelField = 4;
constexpr int kFunctionField = 7;

DebugRecord ParseRecord(std::string_view text) {
  DebugRecord record;
  for (int field = 0; field < kFieldsBeforeMessage; ++field) {
    const auto tab = text.find('\t');
    if (tab == std::string_view::npos) return record;
    if (field == kLevelField) record.level = text.substr(0, tab);
    if (field == kFunctionField) record.function = text.substr(0, tab);
    text.remove_prefix(tab + 1);
  }
  record.message = text;
  return record;
}

}  // namespace

std::vector<DebugRecord> RecordsIn(std::string_view log) {
  std::vector<DebugRecord> records;
  for (auto end = log.find(kRecordEnd); end != std::string_view::npos; end = log.find(kRecordEnd)) {
    records.push_back(ParseRecord(log.substr(0, end)));
    log.remove_prefix(end + kRecordEnd.size());
  }
  return records;
}

std::vector<DebugRecord> ReadDebugLog(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string all{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  return RecordsIn(all);
}

}  // namespace simulator
