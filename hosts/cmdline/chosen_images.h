#pragma once

#include <optional>
#include <string>
#include <vector>

#include "hosts/cmdline/image_folder.h"
#include "hosts/cmdline/preflight.h"

namespace hosts {

/// An image that somebody has chosen, as it was when it was looked at.
struct ChosenImage {
  ImageFile file;
  std::string sha256;
};

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

/// Copies of chosen images in the folder that the library takes them from, for one flash. Whatever is left of
/// them goes with this; the originals stay in any case.
class ImageCopies {
 public:
  ImageCopies() = default;
  ~ImageCopies();
  ImageCopies(const ImageCopies&) = delete;
  ImageCopies& operator=(const ImageCopies&) = delete;

  /// Nobody sees a copy as an image before all of them are whole. @return what went wrong; what there is
  /// then is to be taken back.
  std::optional<Finding> Make(const std::vector<ChosenImage>& images, const std::wstring& folder);
  /// Removes what is left of the copies. @return what could not be removed.
  std::vector<std::wstring> TakeBack();

 private:
  std::optional<Finding> MakeDraft(const ChosenImage& image, const std::wstring& draft);

  std::vector<std::wstring> m_Drafts;
  std::vector<std::wstring> m_Copies;
};

/// What a folder holds that would be flashed beside the chosen images, or in their place; copies of the very
/// same images are not meant.
std::optional<Finding> FindOtherImages(const std::vector<ChosenImage>& images, const std::wstring& folder);

}  // namespace hosts
