#include "hosts/common/write_access.h"

#include <windows.h>

#include <aclapi.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>
#include <system_error>
#include <utility>

#include "hosts/common/accounts.h"
#include "hosts/common/facts.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

using Path = std::filesystem::path;

/// Any of these lets its owner put another folder in the place of one that lies in it, or in its own.
constexpr ACCESS_MASK kReplacing = FILE_DELETE_CHILD | DELETE | WRITE_DAC | WRITE_OWNER | GENERIC_ALL;
/// A drive is neither renamed nor deleted.
constexpr ACCESS_MASK kReplacingInRoot = kReplacing & ~static_cast<ACCESS_MASK>(DELETE);
/// Any of these lets its owner change or replace a file or what is in a folder.
constexpr ACCESS_MASK kWriting = kReplacing | FILE_WRITE_DATA | FILE_APPEND_DATA | GENERIC_WRITE;

/// The account that an entry of a list gives any of those rights to; null when it gives none, or counts for
/// what lies below alone.
PSID WhoGets(void* entry, ACCESS_MASK rights) {
  // Both kinds begin alike; a condition is taken to hold.
  auto& allowed = *static_cast<ACCESS_ALLOWED_ACE*>(entry);
  const bool allows = allowed.Header.AceType == ACCESS_ALLOWED_ACE_TYPE ||
                      allowed.Header.AceType == ACCESS_ALLOWED_CALLBACK_ACE_TYPE;
  const bool counts = allows && (allowed.Header.AceFlags & INHERIT_ONLY_ACE) == 0;
  return counts && (allowed.Mask & rights) != 0 ? &allowed.SidStart : nullptr;
}

std::string WhyOpenByList(PACL list, ACCESS_MASK rights) {
  if (list == nullptr) return "may be written by everybody";
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* entry = nullptr;
    if (!::GetAce(list, i, &entry)) continue;
    const PSID account = WhoGets(entry, rights);
    if (account != nullptr && !IsTrusted(account)) return "may be written by " + NameOfAccount(account);
  }
  return {};
}

/// Empty when it is not open, and when nobody can tell.
std::string WhyOpen(std::wstring path, ACCESS_MASK rights) {
  PSID owner = nullptr;
  PACL list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = ::GetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT,
                                              OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
                                              nullptr, &list, nullptr, &descriptor);
  const LocalMemory memory(descriptor);
  if (error != ERROR_SUCCESS) return {};
  // Whoever owns it gives himself any right.
  if (owner != nullptr && !IsTrusted(owner)) return "belongs to " + NameOfAccount(owner);
  return WhyOpenByList(list, rights);
}

bool IsLoadedByPrograms(const Path& file) {
  const std::wstring name = file.filename().wstring();
  const auto isCalled = [](const std::wstring& found, const wchar_t* expected) {
    return ::CompareStringOrdinal(found.c_str(), -1, expected, -1, TRUE) == CSTR_EQUAL;
  };
  const std::wstring extension = file.extension().wstring();
  return isCalled(name, kConfigurationName) || isCalled(extension, L".exe") || isCalled(extension, L".dll");
}

class Search {
 public:
  void LookAtFolder(const Path& folder, const std::function<bool(const Path&)>& counts) {
    std::error_code error;
    const Path whole = std::filesystem::absolute(folder, error);
    // With a separator at its end it would be its own folder above.
    const Path path = whole.has_filename() ? whole : whole.parent_path();
    LookAbove(path);
    if (!LookAt(path, kWriting)) LookInside(path, counts);
  }

  std::vector<OpenPlace> Take() { return std::move(m_Found); }

 private:
  /// @return whether it is open.
  bool LookAt(const Path& path, ACCESS_MASK rights) {
    std::string why = WhyOpen(path.wstring(), rights);
    if (why.empty()) return false;
    // Two folders may have one above them.
    const auto found = std::ranges::find(m_Found, path.wstring(), &OpenPlace::path);
    if (found == m_Found.end()) m_Found.push_back({path.wstring(), std::move(why)});
    return true;
  }

  void LookAbove(const Path& path) {
    Path below = path;
    for (Path above = below.parent_path(); above != below; above = below.parent_path()) {
      LookAt(above, above == above.root_path() ? kReplacingInRoot : kReplacing);
      below = std::move(above);
    }
  }

  void LookInside(const Path& folder, const std::function<bool(const Path&)>& counts) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
      if (counts(entry->path())) LookAt(entry->path(), kWriting);
    }
  }

  std::vector<OpenPlace> m_Found;
};

}  // namespace

std::vector<OpenPlace> FindOpenPlaces(const std::wstring& programs, const std::wstring& images) {
  Search search;
  search.LookAtFolder(programs, IsLoadedByPrograms);
  std::error_code error;
  if (!images.empty() && std::filesystem::is_directory(images, error)) {
    search.LookAtFolder(images, [](const Path&) { return true; });
  }
  return search.Take();
}

}  // namespace hosts
