#include "preflight.h"

#include <windows.h>

#include <algorithm>
#include <array>

#include "configuration_file.h"
#include "owners.h"
#include "setup.h"
#include "text.h"

namespace {

constexpr wchar_t kFlashingLibrary[] = L"Firmwareflashdownload.dll";
constexpr int kEraseModes = 4;

constexpr std::array kExports{"_ZEMO_DL_boot_target",
                              "_ZEMO_DL_close_comm_port",
                              "_ZEMO_DL_download_cust_file",
                              "_ZEMO_DL_download_dffs_file",
                              "_ZEMO_DL_download_fls_file",
                              "_ZEMO_DL_force_target_reset",
                              "_ZEMO_DL_get_sys_version",
                              "_ZEMO_get_next_free_channel",
                              "_ZEMO_DL_dll_get_nof_progressbars",
                              "_ZEMO_DL_init_callback",
                              "_ZEMO_DL_open_comm_port",
                              "_ZEMO_DL_set_dll_parameter",
                              "_ZEMO_DL_TOC_get_flash_technogy",
                              "_ZEMO_DL_TOC_get_memory_class",
                              "_ZEMO_DL_TOC_get_nof_items",
                              "_ZEMO_DL_out_of_session_comm"};

Finding Ok(const char* subject, std::string message) {
  return {subject, Verdict::Ok, std::move(message), ""};
}

Finding Warning(const char* subject, std::string message, std::string whatToDo) {
  return {subject, Verdict::Warning, std::move(message), std::move(whatToDo)};
}

Finding Error(const char* subject, const char* code, std::string message, std::string whatToDo) {
  return {subject, Verdict::Error, std::move(message), std::move(whatToDo), code};
}

Finding NoImages(const char* code, std::string message, std::string whatToDo) {
  return {"folder", Verdict::Error, std::move(message), std::move(whatToDo), code, ExitCode::NoImages};
}

Finding LookAtConfiguration(const std::optional<ConfigurationFile>& configuration) {
  constexpr const char* kSubject = "configuration";
  if (!configuration) {
    return Error(kSubject, "no_configuration",
                 ToUtf8(ConfigurationPath()) + " is missing, or another program has it open",
                 "Put CorvelConfig.ini beside this program and close whatever holds it open.");
  }
  if (configuration->FirmwareFolder().empty()) {
    return Error(
        kSubject, "no_folder_configured", "[ModemAndNVMFirmwareFolder] is not set",
        "Name the folder of the images in CorvelConfig.ini. The first line of the file is always skipped.");
  }
  if (!configuration->NamesKnownRoot()) {
    return Warning(kSubject, "[RegistryLocation] names no key below HKLM, HKU, HKCU, HKCR or HCC",
                   "Correct it for the service; the command line uses a key of its own.");
  }
  const long eraseMode = std::wcstol(configuration->Get(L"[ERASEMODE]").c_str(), nullptr, 10);
  if (eraseMode < 0 || eraseMode >= kEraseModes) {
    return Warning(kSubject, "[ERASEMODE] is none of 0 to 3", "It counts as 0 as it stands.");
  }
  return Ok(kSubject, ToUtf8(ConfigurationPath()));
}

Finding LookAtImage(const char* subject, const std::wstring& path, const char* missing) {
  if (path.empty()) return Warning(subject, missing, "A flash goes on with the other image alone.");
  // As the library does, with nobody else beside it.
  const HANDLE opened =
      ::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  const DWORD error = ::GetLastError();
  const OwnedHandle file(opened == INVALID_HANDLE_VALUE ? nullptr : opened);
  if (file == nullptr) {
    return Error(subject, "image_unreadable", ToUtf8(path) + ": " + SystemErrorText(error),
                 "Close the program that holds the image open, and give this one the right to read it.");
  }
  LARGE_INTEGER size{};
  ::GetFileSizeEx(file.get(), &size);
  if (size.QuadPart == 0) {
    return Error(subject, "image_empty", ToUtf8(path) + " is empty", "Copy the image anew.");
  }
  return Ok(subject, ToUtf8(path) + ", " + std::to_string(size.QuadPart) + " bytes");
}

std::vector<Finding> LookAtImages(const std::wstring& folder) {
  const FolderImages images = LookForImages(folder);
  if (!images.folderExists) {
    return {NoImages("no_folder", "\"" + ToUtf8(folder) + "\" is no folder",
                     "Make the folder and put the images there, or correct [ModemAndNVMFirmwareFolder].")};
  }
  if (!images.Any()) {
    return {NoImages("no_images", "there is no firmware image (*.fls) in " + ToUtf8(folder),
                     "Copy the modem image and the NVM image there.")};
  }
  return {Ok("folder", ToUtf8(folder)),
          LookAtImage("modem image", images.modem, "no image of 10 MiB or more"),
          LookAtImage("NVM image", images.nvm, "no image below 10 MiB")};
}

std::string MissingExports(HMODULE library) {
  std::string missing;
  for (const char* name : kExports) {
    // The library may export its functions with or without the leading underscore.
    if (::GetProcAddress(library, name) || ::GetProcAddress(library, name + 1)) continue;
    missing += std::string(missing.empty() ? "" : ", ") + name;
  }
  return missing;
}

Finding LookAtFlashingLibrary() {
  constexpr const char* kSubject = "flashing library";
  const std::wstring path = ProgramFolder() + kFlashingLibrary;
  const OwnedModule library(::LoadLibraryW(path.c_str()));
  const DWORD error = ::GetLastError();
  if (library == nullptr) {
    return Error(kSubject, "no_flashing_library", ToUtf8(path) + ": " + SystemErrorText(error),
                 "Install the 64-bit flashing library beside this program.");
  }
  const std::string missing = MissingExports(library.get());
  if (!missing.empty()) {
    return Error(kSubject, "flashing_library_incomplete", ToUtf8(path) + " lacks " + missing,
                 "Install the version that belongs to this program.");
  }
  return Ok(kSubject, ToUtf8(path));
}

Finding LookAtRegistry(const HandshakeKey& key) {
  if (const DWORD error = CheckHandshakeKeyWritable(key)) {
    return Error("registry", "no_registry_access", key.Text() + ": " + SystemErrorText(error),
                 "Run this program as an administrator.");
  }
  return Ok("registry", key.Text());
}

}  // namespace

std::vector<Finding> LookBeforeFlash() {
  const auto configuration = ConfigurationFile::Read(ConfigurationPath());
  std::vector<Finding> findings{LookAtConfiguration(configuration)};
  if (configuration && !configuration->FirmwareFolder().empty()) {
    for (Finding& finding : LookAtImages(configuration->FirmwareFolder()))
      findings.push_back(std::move(finding));
  }
  findings.push_back(LookAtFlashingLibrary());
  findings.push_back(LookAtRegistry(CommandLineKey()));
  return findings;
}

const Finding* FirstError(const std::vector<Finding>& findings) {
  const auto found = std::ranges::find(findings, Verdict::Error, &Finding::verdict);
  return found == findings.end() ? nullptr : &*found;
}

Problem ProblemOf(const Finding& error) {
  return {error.code, std::string("Not ready, ") + error.subject + ": " + error.message + ".",
          error.whatToDo};
}
