#include "hosts/cmdline/chosen_images.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>

#include "hosts/cmdline/digest_list.h"
#include "hosts/cmdline/preflight.h"
#include "hosts/common/file_digest.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

Finding Refusal(const char* code, std::string message, std::string whatToDo,
                ExitCode exitCode = ExitCode::NotReady) {
  return {kChosenImages, Verdict::Error, std::move(message), std::move(whatToDo), code, exitCode};
}

Finding NoSuchImage(std::string message, std::string whatToDo) {
  return Refusal("no_such_image", std::move(message), std::move(whatToDo), ExitCode::NoImages);
}

bool IsFolder(DWORD attributes) {
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool HasExtensionOfImages(const std::wstring& path) {
  return IsSameName(std::filesystem::path(path).extension().wstring(), L".fls");
}

/// The folder's images, or what keeps them from being known.
std::optional<Finding> TakeFolder(const std::wstring& folder, std::vector<ImageFile>& files) {
  ImageListing listing = ListImages(folder);
  if (listing.error != ERROR_SUCCESS) {
    return Refusal("folder_unreadable",
                   ToUtf8(folder) + " could not be read to its end: " + SystemErrorText(listing.error),
                   "Look after the drive and this program's rights, and try again.");
  }
  if (listing.images.empty()) {
    return NoSuchImage("there is no firmware image (*.fls) in " + ToUtf8(folder),
                       "Name the folder that holds the images.");
  }
  files = std::move(listing.images);
  return std::nullopt;
}

std::optional<Finding> TakeFile(const std::wstring& path, std::vector<ImageFile>& files) {
  WIN32_FILE_ATTRIBUTE_DATA facts{};
  if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &facts)) {
    return NoSuchImage(ToUtf8(path) + ": " + SystemErrorText(::GetLastError()),
                       "Name an image that is there, and that this program may read.");
  }
  if (IsFolder(facts.dwFileAttributes)) {
    return NoSuchImage(ToUtf8(path) + " is a folder among other names", "Name one folder alone, or files.");
  }
  if (!HasExtensionOfImages(path)) {
    return NoSuchImage(ToUtf8(path) + " is not called *.fls, and nothing else is taken for an image",
                       "Name the images themselves.");
  }
  files.push_back({path, (std::uint64_t{facts.nFileSizeHigh} << 32) | facts.nFileSizeLow});
  return std::nullopt;
}

std::optional<Finding> TakeNames(const std::vector<std::string>& names, std::vector<ImageFile>& files) {
  if (names.size() == 1 && IsFolder(::GetFileAttributesW(ToWide(names.front()).c_str()))) {
    return TakeFolder(ToWide(names.front()), files);
  }
  for (const std::string& name : names) {
    if (auto error = TakeFile(ToWide(name), files)) return error;
  }
  return std::nullopt;
}

/// The library takes one of each kind, and knows a file by its name in one folder.
std::optional<Finding> JudgeChoice(const std::vector<ImageFile>& files) {
  for (const ImageFile& file : files) {
    if (file.bytes == 0)
      return Refusal("image_empty", ToUtf8(file.path) + " is empty", "Copy the image anew.");
  }
  for (const bool areModemImages : {true, false}) {
    const auto isOfKind = [&](const ImageFile& file) { return file.IsModemImage() == areModemImages; };
    const auto first = std::ranges::find_if(files, isOfKind);
    if (first == files.end()) continue;
    const auto second = std::find_if(first + 1, files.end(), isOfKind);
    if (second == files.end()) continue;
    return Refusal("several_images",
                   ToUtf8(first->path) + " and " + ToUtf8(second->path) + " are both " +
                       (areModemImages ? "modem images (10 MiB or more)" : "NVM images (below 10 MiB)"),
                   "Choose one of each kind.");
  }
  if (files.size() == 2 && IsSameName(files[0].Name(), files[1].Name())) {
    return Refusal("same_name", "both images are called " + ToUtf8(files[0].Name()),
                   "Rename one of them: they are copied into one folder.");
  }
  return std::nullopt;
}

std::optional<Finding> ReadImage(const ImageFile& file, const DigestList* expected,
                                 std::vector<ChosenImage>& images) {
  const FileDigest digest = DigestOf(file.path);
  if (digest.error != ERROR_SUCCESS) {
    return Refusal("image_unreadable", ToUtf8(file.path) + ": " + SystemErrorText(digest.error),
                   "Close the program that holds the image open, and give this one the right to read it.");
  }
  if (expected != nullptr) {
    if (auto difference = JudgeDigest(kChosenImages, file.path, digest.sha256, *expected)) return difference;
  }
  images.push_back({file, digest.sha256});
  return std::nullopt;
}

bool IsSameFile(const std::wstring& left, const std::wstring& right) {
  std::error_code failed;
  return std::filesystem::equivalent(left, right, failed);
}

}  // namespace

ChosenImages LookAtChosenImages(const std::vector<std::string>& names, const std::string& expect) {
  ChosenImages chosen;
  std::vector<ImageFile> files;
  chosen.error = TakeNames(names, files);
  if (!chosen.error) chosen.error = JudgeChoice(files);
  std::optional<DigestList> expected;
  if (!expect.empty()) expected = DigestList::Read(expect);
  if (!chosen.error && expected && !expected->Problem().empty()) chosen.error = NoDigests(*expected);
  for (const ImageFile& file : files) {
    if (chosen.error) break;
    chosen.error = ReadImage(file, expected ? &*expected : nullptr, chosen.images);
  }
  return chosen;
}

std::optional<Finding> FindOtherImages(const std::vector<ChosenImage>& images, const std::wstring& folder) {
  std::string others;
  // A folder that is not there, or cannot be read, is told of by the look before a flash.
  for (const ImageFile& file : ListImages(folder).images) {
    const auto chosen = std::ranges::find_if(
        images, [&](const ChosenImage& image) { return IsSameName(image.file.Name(), file.Name()); });
    if (chosen != images.end() && IsSameFile(chosen->file.path, file.path)) {
      return Refusal("folder_holds_images",
                     ToUtf8(file.path) + " lies in the configured folder already, and a flash deletes it",
                     "Leave --images out to flash what is there, or choose images of another folder.");
    }
    if (chosen != images.end() && IsCopyOf(file.path, *chosen)) continue;
    others += (others.empty() ? "" : ", ") + ToUtf8(file.Name());
  }
  if (others.empty()) return std::nullopt;
  return Refusal("folder_holds_images",
                 "the configured folder " + ToUtf8(folder) + " holds other images: " + others,
                 "Move them away, or leave --images out to flash them.");
}

}  // namespace hosts
