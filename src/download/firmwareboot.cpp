#include "download/firmwaredownloader.h"

#include "common/log.h"
#include "common/narrow.h"
#include "common/sharedvalue.h"
#include "common/win32error.h"
#include "common/worker.h"
#include "config/configparser.h"
#include "download/atprocessor.h"
#include "download/flashportsearch.h"
#include "download/flashtimes.h"
#include "udeiocontrol/udeiocontrol.h"

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
constexpr char kMonitorFlashPort[] = "CFirmwareDownloader::MonitorFlashPort";
constexpr char kInjectBootTargetThread[] = "CFirmwareDownloader::InjectBootTargetThread";

bool IsResetAllowed() {
  return Shared(ToolKit::g_bIsFiveBranch);
}

}  // namespace

bool CFirmwareDownloader::RetryBudgetSpent() {
  return Shared(ToolKit::g_retry_times) > Shared(ToolKit::mRetry_times);
}

void CFirmwareDownloader::SpendRetry() {
  UnlessAbandoned([] { ++Shared(ToolKit::g_retry_times); });
}

int CFirmwareDownloader::BootDeviceInFirmwareMode() {
  LOG_TRACE("\t BootDeviceInFirmwareMode ++");
  const bool underWay = IsMBIMModemPresence() ? RequestReboot() : FindFlashPort();
  const bool started = underWay || (IsResetAllowed() && ControlBBrst());
  const int result = started ? kBootOk : kBootFailed;
  LOG_TRACE("\t %s --, retValue: %d\n", QUALIFIED_FUNCTION, result);
  return result;
}

bool CFirmwareDownloader::RequestReboot() {
  LOG_TRACE_AS(kBootDevice, "\t MBIM device present.");
  if (RebootModem() != 0) {
    LOG_ERROR_AS(kBootDevice, "\t RebootModem FAIL.");
    SpendRetry();
    return false;
  }
  LOG_TRACE_AS(kBootDevice, "\t RebootModem OK, waiting for flash port");
  m_searchFlashPort = true;
  return true;
}

bool CFirmwareDownloader::FindFlashPort() {
  LOG_TRACE_AS(kBootDevice, "\t MBIM device NOT available.");
  if (!IsFlashPortPresence()) return false;
  LOG_TRACE_AS(kBootDevice, "\t Flash port available. Getting flash port path");
  m_searchFlashPort = true;
  return true;
}

int CFirmwareDownloader::RebootModem() {
  LOG_TRACE("RebootModem");
  if (IsAbandoned()) return kRefused;
  if (CConfigParser::ConfiguredRebootType() == kRebootByAtCommand) return RebootModemByXlog4();
  return static_cast<int>(RebootModemByMbimCmd());
}

int CFirmwareDownloader::RebootModemByXlog4() {
  LOG_TRACE("RebootModemByXlog4 ++");
  const int result =
      ATProcessor::GetInstance()->sendATCmd(kRebootCommand, sizeof kRebootCommand - 1, nullptr, nullptr);
  LOG_TRACE("RebootModemByXlog4 --");
  return result;
}

bool CFirmwareDownloader::ControlBBrst() {
  while (!IsAbandoned() && !RetryBudgetSpent()) {
    LOG_TRACE("\t Call BB_RST, g_retry_times: %d", static_cast<int>(Shared(ToolKit::g_retry_times)));
    SpendRetry();
    if (CUdeIoControl::GetInstance()->TriggerFlashReset()) {
      LOG_TRACE("\t Call BB_RST OK, waiting for flash port.");
      ScanForHardwareChangesAndSettle();
      ::Sleep(kPauseAfterResetMs);
      m_searchFlashPort = true;
      return true;
    }
    LOG_ERROR("\t Call BB_RST FAIL. Retry after 5s.");
    ScanForHardwareChangesAndSettle();
    ::Sleep(kFurtherPauseAfterFailedResetMs);
  }
  // The budget is a newer attempt's by now.
  if (IsAbandoned()) return false;
  LOG_ERROR("\t Call BB_RST %d times, reached maximum retry times!!!",
            static_cast<int>(Shared(ToolKit::g_retry_times)));
  UnlessAbandoned([] { Shared(ToolKit::g_retry_times) = Shared(ToolKit::mRetry_times) + 1; });
  LOG_TRACE("\t ControlBBrst --");
  return false;
}

