#include "common/log.h"
#include "toolkit/flashjob.h"
#include "toolkit/toolkit.h"

namespace {

constexpr DWORD kPauseWithoutImagesMs = 3000;

void RunPass() {
  LOG_TRACE("%s", kServiceRules.startOfPass);
  FlashJob job(kServiceRules);
  job.AwaitRequest();
  if (job.FindImages()) {
    job.Run();
    return;
  }
  ::Sleep(kPauseWithoutImagesMs);
  ToolKit::SetFlashResult(ToolKit::hMainKey, ToolKit::mStrKey, kResultFailed);
  ToolKit::SetFlashReadyFlag(ToolKit::hMainKey, ToolKit::mStrKey, 0);
}

}  // namespace

bool ToolKit::MainThreadImplementation(void*) {
  LOG_TRACE("\t MainThreadImplementation ++");
  GetModemBranch();
  FlashJob::WriteInitialValues();
  for (;;) {
    try {
      RunPass();
    } catch (...) {
      // Out of memory; the next pass finds the flag as it stands and tries again.
      ::Sleep(kPauseWithoutImagesMs);
    }
  }
}
