#include "hosts/service/permissions.h"

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <system_error>

#include "hosts/common/event_log.h"
#include "hosts/common/facts.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "hosts/common/who_flashes.h"
#include "hosts/common/write_access.h"
#include "messages.h"

// Not in every set of the system's headers.
#if !defined(PROTECTED_DACL_SECURITY_INFORMATION)
#define PROTECTED_DACL_SECURITY_INFORMATION 0x80000000L
#endif
#if !defined(UNPROTECTED_DACL_SECURITY_INFORMATION)
#define UNPROTECTED_DACL_SECURITY_INFORMATION 0x20000000L
#endif

namespace hosts {

namespace {

// System and administrators may do anything, users read; nothing is inherited from above, all that lies below
// inherits it.
constexpr wchar_t kOfFolder[] = L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";
constexpr wchar_t kOfKey[] = L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)(A;CI;KR;;;BU)";

/// @throws std::system_error when the system does not understand it.
LocalMemory DescriptorOf(const wchar_t* text) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &descriptor, nullptr)) {
    ThrowLastError("Permissions cannot be put together");
  }
  return LocalMemory(descriptor);
}

/// Lets this process become the owner of what it may not change. Where the right is missing, the change that
/// needs it says so.
void EnableTakingOwnership() {
  HANDLE token = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token)) return;
  const OwnedHandle owner(token);
  TOKEN_PRIVILEGES privileges{};
  privileges.PrivilegeCount = 1;
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  if (!::LookupPrivilegeValueW(nullptr, L"SeTakeOwnershipPrivilege", &privileges.Privileges[0].Luid)) return;
  ::AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
}

/// Whoever made the folder owns it, and an owner gives himself any right that is taken from him.
DWORD GiveToAdministrators(std::wstring path, PSECURITY_DESCRIPTOR descriptor) {
  PSID owner = nullptr;
  BOOL defaulted = FALSE;
  ::GetSecurityDescriptorOwner(descriptor, &owner, &defaulted);
  EnableTakingOwnership();
  return ::SetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, owner, nullptr,
                                 nullptr, nullptr);
}

DWORD SetPermissionsOfFolder(std::wstring path) {
  const LocalMemory descriptor = DescriptorOf(kOfFolder);
  // First, and by itself: the former owner may have left administrators no other right.
  const DWORD given = GiveToAdministrators(path, descriptor.get());
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  PACL list = nullptr;
  ::GetSecurityDescriptorDacl(descriptor.get(), &present, &list, &defaulted);
  // What lies in the folder takes part.
  const DWORD set = ::SetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT,
                                            DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                            nullptr, nullptr, list, nullptr);
  return given != ERROR_SUCCESS ? given : set;
}

/// @return ERROR_NOT_EMPTY of a key that others live below.
DWORD LookForKeysBelow(HKEY key) {
  DWORD keysBelow = 0;
  const LSTATUS asked = ::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &keysBelow, nullptr, nullptr,
                                           nullptr, nullptr, nullptr, nullptr, nullptr);
  if (asked != ERROR_SUCCESS) return static_cast<DWORD>(asked);
  return keysBelow > 0 ? ERROR_NOT_EMPTY : ERROR_SUCCESS;
}

/// A value of the key that says who made it: it goes with the installation.
constexpr wchar_t kMadeHere[] = L"Made_By_Service";

/// Makes the key if necessary. @return ERROR_NOT_EMPTY of a key that is not the service's alone.
DWORD SetPermissionsOfKey(const HandshakeKey& key) {
  HKEY opened = nullptr;
  DWORD disposition = REG_OPENED_EXISTING_KEY;
  const LSTATUS made = ::RegCreateKeyExW(key.root, key.path.c_str(), 0, nullptr, 0, KEY_READ | WRITE_DAC,
                                         nullptr, &opened, &disposition);
  const OwnedKey owner(opened);
  if (made != ERROR_SUCCESS) return static_cast<DWORD>(made);
  if (disposition == REG_CREATED_NEW_KEY) WriteHandshakeValue(key, kMadeHere, 1);
  const DWORD alone = LookForKeysBelow(opened);
  if (alone != ERROR_SUCCESS) return alone;
  const LocalMemory descriptor = DescriptorOf(kOfKey);
  return static_cast<DWORD>(::RegSetKeySecurity(opened, DACL_SECURITY_INFORMATION, descriptor.get()));
}

