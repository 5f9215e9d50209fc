#include "hosts/cmdline/preflight.h"

#include <windows.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hosts/cmdline/configuration_advice.h"
#include "hosts/cmdline/digest_list.h"
#include "hosts/cmdline/image_folder.h"
#include "hosts/cmdline/surroundings.h"
#include "hosts/common/facts.h"
#include "hosts/common/file_digest.h"
#include "hosts/common/library_configuration.h"
#include "hosts/common/owners.h"
#include "hosts/common/power.h"
#include "hosts/common/shared_names.h"
#include "hosts/common/text.h"

namespace hosts {

namespace {

Finding Ok(const char* subject, std::string message) {
  return {subject, Verdict::Ok, std::move(message), ""};
}

Finding Warning(const char* subject, const char* code, std::string message, std::string whatToDo) {
  return {subject, Verdict::Warning, std::move(message), std::move(whatToDo), code};
}

Finding Error(const char* subject, const char* code, std::string message, std::string whatToDo) {
  return {subject, Verdict::Error, std::move(message), std::move(whatToDo), code};
}

Finding NoImages(const char* code, std::string message, std::string whatToDo) {
  return {"folder", Verdict::Error, std::move(message), std::move(whatToDo), code, ExitCode::NoImages};
}

void Append(std::vector<Finding>& findings, std::vector<Finding> others) {
  std::ranges::move(others, std::back_inserter(findings));
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) joined += (joined.empty() ? "" : ", ") + text;
  return joined;
}

/// Why a configuration that is there could not be read. Opened as the library does, with nobody beside it.
Finding UnreadableConfiguration(const std::wstring& path) {
  const HANDLE opened =
      ::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  const DWORD error = ::GetLastError();
  const OwnedHandle file(opened == INVALID_HANDLE_VALUE ? nullptr : opened);
  const auto because = [&](std::string message, std::string whatToDo) {
    return Error("configuration", "no_configuration", ToUtf8(path) + " " + std::move(message),
                 std::move(whatToDo));
  };
  if (file != nullptr) {
    return because("cannot be read to its end",
                   "Run this check again, and write the file anew if that stays.");
  }
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return because("is missing", "Put CorvelConfig.ini beside this program.");
    case ERROR_SHARING_VIOLATION:
      return because("is open in another program", "Close the program that has it open.");
    default:
      return because("cannot be opened: " + SystemErrorText(error),
                     "Give this program the right to read it.");
  }
}

Finding NoFolderConfigured() {
  return Error(
      "configuration", "no_folder_configured", "[ModemAndNVMFirmwareFolder] is not set",
      "Name the folder of the images in CorvelConfig.ini. The first line of the file is always skipped.");
}

std::vector<Finding> LookAtConfiguration(const std::optional<LibraryConfiguration>& configuration) {
  if (!configuration) return {UnreadableConfiguration(ConfigurationPath())};
  std::vector<Finding> findings;
  if (configuration->FirmwareFolder().empty()) findings.push_back(NoFolderConfigured());
  Append(findings, AdviseOnConfiguration(*configuration));
  if (findings.empty()) findings.push_back(Ok("configuration", ToUtf8(ConfigurationPath())));
  return findings;
}

struct ImageSize {
  DWORD error = ERROR_SUCCESS;
  LONGLONG bytes = 0;
};

/// By opening the image as the library does, with nobody else beside it.
ImageSize SizeOfOpened(const std::wstring& path) {
  const HANDLE opened =
      ::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) return {.error = ::GetLastError()};
  const OwnedHandle file(opened);
  LARGE_INTEGER size{};
  ::GetFileSizeEx(file.get(), &size);
  return {.bytes = size.QuadPart};
}

/// Without opening it: a library that is about to open the image would fail.
ImageSize SizeOfListed(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA facts{};
  if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &facts))
    return {.error = ::GetLastError()};
  LARGE_INTEGER size{};
  size.LowPart = facts.nFileSizeLow;
  size.HighPart = static_cast<LONG>(facts.nFileSizeHigh);
  return {.bytes = size.QuadPart};
}

