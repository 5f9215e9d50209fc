#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace hosts {

/// A file that the library may take for an image.
struct ImageFile {
  std::wstring path;
  std::uint64_t bytes = 0;

  /// The file's name without its folder.
  std::wstring Name() const;
  /// The library goes by the size alone; what is no modem image is an NVM image.
  bool IsModemImage() const;
};

/// The images of a folder, in the order in which the library comes upon them.
struct ImageListing {
  /// Why they could not be listed to the end; 0 when they could.
  DWORD error = ERROR_SUCCESS;
  std::vector<ImageFile> images;
};
ImageListing ListImages(const std::wstring& folder);

/// Whether two names are one to the file system.
bool IsSameName(const std::wstring& left, const std::wstring& right);

}  // namespace hosts
