#pragma once

#include <optional>
#include <string>
#include <vector>

#include "hosts/cmdline/digest_list.h"
#include "hosts/cmdline/finding.h"
#include "hosts/cmdline/surroundings.h"

namespace hosts {

/// The code of the finding that the PC runs on its battery.
inline constexpr char kOnBattery[] = "on_battery";

/// The code of the finding that the folder is there and holds no image.
inline constexpr char kNoImages[] = "no_images";

/// What is left alone because another host needs it with nobody else beside it.
struct LeftAlone {
  bool configuration = false;  ///< and with it the images, which nobody can name then
  bool images = false;
};

/// What is asked of images and PC beyond what every flash needs.
struct Demands {
  std::string expect = {};      ///< file of the images' digests, in UTF-8
  unsigned int minBattery = 0;  ///< percent, on battery
};

/// The folder that the configuration names, and why no image can be taken from it, if so. Not while a service
/// starts: it needs the configuration for itself.
struct ConfiguredFolder {
  std::wstring path = {};
  FolderImages images = {};
  std::optional<Finding> error = std::nullopt;
};
ConfiguredFolder LookAtConfiguredFolder();
/// Why no image can be taken from a folder; nothing when one can.
std::optional<Finding> ErrorOfFolder(const std::wstring& folder, const FolderImages& images);
/// A list of digests that is useless.
Finding NoDigests(const DigestList& list);
/// Whether an image with that digest is the one that was meant.
std::optional<Finding> JudgeDigest(const char* subject, const std::wstring& path, const std::string& sha256,
                                   const DigestList& list);

/// Looks at configuration, images, flashing library, registry and power, and changes nothing.
std::vector<Finding> LookBeforeFlash(const Demands& demands, const LeftAlone& leftAlone = {});

}  // namespace hosts