Finding LookAtImage(const char* subject, const std::wstring& path, const char* missing, bool leftAlone) {
  if (path.empty())
    return Warning(subject, "image_missing", missing, "A flash goes on with the other image alone.");
  const ImageSize size = leftAlone ? SizeOfListed(path) : SizeOfOpened(path);
  if (size.error != ERROR_SUCCESS) {
    return Error(subject, "image_unreadable", ToUtf8(path) + ": " + SystemErrorText(size.error),
                 "Close the program that holds the image open, and give this one the right to read it.");
  }
  if (size.bytes == 0) {
    return Error(subject, "image_empty", ToUtf8(path) + " is empty", "Copy the image anew.");
  }
  return Ok(subject, ToUtf8(path) + ", " + std::to_string(size.bytes) + " bytes");
}

/// Names of the other images that are of the same kind as the one that is taken, as the library tells the
/// kinds apart.
std::vector<std::string> OthersOfItsKind(const std::wstring& folder, const std::wstring& taken,
                                         bool areModemImages) {
  std::vector<std::string> names;
  for (const ImageFile& image : ListImages(folder).images) {
    if (image.path == taken || image.IsModemImage() != areModemImages) continue;
    names.push_back(ToUtf8(image.Name()) + (image.bytes == 0 ? " (empty)" : ""));
  }
  return names;
}

/// Whether an image is the one that was meant. Only of one that could be opened.
std::optional<Finding> CompareWithDigest(const char* subject, const std::wstring& path,
                                         const DigestList& list) {
  // What is not in the list need not be read.
  if (list.DigestOf(path).empty()) return JudgeDigest(subject, path, "", list);
  const FileDigest found = DigestOf(path);
  if (found.error == ERROR_SUCCESS) return JudgeDigest(subject, path, found.sha256, list);
  return Error(subject, "image_unreadable", ToUtf8(path) + ": " + SystemErrorText(found.error),
               "Close the program that holds the image open, and copy the image anew if that does not help.");
}

/// What is to be found in the folder, and how.
struct ImageSearch {
  std::wstring folder;
  const DigestList* expected;  ///< null: any image will do
  bool leftAlone;
};

std::vector<Finding> LookAtKind(const char* subject, const ImageSearch& search, const std::wstring& path,
                                bool isModemImage) {
  std::vector<Finding> findings{
      LookAtImage(subject, path, isModemImage ? "no image of 10 MiB or more" : "no image below 10 MiB",
                  search.leftAlone)};
  if (search.expected != nullptr && !search.leftAlone && findings.front().verdict == Verdict::Ok) {
    if (auto difference = CompareWithDigest(subject, path, *search.expected)) {
      findings.front() = std::move(*difference);
    } else {
      findings.front().message += ", SHA-256 as expected";
    }
  }
  const std::vector<std::string> others = OthersOfItsKind(search.folder, path, isModemImage);
  if (path.empty() || others.empty()) return findings;
  findings.push_back(Warning(subject, "several_images",
                             std::to_string(others.size() + 1) + " of its kind: " + ToUtf8(path) +
                                 " is taken, not " + Joined(others),
                             "Leave one image of each kind in the folder."));
  return findings;
}

std::vector<Finding> LookAtImages(const ImageSearch& search) {
  const std::wstring& folder = search.folder;
  const FolderImages images = LookForImages(folder);
  if (auto error = ErrorOfFolder(folder, images)) return {std::move(*error)};
  std::vector<Finding> findings{Ok("folder", ToUtf8(folder))};
  Append(findings, LookAtKind("modem image", search, images.modem, true));
  Append(findings, LookAtKind("NVM image", search, images.nvm, false));
  return findings;
}

