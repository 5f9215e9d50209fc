#pragma once

#include <windows.h>

#include <cfgmgr32.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "simulator/occurrence.h"

namespace simulator {

/// What is wrong with the modem. Durations are virtual time.
struct ModemFaults {
  /// Ways into flash mode (counted over all routes) after which the flash port comes `flashPortDelay`
  /// later than usual, or not at all.
  Occurrence flashPortLate;
  std::chrono::milliseconds flashPortDelay{20000};
  Occurrence flashPortMissing;
  /// The flash port's ids and paths are in lower case.
  bool flashPortLowerCase = false;

  /// Added to the way back to normal mode after the forced reset.
  std::chrono::milliseconds returnDelay{0};
  /// After the forced reset the modem is away until the product has given up its re-arrival wait, and is
  /// back at the look that follows: the product's last check finds it.
  bool returnsAtLastCheck = false;
  /// After the forced reset the modem is away until it got that many baseband resets.
  int returnsAfterResets = 0;
  bool neverReturns = false;

  /// The modem hears the AT command, or the Mobile Broadband reboot command, and stays as it is.
  bool ignoresAtCommand = false;
  bool ignoresMbimReboot = false;
};

/// What is wrong with one kind of device list.
struct ListFaults {
  Occurrence sizeQueryFails;
  Occurrence listQueryFails;
  CONFIGRET code = CR_FAILURE;
  /// A device arrives between the size query and the list query: CR_BUFFER_SMALL.
  Occurrence grows;
};

/// What is wrong with the device tree.
struct DeviceTreeFaults {
  ListFaults deviceIds;
  ListFaults serialInterfaces;
  ListFaults udeInterfaces;
  /// All device ids come in lower case, as some systems deliver them.
  bool lowerCaseIds = false;
  /// No devices but the modem's and the driver's: lists may be empty.
  bool withoutOtherDevices = false;
  Occurrence locateFails;
  Occurrence reenumerateFails;
  CONFIGRET code = CR_FAILURE;
};

/// What is wrong with the driver behind the baseband reset line. An error of 0 means that the call succeeds.
struct DriverFaults {
  bool absent = false;
  DWORD openError = ERROR_SUCCESS;
  DWORD requestError = ERROR_SUCCESS;
  Occurrence requestsRefused;  ///< with requestError; ignored while that is 0
  /// The reset request never completes by itself. The modem is reset all the same unless `ignoresReset`.
  bool neverCompletes = false;
  bool ignoresReset = false;
  /// Two instances of the interface; the probe stays pending on the right one alone.
  bool twoInstances = false;
  bool rightInstanceFirst = false;
};

/// What is wrong with the AT port. An error of 0 means that the call succeeds.
struct AtPortFaults {
  bool absent = false;
  DWORD openError = ERROR_SUCCESS;
  DWORD getStateError = ERROR_SUCCESS;
  DWORD setStateError = ERROR_SUCCESS;
  DWORD writeError = ERROR_SUCCESS;
};

/// Stands for the three calls that write an item.
inline constexpr char kAnyDownloadCall[] = "_ZEMO_DL_download_*";

/// One way in which a call of the flashing library goes wrong.
struct LibraryCallFault {
  std::string function;  ///< export name, e.g. "_ZEMO_DL_boot_target", or kAnyDownloadCall
  /// Which calls, counted over the calls that match `argument`.
  Occurrence calls;
  /// Parameter id of "_ZEMO_DL_set_dll_parameter", item index for the calls that take an item, -1 for any.
  int argument = -1;
  /// The answer; without one the call does its work after the hang.
  std::optional<std::int32_t> result;
  /// The call hangs: first until the product gives up a wait of this many milliseconds (0: no such
  /// condition), then for `hang` of virtual time.
  DWORD untilWaitExpires = 0;
  std::chrono::milliseconds hang{0};
};

/// How the library reports an item's progress.
enum class ProgressStyle : std::uint32_t {
  Normal,
  NonNumeric,      ///< "abc", "4x", "" among the numbers
  Falling,         ///< 0, 60, 30, 100
  PastHundred,     ///< up to 250
  BeforeRawMode,   ///< all percentages before the text that announces sending
  NearRawModeText  ///< the announcement has one leading blank only
};

/// What is wrong with the flashing library.
struct LibraryFaults {
  bool missing = false;  ///< cannot be loaded: error 126
  std::vector<std::string> missingExports;
  bool exportsWithoutUnderscore = false;
  std::vector<LibraryCallFault> calls;
  ProgressStyle progress = ProgressStyle::Normal;
};

/// Calls of the product to one of the functions that it imports fail, whichever that is. A function that it
/// does not import, or whose failure nobody has described (known_calls.h), is an error of whoever names it.
struct PlatformCallFault {
  enum class When { Installed, Loading };

  std::string function;  ///< e.g. "CreateThread"
  Occurrence calls;      ///< counted from `when` on
  DWORD error = ERROR_NOT_ENOUGH_MEMORY;
  /// From the installation on, so without what loading the product calls; or from before its entry routine.
  When when = When::Installed;
};

/// All that can go wrong; default: nothing does.
struct Faults {
  ModemFaults modem;
  DeviceTreeFaults tree;
  DriverFaults driver;
  AtPortFaults atPort;
  LibraryFaults library;
  std::vector<PlatformCallFault> platform;
};

/// The frequent library faults by name.
LibraryCallFault BootTargetRefused(Occurrence calls);
LibraryCallFault OpenPortRefused(Occurrence calls);
LibraryCallFault ParameterRefused(int id, Occurrence calls = Occurrence::Always());
/// Writing the item with this index in its file fails; -1 for any item.
LibraryCallFault ItemRefused(int index, Occurrence calls);
LibraryCallFault CallbackRegistrationAnswers(std::int32_t result);
LibraryCallFault ForcedResetRefused(Occurrence calls = Occurrence::Always());
LibraryCallFault NoProgressBars();
/// A table-of-contents query fails: "nof_items", "memoryClass" or "flash_technogy".
LibraryCallFault TocQueryFails(const std::string& query, Occurrence calls = Occurrence::Always());
/// The call comes back late.
LibraryCallFault Hangs(const std::string& function, int call, std::chrono::milliseconds duration);
/// The call, one that writes an item, outlasts the 130 s limit of an attempt and comes back `after` later. (A
/// boot that hangs is given up after 10 s already, which never lets that limit pass: see Hangs.)
LibraryCallFault OutlastsAttempt(const std::string& function, int call,
                                 std::chrono::milliseconds after = std::chrono::milliseconds(2000));

}  // namespace simulator
