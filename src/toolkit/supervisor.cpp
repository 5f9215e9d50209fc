#include "common/facts.h"
#include "common/log.h"
#include "download/firmwaredownloader.h"
#include "toolkit/flashjob.h"
#include "toolkit/toolkit.h"

using namespace corvel;

namespace {

constexpr DWORD kPauseWithoutImagesMs = 3000;
constexpr DWORD kPauseAfterLackOfMemoryMs = 3000;

void RunPass() {
  LOG_TRACE_AS(kServiceRules.procedure, "%s", kServiceRules.startOfPass);
  FlashJob job(kServiceRules);
  job.AwaitRequest();
  if (job.FindImages()) {
    job.Run();
    return;
  }
  ::Sleep(kPauseWithoutImagesMs);
  ToolKit::SetFlashResult(ToolKit::hMainKey, ToolKit::mStrKey, facts::kResultFailed);
  ToolKit::SetFlashReadyFlag(ToolKit::hMainKey, ToolKit::mStrKey, 0);
}

/// Nothing ends the supervisor, not even lack of memory: the next pass finds the flag as it stands. Should
/// even what follows a failure fail, the process goes with it: nobody would notice that the supervisor is
/// gone.
template <typename Step>
void Survive(Step step) noexcept {
  try {
    step();
  } catch (...) {
    CFirmwareDownloader::Unload();
    ::Sleep(kPauseAfterLackOfMemoryMs);
  }
}

}  // namespace

bool ToolKit::MainThreadImplementation(void*) {
  LOG_TRACE("\t MainThreadImplementation ++");
  Survive(GetModemBranch);
  Survive(FlashJob::WriteInitialValues);
  for (;;) Survive(RunPass);
}
