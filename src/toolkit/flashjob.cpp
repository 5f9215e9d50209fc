#include "toolkit/flashjob.h"

#include <atomic>
#include <exception>

#include "common/log.h"
#include "common/text.h"
#include "common/win32error.h"
#include "common/worker.h"
#include "config/configparser.h"
#include "download/devicepresence.h"
#include "download/firmwaredownloader.h"
#include "toolkit/toolkit.h"
#include "udeiocontrol/udeiocontrol.h"

namespace {

constexpr int kTimeOutValueMs = 153000;
constexpr DWORD kAttemptTimeLimitMs = 130000;
constexpr DWORD kRearrivalTimeLimitMs = 23000;
constexpr DWORD kPauseBeforeAwaitingAgainMs = 3000;
constexpr DWORD kRearrivalPollMs = 1000;

CTString m_nModemNVMFolder;

// The registry values, each under the key of the handshake.
void SetTimeOut() {
  ToolKit::SetFlashTimeOut(ToolKit::hMainKey, ToolKit::mStrKey, kTimeOutValueMs);
}
void SetOnGoing(int value) {
  ToolKit::SetFlashOnGoingFlag(ToolKit::hMainKey, ToolKit::mStrKey, value);
}
void SetProgress(int percent) {
  ToolKit::SetFlashProcess(ToolKit::hMainKey, ToolKit::mStrKey, percent);
}
void SetResult(int code) {
  ToolKit::SetFlashResult(ToolKit::hMainKey, ToolKit::mStrKey, code);
}

// The exported flags keep their plain type; these are the two that another thread changes meanwhile.
std::atomic_ref<bool> Presence() {
  return std::atomic_ref<bool>(ToolKit::m_MBIM_Modem_presence);
}
std::atomic_ref<bool> Monitor() {
  return std::atomic_ref<bool>(ToolKit::m_MBIM_Modem_monitor);
}

}  // namespace

const FlashJobRules kServiceRules{
    .countsMissingWorker = true,
    .pauseBeforeRetryMs = 5000,
    .looksOnceMore = true,
    .startOfPass = "\t Start a new loop process...",
    .workerNotStarted = "\t CreateThread DownloadFirmwareImplementation FAIL: 0x%x\n",
    .attemptTimeLimit = "\t DownloadFirmwareImplementation timeout: %ds",
    .attemptOverran = "\t Flash TIMEOUT or other issue, goto Flash_FAILED",
    .attemptFailed = "\t Flash FAILED, goto Flash_FAILED",
    .retry = "\t Flash FAIL, retry again, g_retry_times: %d(Max %d)",
    .pauseBeforeRetry = "\t After unload dll, wait 5s for UDE CALL BB_RST",
    .flashed = "\t Flash OK, to wait for MBIM Modem re-arrival",
    .rearrivalLimitReached = "\t Flash FAIL when reach the maximum retry time.\n",
    .lateWithReset = "\t Wait Modem re-arrival timeout or other issue, Let's check it last time\n",
    .lateWithoutReset = "\t Wait Modem re-arrival timeout or other issue, Let's check it last time\n",
};

const FlashJobRules kCommandLineRules{
    .countsMissingWorker = false,
    .pauseBeforeRetryMs = 4000,
    .looksOnceMore = false,
    .startOfPass = "\t start a new loop process",
    .workerNotStarted = "CreateThread DownloadFirmwareImplementation FAIL: 0x%x\n",
    .attemptTimeLimit = "DownloadFirmwareImplementation timeout: %ds",
    .attemptOverran = "Flash timeout or other issue, goto Flash_FAILED",
    .attemptFailed = "Flash NOT success, goto Flash_FAILED",
    .retry = "Flash FAIL, retry again, g_retry_times: %d(Max %d)",
    .pauseBeforeRetry = "After unload dll, wait 4s for UDE CALL BB_RST",
    .flashed = "Flash OK, to wait for MBIM Modem re-arrival",
    .rearrivalLimitReached = "\t Flash still failed after reach maximum retry value.\n",
    .lateWithReset = "\t Wait Modem re-arrival timeout or other issue, call BB_RST\n",
    .lateWithoutReset = "\t Wait Modem re-arrival timeout or other issue, retry\n",
};

