#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hosts/cmdline/image_folder.h"

namespace hosts {

/// An image of the folder, with what becomes of it.
struct ListedImage {
  ImageFile file;
  bool isTaken = false;
  /// SHA-256; empty when it was not read.
  std::string sha256{};
  /// Why it cannot be read to its end; empty when it can, or nobody has tried.
  std::string problem{};
};

/// What the firmware folder holds.
struct ImageReport {
  std::wstring folder;
  std::vector<ListedImage> images;
  /// Why no image was read, in words without a full stop; empty when they were.
  std::string whyNotRead{};
};

/// A paragraph per image for lines of so many columns.
std::string ImagesText(const ImageReport& report, std::size_t columns);
nlohmann::ordered_json AsJson(const ImageReport& report);

}  // namespace hosts
