#include "hosts/common/job_record.h"

#include "hosts/common/event_log.h"
#include "hosts/common/flash_history.h"
#include "hosts/common/text.h"
#include "messages.h"

namespace hosts {

std::string LeaveRecord(const std::string& host, const FinishedJob& job) {
  WriteEvent(job.flashed ? MSG_FLASH_SUCCEEDED : MSG_FLASH_FAILED, ToWide(job.Text()));
  const FlashHistory history;
  const DWORD error = history.Append(host, job);
  if (error == ERROR_SUCCESS) return {};
  std::string problem =
      "The flash is not in the history " + ToUtf8(history.Path()) + ": " + SystemErrorText(error) + ".";
  WriteEvent(MSG_EVIDENCE_NOT_KEPT, ToWide(problem));
  return problem;
}

}  // namespace hosts