std::string MissingExports(HMODULE library) {
  std::vector<std::string> missing;
  for (const char* name : kFlashingLibraryExports) {
    // The library may export its functions with or without the leading underscore.
    if (::GetProcAddress(library, name) || ::GetProcAddress(library, name + 1)) continue;
    missing.emplace_back(name);
  }
  return Joined(missing);
}

std::string AdviceOnLoading(const std::wstring& library, DWORD error) {
  const bool isThere = ::GetFileAttributesW(library.c_str()) != INVALID_FILE_ATTRIBUTES;
  if (!isThere) return "Put the 64-bit flashing library beside this program.";
  switch (error) {
    case ERROR_MOD_NOT_FOUND:
      return "The library is there, but another one that it needs is not: install that beside it.";
    case ERROR_BAD_EXE_FORMAT:
      return "Replace it by the 64-bit flashing library.";
    default:
      return "Install the 64-bit flashing library anew.";
  }
}

Finding LookAtFlashingLibrary() {
  constexpr const char* kSubject = "flashing library";
  const std::wstring path = ProgramFolder() + kFlashingLibraryName;
  const OwnedModule library(::LoadLibraryW(path.c_str()));
  const DWORD error = ::GetLastError();
  if (library == nullptr) {
    return Error(kSubject, "no_flashing_library", ToUtf8(path) + ": " + SystemErrorText(error),
                 AdviceOnLoading(path, error));
  }
  const std::string missing = MissingExports(library.get());
  if (!missing.empty()) {
    return Error(kSubject, "flashing_library_incomplete", ToUtf8(path) + " lacks " + missing,
                 "Install the version that belongs to this program.");
  }
  return Ok(kSubject, ToUtf8(path));
}

/// Nothing to say on the mains, or where nobody can tell.
std::vector<Finding> LookAtPower(unsigned int minBattery) {
  constexpr const char* kSubject = "power";
  const PowerSource source = LookAtPowerSource();
  if (!source.isBattery) return {};
  if (minBattery > 0 && source.percent.value_or(0) < minBattery) {
    return {Error(kSubject, "battery_low",
                  source.Text() + "; --min-battery asks for " + std::to_string(minBattery) + " %",
                  "Connect the PC to the mains, or charge it.")};
  }
  return {Warning(
      kSubject, kOnBattery, source.Text(),
      "Connect the PC to the mains: one that goes off during a flash leaves the modem in flash mode.")};
}

/// Nothing to say where the library can name its log as everybody else does.
std::vector<Finding> LookAtLog() {
  constexpr const char* kSubject = "debug log";
  const std::string narrow = AnsiLogPath();
  if (narrow.empty()) {
    return {Warning(kSubject, "no_log",
                    "there will be none: the system's code page has no name for " + ToUtf8(ProgramFolder()),
                    "Install the programs in a folder that has a name in the system's language.")};
  }
  const std::wstring shortPath = FromAnsi(narrow);
  if (shortPath == LogPath()) return {};
  return {Ok(kSubject, ToUtf8(LogPath()) + ", written by its short name " + ToUtf8(shortPath))};
}

Finding LookAtRegistry(const HandshakeKey& key) {
  if (const DWORD error = CheckHandshakeKeyWritable(key)) {
    return Error("registry", "no_registry_access", key.Text() + ": " + SystemErrorText(error),
                 "Run this program as an administrator.");
  }
  return Ok("registry", key.Text());
}

/// Without them the library would wait for its request, or for the modem, and never hear of it.
std::vector<Finding> LookAtSharedNames(bool othersFlash) {
  constexpr const char* kSubject = "shared names";
  std::vector<Finding> findings;
  for (const TakenName& name :
       FindTakenNames(othersFlash ? PortSearch::MayBeRunning : PortSearch::IsNotRunning)) {
    findings.push_back(Error(kSubject, "name_taken", name.Message(), AdviceOnTakenNames()));
  }
  if (findings.empty()) findings.push_back(Ok(kSubject, "at the library's disposal"));
  return findings;
}

