#include "simulator/faults.h"

#include <utility>

namespace simulator {

namespace {

/// Time limit of one attempt in the product.
constexpr DWORD kAttemptLimit = 130000;

LibraryCallFault Answers(std::string function, Occurrence calls, std::int32_t result, int argument = -1) {
  LibraryCallFault fault;
  fault.function = std::move(function);
  fault.calls = calls;
  fault.argument = argument;
  fault.result = result;
  return fault;
}

}  // namespace

LibraryCallFault BootTargetRefused(Occurrence calls) {
  return Answers("_ZEMO_DL_boot_target", calls, 1);
}

LibraryCallFault OpenPortRefused(Occurrence calls) {
  return Answers("_ZEMO_DL_open_comm_port", calls, 1);
}

LibraryCallFault ParameterRefused(int id, Occurrence calls) {
  return Answers("_ZEMO_DL_set_dll_parameter", calls, 1, id);
}

LibraryCallFault ItemRefused(int index, Occurrence calls) {
  return Answers(kAnyDownloadCall, calls, 1, index);
}

LibraryCallFault CallbackRegistrationAnswers(std::int32_t result) {
  return Answers("_ZEMO_DL_init_callback", Occurrence::Always(), result);
}

LibraryCallFault ForcedResetRefused(Occurrence calls) {
  return Answers("_ZEMO_DL_force_target_reset", calls, 1);
}

LibraryCallFault NoProgressBars() {
  return Answers("_ZEMO_DL_dll_get_nof_progressbars", Occurrence::Always(), 0);
}

LibraryCallFault TocQueryFails(const std::string& query, Occurrence calls) {
  return Answers("_ZEMO_DL_TOC_get_" + query, calls, 1);
}

LibraryCallFault Hangs(const std::string& function, int call, std::chrono::milliseconds duration) {
  LibraryCallFault fault;
  fault.function = function;
  fault.calls = Occurrence::Only(call);
  fault.hang = duration;
  return fault;
}

LibraryCallFault OutlastsAttempt(const std::string& function, int call, std::chrono::milliseconds after) {
  LibraryCallFault fault = Hangs(function, call, after);
  fault.untilWaitExpires = kAttemptLimit;
  return fault;
}

}  // namespace simulator
