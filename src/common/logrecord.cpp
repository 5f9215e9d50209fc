#include "common/logrecord.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/text.h"

namespace corvel {

namespace {

constexpr char kTab = '\t';
constexpr std::string_view kEnd = "##\r\n";
constexpr std::size_t kLongestNamePart = 255;

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

/// For formats without positional parameters: looking for those costs as much as printing.
std::string Print(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  char usual[kUsualPrint];
  const int length = std::vsnprintf(usual, sizeof usual, format, arguments);
  const auto size = static_cast<std::size_t>(std::max(length, 0));
  std::string text(usual, std::min(size, sizeof usual - 1));
  if (size >= sizeof usual) {
    text.resize(size);
    std::vsnprintf(text.data(), size + 1, format, again);
  }
  va_end(again);
  va_end(arguments);
  return text;
}

/// The four parts of a path in the system's ANSI code page are told apart; name and extension stay, each cut.
std::string FileNameOf(const char* path) {
  if (path == nullptr) return {};
  const std::size_t size = std::strlen(path) + 1;
  std::string name(size, '\0');
  std::string extension(size, '\0');
  ::_splitpath_s(path, nullptr, 0, nullptr, 0, name.data(), size, extension.data(), size);
  name.resize(std::min(std::strlen(name.c_str()), kLongestNamePart));
  extension.resize(std::min(std::strlen(extension.c_str()), kLongestNamePart));
  return Print("%s%s", name.c_str(), extension.c_str());
}

/// A text that is the whole message, as the longest are, goes past printf, which looks for its end thrice.
bool IsTextAlone(const char* format) {
  return format != nullptr && std::strcmp(format, "%s") == 0;
}

void AppendText(std::string& record, const char* text) {
  const std::string_view message = text == nullptr ? "(null)" : text;
  record.reserve(record.size() + message.size() + kEnd.size());
  record += message;
}

/// What cannot be printed is named by its format: a lost message would hide where things went wrong. One with
/// a NUL in it ends there; only a single character can be one, and messages may be long.
void AppendMessage(std::string& record, const char* format, std::va_list arguments) {
  if (IsTextAlone(format)) return AppendText(record, va_arg(arguments, const char*));
  const std::size_t begin = record.size();
  if (!AppendPrinted(record, format, arguments)) {
    record += "<not printable> ";
    if (format != nullptr) record += format;
  }
  const bool mayHoldNul = format != nullptr && std::strpbrk(format, "cC") != nullptr;
  if (mayHoldNul) record.resize(begin + std::strlen(record.c_str() + begin));
}

}  // namespace

std::string ComposeLogRecord(int level, const char* component, const char* function, const char* file,
                             int line, const char* format, std::va_list arguments) {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  char date[40];
  char time[40];
  std::snprintf(date, sizeof date, "%04d-%02d-%02d", now.wYear, now.wMonth, now.wDay);
  std::snprintf(time, sizeof time, "%02d:%02d:%02d.%03d", now.wHour, now.wMinute, now.wSecond,
                now.wMilliseconds);
  std::string record = Print(
      "#%s%c%s%c%d~%d%c%s%c%s%c%s%c%d%c%s%c%s##\r\n", date, kTab, time, kTab,
      static_cast<int>(::GetCurrentProcessId()), static_cast<int>(::GetCurrentThreadId()), kTab, component,
      kTab, LevelWord(level), kTab, FileNameOf(file).c_str(), kTab, line, kTab, function, kTab, "");
  // The message may be long. It is printed into its place instead of being copied there.
  record.resize(record.size() - kEnd.size());
  AppendMessage(record, format, arguments);
  record += kEnd;
  return record;
}

}  // namespace corvel
