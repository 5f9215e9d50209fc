#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "download/mobilebroadband.h"
#include "simulator/mobile_broadband/behaviour.h"

namespace simulator {

class MobileBroadbandService;

/// Stands for the Mobile Broadband service of Windows: registers its two classes in this process, for the
/// multithreaded apartment, and calls the advised sinks from threads of its own. One at a time. What it
/// handed out may be released after its end.
class SimulatedMobileBroadband {
 public:
  explicit SimulatedMobileBroadband(MobileBroadbandBehaviour behaviour = {});
  /// Takes the classes back. A completion that is still to come does not come any more.
  ~SimulatedMobileBroadband();
  SimulatedMobileBroadband(const SimulatedMobileBroadband&) = delete;
  SimulatedMobileBroadband& operator=(const SimulatedMobileBroadband&) = delete;

  MobileBroadbandBehaviour& Behaviour();

  /// Names of the calls so far, in their order: "GetInterfaces", "OpenCommandSession", "Advise"...
  std::vector<std::string> Calls() const;
  int CallCount(const std::string& name) const;
  /// The data of each SetCommand so far.
  std::vector<std::vector<BYTE>> Payloads() const;
  /// Empties the lists of calls and of their data, so that long runs do not grow.
  void ForgetCalls();
  /// How often the modem took its reboot command.
  int RebootCommands() const;

  /// Objects handed out that somebody still holds a reference on.
  int LiveObjects() const;
  /// Sinks that are advised at present.
  int AdvisedSinks() const;

  /// Calls every advised sink on a thread of its own and waits for it.
  void Notify(const std::function<void(IMbnDeviceServicesEvents&)>& notification);
  /// Waits until no completion is on its way.
  void WaitForCompletions();

 private:
  std::shared_ptr<MobileBroadbandService> m_Service;
  std::thread m_Thread;
};

}  // namespace simulator
