#pragma once

#include <windows.h>

#include <unknwn.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace simulator {

/// How one asynchronous request goes.
struct SimulatedRequest {
  /// What the call returns. A completion follows S_OK and E_PENDING only.
  HRESULT answer = S_OK;
  /// What the completion reports.
  HRESULT status = S_OK;
  /// Virtual time from the call to its completion; nothing: it never comes.
  std::optional<std::chrono::milliseconds> completesAfter = std::chrono::milliseconds(0);
};

/// The character of a simulated Mobile Broadband service. Change it only while nobody calls the service.
struct MobileBroadbandBehaviour {
  /// Asked whenever somebody lists the interfaces: without a modem in normal mode there are none. Not
  /// set: the modem is there.
  std::function<bool()> modemIsInNormalMode;
  std::vector<std::wstring> interfaces{L"{4D36E972-E325-11CE-BFC1-08002BE10318}"};
  /// Ids of the device services; by default the modem's own among two of others.
  std::vector<std::wstring> deviceServices{L"{533FBEEB-14FE-4467-9F90-33A223E56C3F}",
                                           L"{0ED374CB-F835-4474-BC11-3B3FD76F5641}",
                                           L"{E550A0C8-5E82-479E-82F7-10ABF4C3351F}"};
  /// Whether the array of device services carries the record info that frees the ids in it.
  bool deviceServicesCarryRecordInfo = true;

  bool commandSessionIsOpen = false;
  SimulatedRequest openCommandSession;
  SimulatedRequest querySupportedCommands;
  SimulatedRequest setCommand;
  /// Nothing: the completion carries no list.
  std::optional<std::vector<ULONG>> supportedCommands{{1, 2, 3}};
  /// What the completion of a set command carries.
  std::vector<BYTE> response{0x00, 0x00, 0x00, 0x00};

  /// Calls that fail, by the name that SimulatedMobileBroadband::Calls reports. "MbnInterfaceManager" and
  /// "MbnDeviceServicesManager" are the creations of the two classes.
  std::map<std::string, HRESULT> failures;
  /// Calls that succeed and hand out nothing.
  std::set<std::string> emptyHanded;

  /// Whether the first Release of a device service by another thread than the service's own hangs for as long
  /// as the service lives.
  bool firstReleaseHangs = false;

  /// Runs inside SetCommand when the modem takes its reboot command: id 1, payload 01 00 00 00.
  std::function<void()> onRebootCommand;
  /// Runs inside each call, by its name, before the call does anything.
  std::function<void(const std::string&)> onCall;
  /// Told of each object that is handed out, with the names of its calls by slot.
  std::function<void(std::span<const char* const> calls, IUnknown* object)> onHandOut;
  /// Real time of a virtual delay; not set: they are the same.
  std::function<std::chrono::milliseconds(std::chrono::milliseconds)> realTime;
  /// Present virtual time, by which completions come due; not set: the real one, with realTime.
  std::function<std::chrono::milliseconds()> virtualNow;
};

}  // namespace simulator
