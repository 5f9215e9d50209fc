#pragma once

#include <windows.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "common/text.h"
#include "config/configparser.h"
#include "download/downloadtooldll.h"
#include "download/firmwaredownloader.h"
#include "support/fake_flash_library.h"
#include "support/fake_modem.h"
#include "support/host_folder.h"
#include "support/own_names.h"
#include "support/scratch_key.h"
#include "support/simulated_clock.h"
#include "support/temporary_folder.h"
#include "toolkit/toolkit.h"

/// Everything around the download engine: a host, a registry key, images, the flashing library, the modem,
/// and time. The modem is in normal mode and reboots by AT command.
class FlashBench {
 public:
  FlashBench() {
    ToolKit::hMainKey = ScratchKey::Root();
    corvel::CopyBounded(ToolKit::mStrKey, key.Path());
    ToolKit::mRetry_times = 3;
    ToolKit::g_retry_times = 0;
    ToolKit::g_bIsFiveBranch = true;
    ToolKit::mFlashResult = FirmwareNotUpdated;
    ToolKit::m_ModemFlsFile.Empty();
    ToolKit::m_NVMFlsFile.Empty();
    key.Make();
    Configure(L"[REBOOTTYPE]", L"1");
    // A status message of an earlier test may have left the sending state on.
    ToolKit::TurnLoggingOff();
    CDownloadToolDll::HandleCallbacks(0, 4, "");
    ToolKit::TurnLoggingOn();
  }
  ~FlashBench() { CFirmwareDownloader::Unload(); }

  static void Configure(const wchar_t* setting, const wchar_t* value) {
    CConfigParser::GetInstance()->SetConfigVar(setting, value);
  }

  /// An image with items of these memory classes. @return its path.
  std::string AddImage(const wchar_t* name, std::vector<std::uint32_t> memoryClasses,
                       std::uintmax_t size = 100) {
    std::string path = corvel::Utf8FromWide(images.WriteOfSize(name, size));
    library.images[path] = std::move(memoryClasses);
    return path;
  }
  static std::string Item(int index, const std::string& path) {
    return "|" + std::to_string(index) + "|" + path;
  }

  /// One attempt on the calling thread.
  static UpdateFirmwareResult Download(const std::string& modemImage, const std::string& nvmImage = "") {
    CFirmwareDownloader::GetInstance();
    return CFirmwareDownloader::GetInstance()->Download(CTString(modemImage), CTString(nvmImage));
  }

  int Registry(const wchar_t* value) const { return static_cast<int>(key.Number(value).value_or(99999)); }

  /// The records of some source files in their order.
  std::vector<LogRecord> Records(std::initializer_list<std::string_view> files) const {
    std::vector<LogRecord> records = host.Log();
    std::erase_if(records, [&](const LogRecord& record) {
      return std::find(files.begin(), files.end(), record.file) == files.end();
    });
    return records;
  }
  /// Their messages with their levels: those of level 1 begin with "E:", those of level 2 with "W:".
  std::vector<std::string> Said(std::initializer_list<std::string_view> files) const {
    return MarkedMessagesOf(Records(files));
  }
  std::ptrdiff_t TimesSaid(const std::string& message) const {
    const std::vector<std::string> all = MarkedMessagesOf(host.Log());
    return std::count(all.begin(), all.end(), message);
  }
  bool HasSaid(const std::string& message) const { return TimesSaid(message) > 0; }

  HostFolder host;
  ScratchKey key;
  TemporaryFolder images;
  FakeFlashLibrary library;
  OwnNames names;
  FakeModem modem{[this] { return clock.Now(); }};
  SimulatedClock clock;
};