/// Leaves the key to those, too, whom its parent leaves it to.
DWORD InheritPermissionsOfKey(HKEY key) {
  const LocalMemory descriptor = DescriptorOf(kOfKey);
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  PACL list = nullptr;
  ::GetSecurityDescriptorDacl(descriptor.get(), &present, &list, &defaulted);
  return ::SetSecurityInfo(key, SE_REGISTRY_KEY,
                           DACL_SECURITY_INFORMATION | UNPROTECTED_DACL_SECURITY_INFORMATION, nullptr,
                           nullptr, list, nullptr);
}

bool WasMadeHere(HKEY key) {
  return ::RegQueryValueExW(key, kMadeHere, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
}

/// What SetPermissionsOfKey did is undone.
DWORD ReleaseKey(const HandshakeKey& key) {
  HKEY opened = nullptr;
  const LSTATUS found = ::RegOpenKeyExW(key.root, key.path.c_str(), 0, KEY_READ | WRITE_DAC, &opened);
  const OwnedKey owner(opened);
  if (found == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;
  if (found != ERROR_SUCCESS) return static_cast<DWORD>(found);
  // Neither was its own.
  if (LookForKeysBelow(opened) == ERROR_NOT_EMPTY) return ERROR_SUCCESS;
  if (!WasMadeHere(opened)) return InheritPermissionsOfKey(opened);
  return static_cast<DWORD>(::RegDeleteKeyW(key.root, key.path.c_str()));
}

/// Keys above those that are used when nobody names others; what others name is theirs.
constexpr const wchar_t* kOwnParents[] = {L"SOFTWARE\\Quenta", L"SOFTWARE\\WOW6432Node\\Quenta"};

bool IsEmpty(const wchar_t* path) {
  HKEY opened = nullptr;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
  const OwnedKey owner(opened);
  DWORD keys = 0;
  DWORD values = 0;
  const LSTATUS asked = ::RegQueryInfoKeyW(opened, nullptr, nullptr, nullptr, &keys, nullptr, nullptr,
                                           &values, nullptr, nullptr, nullptr, nullptr);
  return asked == ERROR_SUCCESS && keys == 0 && values == 0;
}

void DeleteEmptyParents() {
  for (const wchar_t* const path : kOwnParents) {
    if (IsEmpty(path)) ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, path);
  }
}

DWORD DeleteKeyOfCommandLine() {
  HKEY opened = nullptr;
  const LSTATUS found = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kCommandLineKey, 0, KEY_READ, &opened);
  const OwnedKey owner(opened);
  if (found == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;
  if (found != ERROR_SUCCESS) return static_cast<DWORD>(found);
  if (LookForKeysBelow(opened) == ERROR_NOT_EMPTY) return ERROR_SUCCESS;
  return static_cast<DWORD>(::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kCommandLineKey));
}

std::string Stays(const HandshakeKey& key, const std::string& why) {
  return "The key " + key.Text() + " stays as it is: " + why;
}

// --- What is protected -------------------------------------------------------------------------------------

std::wstring WithoutLastSeparators(std::wstring path) {
  while (path.size() > 1 && (path.back() == L'\\' || path.back() == L'/')) path.pop_back();
  return path;
}

std::wstring WindowsFolder() {
  std::array<wchar_t, MAX_PATH> path{};
  return {path.data(), ::GetWindowsDirectoryW(path.data(), static_cast<UINT>(path.size()))};
}

