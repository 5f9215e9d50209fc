#include <windows.h>

#include <array>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands.h"
#include "modem_presence.h"
#include "setup.h"
#include "text.h"
#include "toolkit/toolkit.h"

namespace {

constexpr wchar_t kFlashingLibrary[] = L"Firmwareflashdownload.dll";

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

enum class Verdict { Ok, Warning, Error };

struct Finding {
  const char* subject;
  Verdict verdict;
  std::string message;
  std::string whatToDo;
};

const char* NameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Ok:
      return "ok";
    case Verdict::Warning:
      return "warning";
    case Verdict::Error:
      return "error";
  }
  return "error";
}

struct ModuleReleaser {
  using pointer = HMODULE;
  void operator()(HMODULE module) const noexcept { ::FreeLibrary(module); }
};

struct HandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const noexcept { ::CloseHandle(handle); }
};

Finding CheckConfiguration(const std::optional<ConfigurationFile>& configuration) {
  if (!configuration) {
    return {"configuration", Verdict::Error, ToUtf8(ConfigurationPath()) + " cannot be read",
            "Put CorvelConfig.ini beside this program and close whatever holds it open."};
  }
  if (configuration->FirmwareFolder().empty()) {
    return {
        "configuration", Verdict::Error, "[ModemAndNVMFirmwareFolder] is not set",
        "Name the folder of the images in CorvelConfig.ini. The first line of the file is always skipped."};
  }
  if (configuration->Get(L"[RegistryLocation]").empty()) {
    return {"configuration", Verdict::Warning, "[RegistryLocation] is not set",
            "The service needs it; the command line uses a key of its own."};
  }
  return {"configuration", Verdict::Ok, ToUtf8(ConfigurationPath()), ""};
}

Finding CheckImage(const char* subject, const std::wstring& path, const char* missing) {
  if (path.empty())
    return {subject, Verdict::Warning, missing, "A flash goes on with the other image alone."};
  const std::unique_ptr<void, HandleCloser> file(
      ::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER size{};
  if (file.get() == INVALID_HANDLE_VALUE || !::GetFileSizeEx(file.get(), &size)) {
    return {subject, Verdict::Error, ToUtf8(path) + ": " + SystemErrorText(::GetLastError()),
            "Close the program that holds the image open, and give this one the right to read it."};
  }
  if (size.QuadPart == 0)
    return {subject, Verdict::Error, ToUtf8(path) + " is empty", "Copy the image anew."};
  return {subject, Verdict::Ok, ToUtf8(path) + ", " + std::to_string(size.QuadPart) + " bytes", ""};
}

std::vector<Finding> CheckImages(const std::wstring& folder) {
  const FolderImages images = LookForImages(folder);
  if (!images.folderExists) {
    return {{"folder", Verdict::Error, "\"" + ToUtf8(folder) + "\" is no folder",
             "Make the folder and put the images there, or correct [ModemAndNVMFirmwareFolder]."}};
  }
  if (!images.Any()) {
    return {{"folder", Verdict::Error, "no *.fls file in " + ToUtf8(folder),
             "Copy the modem and NVM images there."}};
  }
  return {{"folder", Verdict::Ok, ToUtf8(folder), ""},
          CheckImage("modem image", images.modem, "no image of 10 MiB or more"),
          CheckImage("NVM image", images.nvm, "no image below 10 MiB")};
}

Finding CheckFlashingLibrary() {
  const std::wstring path = ProgramFolder() + kFlashingLibrary;
  const std::unique_ptr<HINSTANCE__, ModuleReleaser> library(::LoadLibraryW(path.c_str()));
  if (library == nullptr) {
    return {"flashing library", Verdict::Error, ToUtf8(path) + ": " + SystemErrorText(::GetLastError()),
            "Install the 64-bit flashing library beside this program."};
  }
  std::string missing;
  for (const char* name : kExports) {
    // The library may export its functions with or without the leading underscore.
    if (::GetProcAddress(library.get(), name) || ::GetProcAddress(library.get(), name + 1)) continue;
    missing += std::string(missing.empty() ? "" : ", ") + name;
  }
  if (missing.empty()) return {"flashing library", Verdict::Ok, ToUtf8(path), ""};
  return {"flashing library", Verdict::Error, "it lacks " + missing,
          "Install the version that belongs to this program."};
}

Finding CheckRegistry(const HandshakeKey& key) {
  if (const DWORD error = CheckHandshakeKeyWritable(key)) {
    return {"registry", Verdict::Error, key.Text() + ": " + SystemErrorText(error),
            "Run this program as an administrator."};
  }
  return {"registry", Verdict::Ok, key.Text(), ""};
}

std::vector<Finding> CheckModem() {
  const ModemPresence presence = LookForModem();
  const bool present = presence.mode == ModemMode::Mbim || presence.mode == ModemMode::FlashPort;
  std::vector<Finding> findings;
  findings.push_back(
      presence.resetDriver
          ? Finding{"reset driver", Verdict::Ok, "its flash interface is present", ""}
          : Finding{"reset driver", Verdict::Warning, "its flash interface is absent",
                    "Install the modem's USB driver: without it a modem that hangs cannot be reset."});
  findings.push_back(present ? Finding{"modem", Verdict::Ok, NameOf(presence.mode), ""}
                             : Finding{"modem", Verdict::Warning, NameOf(presence.mode),
                                       "Look at the device manager; a flash tries a baseband reset first."});
  return findings;
}

void Print(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings) {
    const std::string verdict = NameOf(finding.verdict);
    std::cout << verdict << std::string(9 - verdict.size(), ' ') << finding.subject
              << std::string(18 - std::string_view(finding.subject).size(), ' ') << finding.message << "\n";
    if (!finding.whatToDo.empty()) std::cout << std::string(27, ' ') << finding.whatToDo << "\n";
  }
  std::cout << std::flush;
}

nlohmann::ordered_json AsJson(const std::vector<Finding>& findings, bool ready) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Finding& finding : findings) {
    list.push_back({{"subject", finding.subject},
                    {"verdict", NameOf(finding.verdict)},
                    {"message", finding.message},
                    {"what_to_do", finding.whatToDo}});
  }
  return {{"ready", ready}, {"findings", list}};
}

}  // namespace

ExitCode RunCheck(const CheckOptions& options) {
  const HandshakeKey key = CommandLineKey();
  ToolKit::TurnLoggingOff();
  const auto configuration = ConfigurationFile::Read(ConfigurationPath());

  std::vector<Finding> findings{CheckConfiguration(configuration)};
  if (configuration) {
    for (Finding& finding : CheckImages(configuration->FirmwareFolder()))
      findings.push_back(std::move(finding));
  }
  findings.push_back(CheckFlashingLibrary());
  findings.push_back(CheckRegistry(key));
  for (Finding& finding : CheckModem()) findings.push_back(std::move(finding));

  bool ready = true;
  for (const Finding& finding : findings) ready &= finding.verdict != Verdict::Error;
  if (options.json) {
    std::cout << AsJson(findings, ready).dump(2) << std::endl;
  } else {
    Print(findings);
  }
  return ready ? ExitCode::Flashed : ExitCode::NotReady;
}