void FlashJob::WriteInitialValues() {
  SetTimeOut();
  SetOnGoing(0);
  SetProgress(0);
  SetResult(kResultIdle);
}

void FlashJob::AwaitRequest() {
  ToolKit::g_retry_times = 0;
  LOG_TRACE("\t Initialze registry");
  SetTimeOut();
  SetOnGoing(0);
  ToolKit::mRetry_times =
      static_cast<unsigned long>(ToolKit::GetFlashRetryTimes(ToolKit::hMainKey, ToolKit::mStrKey));
  LOG_TRACE("\t Monitor flash ready flag to be ready");
  ToolKit::MonitorFlashReadyFlag();
}

bool FlashJob::FindImages() {
  SetProgress(0);
  SetResult(kResultIdle);
  m_nModemNVMFolder = CConfigParser::ConfiguredFirmwareFolder();
  LOG_TRACE("\t fetch modem & NVM folder, m_nModemNVMFolder:%s", Narrow(m_nModemNVMFolder).c_str());
  if (ToolKit::FetchModemNVMFls(m_nModemNVMFolder)) return true;
  LOG_TRACE(
      "\t Can't find available fls, monitor again, continue to monitor registry change and fetch modem/nvm "
      "files");
  return false;
}

void FlashJob::Run() {
  LOG_TRACE("\t IPC Type :%s", Narrow(CConfigParser::ConfiguredIPCType()).c_str());
  Outcome outcome = Download();
  if (outcome == Outcome::Succeeded) outcome = AwaitRearrival();
  if (outcome != Outcome::Dropped) End(outcome == Outcome::Succeeded ? kResultSucceeded : kResultFailed);
}

// --- Downloading -----------------------------------------------------------------------------------------

FlashJob::Outcome FlashJob::Download() {
  for (;;) {
    const Attempt attempt = DownloadOnce();
    if (attempt == Attempt::Succeeded) return Outcome::Succeeded;
    if (attempt == Attempt::NoWorker && !m_rules.countsMissingWorker) return Outcome::Dropped;
    if (!MayDownloadAgain()) return Outcome::Failed;
  }
}

FlashJob::Attempt FlashJob::DownloadOnce() {
  // Loads the flashing library. No engine now does not stop the attempt: the worker asks again.
  CFirmwareDownloader::GetInstance();
  SetOnGoing(1);
  SetResult(kResultFlashing);

  UniqueHandle worker = StartWorker([] { ToolKit::DownloadFirmwareImplementation(nullptr); });
  if (worker == nullptr) {
    LOG_ERROR(m_rules.workerNotStarted, static_cast<unsigned>(::GetLastError()));
    return Attempt::NoWorker;
  }
  LOG_TRACE(m_rules.attemptTimeLimit, static_cast<int>(kAttemptTimeLimitMs / 1000));
  const bool ended = ::WaitForSingleObject(worker.get(), kAttemptTimeLimitMs) == WAIT_OBJECT_0;
  worker.reset();
  if (!ended) {
    LOG_ERROR("%s", m_rules.attemptOverran);
    return Attempt::Failed;
  }
  if (ToolKit::mFlashResult != FirmwareUpdated) {
    LOG_ERROR("%s", m_rules.attemptFailed);
    return Attempt::Failed;
  }
  return Attempt::Succeeded;
}

bool FlashJob::MayDownloadAgain() {
  if (++m_failures > ToolKit::mRetry_times) {
    LOG_ERROR("\t Flash still failed after reach maximum retry value");
    return false;
  }
  LOG_ERROR(m_rules.retry, static_cast<int>(m_failures), static_cast<int>(ToolKit::mRetry_times));
  SetResult(kResultRetrying);
  CFirmwareDownloader::Unload();
  LOG_TRACE("%s", m_rules.pauseBeforeRetry);
  ::Sleep(m_rules.pauseBeforeRetryMs);
  return true;
}

// --- Coming back -----------------------------------------------------------------------------------------

