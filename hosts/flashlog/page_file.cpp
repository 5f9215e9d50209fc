#include "hosts/flashlog/page_file.h"

#include <string_view>

#include "hosts/common/owners.h"
#include "hosts/flashlog/log_source.h"
#include "hosts/flashlog/page_template.h"

namespace hosts::flashlog {

namespace {

/// What all pages begin with, and no other file is likely to.
std::string_view BeginningOfPages() {
  constexpr std::string_view kTitle = "<title>Flash log</title>";
  return PageHtml().substr(0, PageHtml().find(kTitle) + kTitle.size());
}

/// What a page is written to before it takes its place.
struct Draft {
  std::wstring path;
  OwnedHandle file;
};

/// Makes a file that was not there. @return the system's error.
DWORD MakeDraft(const std::wstring& page, Draft& draft) {
  constexpr int kMostNames = 1000;
  for (int i = 1; i <= kMostNames; ++i) {
    draft.path = page + (i == 1 ? L"" : L"." + std::to_wstring(i)) + L".new";
    const HANDLE file = ::CreateFileW(draft.path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
      draft.file.reset(file);
      return ERROR_SUCCESS;
    }
    if (const DWORD error = ::GetLastError(); error != ERROR_FILE_EXISTS) return error;
  }
  return ERROR_FILE_EXISTS;
}

/// @return the system's error.
DWORD WriteWhole(HANDLE file, const std::string& text) {
  DWORD written = 0;
  if (!::WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr)) {
    return ::GetLastError();
  }
  return written == text.size() ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

}  // namespace

DWORD LookAtPageFile(const std::wstring& path) {
  const OwnedHandle file = OpenShared(path);
  if (file == nullptr) {
    const DWORD error = ::GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? ERROR_SUCCESS : error;
  }
  const std::string_view expected = BeginningOfPages();
  std::string found(expected.size(), '\0');
  DWORD length = 0;
  if (!::ReadFile(file.get(), found.data(), static_cast<DWORD>(found.size()), &length, nullptr)) {
    return ::GetLastError();
  }
  return length == found.size() && found == expected ? ERROR_SUCCESS : ERROR_FILE_EXISTS;
}

DWORD WritePageFile(const std::wstring& path, const std::string& page) {
  DWORD error = LookAtPageFile(path);
  if (error != ERROR_SUCCESS) return error;
  Draft draft;
  error = MakeDraft(path, draft);
  if (error != ERROR_SUCCESS) return error;
  error = WriteWhole(draft.file.get(), page);
  draft.file.reset();
  if (error == ERROR_SUCCESS && !::MoveFileExW(draft.path.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
    error = ::GetLastError();
  }
  if (error != ERROR_SUCCESS) ::DeleteFileW(draft.path.c_str());
  return error;
}

}  // namespace hosts::flashlog