std::vector<Finding> LookAtConfigurationAndImages(const DigestList* expected, const LeftAlone& leftAlone) {
  if (leftAlone.configuration) {
    return {Warning("configuration", "not_looked_at",
                    "neither it nor the images are looked at: a flash service that starts reads it",
                    "Run this check again in a moment.")};
  }
  const auto configuration = LibraryConfiguration::Read(ConfigurationPath());
  std::vector<Finding> findings = LookAtConfiguration(configuration);
  if (configuration && !configuration->FirmwareFolder().empty()) {
    Append(findings, LookAtImages({.folder = configuration->FirmwareFolder(),
                                   .expected = expected,
                                   .leftAlone = leftAlone.images}));
  }
  return findings;
}

}  // namespace

std::optional<Finding> ErrorOfFolder(const std::wstring& folder, const FolderImages& images) {
  if (!images.folderExists) {
    return NoImages("no_folder", "\"" + ToUtf8(folder) + "\" is no folder",
                    "Make the folder and put the images there, or correct [ModemAndNVMFirmwareFolder].");
  }
  if (images.brokeOff) {
    return Error("folder", "folder_unreadable",
                 ToUtf8(folder) + " could not be read to its end, so no image is taken",
                 "Run this check again; if that stays, look after the drive and this program's rights.");
  }
  if (!images.Any()) {
    return NoImages(kNoImages, "there is no firmware image (*.fls) in " + ToUtf8(folder),
                    "Copy the modem image and the NVM image there.");
  }
  return std::nullopt;
}

ConfiguredFolder LookAtConfiguredFolder() {
  const auto configuration = LibraryConfiguration::Read(ConfigurationPath());
  if (!configuration) return {.error = UnreadableConfiguration(ConfigurationPath())};
  ConfiguredFolder folder{.path = configuration->FirmwareFolder()};
  if (folder.path.empty()) {
    folder.error = NoFolderConfigured();
    return folder;
  }
  folder.images = LookForImages(folder.path);
  folder.error = ErrorOfFolder(folder.path, folder.images);
  return folder;
}

Finding NoDigests(const DigestList& list) {
  return Error("digests", "no_digests", list.Problem(),
               "Give --expect a file as \"sha256sum *.fls\" writes it.");
}

std::optional<Finding> JudgeDigest(const char* subject, const std::wstring& path, const std::string& sha256,
                                   const DigestList& list) {
  const std::string wanted = list.DigestOf(path);
  if (wanted.empty()) {
    return Error(subject, "image_not_expected", ToUtf8(path) + " is not in " + list.Path(),
                 "Remove the image from the folder, or give the list of digests that belongs to it.");
  }
  if (sha256 == wanted) return std::nullopt;
  return Error(
      subject, "image_differs",
      ToUtf8(path) + " has the SHA-256 " + sha256 + ", not " + wanted + " as " + list.Path() + " says",
      "Copy the image anew from where it comes from, or give the list of digests that belongs to it.");
}

std::vector<Finding> LookBeforeFlash(const Demands& demands, const LeftAlone& leftAlone) {
  std::vector<Finding> findings;
  std::optional<DigestList> expected;
  if (!demands.expect.empty()) expected = DigestList::Read(demands.expect);
  if (expected && !expected->Problem().empty()) {
    findings.push_back(NoDigests(*expected));
    expected.reset();
  }
  Append(findings, LookAtConfigurationAndImages(expected ? &*expected : nullptr, leftAlone));
  findings.push_back(LookAtFlashingLibrary());
  findings.push_back(LookAtRegistry(CommandLineKey()));
  Append(findings, LookAtSharedNames(leftAlone.images));
  Append(findings, LookAtPower(demands.minBattery));
  Append(findings, LookAtLog());
  return findings;
}

}  // namespace hosts
