#pragma once

#include <optional>
#include <string>
#include <vector>

#include "hosts/cmdline/finding.h"
#include "hosts/cmdline/image_copies.h"

namespace hosts {

/// At most one of each kind.
struct ChosenImages {
  std::vector<ChosenImage> images = {};
  /// What keeps them from being flashed.
  std::optional<Finding> error = std::nullopt;
};

/// Looks at images wherever they are, and reads each to its end.
/// @param names of files, or of one folder, in UTF-8.
/// @param expect file of the images' digests; empty: any image will do.
ChosenImages LookAtChosenImages(const std::vector<std::string>& names, const std::string& expect);

/// What a folder holds that would be flashed beside the chosen images, or in their place; copies of the very
/// same images are not meant.
std::optional<Finding> FindOtherImages(const std::vector<ChosenImage>& images, const std::wstring& folder);

}  // namespace hosts
