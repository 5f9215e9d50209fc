#include "hosts/cmdline/image_folder.h"

#include "hosts/common/facts.h"
#include "hosts/common/owners.h"

namespace hosts {

namespace {

std::uint64_t SizeOf(const WIN32_FIND_DATAW& entry) {
  return (std::uint64_t{entry.nFileSizeHigh} << 32) | entry.nFileSizeLow;
}

/// A folder without images is listed to its end.
DWORD ErrorOfSearch(DWORD error) {
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_NO_MORE_FILES ? ERROR_SUCCESS : error;
}

}  // namespace

std::wstring ImageFile::Name() const {
  return path.substr(path.find_last_of(L"\\/") + 1);
}

bool ImageFile::IsModemImage() const {
  return bytes >= kSmallestModemImage;
}

ImageListing ListImages(const std::wstring& folder) {
  WIN32_FIND_DATAW entry{};
  // As the library searches.
  const HANDLE begun = ::FindFirstFileW((folder + L"\\*.fls").c_str(), &entry);
  if (begun == INVALID_HANDLE_VALUE) return {.error = ErrorOfSearch(::GetLastError()), .images = {}};
  const OwnedSearch search(begun);
  ImageListing listing;
  do {
    const bool isFolder = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (!isFolder) listing.images.push_back({folder + L"\\" + entry.cFileName, SizeOf(entry)});
  } while (::FindNextFileW(search.get(), &entry));
  listing.error = ErrorOfSearch(::GetLastError());
  return listing;
}

bool IsSameName(const std::wstring& left, const std::wstring& right) {
  return ::CompareStringOrdinal(left.c_str(), -1, right.c_str(), -1, TRUE) == CSTR_EQUAL;
}

}  // namespace hosts
