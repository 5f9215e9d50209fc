#include "fault/job_judgement.h"

#include <cstdint>
#include <optional>

namespace campaign {

using simulator::ModemState;
using simulator::NameOf;

namespace {

std::string Text(const std::optional<std::uint32_t>& value) {
  return value ? std::to_string(*value) : "none";
}

std::string FalseSuccess(const JobEnd& end) {
  if (!end.isMemoryEqual) return "success is reported, but the memory is not equal";
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

}  // namespace campaign
