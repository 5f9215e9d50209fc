#include "download/flashservice.h"

#include "toolkit/toolkit.h"

namespace {

void ReportProgress(int percent) {
  ToolKit::SetFlashProcess(ToolKit::GetHKEYRegistryMainKey(), ToolKit::GetRegistryStrKey(), percent);
}

/// Introduces the service to the download engine, which knows nothing of the parts above it.
class Registration {
 public:
  Registration() {
    corvel::RegisterFlashService({.retriesSpent = &ToolKit::g_retry_times,
                                  .retryLimit = &ToolKit::mRetry_times,
                                  .resetAllowed = &ToolKit::g_bIsFiveBranch,
                                  .reportProgress = &ReportProgress});
  }
};
const Registration g_registration;

}  // namespace
