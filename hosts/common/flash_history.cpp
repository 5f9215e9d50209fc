#include "hosts/common/flash_history.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "hosts/common/facts.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

/// The file never gets larger; before it does, only its newest part is kept, which is less than half of it.
constexpr LONGLONG kLargestSize = 8192;
constexpr LONGLONG kKeptSize = 4000;
constexpr DWORD kLongestWaitMs = 2000;
constexpr DWORD kLookPeriodMs = 20;
constexpr std::string_view kTimeForm = "0000-00-00 00:00:00";
constexpr std::string_view kSucceeded = "succeeded";
constexpr std::string_view kFailed = "failed";
constexpr std::size_t kFields = 6;

std::string LocalTime() {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  char text[64]{};
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", now.wYear, now.wMonth, now.wDay,
                now.wHour, now.wMinute, now.wSecond);
  return text;
}

/// The word comes last: a line that was cut short does not end with one of the two.
std::string LineOf(const HistoryEntry& entry) {
  const FinishedJob& job = entry.job;
  return entry.time + "\t" + entry.host + "\t" + std::to_string(job.result) + "\t" +
         std::to_string(job.progress) + "\t" + std::to_string(job.seconds) + "\t" +
         std::string(job.flashed ? kSucceeded : kFailed) + "\r\n";
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  std::size_t end = text.find(separator);
  for (; end != std::string_view::npos; end = text.find(separator)) {
    parts.push_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  parts.push_back(text);
  return parts;
}

bool IsTime(std::string_view text) {
  return std::ranges::equal(text, kTimeForm, [](char character, char form) {
    return form == '0' ? character >= '0' && character <= '9' : character == form;
  });
}

template <typename Number>
bool ReadNumber(std::string_view text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && last == end;
}

std::optional<HistoryEntry> EntryOf(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  const std::vector<std::string_view> fields = Split(line, '\t');
  if (fields.size() != kFields || !IsTime(fields[0])) return std::nullopt;
  HistoryEntry entry{.time = std::string(fields[0]), .host = std::string(fields[1]), .job = {}};
  if (!ReadNumber(fields[2], entry.job.result) || !ReadNumber(fields[3], entry.job.progress) ||
      !ReadNumber(fields[4], entry.job.seconds) || (fields[5] != kSucceeded && fields[5] != kFailed)) {
    return std::nullopt;
  }
  entry.job.flashed = fields[5] == kSucceeded;
  return entry;
}

/// The file in the hands of one writer at a time: nobody else can open it for writing.
class FileForWriting {
 public:
  explicit FileForWriting(const std::wstring& path) {
    for (DWORD waited = 0;; waited += kLookPeriodMs) {
      const HANDLE opened = ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                          nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
      m_Error = opened == INVALID_HANDLE_VALUE ? ::GetLastError() : ERROR_SUCCESS;
      if (m_Error == ERROR_SUCCESS) m_File.reset(opened);
      if (m_Error != ERROR_SHARING_VIOLATION || waited >= kLongestWaitMs) return;
      ::Sleep(kLookPeriodMs);
    }
  }

  /// The error of the call that failed first.
  DWORD Error() const { return m_Error; }

  LONGLONG Size() {
    LARGE_INTEGER size{};
    Check(::GetFileSizeEx(m_File.get(), &size));
    return size.QuadPart;
  }
  std::string Read(LONGLONG from, LONGLONG length) {
    std::string bytes(static_cast<std::size_t>(length), '\0');
    DWORD read = 0;
    GoTo(from);
    Check(::ReadFile(m_File.get(), bytes.data(), static_cast<DWORD>(length), &read, nullptr));
    bytes.resize(read);
    return bytes;
  }
  void Write(LONGLONG at, std::string_view bytes) {
    DWORD written = 0;
    GoTo(at);
    Check(::WriteFile(m_File.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr));
    Check(::FlushFileBuffers(m_File.get()));
  }
  void CutAt(LONGLONG size) {
    GoTo(size);
    Check(::SetEndOfFile(m_File.get()));
  }

 private:
  void GoTo(LONGLONG position) {
    LARGE_INTEGER to{};
    to.QuadPart = position;
    Check(::SetFilePointerEx(m_File.get(), to, nullptr, FILE_BEGIN));
  }
  void Check(BOOL done) {
    if (!done && m_Error == ERROR_SUCCESS) m_Error = ::GetLastError();
  }

  OwnedHandle m_File;
  DWORD m_Error = ERROR_SUCCESS;
};

/// Moves the newest lines to the front and cuts the rest off. They are still at the end until the cut, so
/// whatever ends the process in between, they are not lost.
LONGLONG DropOldest(FileForWriting& file, LONGLONG size) {
  const std::string newest = file.Read(size - kKeptSize, kKeptSize);
  const std::size_t lineEnd = newest.find('\n');
  const std::string_view whole =
      lineEnd == std::string::npos ? std::string_view() : std::string_view(newest).substr(lineEnd + 1);
  if (file.Error() != ERROR_SUCCESS) return size;
  file.Write(0, whole);
  if (file.Error() != ERROR_SUCCESS) return size;
  file.CutAt(static_cast<LONGLONG>(whole.size()));
  return static_cast<LONGLONG>(whole.size());
}

}  // namespace

FlashHistory::FlashHistory() : FlashHistory(ProgramFolder() + kHistoryName) {}

DWORD FlashHistory::Append(const std::string& host, const FinishedJob& job) const {
  std::string line = LineOf({.time = LocalTime(), .host = host, .job = job});
  FileForWriting file(m_Path);
  if (file.Error() != ERROR_SUCCESS) return file.Error();
  LONGLONG size = file.Size();
  if (size + static_cast<LONGLONG>(line.size()) > kLargestSize) size = DropOldest(file, size);
  // Whoever wrote last may have been ended in the middle of its line.
  if (size > 0 && file.Read(size - 1, 1) != "\n") line.insert(0, "\r\n");
  if (file.Error() != ERROR_SUCCESS) return file.Error();
  file.Write(size, line);
  if (file.Error() != ERROR_SUCCESS) file.CutAt(size);
  return file.Error();
}

HistoryReading FlashHistory::Read() const {
  const HANDLE opened =
      ::CreateFileW(m_Path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) {
    const DWORD error = ::GetLastError();
    const bool absent = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
    return {.error = absent ? ERROR_SUCCESS : error, .entries = {}};
  }
  const OwnedHandle file(opened);
  std::string text(static_cast<std::size_t>(kLargestSize), '\0');
  DWORD size = 0;
  if (!::ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &size, nullptr)) {
    return {.error = ::GetLastError(), .entries = {}};
  }
  text.resize(size);
  HistoryReading reading;
  for (const std::string_view line : Split(text, '\n')) {
    if (auto entry = EntryOf(line)) reading.entries.push_back(std::move(*entry));
  }
  return reading;
}

}  // namespace hosts
