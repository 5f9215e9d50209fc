#include <algorithm>
#include <iterator>
#include <string_view>
#include <vector>

#include "simulator/known_calls.h"
#include "simulator/mobile_broadband/interface_calls.h"

namespace simulator {

namespace {

using Kind = KnownCall::Kind;
using Failure = KnownCall::Failure;
using Tells = KnownCall::Tells;

constexpr std::uint32_t kNoSuchResult = 0xFFFFFFFF;
/// The service behind an object has ended.
constexpr std::uint32_t kServiceIsGone = 0x800706BA;

/// 0 for success, and 1 for a failure.
constexpr KnownCall Export(const char* name, bool mayHaveTakenEffect = false) {
  return {name, Kind::Library, Failure::Plausible, Tells::ByResult, 1, 0, mayHaveTakenEffect,
          0,    kNoSuchResult};
}
constexpr KnownCall ExportWithEffect(const char* name) {
  return Export(name, true);
}
constexpr KnownCall Number(const char* name, std::uint64_t none, std::uint64_t undocumented) {
  return {name, Kind::Library, Failure::Plausible, Tells::ByResult, none,
          0,    false,         std::nullopt,       undocumented};
}

constexpr KnownCall kExports[] = {
    ExportWithEffect("_ZEMO_DL_boot_target"),
    ExportWithEffect("_ZEMO_DL_close_comm_port"),
    ExportWithEffect("_ZEMO_DL_download_cust_file"),
    ExportWithEffect("_ZEMO_DL_download_dffs_file"),
    ExportWithEffect("_ZEMO_DL_download_fls_file"),
    ExportWithEffect("_ZEMO_DL_force_target_reset"),
    ExportWithEffect("_ZEMO_DL_init_callback"),
    ExportWithEffect("_ZEMO_DL_open_comm_port"),
    ExportWithEffect("_ZEMO_DL_set_dll_parameter"),
    Export("_ZEMO_DL_TOC_get_flash_technogy"),
    Export("_ZEMO_DL_TOC_get_memory_class"),
    Export("_ZEMO_DL_TOC_get_nof_items"),
    Export("_ZEMO_DL_out_of_session_comm"),
    Number("_ZEMO_DL_dll_get_nof_progressbars", 0, kNoSuchResult),
    Number("_ZEMO_get_next_free_channel", 0, 0xFF),
    {.name = "_ZEMO_DL_get_sys_version", .kind = Kind::Library},
};

// What the service does for its caller: it may do that and end before its answer is on its way. Whatever only
// hands something out leaves nothing behind that fails; what it handed out would be a fault of its own.
constexpr std::string_view kRequests[] = {
    "IConnectionPoint::Advise",
    "IConnectionPoint::Unadvise",
    "IMbnDeviceService::QuerySupportedCommands",
    "IMbnDeviceService::OpenCommandSession",
    "IMbnDeviceService::CloseCommandSession",
    "IMbnDeviceService::SetCommand",
};

KnownCall OfObject(const char* name) {
  const std::string_view text = name;
  const bool mayHaveTakenEffect = std::ranges::find(kRequests, text) != std::end(kRequests);
  if (text.ends_with("::AddRef") || text.ends_with("::Release")) return {.name = name, .kind = Kind::Object};
  constexpr std::uint64_t kOk = 0;
  constexpr std::uint64_t kFalse = 1;
  return {name, Kind::Object, Failure::Plausible, Tells::ByResult, kServiceIsGone, 0, mayHaveTakenEffect,
          kOk,  kFalse};
}

std::vector<KnownCall> AllForeignCalls() {
  std::vector<KnownCall> calls(std::begin(kExports), std::end(kExports));
  for (const auto& object : InterfaceCalls()) {
    for (const char* name : object) calls.push_back(OfObject(name));
  }
  return calls;
}

}  // namespace

std::span<const KnownCall> KnownForeignCalls() {
  // Never destroyed: threads of the product may still call while the program ends.
  static const auto& calls = *new std::vector<KnownCall>(AllForeignCalls());
  return calls;
}

}  // namespace simulator
