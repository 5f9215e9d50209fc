#include "recorded_log.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "common/debuglogger.h"

namespace {

constexpr std::string_view kEndOfRecord = "##\r\n";
constexpr int kFieldsBeforeTheMessage = 8;

std::string MessageOf(const std::string& record) {
  std::size_t begin = 0;
  for (int field = 0; field < kFieldsBeforeTheMessage; ++field) begin = record.find('\t', begin) + 1;
  return record.substr(begin);
}

}  // namespace

RecordedLog::RecordedLog()
    : m_path((std::filesystem::temp_directory_path() /
              ("mobile_broadband_test_" + std::to_string(::GetCurrentProcessId()) + ".log"))
                 .string()) {
  CDebugLogger::SetLevel(3);
  CDebugLogger::GetInstance()->SetFileName(m_path.c_str());
}

RecordedLog::~RecordedLog() {
  CDebugLogger::ReleaseInstance();
  CDebugLogger::SetLevel(0);
  std::error_code ignored;
  std::filesystem::remove(m_path, ignored);
}

std::vector<std::string> RecordedLog::Messages() const {
  std::ifstream file(m_path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  std::vector<std::string> messages;
  std::size_t begin = 0;
  for (std::size_t end = text.find(kEndOfRecord); end != std::string::npos;
       end = text.find(kEndOfRecord, begin)) {
    messages.push_back(MessageOf(text.substr(begin, end - begin)));
    begin = end + kEndOfRecord.size();
  }
  return messages;
}

bool RecordedLog::Holds(const std::string& message) const {
  const std::vector<std::string> messages = Messages();
  return std::ranges::find(messages, message) != messages.end();
}
