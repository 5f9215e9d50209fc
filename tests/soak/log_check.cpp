#include "soak/log_check.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <optional>

namespace soak {

namespace {

constexpr std::string_view kRecordEnd = "##\r\n";
constexpr std::size_t kMostFindings = 5;
/// Date, time, process and thread, component, level, file, line, function; the rest is the message.
constexpr std::size_t kFieldsBeforeMessage = 8;
using Fields = std::array<std::string_view, kFieldsBeforeMessage + 1>;

/// Digits stand for digits; all else for itself.
bool Matches(std::string_view text, std::string_view pattern) {
  return std::ranges::equal(text, pattern, [](char character, char expected) {
    const bool isDigit = character >= '0' && character <= '9';
    return expected == '0' ? isDigit : character == expected;
  });
}

bool IsNumber(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char each) { return each >= '0' && each <= '9'; });
}

std::optional<Fields> FieldsOf(std::string_view record) {
  if (!record.starts_with('#')) return std::nullopt;
  record.remove_prefix(1);
  Fields fields;
  for (std::size_t i = 0; i < kFieldsBeforeMessage; ++i) {
    const auto tab = record.find('\t');
    if (tab == std::string_view::npos) return std::nullopt;
    fields.at(i) = record.substr(0, tab);
    record.remove_prefix(tab + 1);
  }
  fields.back() = record;
  return fields;
}

/// A record in the middle of another one.
bool HoldsAnother(std::string_view message) {
  for (auto at = message.find("#2"); at != std::string_view::npos; at = message.find("#2", at + 1)) {
    if (Matches(message.substr(at, 12), "#0000-00-00\t")) return true;
  }
  return false;
}

bool IsSound(const Fields& fields) {
  const auto& [date, time, threads, component, level, file, line, function, message] = fields;
  const auto separator = threads.find('~');
  return Matches(date, "0000-00-00") && Matches(time, "00:00:00.000") &&
         separator != std::string_view::npos && IsNumber(threads.substr(0, separator)) &&
         IsNumber(threads.substr(separator + 1)) && !component.empty() &&
         (level == "Error" || level == "Warning" || level == "Trace") && !file.empty() && IsNumber(line) &&
         !function.empty() && !HoldsAnother(message);
}

/// 0 where there is none.
int NumberBehind(std::string_view message, std::string_view text) {
  const std::size_t place = message.find(text);
  if (place == std::string_view::npos) return 0;
  const std::string_view digits = message.substr(place + text.size());
  int number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

void TakeMessage(const Fields& fields, LogCheck& check) {
  const std::string message(fields.back());
  const std::string_view function = fields[kFieldsBeforeMessage - 1];
  if (function == "SoakHost::Writer") {
    const int number = NumberBehind(message, ", number ");
    if (number > 0) check.numbersOfWriter[NumberBehind(message, "\t writer ")].push_back(number);
    return;
  }
  constexpr std::string_view kWritten = "\t WriteRegistry ";
  if (message.starts_with(kWritten)) {
    const auto colon = message.find(": ");
    if (colon != std::string::npos)
      ++check.valuesWritten[message.substr(kWritten.size(), colon - kWritten.size())];
  }
  if (message.starts_with("\t Flash Time_Out: ")) ++check.valuesWritten["Time_Out"];
  if (function == "ToolKit::ReadRegistry" && message.starts_with("\t Read regedit ")) ++check.keysLeftOpen;
}

}  // namespace

LogCheck CheckLog(std::string_view bytes) {
  LogCheck check;
  const auto find = [&check](const char* what, std::string_view text) {
    if (check.findings.size() < kMostFindings)
      check.findings.push_back(std::string(what) + ": " + std::string(text.substr(0, 160)));
  };
  for (auto end = bytes.find(kRecordEnd); end != std::string_view::npos; end = bytes.find(kRecordEnd)) {
    const std::string_view record = bytes.substr(0, end);
    bytes.remove_prefix(end + kRecordEnd.size());
    const auto fields = FieldsOf(record);
    if (!fields || !IsSound(*fields)) {
      find("no sound record", record);
      continue;
    }
    ++check.records;
    TakeMessage(*fields, check);
  }
  if (!bytes.empty()) find("a record without an end", bytes);
  return check;
}

std::string ReadLog(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace soak
