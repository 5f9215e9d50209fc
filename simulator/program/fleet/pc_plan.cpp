#include "simulator/program/fleet/pc_plan.h"

namespace simulator {

namespace {

using namespace std::chrono_literals;

constexpr int kAll = 10'000;
/// A small job with its log has about that many calls of the system.
constexpr int kCallsOfAJob = 1500;

struct RouteShare {
  Route route;
  int perTenThousand;
};
constexpr RouteShare kRouteShares[] = {
    {Route::Mbim, 7000},
    {Route::At, 1500},
    {Route::Bbrst, 800},
    {Route::FlashPort, 700},
};

/// Calls of the system that fail once now and then.
constexpr const char* kRefusedCalls[] = {
    "CM_Get_Device_ID_ListW",
    "CM_Get_Device_ID_List_SizeW",
    "CM_Get_Device_Interface_ListW",
    "CM_Locate_DevNodeW",
    "CM_Reenumerate_DevNode",
    "CreateFileW",
    "CreateThread",
    "DeleteFileW",
    "DeviceIoControl",
    "FindFirstFileW",
    "GetOverlappedResultEx",
    "GetProcAddress",
    "LoadLibraryW",
    "RegNotifyChangeKeyValue",
    "RegOpenKeyExW",
    "RegQueryValueExW",
    "RegSetValueExW",
};
constexpr const char* kBroadbandCalls[] = {
    "MbnInterfaceManager",      "MbnDeviceServicesManager", "GetInterfaces",
    "GetDeviceServicesContext", "EnumerateDeviceServices",  "GetDeviceService",
    "OpenCommandSession",       "QuerySupportedCommands",   "SetCommand",
};

Milliseconds Slower(Milliseconds duration, int tenths) {
  return duration * tenths / 10;
}

void AddCall(PcPlan& plan, LibraryCallFault fault) {
  plan.pc.faults.library.calls.push_back(std::move(fault));
}

constexpr FaultRate kRates[] = {
    // The modem
    {"slow modem", 1000,
     [](PcPlan& plan, Dice& dice) {
       const int tenths = dice.Between(15, 30);
       ModemTiming& timing = plan.pc.timing;
       for (Milliseconds* each : {&timing.leaving, &timing.restarting, &timing.openPort, &timing.boot,
                                  &timing.returning, &timing.bootLoaderWindow}) {
         *each = Slower(*each, tenths);
       }
       timing.bytesPerSecond = timing.bytesPerSecond * 10 / static_cast<std::uint32_t>(tenths);
     }},
    {"images of 12 MB", 300, [](PcPlan& plan, Dice&) { plan.images = ImageSet::ModemAndNvm; }},
    {"flash port late", 300,
     [](PcPlan& plan, Dice& dice) {
       plan.pc.faults.modem.flashPortLate = dice.AFew();
       plan.pc.faults.modem.flashPortDelay = dice.Seconds(5, 40);
     }},
    {"flash port missing", 200,
     [](PcPlan& plan, Dice& dice) { plan.pc.faults.modem.flashPortMissing = dice.AFew(); }},
    {"flash port in lower case", 200,
     [](PcPlan& plan, Dice&) { plan.pc.faults.modem.flashPortLowerCase = true; }},
    {"modem back late", 300,
     [](PcPlan& plan, Dice& dice) { plan.pc.faults.modem.returnDelay = dice.Seconds(5, 40); }},
    {"modem back at the last check", 50,
     [](PcPlan& plan, Dice&) { plan.pc.faults.modem.returnsAtLastCheck = true; }},
    {"modem back after resets", 100,
     [](PcPlan& plan, Dice& dice) { plan.pc.faults.modem.returnsAfterResets = dice.Between(1, 5); }},
    {"modem gone until the PC is switched off", 20,
     [](PcPlan& plan, Dice&) { plan.pc.faults.modem.neverReturns = true; }},
    {"reboot commands without effect", 150,
     [](PcPlan& plan, Dice&) {
       plan.pc.faults.modem.ignoresAtCommand = true;
       plan.pc.faults.modem.ignoresMbimReboot = true;
     }},
    // The device tree
    {"device list grows", 200,
     [](PcPlan& plan, Dice& dice) {
       plan.pc.faults.tree.deviceIds.grows = dice.AFew();
       plan.pc.faults.tree.serialInterfaces.grows = dice.AFew();
     }},
    {"device list refused", 100,
     [](PcPlan& plan, Dice& dice) { plan.pc.faults.tree.deviceIds.listQueryFails = dice.AFew(); }},
    {"flash ports not told", 100,
     [](PcPlan& plan, Dice& dice) { plan.pc.faults.tree.serialInterfaces.sizeQueryFails = dice.AFew(); }},
    {"device ids in lower case", 200, [](PcPlan& plan, Dice&) { plan.pc.faults.tree.lowerCaseIds = true; }},
    {"re-enumeration refused", 50,
     [](PcPlan& plan, Dice&) { plan.pc.faults.tree.reenumerateFails = Occurrence::Always(); }},
    // The reset driver
    {"reset driver absent", 150, [](PcPlan& plan, Dice&) { plan.pc.faults.driver.absent = true; }},
    {"reset driver refuses to be opened", 50,
     [](PcPlan& plan, Dice&) { plan.pc.faults.driver.openError = ERROR_ACCESS_DENIED; }},
    {"reset requests refused", 50,
     [](PcPlan& plan, Dice& dice) {
       plan.pc.faults.driver.requestError = ERROR_GEN_FAILURE;
       plan.pc.faults.driver.requestsRefused = dice.AFew();
     }},
    {"reset request never completes", 50,
     [](PcPlan& plan, Dice&) { plan.pc.faults.driver.neverCompletes = true; }},
    {"reset without effect", 50, [](PcPlan& plan, Dice&) { plan.pc.faults.driver.ignoresReset = true; }},
    {"two reset drivers", 200,
     [](PcPlan& plan, Dice& dice) {
       plan.pc.faults.driver.twoInstances = true;
       plan.pc.faults.driver.rightInstanceFirst = dice.Between(0, 1) == 1;
     }},
    // The AT port
    {"AT port absent", 100, [](PcPlan& plan, Dice&) { plan.pc.faults.atPort.absent = true; }},
    {"AT port in other hands", 100,
     [](PcPlan& plan, Dice&) { plan.pc.faults.atPort.openError = ERROR_ACCESS_DENIED; }},
    {"AT port cannot be set up", 100,
     [](PcPlan& plan, Dice&) { plan.pc.faults.atPort.setStateError = ERROR_GEN_FAILURE; }},
    {"AT port cannot be written", 100,
     [](PcPlan& plan, Dice&) { plan.pc.faults.atPort.writeError = ERROR_GEN_FAILURE; }},
    // The flashing library
    {"flashing library missing", 30, [](PcPlan& plan, Dice&) { plan.pc.faults.library.missing = true; }},
    {"boot refused", 200, [](PcPlan& plan, Dice& dice) { AddCall(plan, BootTargetRefused(dice.AFew())); }},
    {"flash port cannot be opened", 200,
     [](PcPlan& plan, Dice& dice) { AddCall(plan, OpenPortRefused(dice.AFew())); }},
    {"item refused", 200, [](PcPlan& plan, Dice& dice) { AddCall(plan, ItemRefused(-1, dice.AFew())); }},
    {"table of contents refused", 50,
     [](PcPlan& plan, Dice& dice) { AddCall(plan, TocQueryFails("nof_items", dice.AFew())); }},
    {"forced reset refused", 100,
     [](PcPlan& plan, Dice& dice) { AddCall(plan, ForcedResetRefused(dice.AFew())); }},
    {"boot hangs", 100,
     [](PcPlan& plan, Dice& dice) { AddCall(plan, Hangs("_ZEMO_DL_boot_target", 1, dice.Seconds(5, 60))); }},
    {"opening hangs", 50,
     [](PcPlan& plan, Dice& dice) {
       AddCall(plan, Hangs("_ZEMO_DL_open_comm_port", 1, dice.Seconds(5, 60)));
     }},
    {"item outlasts the attempt", 50,
     [](PcPlan& plan, Dice& dice) {
       AddCall(plan, OutlastsAttempt("_ZEMO_DL_download_fls_file", 1, dice.Seconds(1, 60)));
     }},
    {"odd progress", 200,
     [](PcPlan& plan, Dice& dice) {
       plan.pc.faults.library.progress = static_cast<ProgressStyle>(dice.Between(1, 5));
     }},
    // The Mobile Broadband service
    {"Mobile Broadband call fails", 300,
     [](PcPlan& plan, Dice& dice) {
       const auto call = static_cast<std::size_t>(dice.Between(0, std::size(kBroadbandCalls) - 1));
       plan.pc.mobileBroadband.failures[kBroadbandCalls[call]] = E_FAIL;
     }},
    {"command session in other hands", 100,
     [](PcPlan& plan, Dice&) { plan.pc.mobileBroadband.commandSessionIsOpen = true; }},
    {"reboot command never reported", 100,
     [](PcPlan& plan, Dice&) { plan.pc.mobileBroadband.setCommand.completesAfter = std::nullopt; }},
    // The system, and what happens to the host
    {"system call refused", 500,
     [](PcPlan& plan, Dice& dice) {
       const auto call = static_cast<std::size_t>(dice.Between(0, std::size(kRefusedCalls) - 1));
       PlatformCallFault fault;
       fault.function = kRefusedCalls[call];
       fault.calls = Occurrence::Only(dice.Between(1, 10));
       plan.pc.faults.platform.push_back(std::move(fault));
     }},
    {"process killed", 800,
     [](PcPlan& plan, Dice& dice) {
       for (int times = dice.Between(1, 2); times > 0; --times) {
         const auto call = static_cast<unsigned>(dice.Between(1, kCallsOfAJob));
         plan.interruptions.push_back({Interruption::Kind::Kill, call});
       }
     }},
    {"power cut", 500,
     [](PcPlan& plan, Dice& dice) {
       const auto call = static_cast<unsigned>(dice.Between(1, kCallsOfAJob));
       plan.interruptions.push_back({Interruption::Kind::PowerCut, call, dice.Between(0, 1) == 1});
     }},
};

Route DrawRoute(Dice& dice) {
  int lot = dice.Between(1, kAll);
  for (const RouteShare& share : kRouteShares) {
    lot -= share.perTenThousand;
    if (lot <= 0) return share.route;
  }
  return Route::Mbim;
}

}  // namespace

std::uint64_t Dice::Throw() {
  m_State += 0x9E3779B97F4A7C15;
  std::uint64_t mixed = m_State;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
  return mixed ^ (mixed >> 31);
}

int Dice::Between(int first, int last) {
  const auto count = static_cast<std::uint64_t>(last - first) + 1;
  return first + static_cast<int>(Throw() % count);
}

std::span<const FaultRate> FaultRates() {
  return kRates;
}

PcPlan PlanOf(std::uint64_t seed, unsigned pc) {
  Dice dice(Dice(seed).Throw() + pc);
  PcPlan plan;
  plan.route = DrawRoute(dice);
  for (const FaultRate& rate : kRates) {
    // Each row has dice of its own: what one draws does not change what another does.
    Dice own(dice.Throw());
    if (own.Between(1, kAll) > rate.perTenThousand) continue;
    rate.put(plan, own);
    plan.drawn.emplace_back(rate.name);
  }
  return plan;
}

}  // namespace simulator
