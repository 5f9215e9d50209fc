#include <windows.h>

#include <queue>
#include <string>

#include "common/handles.h"
#include "common/log.h"
#include "common/text.h"
#include "toolkit/toolkit.h"

namespace {

constexpr DWORD kSmallestModemImageBytes = 0xA00000;
constexpr int kPathLimit = 260;
constexpr wchar_t kImagePattern[] = L"*.fls";
constexpr wchar_t kPathSeparator[] = L"\\";

/// Starts a search; an empty owner when it cannot be started or nothing matches.
UniqueFileSearch FindFirst(const CTString& pattern, WIN32_FIND_DATAW& entry) {
  const HANDLE search = ::FindFirstFileW(pattern, &entry);
  return UniqueFileSearch(search == INVALID_HANDLE_VALUE ? nullptr : search);
}

bool FindNext(const UniqueFileSearch& search, WIN32_FIND_DATAW& entry) {
  return ::FindNextFileW(search.get(), &entry) != FALSE;
}

bool IsFolder(DWORD attributes) {
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsModemImage(const WIN32_FIND_DATAW& entry) {
  return entry.nFileSizeHigh != 0 || entry.nFileSizeLow >= kSmallestModemImageBytes;
}

/// Names of all entries that match, folders included, in the order of the file system.
std::queue<std::wstring> MatchingNames(const CTString& pattern) {
  std::queue<std::wstring> names;
  WIN32_FIND_DATAW entry{};
  const UniqueFileSearch search = FindFirst(pattern, entry);
  if (search == nullptr) return names;
  do {
    names.emplace(entry.cFileName);
  } while (FindNext(search, entry));
  return names;
}

}  // namespace

bool ToolKit::FetchModemNVMFls(CTString folder) try {
  LOG_TRACE("FetchModemNVMFls ++");
  m_ModemFlsFile.Empty();
  m_NVMFlsFile.Empty();

  const DWORD attributes = ::GetFileAttributesW(folder);
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    LOG_ERROR("folder(%s) is not a folder, exit", Narrow(folder).c_str());
    LOG_TRACE("FetchModemNVMFls --");
    return false;
  }
  if (!IsFolder(attributes)) {
    // Unlike a missing folder this is no failure: callers rely on the download to fail for want of images.
    LOG_TRACE("FetchModemNVMFls --");
    return true;
  }

  LOG_TRACE("folder: dir=%s", Narrow(folder).c_str());
  folder += kPathSeparator;
  WIN32_FIND_DATAW entry{};
  const UniqueFileSearch search = FindFirst(folder + kImagePattern, entry);
  if (search == nullptr) {
    LOG_TRACE("%s: FindFirstFile failed", QUALIFIED_FUNCTION);
    return false;
  }

  do {
    if (IsFolder(entry.dwFileAttributes)) continue;
    const CTString path = folder + entry.cFileName;
    const std::string printed = Narrow(path);
    LOG_TRACE("   pathFlz:%s", printed.c_str());
    if (path.GetLength() >= kPathLimit) {
      LOG_TRACE("FetchModemNVMFls: over MAX PATH, flz paths=%s", printed.c_str());
      continue;
    }
    LOG_TRACE("   pathFlz:%s, ffd.nFileSizeHigh:%d, ffd.nFileSizeLow:%d", printed.c_str(),
              static_cast<int>(entry.nFileSizeHigh), static_cast<int>(entry.nFileSizeLow));
    if (IsModemImage(entry)) {
      m_ModemFlsFile = path;
      LOG_TRACE("   Found, modem fls file: %s", printed.c_str());
    } else {
      m_NVMFlsFile = path;
      LOG_TRACE("   Found, NVM fls file: %s", printed.c_str());
    }
  } while (FindNext(search, entry));

  LOG_TRACE("FetchModemNVMFls --");
  return true;
} catch (...) {
  // Out of memory: as if the search could not start.
  return false;
}

void ToolKit::DeleteFLSFiles() try {
  LOG_ERROR("\t DeleteFLSFiles ++");
  for (const CTString* image : {&m_ModemFlsFile, &m_NVMFlsFile}) {
    if (image->IsEmpty() || ::DeleteFileW(*image)) continue;
    const auto error = static_cast<unsigned int>(::GetLastError());
    LOG_ERROR("\t DeleteFile(%s) failed with: %x", Narrow(*image).c_str(), error);
  }
  LOG_ERROR("\t DeleteFLSFiles --");
} catch (...) {
  // Out of memory for a log line: the image stays, as after any failed deletion.
}

void ToolKit::KeepLogFileNum(CTString pattern, unsigned int count) try {
  if (pattern.IsEmpty()) return;
  std::queue<std::wstring> names = MatchingNames(pattern);
  if (names.size() <= count) return;

  const CTString folder = pattern.SubStr(0, pattern.ReverseFind(kPathSeparator, -1)) + kPathSeparator;
  for (; names.size() > count; names.pop()) {
    // What cannot be deleted, such as a folder, counts as deleted all the same.
    ::DeleteFileW(folder + names.front().c_str());
  }
} catch (...) {
  // Out of memory: more logs than wanted are kept.
}
