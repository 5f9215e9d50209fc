#include "common/logrecord.h"

#include <windows.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>

#include "common/text.h"

namespace corvel {

namespace {

constexpr char kTab = '\t';
constexpr std::string_view kEnd = "##\r\n";
constexpr std::size_t kLongestNamePart = 255;
/// What nearly every head needs, so that it grows once.
constexpr std::size_t kUsualHead = 192;

const char* LevelWord(int level) {
  switch (level) {
    case 1:
      return "Error";
    case 2:
      return "Warning";
    case 3:
      return "Trace";
    default:
      return "Off";
  }
}

/// As printf prints a text that is not there.
std::string_view Shown(const char* text) {
  return text == nullptr ? std::string_view("(null)") : std::string_view(text);
}

void AppendNumber(std::string& record, int number, std::size_t digits = 0) {
  char text[16];
  const char* const end = std::to_chars(text, text + sizeof text, number).ptr;
  const auto length = static_cast<std::size_t>(end - text);
  if (length < digits) record.append(digits - length, '0');
  record.append(text, length);
}

void AppendField(std::string& record, std::string_view text) {
  record += kTab;
  record += text;
}

/// Date, tab, time of day.
void AppendTime(std::string& record) {
  constexpr std::size_t kYear = 4;
  constexpr std::size_t kMilliseconds = 3;
  constexpr std::size_t kOther = 2;
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  AppendNumber(record, now.wYear, kYear);
  record += '-';
  AppendNumber(record, now.wMonth, kOther);
  record += '-';
  AppendNumber(record, now.wDay, kOther);
  record += kTab;
  AppendNumber(record, now.wHour, kOther);
  record += ':';
  AppendNumber(record, now.wMinute, kOther);
  record += ':';
  AppendNumber(record, now.wSecond, kOther);
  record += '.';
  AppendNumber(record, now.wMilliseconds, kMilliseconds);
}

/// Name and extension of a path whose parts are longer than the usual buffers hold, each cut.
void AppendLongFileName(std::string& record, const char* path) {
  const std::size_t size = std::strlen(path) + 1;
  std::string name(size, '\0');
  std::string extension(size, '\0');
  ::_splitpath_s(path, nullptr, 0, nullptr, 0, name.data(), size, extension.data(), size);
  for (const std::string& part : {name, extension}) {
    record += std::string_view(part.c_str()).substr(0, kLongestNamePart);
  }
}

void AppendFileName(std::string& record, const char* path) {
  if (path == nullptr) return;
  char name[kLongestNamePart + 1];
  char extension[kLongestNamePart + 1];
  if (::_splitpath_s(path, nullptr, 0, nullptr, 0, name, sizeof name, extension, sizeof extension) != 0) {
    return AppendLongFileName(record, path);
  }
  record += name;
  record += extension;
}

/// What cannot be printed is named by its format: a lost message would hide where things went wrong.
void AppendMessage(std::string& record, const char* format, std::va_list arguments) {
  const std::size_t begin = record.size();
  if (!AppendPrinted(record, format, arguments)) {
    record += "<not printable> ";
    if (format != nullptr) record += format;
  }
  record.resize(begin + std::strlen(record.c_str() + begin));
}

}  // namespace

std::string ComposeLogRecord(int level, const char* component, const char* function, const char* file,
                             int line, const char* format, std::va_list arguments) {
  std::string record;
  record.reserve(kUsualHead + kUsualPrint);
  record += '#';
  AppendTime(record);
  record += kTab;
  AppendNumber(record, static_cast<int>(::GetCurrentProcessId()));
  record += '~';
  AppendNumber(record, static_cast<int>(::GetCurrentThreadId()));
  AppendField(record, Shown(component));
  AppendField(record, LevelWord(level));
  record += kTab;
  AppendFileName(record, file);
  record += kTab;
  AppendNumber(record, line);
  AppendField(record, Shown(function));
  record += kTab;
  AppendMessage(record, format, arguments);
  record += kEnd;
  return record;
}

}  // namespace corvel
