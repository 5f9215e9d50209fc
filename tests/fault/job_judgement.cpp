#include "fault/job_judgement.h"

#include <cstdint>
#include <optional>

#include "fault/fault_cases.h"
#include "hosts/cmdline/exit_code.h"

namespace campaign {

using simulator::ModemState;
using simulator::NameOf;

namespace {

std::string Text(const std::optional<std::uint32_t>& value) {
  return value ? std::to_string(*value) : "none";
}

std::string FalseSuccess(const JobEnd& end) {
  if (!end.isMemoryEqual) return kFalseSuccess;
  if (end.modem != ModemState::Normal)
    return std::string("success is reported, but the modem is ") + NameOf(end.modem);
  if (end.modemAtResult != ModemState::Normal)
    return std::string("success was reported while the modem was ") + NameOf(end.modemAtResult);
  return {};
}

}  // namespace

std::string WhatIsWrongWith(const JobEnd& end) {
  const auto& values = end.values;
  const std::string state = "result " + Text(values.result) + ", ready " + Text(values.ready) +
                            ", on-going " + Text(values.onGoing) + ", progress " + Text(values.progress);
  if (!end.ended) return "the service does not wait for the next request: " + state;
  if (!end.Succeeded() && !end.Failed()) return "no documented end: " + state;
  if (std::string wrong = end.Succeeded() ? FalseSuccess(end) : ""; !wrong.empty()) return wrong;
  if (end.hasOldAttemptWritten) return kOldAttemptWrites;
  if (values.ready != 0u) return "the flag is not taken back: " + state;
  if (values.onGoing != 0u) return "\"Flash_OnGoing\" is left: " + state;
  if (values.timeOut != 153000u) return "\"Time_Out\" is " + Text(values.timeOut);
  if (values.progress.value_or(101) > 100) return "no percentage: " + state;
  if (end.isImageLeft && (end.Succeeded() || end.beganAttempt)) return "the image is left: " + state;
  if (!end.areImagesKept && !end.beganAttempt) return "an image is gone without an attempt: " + state;
  return {};
}

std::string WhatIsWrongWithSound(const JobEnd& end) {
  if (std::string finding = WhatIsWrongWith(end); !finding.empty()) return finding;
  return end.Succeeded() ? "" : "it fails, the modem is " + std::string(NameOf(end.modem));
}

std::string WhatIsWrongWithGoingOn(const hosts::Handshake& before, const JobEnd& end) {
  const bool stood = before.ready == 1u;
  std::string modem = std::string("the modem is ") + NameOf(end.modem);
  const std::string state = ", result " + Text(end.values.result) + ", progress " + Text(end.values.progress);
  if (stood && !end.Succeeded()) return "the job is not done by the new host, " + modem + state;
  if (!stood && !end.values.Is(hosts::FlashResult::Idle)) return "the new host tells of an old job" + state;
  if (end.values.ready != 0u) return "the flag is not taken back";
  if (!end.isMemoryEqual) return "the memory is not equal";
  if (end.modem != ModemState::Normal) return modem;
  if (end.Succeeded() && end.modemAtResult != ModemState::Normal)
    return std::string("success was reported while the modem was ") + NameOf(end.modemAtResult);
  return stood && end.isImageLeft ? "the image is left" : "";
}

bool IsBrokenOff(const JobEnd& end) {
  return !end.Succeeded() && !end.Failed() && end.values.ready == 1u;
}

std::string WhatIsWrongWithCommandLine(const JobEnd& end) {
  // Its host says so, and takes the request back.
  if (IsBrokenOff(end))
    return end.beganAttempt || end.areImagesKept ? "" : "an image is gone without an attempt";
  JobEnd judged = end;
  // Nobody begins another pass behind the last failed download, which would clear it.
  if (end.Failed()) judged.values.onGoing = 0;
  const std::string finding = WhatIsWrongWith(judged);
  return finding.empty() ? "" : "by the command line, " + finding;
}

namespace {

std::string FalseExitOfSuccess(const ProgramEnd& end) {
  if (!end.isMemoryEqual) return "exit 0, but the memory is not equal";
  if (end.modem != ModemState::Normal) return std::string("exit 0, but the modem is ") + NameOf(*end.modem);
  if (!end.values.Is(hosts::FlashResult::Succeeded))
    return "exit 0 with the result " + Text(end.values.result);
  return end.isImageLeft ? "exit 0, but the image is left" : "";
}

std::string FalseExitWithoutFlash(const ProgramEnd& end) {
  const std::string exit = "exit " + std::to_string(*end.exitCode);
  if (end.wasModemTouched) return exit + ", but the modem was touched";
  return end.isImageLeft ? "" : exit + ", but the image is gone";
}

}  // namespace

std::string WhatIsWrongWith(const ProgramEnd& end) {
  if (!end.exitCode) return "the program does not end";
  if (!end.modem) return "the program is broken off with " + std::to_string(*end.exitCode);
  if (end.values.ready == 1u) return "the request stands";
  switch (static_cast<hosts::ExitCode>(*end.exitCode)) {
    case hosts::ExitCode::Success:
      return FalseExitOfSuccess(end);
    case hosts::ExitCode::FlashFailed:
      if (end.values.Is(hosts::FlashResult::Succeeded)) return "exit 1 behind a success";
      return end.modem == ModemState::Dead ? "the modem is dead" : "";
    case hosts::ExitCode::NoImages:
    case hosts::ExitCode::NotReady:
      return FalseExitWithoutFlash(end);
    default:
      return "it ends with " + std::to_string(*end.exitCode);
  }
}

std::string WhatIsWrongWithSound(const ProgramEnd& end) {
  if (std::string finding = WhatIsWrongWith(end); !finding.empty()) return finding;
  return *end.exitCode == 0 ? "" : "it ends with " + std::to_string(*end.exitCode);
}

}  // namespace campaign
