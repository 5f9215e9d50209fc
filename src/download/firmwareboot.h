#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "common/tstring.h"
#include "download/attempt.h"
#include "download/flashportsearch.h"

namespace corvel {

/// What bringing the modem into flash mode comes to.
inline constexpr int kBootOk = 0;
inline constexpr int kBootNeedsReset = 1;
inline constexpr int kBootFailed = 2;

/// True when the job has spent more on recovery than it may.
bool RetryBudgetSpent();

/// Brings the modem into flash mode: reboots or resets it, finds the flash port, opens a channel on it and
/// boots the target. Its threads share it with the session; each may come back late, to an attempt that was
/// given up. What the members are called in the log is what the engine's members are called.
class FirmwareBoot : public std::enable_shared_from_this<FirmwareBoot> {
 public:
  explicit FirmwareBoot(std::shared_ptr<Attempt> attempt) : m_Attempt(std::move(attempt)) {}

  int BootDeviceInFirmwareMode();
  int MonitorFlashPort();
  /// @param bootFile path of the image, UTF-8; empty: there is none, which is a failure.
  int InjectBootTarget(const std::string& bootFile);
  int InjectBootTargetThread(const std::string& bootFile);

  int RebootModem();
  int RebootModemByXlog4();
  HRESULT RebootModemByMbimCmd();
  bool ControlBBrst();
  /// Body of the thread that looks for the flash port.
  void CheckFlashPort(FlashPortSearch& search);

 private:
  void SpendRetry();
  bool RequestReboot();
  bool FindFlashPort();
  bool SearchFlashPort();
  bool TakeChannel();
  int OpenAndBoot(const std::string& bootFile);
  void CloseAfterFailure(bool opened, const char* pauseText);
  int GiveUp(bool opened);

  std::shared_ptr<Attempt> m_Attempt;
  CTString m_COMPort;
  std::atomic<bool> m_SearchFlashPort{false};
  std::atomic<int> m_BootResult{kBootFailed};
  std::uint32_t m_BootWord = 0;
};

}  // namespace corvel
