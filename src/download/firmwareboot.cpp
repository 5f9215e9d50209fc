#include "download/firmwareboot.h"

#include "common/log.h"
#include "common/narrow.h"
#include "common/sharedvalue.h"
#include "common/win32error.h"
#include "common/worker.h"
#include "config/configparser.h"
#include "download/atprocessor.h"
#include "download/devicepresence.h"
#include "download/flashportsearch.h"
#include "download/flashservice.h"
#include "download/flashtimes.h"
#include "download/mbimreboot.h"
#include "udeiocontrol/udeiocontrol.h"

namespace corvel {

namespace {

constexpr DWORD kSearchPeriodMs = 1000;
constexpr DWORD kBootTimeLimitMs = 10000;
constexpr DWORD kPauseAfterCloseMs = 4000;
constexpr DWORD kPauseAfterResetMs = 1000;
constexpr DWORD kFurtherPauseAfterFailedResetMs = 4000;
constexpr std::uint32_t kBaudRate = 921600;
constexpr int kRefused = -1;
constexpr int kRebootByAtCommand = 1;
constexpr char kRebootCommand[] = "at+xlog=4\r";
/// How often is looked whether an earlier attempt has closed its channel.
constexpr DWORD kLateClosePollMs = 100;

// The procedures under whose names their helpers log.
constexpr char kBootDevice[] = "CFirmwareDownloader::BootDeviceInFirmwareMode";
constexpr char kRebootModem[] = "CFirmwareDownloader::RebootModem";
constexpr char kRebootModemByXlog4[] = "CFirmwareDownloader::RebootModemByXlog4";
constexpr char kControlBBrst[] = "CFirmwareDownloader::ControlBBrst";
constexpr char kInjectBootTarget[] = "CFirmwareDownloader::InjectBootTarget";
constexpr char kCheckFlashPort[] = "CFirmwareDownloader::CheckFlashPortImplementation";
constexpr char kMonitorFlashPort[] = "CFirmwareDownloader::MonitorFlashPort";
constexpr char kInjectBootTargetThread[] = "CFirmwareDownloader::InjectBootTargetThread";

bool IsResetAllowed() {
  return Shared(*Service().resetAllowed);
}

}  // namespace

bool RetryBudgetSpent() {
  return Shared(*Service().retriesSpent) > Shared(*Service().retryLimit);
}

void FirmwareBoot::SpendRetry() {
  m_Attempt->UnlessAbandoned([] { ++Shared(*Service().retriesSpent); });
}

int FirmwareBoot::BootDeviceInFirmwareMode() {
  LOG_TRACE_AS(kBootDevice, "\t BootDeviceInFirmwareMode ++");
  const bool underWay = IsMbimModemPresent() ? RequestReboot() : FindFlashPort();
  const bool started = underWay || (IsResetAllowed() && ControlBBrst());
  const int result = started ? kBootOk : kBootFailed;
  LOG_TRACE_AS(kBootDevice, "\t %s --, retValue: %d\n", kBootDevice, result);
  return result;
}

bool FirmwareBoot::RequestReboot() {
  LOG_TRACE_AS(kBootDevice, "\t MBIM device present.");
  if (RebootModem() != 0) {
    if (!m_Attempt->IsAbandoned()) LOG_ERROR_AS(kBootDevice, "\t RebootModem FAIL.");
    SpendRetry();
    return false;
  }
  LOG_TRACE_AS(kBootDevice, "\t RebootModem OK, waiting for flash port");
  m_SearchFlashPort = true;
  return true;
}

bool FirmwareBoot::FindFlashPort() {
  LOG_TRACE_AS(kBootDevice, "\t MBIM device NOT available.");
  if (!IsFlashPortPresent()) return false;
  LOG_TRACE_AS(kBootDevice, "\t Flash port available. Getting flash port path");
  m_SearchFlashPort = true;
  return true;
}

int FirmwareBoot::RebootModem() {
  LOG_TRACE_AS(kRebootModem, "RebootModem");
  if (m_Attempt->IsAbandoned()) return kRefused;
  if (CConfigParser::ConfiguredRebootType() == kRebootByAtCommand) return RebootModemByXlog4();
  return static_cast<int>(RebootModemByMbimCmd());
}

HRESULT FirmwareBoot::RebootModemByMbimCmd() {
  return RebootModemThroughMobileBroadband([this] { return m_Attempt->IsAbandoned(); });
}

int FirmwareBoot::RebootModemByXlog4() {
  LOG_TRACE_AS(kRebootModemByXlog4, "RebootModemByXlog4 ++");
  const int result =
      ATProcessor::GetInstance()->sendATCmd(kRebootCommand, sizeof kRebootCommand - 1, nullptr, nullptr,
                                            [this] { return m_Attempt->IsAbandoned(); });
  LOG_TRACE_AS(kRebootModemByXlog4, "RebootModemByXlog4 --");
  return result;
}

bool FirmwareBoot::ControlBBrst() {
  while (!m_Attempt->IsAbandoned() && !RetryBudgetSpent()) {
    LOG_TRACE_AS(kControlBBrst, "\t Call BB_RST, g_retry_times: %d",
                 static_cast<int>(Shared(*Service().retriesSpent)));
    SpendRetry();
    if (CUdeIoControl::GetInstance()->TriggerFlashReset([this] { return m_Attempt->IsAbandoned(); })) {
      LOG_TRACE_AS(kControlBBrst, "\t Call BB_RST OK, waiting for flash port.");
      ReenumerateDeviceTreeAndSettle();
      ::Sleep(kPauseAfterResetMs);
      m_SearchFlashPort = true;
      return true;
    }
    if (m_Attempt->IsAbandoned()) break;
    LOG_ERROR_AS(kControlBBrst, "\t Call BB_RST FAIL. Retry after 5s.");
    ReenumerateDeviceTreeAndSettle();
    ::Sleep(kFurtherPauseAfterFailedResetMs);
  }
  // The budget is a newer attempt's by now.
  if (m_Attempt->IsAbandoned()) return false;
  LOG_ERROR_AS(kControlBBrst, "\t Call BB_RST %d times, reached maximum retry times!!!",
               static_cast<int>(Shared(*Service().retriesSpent)));
  m_Attempt->UnlessAbandoned([] { Shared(*Service().retriesSpent) = Shared(*Service().retryLimit) + 1; });
  LOG_TRACE_AS(kControlBBrst, "\t ControlBBrst --");
  return false;
}

int FirmwareBoot::MonitorFlashPort() {
  while (!m_Attempt->IsAbandoned()) {
    if (SearchFlashPort()) return kBootOk;
    SpendRetry();
    if (!IsResetAllowed() || !ControlBBrst()) return kBootFailed;
  }
  return kBootFailed;
}

/// One search for the flash port. @return true when m_COMPort holds it.
bool FirmwareBoot::SearchFlashPort() {
  m_COMPort.Empty();
  const auto search = std::make_shared<FlashPortSearch>();
  UniqueHandle thread = StartWorker([boot = shared_from_this(), search] { boot->CheckFlashPort(*search); });
  if (thread == nullptr) {
    LOG_ERROR_AS(kMonitorFlashPort, "\t CheckFlashPortImplementation CreateThread error: %d, call BB_RST\n",
                 LastErrorNumber());
    return false;
  }
  if (!search->CreateSignal()) {
    LOG_ERROR_AS(kMonitorFlashPort, "\t CreateSemaphore failed!, call BB_RST\n");
    // Left open, and the thread goes on searching: that is how this failure is known in the field.
    static_cast<void>(thread.release());
    return false;
  }

  const DWORD waited = search->Wait(kFlashPortWaitMs, m_Attempt->Abandoned());
  thread.reset();
  m_SearchFlashPort = false;
  m_COMPort = search->Port();
  if (waited == WAIT_TIMEOUT) LOG_ERROR_AS(kMonitorFlashPort, "\t Timeout in waiting for flash channel");
  if (waited == WAIT_OBJECT_0 && m_COMPort.IsEmpty())
    LOG_ERROR_AS(kMonitorFlashPort, "\t Cannot get flash channel");
  if (waited == WAIT_OBJECT_0 && !m_COMPort.IsEmpty())
    LOG_TRACE_AS(kMonitorFlashPort, "\t Flash channel = %s", Narrow(m_COMPort).c_str());
  search->CloseSignal();

  if (m_COMPort.IsEmpty()) LOG_ERROR_AS(kMonitorFlashPort, "\t Cannot get flash port, call BB_RST\n");
  return !m_COMPort.IsEmpty();
}

int FirmwareBoot::InjectBootTarget(const std::string& bootFile) {
  m_BootResult = kBootFailed;
  // Before the thread is started: what this waits for is none of the boot's time.
  if (!TakeChannel()) return kBootFailed;
  UniqueHandle thread =
      StartWorker([boot = shared_from_this(), bootFile] { boot->InjectBootTargetThread(bootFile); });
  if (thread == nullptr) {
    LOG_ERROR_AS(kInjectBootTarget, "\t CreateThread InjectBootTargetThread FAIL: 0x%x\n",
                 static_cast<unsigned>(::GetLastError()));
    // On purpose: a modem that was booted before may still take the image, and writing will tell. It uses the
    // channel that the last attempt left.
    return kBootOk;
  }
  LOG_TRACE_AS(kInjectBootTarget, "\t InjectBootTargetThread timeout: %ds",
               static_cast<int>(kBootTimeLimitMs / 1000));
  const DWORD waited = ::WaitForSingleObject(thread.get(), kBootTimeLimitMs);
  thread.reset();
  if (waited != WAIT_OBJECT_0) {
    LOG_ERROR_AS(kInjectBootTarget, "\t InjectBootTargetThread timeout or other issue, return FINIAL_FAIL");
    return kBootFailed;
  }
  switch (m_BootResult) {
    case kBootOk:
      LOG_TRACE_AS(kInjectBootTarget, "\t InjectBootTargetThread return OK");
      return kBootOk;
    case kBootNeedsReset:
      LOG_TRACE_AS(kInjectBootTarget, "\t InjectBootTargetThread return NEED_BBRST");
      return kBootNeedsReset;
    default:
      LOG_ERROR_AS(kInjectBootTarget, "\t InjectBootTargetThread return FINIAL_FAIL");
      return kBootFailed;
  }
}

int FirmwareBoot::InjectBootTargetThread(const std::string& bootFile) {
  const Attempt::ThreadScope scope(*m_Attempt);
  if (!scope.IsNoted()) {
    LOG_ERROR_AS(kInjectBootTargetThread, "\t TlsSetValue failed with: %d, %s --", LastErrorNumber(),
                 kInjectBootTargetThread);
    m_BootResult = kBootFailed;
    return kBootFailed;
  }
  if (bootFile.empty()) {
    LOG_ERROR_AS(kInjectBootTargetThread, "\t Boot File is NULL!, %s --", kInjectBootTargetThread);
    m_BootResult = kBootFailed;
    return kBootFailed;
  }
  int result = OpenAndBoot(bootFile);
  if (result != kBootOk) result = IsResetAllowed() && ControlBBrst() ? kBootNeedsReset : kBootFailed;
  m_BootResult = result;
  return result;
}

/// Makes this attempt the one that works on the library's channel. Waits for a while when an attempt that was
/// given up closes its own, for that resets the modem. @return false when this attempt was given up
/// meanwhile.
bool FirmwareBoot::TakeChannel() {
  for (bool told = false; !m_Attempt->IsAbandoned(); told = true) {
    const flash_channel::Claim claim = m_Attempt->TakeChannel();
    if (claim == flash_channel::Claim::TakenOver)
      LOG_WARNING_AS(kInjectBootTarget, "\t An earlier attempt is still closing its channel, go on");
    if (claim != flash_channel::Claim::Refused) return true;
    if (!told) LOG_WARNING_AS(kInjectBootTarget, "\t An earlier attempt is closing its channel, wait");
    ::Sleep(kLateClosePollMs);
  }
  return false;
}

/// Opens a channel on the flash port and boots the target over it. @return 0, or anything else when either
/// failed and the channel was closed again.
int FirmwareBoot::OpenAndBoot(const std::string& bootFile) {
  LOG_TRACE_AS(kInjectBootTargetThread, "\t Downloader, GetNextFreeChannel");
  m_Attempt->SetChannel(m_Attempt->CallLibrary(m_Attempt->Library().GetNextFreeChannel(), std::uint8_t{0}));
  LOG_TRACE_AS(kInjectBootTargetThread, "\t GetNextFreeChannel, mCommChannel:%d", m_Attempt->Channel());
  if (m_Attempt->IsAbandoned()) return GiveUp(false);

  LOG_TRACE_AS(kInjectBootTargetThread, "\t Downloader, OpenCommPort");
  const std::string port = Narrow(m_COMPort);
  const bool opened =
      m_Attempt->CallLibrary(m_Attempt->Library().OpenCommPort(), kRefused, m_Attempt->Channel(),
                             port.c_str(), port.c_str(), kBaudRate, m_Attempt->Status()) == 0;
  if (m_Attempt->IsAbandoned()) return GiveUp(opened);
  if (!opened) {
    LOG_ERROR_AS(kInjectBootTargetThread, "\t ERROR: Open Comm Port failed due to %s, call BB_RST\n",
                 m_Attempt->Status());
    CloseAfterFailure(opened, "\t Wait 4s after close commport due to it will trigger UDE bbrst\n");
    return kBootFailed;
  }

  LOG_TRACE_AS(kInjectBootTargetThread, "\t Downloader, BootTarget");
  const int booted = m_Attempt->CallLibrary(m_Attempt->Library().BootTarget(), kRefused, m_Attempt->Channel(),
                                            bootFile.c_str(), &m_BootWord, m_Attempt->Status());
  if (m_Attempt->IsAbandoned()) return GiveUp(opened);
  if (booted != 0) {
    LOG_ERROR_AS(kInjectBootTargetThread, "\t ERROR: Boot Target failed due to %s, call BB_RST\n",
                 m_Attempt->Status());
    CloseAfterFailure(opened, "\t Wait 4s after close commport due to it will trigger UDE BB_RST\n");
    return kBootFailed;
  }
  return kBootOk;
}

/// The end of a boot that was given up: closes what it opened, and neither pauses nor resets nor spends a
/// retry.
int FirmwareBoot::GiveUp(bool opened) {
  LOG_WARNING_AS(kInjectBootTargetThread, "\t The attempt was given up meanwhile, %s --",
                 kInjectBootTargetThread);
  if (opened) m_Attempt->CloseChannel(opened, kInjectBootTargetThread);
  return kBootFailed;
}

void FirmwareBoot::CloseAfterFailure(bool opened, const char* pauseText) {
  LOG_TRACE_AS(kInjectBootTargetThread, "\t Close Comm Port\n");
  if (m_Attempt->CloseChannel(opened, kInjectBootTargetThread) == 0) {
    LOG_TRACE_AS(kInjectBootTargetThread, "%s", pauseText);
    ::Sleep(kPauseAfterCloseMs);
  }
  SpendRetry();
  m_COMPort.Empty();
}

void FirmwareBoot::CheckFlashPort(FlashPortSearch& search) {
  bool listed = true;
  do {
    const FlashPortSearch::Sight sight = search.Look();
    listed = sight != FlashPortSearch::Sight::NoList;
    if (sight == FlashPortSearch::Sight::Found) break;
    ::Sleep(kSearchPeriodMs);
    // A search that nobody waits for ends with its attempt at the latest.
  } while (m_SearchFlashPort && !m_Attempt->IsAbandoned());
  LOG_TRACE_AS(kCheckFlashPort, "%s: OpenCdcAcmDeviceInterface --, bRet: %d\n", kCheckFlashPort,
               listed ? 1 : 0);
}

}  // namespace corvel
