#include "common/debuglogger.h"
#include "common/log.h"
#include "config/configparser.h"
#include "download/firmwaredownloader.h"
#include "toolkit/flashjob.h"
#include "toolkit/toolkit.h"

using namespace corvel;

bool ToolKit::FirmwareFlash_CmdLine(int traceLevel, char* ipcType, int, char*, char*) try {
  // First of all, and before any record: a job without a log must not leave one with a single line.
  if (traceLevel < 1) {
    TurnLoggingOff();
  } else {
    TurnLoggingOn();
  }
  if (CConfigParser* const config = CConfigParser::GetInstance()) config->SetIPCType(ipcType);
  LOG_TRACE("++ MainThreadImplementation");

  GetModemBranch();
  FlashJob::WriteInitialValues();
  LOG_TRACE("%s", kCommandLineRules.startOfPass);
  CFirmwareDownloader::GetInstance();

  FlashJob job(kCommandLineRules);
  job.AwaitRequest();
  if (job.FindImages()) job.Run();
  return false;
} catch (...) {
  // Out of memory; "Flash_Result" tells how far the job came.
  CFirmwareDownloader::Unload();
  return false;
}
