#include "hosts/service/first_configuration.h"

#include <windows.h>

#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "hosts/common/facts.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/owners.h"
#include "hosts/common/text.h"
#include "hosts/service/left_behind.h"
#include "hosts/service/sample_configuration.h"

namespace hosts {

namespace {

constexpr wchar_t kLastOfSingleByte = 0xFF;
static_assert(std::wstring_view(kLeftBehind[0]) == kConfigurationName);
static_assert(std::wstring_view(kLeftBehind[1]) == kHistoryName);

std::string Sample() {
  const HRSRC place = ::FindResourceW(nullptr, MAKEINTRESOURCEW(CORVEL_SAMPLE_CONFIGURATION), RT_RCDATA);
  const HGLOBAL sample = place == nullptr ? nullptr : ::LoadResource(nullptr, place);
  if (sample == nullptr) ThrowLastError("The sample configuration cannot be read");
  return {static_cast<const char*>(::LockResource(sample)), ::SizeofResource(nullptr, place)};
}

/// The bytes of a value; the file has a byte for each character.
std::string BytesOf(std::wstring_view value) {
  std::string bytes;
  for (const wchar_t character : value) {
    if (character < L' ' || character > kLastOfSingleByte) {
      throw std::invalid_argument("\"" + ToUtf8(value) +
                                  "\" holds a character that the configuration cannot hold");
    }
    bytes += static_cast<char>(character);
  }
  if (bytes.size() > kLongestConfigurationText) {
    throw std::invalid_argument("\"" + bytes + "\" is longer than the configuration takes");
  }
  return bytes;
}

void Set(std::string& configuration, const wchar_t* key, const std::wstring& value) {
  if (value.empty()) return;
  const std::string begin = "\n" + ToUtf8(key) + "=";
  const std::size_t place = configuration.find(begin);
  if (place == std::string::npos) throw std::logic_error("The sample lacks " + ToUtf8(key));
  const std::size_t from = place + begin.size();
  configuration.replace(from, configuration.find('\r', from) - from, BytesOf(value));
}

/// As people and installers write it, a separator or "\." at its end among it.
std::wstring FolderText(const std::wstring& folder) {
  if (folder.empty()) return {};
  std::filesystem::path path = std::filesystem::path(folder).lexically_normal();
  if (!path.is_absolute()) throw std::invalid_argument("\"" + ToUtf8(folder) + "\" is no full path");
  if (!path.has_filename()) path = path.parent_path();
  return path.make_preferred().wstring();
}

void RequireKnownKey(const std::wstring& location) {
  if (location.empty()) return;
  const std::size_t separator = location.find(L'\\');
  if (!KnowsRoot(location) || separator >= location.size() - 1) {
    throw std::invalid_argument("\"" + ToUtf8(location) + "\" is no key below HKLM, HKU, HKCU, HKCR or HCC");
  }
}

/// Whole or not at all, and never over one that is there.
Configured WriteConfiguration(const std::string& bytes) {
  const std::wstring path = ProgramFolder() + kConfigurationName;
  const std::wstring fresh = path + L".new";
  {
    const HANDLE file = ::CreateFileW(fresh.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) ThrowLastError("The configuration cannot be written");
    const OwnedHandle owner(file);
    DWORD written = 0;
    if (!::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr)) {
      ThrowLastError("The configuration cannot be written");
    }
  }
  if (::MoveFileExW(fresh.c_str(), path.c_str(), MOVEFILE_WRITE_THROUGH)) return Configured::Now;
  const DWORD error = ::GetLastError();
  ::DeleteFileW(fresh.c_str());
  if (error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS) return Configured::Before;
  ::SetLastError(error);
  ThrowLastError("The configuration cannot be written");
}

// --- What an installer remembers ---------------------------------------------------------------------------

// As packaging/installer.wxs has them.
constexpr wchar_t kInstallerKey[] = L"SOFTWARE\\Corvel\\Toolkit";
constexpr wchar_t kRememberedKey[] = L"RegistryKey";
constexpr wchar_t kRememberedBus[] = L"Bus";
constexpr wchar_t kRememberedImages[] = L"ImageFolder";

LSTATUS Forget(const wchar_t* name) {
  const LSTATUS status = ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kInstallerKey, name);
  return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;
}

void Remember(const wchar_t* name, const std::wstring& text) {
  const auto bytes = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
  const LSTATUS status =
      text.empty() ? Forget(name)
                   : ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kInstallerKey, name, REG_SZ, text.c_str(), bytes);
  if (status == ERROR_SUCCESS) return;
  ::SetLastError(static_cast<DWORD>(status));
  ThrowLastError("What the configuration says cannot be noted for the installer");
}

/// Empty: an installer that were told it would refuse each repair, and the removal too.
std::wstring KeyProperty(const HandshakeKey& key) {
  return key.path.empty() || key.path.find(L'"') != std::wstring::npos ? L"" : ToWide(key.Text());
}

/// Empty for the same reason.
std::wstring ImagesProperty(const std::wstring& folder) {
  const bool isFolder =
      std::filesystem::path(folder).is_absolute() && folder.find_first_of(L"\"<>|?*") == std::wstring::npos;
  return isFolder ? FolderText(folder) : L"";
}

}  // namespace

Configured Configure(const FirstSettings& settings) {
  RequireKnownKey(settings.registryKey);
  std::string configuration = Sample();
  Set(configuration, kRegistryLocationKey, settings.registryKey);
  Set(configuration, kIpcTypeKey, settings.bus);
  Set(configuration, kFirmwareFolderKey, FolderText(settings.images));
  return WriteConfiguration(configuration);
}

void RememberForInstaller() {
  const auto configuration = LibraryConfiguration::Read(ProgramFolder() + kConfigurationName);
  if (!configuration) ThrowLastError("The configuration cannot be read");
  Remember(kRememberedKey, KeyProperty(configuration->ServiceKey()));
  Remember(kRememberedBus, configuration->Get(kIpcTypeKey) == L"PCIE" ? L"pcie" : L"usb");
  Remember(kRememberedImages, ImagesProperty(configuration->FirmwareFolder()));
}

void DeleteWhatHostsLeave(const std::wstring& folder) {
  for (const wchar_t* pattern : kLeftBehind) {
    WIN32_FIND_DATAW found{};
    const HANDLE search = ::FindFirstFileW((folder + pattern).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) continue;
    const OwnedSearch owner(search);
    do {
      if (!::DeleteFileW((folder + found.cFileName).c_str())) {
        ThrowLastError("A file beside the program cannot be deleted");
      }
    } while (::FindNextFileW(search, &found));
  }
}

}  // namespace hosts
