#pragma once

#include <optional>
#include <string>
#include <vector>

#include "hosts/cmdline/finding.h"
#include "hosts/cmdline/image_folder.h"

namespace hosts {

/// What findings about them are about.
inline constexpr const char* kChosenImages = "chosen images";

/// An image that somebody has chosen, as it was when it was looked at.
struct ChosenImage {
  ImageFile file;
  std::string sha256;
};

/// Whether a file is what an earlier flash of the same image has left, when it was ended by force.
bool IsCopyOf(const std::wstring& path, const ChosenImage& image);

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

}  // namespace hosts
