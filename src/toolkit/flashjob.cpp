#include "toolkit/flashjob.h"

#include <memory>

#include "common/facts.h"
#include "common/log.h"
#include "common/narrow.h"
#include "common/sharedvalue.h"
#include "common/win32error.h"
#include "common/worker.h"
#include "config/configparser.h"
#include "download/devicepresence.h"
#include "download/firmwaredownloader.h"
#include "toolkit/toolkit.h"
#include "udeiocontrol/udeiocontrol.h"

namespace corvel {

namespace {

constexpr int kTimeOutValueMs = 153000;
constexpr DWORD kAttemptTimeLimitMs = 130000;
constexpr DWORD kRearrivalTimeLimitMs = 23000;
constexpr DWORD kPauseBeforeAwaitingAgainMs = 3000;
constexpr DWORD kRearrivalPollMs = 1000;

// The worker's procedure, under whose name it logs.
constexpr char kWorker[] = "ToolKit::DownloadFirmwareImplementation";

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

/// Loads the flashing library. No engine now, even for lack of memory, does not stop the attempt: the worker
/// asks again.
void LoadEngine() {
  try {
    CFirmwareDownloader::GetInstance();
  } catch (...) {
  }
}

/// One download by `known`, or by the present engine, with the result stored for the job that waits for it.
UpdateFirmwareResult AttemptDownload(const std::shared_ptr<CFirmwareDownloader>& known,
                                     const CTString& modemImage, const CTString& nvmImage) {
  // NOLINTBEGIN(performance-unnecessary-copy-initialization): those of the toolkit may change meanwhile.
  const CTString modem = modemImage;
  const CTString nvm = nvmImage;
  // NOLINTEND(performance-unnecessary-copy-initialization)
  const auto engine = known != nullptr ? known : CFirmwareDownloader::GetInstance();
  if (engine == nullptr) return FirmwareNotUpdated;
  const UpdateFirmwareResult result = engine->Download(modem, nvm);
  // A worker that comes back late has nothing to say about a newer attempt.
  engine->UnlessAbandoned([result] {
    Shared(ToolKit::mFlashResult) = result;
    if (result == FirmwareUpdated) SetProgress(100);
  });
  return result;
}

/// Forgets the result of the attempt before. @return false when the worker of `known` has begun so late that
/// it was given up: the result, the image paths and the present engine are a newer attempt's by now.
bool ForgetResult(const std::shared_ptr<CFirmwareDownloader>& known) {
  bool forgotten = false;
  const auto forget = [&forgotten] {
    Shared(ToolKit::mFlashResult) = FirmwareNotUpdated;
    forgotten = true;
  };
  if (known != nullptr) {
    known->UnlessAbandoned(forget);
  } else {
    forget();
  }
  return forgotten;
}

/// The worker's body. `known` is the engine that its attempt had when it was started; null: it had none yet.
void DownloadWith(const std::shared_ptr<CFirmwareDownloader>& known) {
  if (!ForgetResult(known)) {
    LOG_WARNING_AS(kWorker, "\t Given up before it began, nothing is downloaded");
    return;
  }
  LOG_TRACE_AS(kWorker, "%s ++", kWorker);
  UpdateFirmwareResult result = FirmwareNotUpdated;
  try {
    result = AttemptDownload(known, ToolKit::m_ModemFlsFile, ToolKit::m_NVMFlsFile);
  } catch (...) {
    // Out of memory: the attempt has failed. It never goes on with a path that was lost on the way.
  }
  LOG_TRACE_AS(kWorker, "%s --, result: %d", kWorker, static_cast<int>(result));
}

}  // namespace

const FlashJobRules kServiceRules{
    .procedure = "ToolKit::MainThreadImplementation",
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
    .procedure = "ToolKit::FirmwareFlash_CmdLine",
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
  SetResult(facts::kResultIdle);
}

void FlashJob::AwaitRequest() {
  Shared(ToolKit::g_retry_times) = 0;
  LOG_TRACE_AS(m_Rules.procedure, "\t Initialze registry");
  SetTimeOut();
  SetOnGoing(0);
  Shared(ToolKit::mRetry_times) =
      static_cast<unsigned long>(ToolKit::GetFlashRetryTimes(ToolKit::hMainKey, ToolKit::mStrKey));
  LOG_TRACE_AS(m_Rules.procedure, "\t Monitor flash ready flag to be ready");
  ToolKit::MonitorFlashReadyFlag();
}

bool FlashJob::FindImages() {
  SetProgress(0);
  SetResult(facts::kResultIdle);
  m_nModemNVMFolder = CConfigParser::ConfiguredFirmwareFolder();
  LOG_TRACE_AS(m_Rules.procedure, "\t fetch modem & NVM folder, m_nModemNVMFolder:%s",
               Narrow(m_nModemNVMFolder).c_str());
  if (ToolKit::FetchModemNVMFls(m_nModemNVMFolder)) return true;
  LOG_TRACE_AS(
      m_Rules.procedure,
      "\t Can't find available fls, monitor again, continue to monitor registry change and fetch modem/nvm "
      "files");
  return false;
}

void FlashJob::Run() {
  LOG_TRACE_AS(m_Rules.procedure, "\t IPC Type :%s", Narrow(CConfigParser::ConfiguredIPCType()).c_str());
  Outcome outcome = Download();
  if (outcome == Outcome::Succeeded) outcome = AwaitRearrival();
  if (outcome != Outcome::Dropped)
    End(outcome == Outcome::Succeeded ? facts::kResultSucceeded : facts::kResultFailed);
}

// --- Downloading -----------------------------------------------------------------------------------------

FlashJob::Outcome FlashJob::Download() {
  for (;;) {
    const Attempt attempt = DownloadOnce();
    if (attempt == Attempt::Succeeded) return Outcome::Succeeded;
    if (attempt == Attempt::NoWorker && !m_Rules.countsMissingWorker) return Outcome::Dropped;
    if (!MayDownloadAgain()) return Outcome::Failed;
  }
}

FlashJob::Attempt FlashJob::DownloadOnce() {
  LoadEngine();
  SetOnGoing(1);
  SetResult(facts::kResultFlashing);

  UniqueHandle worker = StartWorker([engine = CFirmwareDownloader::Present()] { DownloadWith(engine); });
  if (worker == nullptr) {
    LOG_ERROR_AS(m_Rules.procedure, m_Rules.workerNotStarted, static_cast<unsigned>(::GetLastError()));
    return Attempt::NoWorker;
  }
  LOG_TRACE_AS(m_Rules.procedure, m_Rules.attemptTimeLimit, static_cast<int>(kAttemptTimeLimitMs / 1000));
  const bool ended = ::WaitForSingleObject(worker.get(), kAttemptTimeLimitMs) == WAIT_OBJECT_0;
  worker.reset();
  if (!ended) {
    LOG_ERROR_AS(m_Rules.procedure, "%s", m_Rules.attemptOverran);
    return Attempt::Failed;
  }
  if (Shared(ToolKit::mFlashResult) != FirmwareUpdated) {
    LOG_ERROR_AS(m_Rules.procedure, "%s", m_Rules.attemptFailed);
    return Attempt::Failed;
  }
  return Attempt::Succeeded;
}

bool FlashJob::MayDownloadAgain() {
  if (++m_Failures > Shared(ToolKit::mRetry_times)) {
    LOG_ERROR_AS(m_Rules.procedure, "\t Flash still failed after reach maximum retry value");
    return false;
  }
  LOG_ERROR_AS(m_Rules.procedure, m_Rules.retry, static_cast<int>(m_Failures),
               static_cast<int>(Shared(ToolKit::mRetry_times)));
  SetResult(facts::kResultRetrying);
  CFirmwareDownloader::Unload();
  LOG_TRACE_AS(m_Rules.procedure, "%s", m_Rules.pauseBeforeRetry);
  ::Sleep(m_Rules.pauseBeforeRetryMs);
  return true;
}

// --- Coming back -----------------------------------------------------------------------------------------

FlashJob::Outcome FlashJob::AwaitRearrival() {
  LOG_TRACE_AS(m_Rules.procedure, "%s", m_Rules.flashed);
  while (!ModemRearrived()) {
    if (!MayAwaitAgain()) {
      SetOnGoing(0);
      return Outcome::Failed;
    }
  }
  LOG_TRACE_AS(m_Rules.procedure, "\t MBIM Modem re-arrival, FW update OK");
  SetOnGoing(0);
  return Outcome::Succeeded;
}

bool FlashJob::ModemRearrived() {
  Shared(ToolKit::m_MBIM_Modem_presence) = false;
  Shared(ToolKit::m_MBIM_Modem_monitor) = true;
  UniqueHandle watcher = StartWorker([] { ToolKit::WaitForMBIMRearrivedImplementation(nullptr); });
  if (watcher == nullptr) {
    LOG_ERROR_AS(m_Rules.procedure, "\t CreateThread WaitForMBIMRearrivedImplementation error: %x\n",
                 static_cast<unsigned>(::GetLastError()));
    return false;
  }
  const bool ended = ::WaitForSingleObject(watcher.get(), kRearrivalTimeLimitMs) == WAIT_OBJECT_0;
  watcher.reset();
  Shared(ToolKit::m_MBIM_Modem_monitor) = false;
  if (!ended) return IsBackAfterAll();
  const bool present = Shared(ToolKit::m_MBIM_Modem_presence);
  LOG_TRACE_AS(m_Rules.procedure, "\t check m_MBIM_Modem_presence: %d, %s\n", present ? 1 : 0,
               present ? "Re-arrived" : "Not arrived");
  return present;
}

bool FlashJob::IsBackAfterAll() {
  LOG_ERROR_AS(m_Rules.procedure, "%s",
               Shared(ToolKit::g_bIsFiveBranch) ? m_Rules.lateWithReset : m_Rules.lateWithoutReset);
  return m_Rules.looksOnceMore && ToolKit::IsMBIMModemPresence();
}

bool FlashJob::MayAwaitAgain() {
  if (++m_Failures > Shared(ToolKit::mRetry_times)) {
    LOG_ERROR_AS(m_Rules.procedure, "%s", m_Rules.rearrivalLimitReached);
    LOG_ERROR_AS(m_Rules.procedure, "\t Flash OK, but wait Modem re-arrived failed");
    return false;
  }
  LOG_ERROR_AS(m_Rules.procedure, "\t MBIM device not arrival, retry again, %d(Max %d)",
               static_cast<int>(m_Failures), static_cast<int>(Shared(ToolKit::mRetry_times)));
  SetResult(facts::kResultRetrying);
  CFirmwareDownloader::Unload();
  if (Shared(ToolKit::g_bIsFiveBranch)) CUdeIoControl::GetInstance()->TriggerFlashReset();
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

}  // namespace corvel

// --- The workers -----------------------------------------------------------------------------------------

using namespace corvel;

bool ToolKit::DownloadFirmwareImplementation(void*) {
  DownloadWith(nullptr);
  return true;
}

bool ToolKit::WaitForMBIMRearrivedImplementation(void*) {
  LOG_TRACE("WaitForMBIMRearrivedImplementation ++");
  do {
    if (IsDevicePresent(facts::kMbimModemId)) {
      LOG_TRACE("\t MBIM modem re-found");
      Shared(m_MBIM_Modem_presence) = true;
      break;
    }
    ::Sleep(kRearrivalPollMs);
  } while (Shared(m_MBIM_Modem_monitor));
  LOG_TRACE("WaitForMBIMRearrivedImplementation --");
  return true;
}

bool ToolKit::IsMBIMModemPresence() {
  LOG_TRACE("IsMBIMModemPresence ++");
  const bool present = IsDevicePresent(facts::kMbimModemId);
  if (present) LOG_TRACE("MBIM modem presence");
  LOG_TRACE("IsMBIMModemPresence --");
  return present;
}
