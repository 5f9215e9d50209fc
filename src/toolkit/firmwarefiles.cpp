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

/// A walk over all entries that match a pattern, folders included, in the order of the file system.
class Listing {
 public:
  explicit Listing(const CTString& pattern) {
    const HANDLE search = ::FindFirstFileW(pattern, &m_entry);
    m_search.reset(search == INVALID_HANDLE_VALUE ? nullptr : search);
  }

  /// False when it could not be started, or nothing matches. Otherwise there is a first entry.
  bool IsStarted() const { return m_search != nullptr; }
  const WIN32_FIND_DATAW& Entry() const { return m_entry; }
  /// Goes to the next entry. @return false when there is none, or none could be had.
  bool GoOn() {
    if (::FindNextFileW(m_search.get(), &m_entry)) return true;
    m_end = ::GetLastError();
    return false;
  }
  /// Whether the walk broke off: what it has found is not all there is.
  bool BrokeOff() const { return m_end != ERROR_NO_MORE_FILES; }
  /// Why it ended.
  DWORD End() const { return m_end; }

 private:
  WIN32_FIND_DATAW m_entry{};
  UniqueFileSearch m_search;
  DWORD m_end = ERROR_NO_MORE_FILES;
};

bool IsFolder(DWORD attributes) {
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsModemImage(const WIN32_FIND_DATAW& entry) {
  return entry.nFileSizeHigh != 0 || entry.nFileSizeLow >= kSmallestModemImageBytes;
}

/// Names of all entries that match; none when they could not all be listed.
std::queue<std::wstring> MatchingNames(const CTString& pattern) {
  std::queue<std::wstring> names;
  Listing listing(pattern);
  if (!listing.IsStarted()) return names;
  do {
    names.emplace(listing.Entry().cFileName);
  } while (listing.GoOn());
  return listing.BrokeOff() ? std::queue<std::wstring>() : names;
}

void ForgetImages() {
  ToolKit::m_ModemFlsFile.Empty();
  ToolKit::m_NVMFlsFile.Empty();
}

}  // namespace

bool ToolKit::FetchModemNVMFls(CTString folder) try {
  LOG_TRACE("FetchModemNVMFls ++");
  ForgetImages();

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
  Listing listing(folder + kImagePattern);
  if (!listing.IsStarted()) {
    LOG_TRACE("%s: FindFirstFile failed", QUALIFIED_FUNCTION);
    return false;
  }

  do {
    const WIN32_FIND_DATAW& entry = listing.Entry();
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
  } while (listing.GoOn());

  if (listing.BrokeOff()) {
    // One image alone would be flashed as if it were all that there is.
    ForgetImages();
    LOG_ERROR("\t The search in folder(%s) broke off, no image is taken, error: %d", Narrow(folder).c_str(),
              static_cast<int>(listing.End()));
  }
  LOG_TRACE("FetchModemNVMFls --");
  return !listing.BrokeOff();
} catch (...) {
  // Out of memory: as if the search could not start.
  ForgetImages();
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