std::wstring Variable(const wchar_t* name) {
  std::array<wchar_t, 1024> text{};
  const DWORD length = ::GetEnvironmentVariableW(name, text.data(), static_cast<DWORD>(text.size()));
  return length < text.size() ? std::wstring(text.data(), length) : std::wstring();
}

/// Whether one folder is the other one, or above it.
bool Holds(const std::wstring& folder, const std::wstring& other) {
  return !other.empty() && other.size() >= folder.size() &&
         ::CompareStringOrdinal(folder.c_str(), static_cast<int>(folder.size()), other.c_str(),
                                static_cast<int>(folder.size()), TRUE) == CSTR_EQUAL &&
         (other.size() == folder.size() || other[folder.size()] == L'\\' || folder.back() == L'\\');
}

/// A folder that more than this service lives in: other permissions would harm others.
bool IsSharedWithOthers(const std::wstring& path) {
  std::error_code ignored;
  const std::wstring folder = WithoutLastSeparators(std::filesystem::absolute(path, ignored).wstring());
  const bool isRoot = std::filesystem::path(folder).relative_path().empty() || folder.ends_with(L':');
  const std::wstring others[] = {
      WindowsFolder(),          Variable(L"ProgramFiles"), Variable(L"ProgramFiles(x86)"),
      Variable(L"ProgramData"), Variable(L"USERPROFILE"),  Variable(L"PUBLIC")};
  return isRoot || Holds(WindowsFolder(), folder) ||
         std::ranges::any_of(others, [&](const std::wstring& other) { return Holds(folder, other); });
}

/// Only administrators mount a drive in a folder; anybody may make other links.
bool IsMountedDrive(const std::wstring& folder) {
  std::array<wchar_t, MAX_PATH> volume{};
  return ::GetVolumeNameForVolumeMountPointW((folder + L"\\").c_str(), volume.data(),
                                             static_cast<DWORD>(volume.size())) != FALSE;
}

/// Whether a folder, or one above it, is a link: whoever made it would have other permissions given to what
/// it leads to.
bool LeadsElsewhere(const std::wstring& path) {
  std::error_code ignored;
  std::filesystem::path part = std::filesystem::absolute(path, ignored);
  for (std::filesystem::path below; part != below; part = below.parent_path()) {
    const DWORD attributes = ::GetFileAttributesW(part.c_str());
    const bool isLink =
        attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    if (isLink && !IsMountedDrive(part.wstring())) return true;
    below = part;
  }
  return false;
}

class Protection {
 public:
  void ProtectFolder(const std::wstring& path) {
    if (IsSharedWithOthers(path)) {
      return Warn(
          "The permissions of " + ToUtf8(path) +
          " stay as they are, because other programs live there too. Give the flash service a folder of its "
          "own.");
    }
    if (LeadsElsewhere(path)) {
      return Warn("The permissions of " + ToUtf8(path) +
                  " stay as they are, because it is a link, or lies behind one. Name the folder itself.");
    }
    Tell(ToUtf8(path), SetPermissionsOfFolder(path));
  }

  void ProtectKey(const HandshakeKey& key) {
    if (key.root != HKEY_LOCAL_MACHINE) {
      return Warn(
          "The permissions of " + key.Text() +
          " stay as they are, because the key is not below HKLM. Give [RegistryLocation] a key there: others "
          "belong to one account.");
    }
    const DWORD error = SetPermissionsOfKey(key);
    if (error == ERROR_NOT_EMPTY) {
      return Warn(
          "The permissions of " + key.Text() +
          " stay as they are, because other keys lie below it. Give [RegistryLocation] a key that is the "
          "flash service's alone.");
    }
    Tell(key.Text(), error);
  }

  void WarnOf(const OpenPlace& place) {
    Warn(ToUtf8(place.path) + " " + place.why +
         ": whoever changes it has the rights of the service, or flashes an image of their own. Leave it to "
         "administrators and the system.");
  }

  void Warn(std::string text) { m_Warnings.push_back(std::move(text)); }
  std::vector<std::string> Take() { return std::move(m_Warnings); }

