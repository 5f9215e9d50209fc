#include "hosts/common/kept_logs.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/common/facts.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

constexpr std::size_t kMostKept = 5;
constexpr int kMostOfOneSecond = 99;
/// The library writes this when it begins to wait for a request, within its first few dozen records.
constexpr std::string_view kServes = "Monitor flash ready flag to be ready";
constexpr DWORD kBeginSize = 256 * 1024;
/// The form of the time in a kept log's name; a 0 stands for any digit.
constexpr std::wstring_view kTimeForm = L"_0000-00-00_00-00-00";

struct KeptLog {
  std::filesystem::path path;
  ULONGLONG written = 0;
};

ULONGLONG AsNumber(const FILETIME& time) {
  return (ULONGLONG{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

bool IsDigit(wchar_t character) {
  return character >= L'0' && character <= L'9';
}

/// Whether a name is one that a kept log of this one has; nobody else's file is ever removed.
bool IsKeptName(std::wstring_view stem, std::wstring_view name) {
  if (!name.starts_with(stem)) return false;
  name.remove_prefix(stem.size());
  if (name.size() < kTimeForm.size()) return false;
  for (std::size_t i = 0; i < kTimeForm.size(); ++i) {
    if (kTimeForm[i] == L'0' ? !IsDigit(name[i]) : name[i] != kTimeForm[i]) return false;
  }
  name.remove_prefix(kTimeForm.size());
  if (name.starts_with(L"_")) {
    name.remove_prefix(1);
    const std::size_t digits = name.find_first_not_of(L"0123456789");
    if (digits == 0 || digits == std::wstring_view::npos) return false;
    name.remove_prefix(digits);
  }
  return name == L".log";
}

std::wstring TimeInName(const FILETIME& time) {
  SYSTEMTIME universal{};
  SYSTEMTIME parts{};
  ::FileTimeToSystemTime(&time, &universal);
  ::SystemTimeToTzSpecificLocalTime(nullptr, &universal, &parts);
  wchar_t text[64]{};
  std::swprintf(text, std::size(text), L"_%04d-%02d-%02d_%02d-%02d-%02d", parts.wYear, parts.wMonth,
                parts.wDay, parts.wHour, parts.wMinute, parts.wSecond);
  return text;
}

bool Exists(const std::filesystem::path& path) {
  return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::filesystem::path NameToKeepBy(const std::filesystem::path& log, const FILETIME& written) {
  const std::wstring stem = log.stem().wstring() + TimeInName(written);
  std::filesystem::path name = log.parent_path() / (stem + L".log");
  for (int i = 2; Exists(name) && i <= kMostOfOneSecond; ++i) {
    name = log.parent_path() / (stem + L"_" + std::to_wstring(i) + L".log");
  }
  return name;
}

std::filesystem::path NameOfFailedStart(const std::filesystem::path& log) {
  return log.parent_path() / (log.stem().wstring() + L"_failed_start.log");
}

/// Whether some process has the file open for writing. It is then the log of a host that lives.
bool IsBeingWritten(const std::filesystem::path& log) {
  const HANDLE opened = ::CreateFileW(log.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) return ::GetLastError() == ERROR_SHARING_VIOLATION;
  const OwnedHandle owner(opened);
  return false;
}

OwnedHandle OpenBesideOthers(const std::filesystem::path& log) {
  const HANDLE opened =
      ::CreateFileW(log.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  return OwnedHandle(opened == INVALID_HANDLE_VALUE ? nullptr : opened);
}

/// Whether the run failed before it could serve, as one without a configuration does. A log that cannot be
/// read may be of any run.
bool IsOfFailedStart(const std::filesystem::path& log) {
  const OwnedHandle file = OpenBesideOthers(log);
  std::string begin(kBeginSize, '\0');
  DWORD size = 0;
  if (file == nullptr || !::ReadFile(file.get(), begin.data(), kBeginSize, &size, nullptr)) return false;
  begin.resize(size);
  return begin.find(kServes) == std::string::npos;
}

/// A program that only reads the log keeps it from being renamed, but not from being emptied: then a copy is
/// kept.
bool Keep(const std::filesystem::path& log, const std::filesystem::path& name, bool overwrites) {
  if (::MoveFileExW(log.c_str(), name.c_str(), overwrites ? MOVEFILE_REPLACE_EXISTING : 0)) return true;
  const DWORD error = ::GetLastError();
  if (error == ERROR_SHARING_VIOLATION && !IsBeingWritten(log)) {
    return ::CopyFileW(log.c_str(), name.c_str(), overwrites ? FALSE : TRUE) != FALSE;
  }
  ::SetLastError(error);
  return false;
}

/// All kept logs of this one; nothing when they cannot all be listed.
std::optional<std::vector<KeptLog>> KeptLogs(const std::filesystem::path& log) {
  const std::wstring stem = log.stem().wstring();
  const std::filesystem::path pattern = log.parent_path() / (stem + L"_*.log");
  WIN32_FIND_DATAW found{};
  const HANDLE begun = ::FindFirstFileW(pattern.c_str(), &found);
  if (begun == INVALID_HANDLE_VALUE) return std::nullopt;
  const OwnedSearch search(begun);
  std::vector<KeptLog> kept;
  do {
    if (!IsKeptName(stem, found.cFileName)) continue;
    kept.push_back({log.parent_path() / found.cFileName, AsNumber(found.ftLastWriteTime)});
  } while (::FindNextFileW(search.get(), &found));
  if (::GetLastError() != ERROR_NO_MORE_FILES) return std::nullopt;
  return kept;
}

void RemoveOldest(const std::filesystem::path& log) {
  auto kept = KeptLogs(log);
  if (!kept || kept->size() <= kMostKept) return;
  // By time, not by name: local time goes back once a year.
  std::ranges::sort(*kept, [](const KeptLog& a, const KeptLog& b) {
    return a.written != b.written ? a.written < b.written : a.path < b.path;
  });
  kept->resize(kept->size() - kMostKept);
  for (const KeptLog& old : *kept) ::DeleteFileW(old.path.c_str());
}

std::string NotKept(const std::wstring& log, DWORD error) {
  return "The debug log of the last run, " + ToUtf8(log) + ", is not kept: " + SystemErrorText(error) + ".";
}

}  // namespace

std::string KeepLastLog(const std::wstring& log) {
  WIN32_FILE_ATTRIBUTE_DATA facts{};
  if (!::GetFileAttributesExW(log.c_str(), GetFileExInfoStandard, &facts)) {
    const DWORD error = ::GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? "" : NotKept(log, error);
  }
  if (facts.nFileSizeLow == 0 && facts.nFileSizeHigh == 0) return {};
  // A place of their own: a host that is started again and again in vain would push out all other logs.
  const bool failed = IsOfFailedStart(log);
  const std::filesystem::path name =
      failed ? NameOfFailedStart(log) : NameToKeepBy(log, facts.ftLastWriteTime);
  if (!Keep(log, name, failed)) return NotKept(log, ::GetLastError());
  RemoveOldest(log);
  return {};
}

std::vector<std::wstring> LogAndKeptOnes(const std::wstring& log) {
  std::vector<std::wstring> paths;
  for (const std::filesystem::path& path : {std::filesystem::path(log), NameOfFailedStart(log)}) {
    if (Exists(path)) paths.push_back(path.wstring());
  }
  const auto kept = KeptLogs(log);
  if (!kept) return paths;
  for (const KeptLog& each : *kept) paths.push_back(each.path.wstring());
  return paths;
}

std::wstring ServiceLogPath() {
  return ProgramFolder() + kServiceLogName;
}

}  // namespace hosts