int CFirmwareDownloader::MonitorFlashPort() {
  while (!IsAbandoned()) {
    if (SearchFlashPort()) return kBootOk;
    SpendRetry();
    if (!IsResetAllowed() || !ControlBBrst()) return kBootFailed;
  }
  return kBootFailed;
}

/// One search for the flash port. @return true when m_COMPort holds it.
bool CFirmwareDownloader::SearchFlashPort() {
  m_COMPort.Empty();
  const auto search = std::make_shared<FlashPortSearch>();
  UniqueHandle thread = StartWorker(
      [engine = shared_from_this(), search] { CheckFlashPortImplementation(engine.get(), *search); });
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

  const DWORD waited = search->Wait(kFlashPortWaitMs, m_abandoned);
  thread.reset();
  m_searchFlashPort = false;
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

int CFirmwareDownloader::InjectBootTarget() {
  m_bootResult = kBootFailed;
  UniqueHandle thread = StartWorker([engine = shared_from_this()] { engine->InjectBootTargetThread(); });
  if (thread == nullptr) {
    LOG_ERROR("\t CreateThread InjectBootTargetThread FAIL: 0x%x\n", static_cast<unsigned>(::GetLastError()));
    // On purpose: a modem that was booted before may still take the image, and writing will tell. It uses the
    // channel that the last attempt left.
    return TakeChannel() ? kBootOk : kBootFailed;
  }
  LOG_TRACE("\t InjectBootTargetThread timeout: %ds", static_cast<int>(kBootTimeLimitMs / 1000));
  const DWORD waited = ::WaitForSingleObject(thread.get(), kBootTimeLimitMs);
  thread.reset();
  if (waited != WAIT_OBJECT_0) {
    LOG_ERROR("\t InjectBootTargetThread timeout or other issue, return FINIAL_FAIL");
    return kBootFailed;
  }
  switch (m_bootResult) {
    case kBootOk:
      LOG_TRACE("\t InjectBootTargetThread return OK");
      return kBootOk;
    case kBootNeedsReset:
      LOG_TRACE("\t InjectBootTargetThread return NEED_BBRST");
      return kBootNeedsReset;
    default:
      LOG_ERROR("\t InjectBootTargetThread return FINIAL_FAIL");
      return kBootFailed;
  }
}

int CFirmwareDownloader::InjectBootTargetThread() {
  const ThreadScope scope(*this);
  if (!scope.IsNoted()) {
    LOG_ERROR("\t TlsSetValue failed with: %d, %s --", LastErrorNumber(), QUALIFIED_FUNCTION);
    m_bootResult = kBootFailed;
    return kBootFailed;
  }
  if (m_downloadList.empty()) {
    LOG_ERROR("\t Boot File is NULL!, %s --", QUALIFIED_FUNCTION);
    m_bootResult = kBootFailed;
    return kBootFailed;
  }
  const std::string bootFile = m_downloadList.front()->GetFilePath();
  int result = OpenAndBoot(bootFile);
  if (result != kBootOk) result = IsResetAllowed() && ControlBBrst() ? kBootNeedsReset : kBootFailed;
  m_bootResult = result;
  return result;
}

/// Makes this attempt the one that works on the library's channel. Waits for a while when an attempt that was
/// given up closes its own, for that resets the modem. @return false when this attempt was given up
/// meanwhile.
bool CFirmwareDownloader::TakeChannel() {
  for (bool told = false; !IsAbandoned(); told = true) {
    auto claim = FlashChannel::Claim::Refused;
    UnlessAbandoned([&] {
      claim = FlashChannel::Take(m_attempt);
      m_channelTaken = claim != FlashChannel::Claim::Refused;
    });
    if (claim == FlashChannel::Claim::TakenOver)
      LOG_WARNING_AS(kInjectBootTargetThread, "\t An earlier attempt is still closing its channel, go on");
    if (m_channelTaken) return true;
    if (!told) LOG_WARNING_AS(kInjectBootTargetThread, "\t An earlier attempt is closing its channel, wait");
    ::Sleep(kLateClosePollMs);
  }
  return false;
}

/// Opens a channel on the flash port and boots the target over it. @return 0, or anything else when either
/// failed and the channel was closed again.
int CFirmwareDownloader::OpenAndBoot(const std::string& bootFile) {
  if (!TakeChannel()) return kBootFailed;
  LOG_TRACE_AS(kInjectBootTargetThread, "\t Downloader, GetNextFreeChannel");
  m_commChannel = CallLibrary(Library().GetNextFreeChannel(), std::uint8_t{0});
  UnlessAbandoned([this] { FlashChannel::SetLast(m_commChannel); });
  LOG_TRACE_AS(kInjectBootTargetThread, "\t GetNextFreeChannel, mCommChannel:%d", m_commChannel.load());

  LOG_TRACE_AS(kInjectBootTargetThread, "\t Downloader, OpenCommPort");
  const std::string port = Narrow(m_COMPort);
  if (CallLibrary(Library().OpenCommPort(), kRefused, m_commChannel.load(), port.c_str(), port.c_str(),
                  kBaudRate, Status()) != 0) {
    LOG_ERROR_AS(kInjectBootTargetThread, "\t ERROR: Open Comm Port failed due to %s, call BB_RST\n",
                 Status());
    CloseAfterFailure("\t Wait 4s after close commport due to it will trigger UDE bbrst\n");
    return kBootFailed;
  }

  LOG_TRACE_AS(kInjectBootTargetThread, "\t Downloader, BootTarget");
  if (CallLibrary(Library().BootTarget(), kRefused, m_commChannel.load(), bootFile.c_str(), &m_bootWord,
                  Status()) != 0) {
    LOG_ERROR_AS(kInjectBootTargetThread, "\t ERROR: Boot Target failed due to %s, call BB_RST\n", Status());
    CloseAfterFailure("\t Wait 4s after close commport due to it will trigger UDE BB_RST\n");
    return kBootFailed;
  }
  return kBootOk;
}

void CFirmwareDownloader::CloseAfterFailure(const char* pauseText) {
  LOG_TRACE_AS(kInjectBootTargetThread, "\t Close Comm Port\n");
  if (CallLibrary(Library().CloseCommPort(), kRefused, m_commChannel.load(), Status()) == 0) {
    LOG_TRACE_AS(kInjectBootTargetThread, "%s", pauseText);
    ::Sleep(kPauseAfterCloseMs);
  }
  SpendRetry();
  m_COMPort.Empty();
}

bool CFirmwareDownloader::CheckFlashPortImplementation(CFirmwareDownloader* engine, FlashPortSearch& search) {
  if (engine == nullptr) return true;
  bool listed = true;
  do {
    const FlashPortSearch::Sight sight = search.Look();
    listed = sight != FlashPortSearch::Sight::NoList;
    if (sight == FlashPortSearch::Sight::Found) break;
    ::Sleep(kSearchPeriodMs);
    // A search that nobody waits for ends with its attempt at the latest.
  } while (engine->m_searchFlashPort && !engine->IsAbandoned());
  LOG_TRACE("%s: OpenCdcAcmDeviceInterface --, bRet: %d\n", QUALIFIED_FUNCTION, listed ? 1 : 0);
  return true;
}
