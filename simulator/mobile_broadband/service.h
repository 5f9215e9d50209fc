#pragma once

#include <windows.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <wrl/client.h>

#include "download/mobilebroadband.h"
#include "simulator/mobile_broadband/behaviour.h"
#include "simulator/threads/lock.h"

namespace simulator {

/// What the handed-out objects share: the behaviour, the record of calls, the advised sinks, and the queue
/// of completions that the service's thread works off.
class MobileBroadbandService {
 public:
  MobileBroadbandBehaviour behaviour;
  std::atomic<int> liveObjects{0};
  std::atomic<int> rebootCommands{0};

  /// Records a call. @return its failure, if the behaviour has one for it.
  HRESULT Enter(const std::string& call);
  bool IsEmptyHanded(const std::string& call) const { return behaviour.emptyHanded.contains(call); }
  bool ModemIsThere() const { return !behaviour.modemIsInNormalMode || behaviour.modemIsInNormalMode(); }

  std::vector<std::string> Calls() const;
  void RecordPayload(std::vector<BYTE> payload);
  std::vector<std::vector<BYTE>> Payloads() const;
  void ForgetCalls();

  DWORD Advise(Microsoft::WRL::ComPtr<IMbnDeviceServicesEvents> sink);
  HRESULT Unadvise(DWORD cookie);
  int AdvisedSinks() const;
  void CallSinks(const std::function<void(IMbnDeviceServicesEvents&)>& notification);

  ULONG NextRequestId() { return ++m_LastRequestId; }
  /// Plans the completion of a request that was taken.
  void CompleteLater(const SimulatedRequest& request, std::function<void()> completion);
  /// Hangs until Stop, if the behaviour has it so for this Release.
  void HangInFirstRelease();

  /// Works the completions off until Stop.
  void RunCompletions();
  void Stop();
  void WaitForCompletions();

 private:
  std::chrono::milliseconds Now() const;
  void RunFirstCompletion(std::unique_lock<Lock>& lock);

  mutable Lock m_Mutex;
  Condition m_Changed;
  std::atomic<DWORD> m_OwnThread{0};
  std::atomic<bool> m_WasReleased{false};
  bool m_Stopped = false;
  bool m_Completing = false;
  std::multimap<std::chrono::milliseconds, std::function<void()>> m_Completions;
  std::vector<std::string> m_Calls;
  std::vector<std::vector<BYTE>> m_Payloads;
  std::map<DWORD, Microsoft::WRL::ComPtr<IMbnDeviceServicesEvents>> m_Sinks;
  DWORD m_LastCookie = 0;
  std::atomic<ULONG> m_LastRequestId{0};
};

/// As each object holds it: the last one that is released may outlive the registration of the classes.
using Service = std::shared_ptr<MobileBroadbandService>;

}  // namespace simulator
