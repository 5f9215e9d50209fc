#include "hosts/cmdline/images_text.h"

#include <algorithm>

#include "hosts/common/text.h"
#include "hosts/common/text_layout.h"

namespace hosts {

namespace {

const char* TokenOfKind(const ImageFile& file) {
  return file.IsModemImage() ? "modem" : "nvm";
}

const char* NameOfKind(const ImageFile& file) {
  return file.IsModemImage() ? "modem image" : "NVM image";
}

/// Why a flash takes another image than this one.
std::string WhyNotTaken(const ImageReport& report, const ListedImage& image) {
  const auto taken = std::ranges::find_if(report.images, [&](const ListedImage& other) {
    return other.isTaken && other.file.IsModemImage() == image.file.IsModemImage();
  });
  if (taken == report.images.end()) return "its path is too long";
  return ToUtf8(taken->file.Name()) + " is";
}

std::string FateOf(const ImageReport& report, const ListedImage& image) {
  return image.isTaken ? "taken" : "not taken: " + WhyNotTaken(report, image);
}

std::string DigestText(const ListedImage& image) {
  if (!image.problem.empty()) return "cannot be read: " + image.problem;
  return image.sha256.empty() ? "" : "SHA-256 " + image.sha256;
}

}  // namespace

std::string ImagesText(const ImageReport& report, std::size_t columns) {
  std::string text = Wrapped("Folder: " + ToUtf8(report.folder), columns, "", "        ");
  for (const ListedImage& image : report.images) {
    text += Wrapped(ToUtf8(image.file.Name()), columns, "", "");
    text += Wrapped(std::string(NameOfKind(image.file)) + ", " + std::to_string(image.file.bytes) +
                        " bytes, " + FateOf(report, image),
                    columns, "  ", "    ");
    const std::string digest = DigestText(image);
    if (!digest.empty()) text += Wrapped(digest, columns, "  ", "    ");
  }
  if (!report.whyNotRead.empty())
    text += Wrapped("No digests: " + report.whyNotRead + ".", columns, "", "  ");
  return text;
}

nlohmann::ordered_json AsJson(const ImageReport& report) {
  auto images = nlohmann::ordered_json::array();
  for (const ListedImage& image : report.images) {
    images.push_back({{"name", ToUtf8(image.file.Name())},
                      {"path", ToUtf8(image.file.path)},
                      {"bytes", image.file.bytes},
                      {"kind", TokenOfKind(image.file)},
                      {"taken", image.isTaken},
                      {"sha256", image.sha256},
                      {"problem", image.problem}});
  }
  return {{"folder", ToUtf8(report.folder)}, {"images", images}, {"why_not_read", report.whyNotRead}};
}

}  // namespace hosts
