#include <windows.h>

#include <string>

#include "common/filelisting.h"
#include "common/fileretention.h"
#include "common/log.h"
#include "common/narrow.h"
#include "toolkit/toolkit.h"

using namespace corvel;

namespace {

constexpr DWORD kSmallestModemImageBytes = 0xA00000;
constexpr int kPathLimit = 260;
constexpr wchar_t kImagePattern[] = L"*.fls";
constexpr wchar_t kPathSeparator[] = L"\\";

// The procedure under whose name the search logs.
constexpr char kSearch[] = "ToolKit::FetchModemNVMFls";

bool IsFolder(DWORD attributes) {
  return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsModemImage(const WIN32_FIND_DATAW& entry) {
  return entry.nFileSizeHigh != 0 || entry.nFileSizeLow >= kSmallestModemImageBytes;
}

void ForgetImages() {
  ToolKit::m_ModemFlsFile.Empty();
  ToolKit::m_NVMFlsFile.Empty();
}

/// Names a file of the folder as the image of its kind, in the place of an earlier one.
void TakeImage(const CTString& folder, const WIN32_FIND_DATAW& entry) {
  const CTString path = folder + entry.cFileName;
  const std::string printed = Narrow(path);
  LOG_TRACE_AS(kSearch, "   pathFlz:%s", printed.c_str());
  if (path.GetLength() >= kPathLimit) {
    LOG_TRACE_AS(kSearch, "FetchModemNVMFls: over MAX PATH, flz paths=%s", printed.c_str());
    return;
  }
  LOG_TRACE_AS(kSearch, "   pathFlz:%s, ffd.nFileSizeHigh:%d, ffd.nFileSizeLow:%d", printed.c_str(),
               static_cast<int>(entry.nFileSizeHigh), static_cast<int>(entry.nFileSizeLow));
  if (IsModemImage(entry)) {
    ToolKit::m_ModemFlsFile = path;
    LOG_TRACE_AS(kSearch, "   Found, modem fls file: %s", printed.c_str());
  } else {
    ToolKit::m_NVMFlsFile = path;
    LOG_TRACE_AS(kSearch, "   Found, NVM fls file: %s", printed.c_str());
  }
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
  FileListing listing(folder + kImagePattern);
  if (!listing.IsStarted()) {
    LOG_TRACE("%s: FindFirstFile failed", QUALIFIED_FUNCTION);
    return false;
  }

  do {
    if (!IsFolder(listing.Entry().dwFileAttributes)) TakeImage(folder, listing.Entry());
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

namespace {

/// Without memory for it the record is lost, and nothing else.
void TellOfFailedDeletion(const CTString& image, unsigned int error) noexcept try {
  LOG_ERROR_AS("ToolKit::DeleteFLSFiles", "\t DeleteFile(%s) failed with: %x", Narrow(image).c_str(), error);
} catch (...) {
}

}  // namespace

void ToolKit::DeleteFLSFiles() {
  LOG_ERROR("\t DeleteFLSFiles ++");
  for (const CTString* image : {&m_ModemFlsFile, &m_NVMFlsFile}) {
    if (image->IsEmpty() || ::DeleteFileW(*image)) continue;
    TellOfFailedDeletion(*image, static_cast<unsigned int>(::GetLastError()));
  }
  LOG_ERROR("\t DeleteFLSFiles --");
}

void ToolKit::KeepLogFileNum(CTString pattern, unsigned int count) {
  KeepFiles(pattern, count);
}
