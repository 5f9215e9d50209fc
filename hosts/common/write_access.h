#pragma once

#include <string>
#include <vector>

namespace hosts {

/// A file or folder of the flash service's that others than administrators and the system may change, or put
/// another one in the place of: whoever does has the rights of the service, or flashes an image of their own.
struct OpenPlace {
  std::wstring path;
  /// Who may, in words for people: "may be written by ..." or "belongs to ...".
  std::string why;
};

/// Looks at the folder of the programs with programs, libraries and configuration, at the folder of the
/// images with all that lies in it, and at the folders above both. What is in a folder that is open itself is
/// not named, nor what cannot be looked at: it is told elsewhere that it cannot be used.
/// @param images empty, or no folder: there are none.
std::vector<OpenPlace> FindOpenPlaces(const std::wstring& programs, const std::wstring& images);

}  // namespace hosts