FlashJob::Outcome FlashJob::AwaitRearrival() {
  LOG_TRACE("%s", m_rules.flashed);
  while (!ModemRearrived()) {
    if (!MayAwaitAgain()) {
      SetOnGoing(0);
      return Outcome::Failed;
    }
  }
  LOG_TRACE("\t MBIM Modem re-arrival, FW update OK");
  SetOnGoing(0);
  return Outcome::Succeeded;
}

bool FlashJob::ModemRearrived() {
  Presence() = false;
  Monitor() = true;
  UniqueHandle watcher = StartWorker([] { ToolKit::WaitForMBIMRearrivedImplementation(nullptr); });
  if (watcher == nullptr) {
    LOG_ERROR("\t CreateThread WaitForMBIMRearrivedImplementation error: %x\n",
              static_cast<unsigned>(::GetLastError()));
    return false;
  }
  const bool ended = ::WaitForSingleObject(watcher.get(), kRearrivalTimeLimitMs) == WAIT_OBJECT_0;
  watcher.reset();
  Monitor() = false;
  if (!ended) return IsBackAfterAll();
  const bool present = Presence();
  LOG_TRACE("\t check m_MBIM_Modem_presence: %d, %s\n", present ? 1 : 0,
            present ? "Re-arrived" : "Not arrived");
  return present;
}

bool FlashJob::IsBackAfterAll() {
  LOG_ERROR("%s", ToolKit::g_bIsFiveBranch ? m_rules.lateWithReset : m_rules.lateWithoutReset);
  return m_rules.looksOnceMore && ToolKit::IsMBIMModemPresence();
}

bool FlashJob::MayAwaitAgain() {
  if (++m_failures > ToolKit::mRetry_times) {
    LOG_ERROR("%s", m_rules.rearrivalLimitReached);
    LOG_ERROR("\t Flash OK, but wait Modem re-arrived failed");
    return false;
  }
  LOG_ERROR("\t MBIM device not arrival, retry again, %d(Max %d)", static_cast<int>(m_failures),
            static_cast<int>(ToolKit::mRetry_times));
  SetResult(kResultRetrying);
  CFirmwareDownloader::Unload();
  if (ToolKit::g_bIsFiveBranch) CUdeIoControl::GetInstance()->TriggerFlashReset();
  ::Sleep(kPauseBeforeAwaitingAgainMs);
  return true;
}

// --- The end ---------------------------------------------------------------------------------------------

void FlashJob::End(int result) {
  SetResult(result);
  ToolKit::SetFlashReadyFlag(ToolKit::hMainKey, ToolKit::mStrKey, 0);
  CFirmwareDownloader::Unload();
  ToolKit::DeleteFLSFiles();
}

// --- The workers -----------------------------------------------------------------------------------------

bool ToolKit::DownloadFirmwareImplementation(void*) {
  mFlashResult = FirmwareNotUpdated;
  LOG_TRACE("%s ++", QUALIFIED_FUNCTION);
  const CTString modem = m_ModemFlsFile;
  const CTString nvm = m_NVMFlsFile;
  UpdateFirmwareResult result = FirmwareNotUpdated;
  if (const auto engine = CFirmwareDownloader::GetInstance()) {
    result = engine->Download(modem, nvm);
    // A worker that comes back late has nothing to say about a newer attempt.
    engine->UnlessAbandoned([result] {
      mFlashResult = result;
      if (result == FirmwareUpdated) SetProgress(100);
    });
  }
  LOG_TRACE("%s --, result: %d", QUALIFIED_FUNCTION, static_cast<int>(result));
  return true;
}

bool ToolKit::WaitForMBIMRearrivedImplementation(void*) {
  LOG_TRACE("WaitForMBIMRearrivedImplementation ++");
  do {
    if (IsDevicePresent(kMbimModemId)) {
      LOG_TRACE("\t MBIM modem re-found");
      Presence() = true;
      break;
    }
    ::Sleep(kRearrivalPollMs);
  } while (Monitor());
  LOG_TRACE("WaitForMBIMRearrivedImplementation --");
  return true;
}

bool ToolKit::IsMBIMModemPresence() {
  LOG_TRACE("IsMBIMModemPresence ++");
  const bool present = IsDevicePresent(kMbimModemId);
  if (present) LOG_TRACE("MBIM modem presence");
  LOG_TRACE("IsMBIMModemPresence --");
  return present;
}
