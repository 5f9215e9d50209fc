#pragma once

#include <filesystem>
#include <optional>

#include "hosts/common/owners.h"
#include "simulator/flash_image.h"
#include "simulator/program/scenarios/scenario.h"

namespace simulator {

/// The folder in which the controlling program lays the images of one run.
class FirmwareFolder {
 public:
  FirmwareFolder(std::filesystem::path folder, ImageSet images, ImageHolder holder);

  const std::filesystem::path& Folder() const { return m_Folder; }
  /// The sound images that the library has to choose; null without one.
  const FlashImage* Modem() const { return m_Modem ? &*m_Modem : nullptr; }
  const FlashImage* Nvm() const { return m_Nvm ? &*m_Nvm : nullptr; }
  int ImagesLeft() const;

 private:
  void Lay(const FlashImage& image, const wchar_t* name) const;
  void LayEmpty(const wchar_t* name) const;
  void Hold(ImageHolder holder);

  std::filesystem::path m_Folder;
  std::optional<FlashImage> m_Modem;
  std::optional<FlashImage> m_Nvm;
  hosts::OwnedHandle m_Held;
};

}  // namespace simulator