 private:
  void Tell(const std::string& what, DWORD error) {
    if (error == ERROR_SUCCESS) return;
    Warn("The permissions of " + what + " could not be set: " + SystemErrorText(error) +
         ". Leave writing to administrators and the system there, or install again as an administrator.");
  }

  std::vector<std::string> m_Warnings;
};

void ProtectImages(const std::wstring& folder, Protection& protection) {
  std::error_code error;
  if (folder.empty() || !std::filesystem::is_directory(folder, error)) {
    return protection.Warn(
        "There is no folder of the images yet, so nobody is kept from writing there. Make \"" +
        ToUtf8(folder) + "\", as [ModemAndNVMFirmwareFolder] names it, and install again.");
  }
  protection.ProtectFolder(folder);
}

/// @return the folder of the images; empty without a configuration.
std::wstring ProtectAll(const std::wstring& folder, Protection& protection) {
  protection.ProtectFolder(folder);
  const auto configuration = LibraryConfiguration::Read(folder + L"\\" + kConfigurationName);
  if (!configuration) {
    protection.Warn(
        "The configuration " + ToUtf8(folder) +
        "\\CorvelConfig.ini cannot be read, so the folder of the images and the key stay open to whom they "
        "were. Put it there and install again.");
    return {};
  }
  ProtectImages(configuration->FirmwareFolder(), protection);
  protection.ProtectKey(configuration->ServiceKey());
  return configuration->FirmwareFolder();
}

/// Behind an installer and a management system nobody reads what a program says.
void TellEventLog(const std::vector<std::string>& warnings) {
  if (warnings.empty()) return;
  std::string text;
  for (const std::string& warning : warnings) text += (text.empty() ? "" : "\r\n") + warning;
  WriteEvent(MSG_OPEN_TO_OTHERS, ToWide(text));
}

}  // namespace

std::string ReleaseHandshakeKey(const std::wstring& folder) {
  const auto configuration =
      LibraryConfiguration::Read(WithoutLastSeparators(folder) + L"\\" + kConfigurationName);
  if (!configuration || configuration->ServiceKey().root != HKEY_LOCAL_MACHINE) return {};
  const HandshakeKey key = configuration->ServiceKey();
  const DWORD error = ReleaseKey(key);
  if (error != ERROR_SUCCESS) return Stays(key, SystemErrorText(error) + ". Delete it as an administrator.");
  DeleteEmptyParents();
  return {};
}

std::string ReleaseCommandLineKey(const std::wstring& folder) {
  // Whoever has not flashed from here may have set the key's values for a command line elsewhere, or for one
  // that is still to come: an installation that failed takes none of them along.
  const std::wstring place = WithoutLastSeparators(folder) + L"\\";
  if (::GetFileAttributesW((place + kHistoryName).c_str()) == INVALID_FILE_ATTRIBUTES) return {};
  const HandshakeKey key{.path = kCommandLineKey};
  const auto configuration = LibraryConfiguration::Read(place + kConfigurationName);
  if (configuration && configuration->ServiceKey().Identity() == key.Identity()) return {};
  // Held until the key is gone, so that no command line begins meanwhile.
  const CommandLineClaim claim;
  if (const auto other = claim.WhoHoldsIt()) return Stays(key, other->message + ". " + other->whatToDo);
  const DWORD error = DeleteKeyOfCommandLine();
  if (error != ERROR_SUCCESS) return Stays(key, SystemErrorText(error) + ". Delete it as an administrator.");
  DeleteEmptyParents();
  return {};
}

std::vector<std::string> ProtectInstallation() {
  Protection protection;
  const std::wstring folder = WithoutLastSeparators(ProgramFolder());
  const std::wstring images = ProtectAll(folder, protection);
  for (const OpenPlace& place : FindOpenPlaces(folder, images)) protection.WarnOf(place);
  std::vector<std::string> warnings = protection.Take();
  TellEventLog(warnings);
  return warnings;
}

}  // namespace hosts
