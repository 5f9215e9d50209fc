#pragma once

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "support/flash_bench.h"

/// A flash job's surroundings: a modem that reboots, boots, is written and comes back, a controlling program
/// that has raised its flag, and both images in the configured folder.
class JobBench : public FlashBench {
 public:
  JobBench() {
    Configure(L"[ModemAndNVMFirmwareFolder]", images.Path().c_str());
    modemImage = AddImage(L"modem.fls", {1, 4}, kSmallestModemImage);
    nvmImage = AddImage(L"nvm.fls", {5});
    key.SetNumber(L"Fls_Ready", 1);
    library.during["force_target_reset"] = [this] { modem.LeaveAndBecome(FakeModem::Mode::Normal, 5000); };
  }

  static constexpr std::uintmax_t kSmallestModemImage = 0xA00000;

  /// The next `count` downloads fail, at their last step.
  void FailDownloads(int count) {
    library.results["force_target_reset"] = 1;
    library.during["force_target_reset"] = [this, count] {
      if (count > 1) return FailDownloads(count - 1);
      library.during["force_target_reset"] = [this] {
        library.results.clear();
        modem.LeaveAndBecome(FakeModem::Mode::Normal, 5000);
      };
    };
  }
  /// The modem does not come back from its reset after a download.
  void NeverComesBack() {
    library.during["force_target_reset"] = [this] { modem.Become(FakeModem::Mode::Absent); };
    modem.onReset = [] {};
  }
  void ComesBackAfter(ULONGLONG milliseconds) {
    library.during["force_target_reset"] = [this, milliseconds] {
      modem.LeaveAndBecome(FakeModem::Mode::Normal, milliseconds);
    };
  }

  int Downloads() const { return library.CallCount("force_target_reset"); }
  int Result() const { return Registry(L"Flash_Result"); }
  int Ready() const { return Registry(L"Fls_Ready"); }
  int OnGoing() const { return Registry(L"Flash_OnGoing"); }
  int Progress() const { return Registry(L"Flash_Progress"); }
  bool HasImages() const { return images.Holds(L"modem.fls") && images.Holds(L"nvm.fls"); }
  bool HasAnyImage() const { return images.Holds(L"modem.fls") || images.Holds(L"nvm.fls"); }

  /// The messages of some source files in their order, with their levels as Marked gives them.
  std::vector<std::string> Said(std::initializer_list<std::string_view> files) const {
    return SaidWhere([&](const LogRecord& record) { return std::ranges::count(files, record.file) > 0; });
  }
  /// The messages that are logged under a procedure, wherever its code stands.
  std::vector<std::string> SaidUnder(std::string_view procedure) const {
    return SaidWhere([&](const LogRecord& record) { return record.function == procedure; });
  }
  std::ptrdiff_t TimesSaid(const std::string& marked) const {
    return std::ranges::count(host.Said(), marked);
  }
  bool HasSaid(const std::string& marked) const { return TimesSaid(marked) > 0; }

  /// What the setters said that they wrote, in order.
  std::vector<std::string> Writes() const {
    std::vector<std::string> writes = Said({"registryhandshake.cpp"});
    std::erase_if(writes, [](const std::string& message) {
      return !message.starts_with("\t WriteRegistry ") && !message.starts_with("\t Flash Time_Out");
    });
    for (std::string& message : writes) message.erase(0, message.find_last_of(' ', message.find(':')) + 1);
    return writes;
  }

  std::string modemImage;
  std::string nvmImage;

 private:
  template <typename Condition>
  std::vector<std::string> SaidWhere(const Condition& condition) const {
    std::vector<LogRecord> records = host.Log();
    std::erase_if(records, [&](const LogRecord& record) { return !condition(record); });
    return MarkedMessagesOf(records);
  }
};
