#include "hosts/cmdline/image_copies.h"

#include <windows.h>

#include <utility>

#include "hosts/common/file_digest.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

/// Of a copy that is not whole yet. It must not begin as that of images does: the short name that the file
/// system gives a file has three letters of it, and searches go by short names, too.
constexpr wchar_t kDraftExtension[] = L".copying";

Finding CopyFailed(std::string message, std::string whatToDo) {
  return {kChosenImages, Verdict::Error, std::move(message), std::move(whatToDo), "copy_failed"};
}

Finding NotCopied(const std::wstring& image, const std::wstring& copy, DWORD error) {
  return CopyFailed(ToUtf8(image) + " cannot be copied to " + ToUtf8(copy) + ": " + SystemErrorText(error),
                    "Make room on the drive, and run this program as an administrator.");
}

/// An image of a disc may only be read, and so may what was copied of it; that can be neither written over
/// nor deleted. Of a file that is not there nothing changes.
void LetItBeChanged(const std::wstring& path) {
  ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
}

BOOL DeleteCopy(const std::wstring& path) {
  LetItBeChanged(path);
  return ::DeleteFileW(path.c_str());
}

}  // namespace

bool IsCopyOf(const std::wstring& path, const ChosenImage& image) {
  return DigestOf(path).sha256 == image.sha256;
}

ImageCopies::~ImageCopies() {
  // What was left has been told of by whoever asked for it.
  for (const std::wstring& path : m_Drafts) DeleteCopy(path);
  for (const std::wstring& path : m_Copies) DeleteCopy(path);
}

std::optional<Finding> ImageCopies::MakeDraft(const ChosenImage& image, const std::wstring& draft) {
  m_Drafts.push_back(draft);
  // One that was ended by force has left it as the copying made it.
  LetItBeChanged(draft);
  if (!::CopyFileW(image.file.path.c_str(), draft.c_str(), FALSE)) {
    return NotCopied(image.file.path, draft, ::GetLastError());
  }
  // The library has to delete it.
  LetItBeChanged(draft);
  const FileDigest digest = DigestOf(draft);
  if (digest.error != ERROR_SUCCESS) return NotCopied(image.file.path, draft, digest.error);
  if (digest.sha256 == image.sha256) return std::nullopt;
  return CopyFailed(ToUtf8(draft) + " is not what was read of " + ToUtf8(image.file.path),
                    "Look after both drives, and try again.");
}

std::optional<Finding> ImageCopies::Make(const std::vector<ChosenImage>& images, const std::wstring& folder) {
  std::vector<std::pair<const ChosenImage*, std::wstring>> pending;
  for (const ChosenImage& image : images) {
    std::wstring copy = folder + L"\\" + image.file.Name();
    if (IsCopyOf(copy, image)) {
      m_Copies.push_back(std::move(copy));
      continue;
    }
    if (auto error = MakeDraft(image, copy + kDraftExtension)) return error;
    pending.emplace_back(&image, std::move(copy));
  }
  for (const auto& [image, copy] : pending) {
    // Not over an image that somebody else has put there meanwhile.
    if (!::MoveFileExW((copy + kDraftExtension).c_str(), copy.c_str(), MOVEFILE_WRITE_THROUGH)) {
      return NotCopied(image->file.path, copy, ::GetLastError());
    }
    m_Copies.push_back(copy);
  }
  return std::nullopt;
}

std::vector<std::wstring> ImageCopies::TakeBack() {
  std::vector<std::wstring> left;
  for (std::vector<std::wstring>* paths : {&m_Drafts, &m_Copies}) {
    for (const std::wstring& path : std::exchange(*paths, {})) {
      const bool isGone = DeleteCopy(path) || ::GetLastError() == ERROR_FILE_NOT_FOUND ||
                          ::GetLastError() == ERROR_PATH_NOT_FOUND;
      if (!isGone) left.push_back(path);
    }
  }
  return left;
}

}  // namespace hosts
