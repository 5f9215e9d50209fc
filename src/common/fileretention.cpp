#include "common/fileretention.h"

#include <windows.h>

#include <queue>
#include <string>

#include "common/filelisting.h"

namespace corvel {

namespace {

constexpr wchar_t kPathSeparator[] = L"\\";

/// Names of all entries that match; none when they could not all be listed.
std::queue<std::wstring> MatchingNames(const CTString& pattern) {
  std::queue<std::wstring> names;
  FileListing listing(pattern);
  if (!listing.IsStarted()) return names;
  do {
    names.emplace(listing.Entry().cFileName);
  } while (listing.GoOn());
  return listing.BrokeOff() ? std::queue<std::wstring>() : names;
}

}  // namespace

void KeepFiles(const CTString& pattern, unsigned int count) noexcept try {
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

}  // namespace corvel
