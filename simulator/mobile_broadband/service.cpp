#include "simulator/mobile_broadband/service.h"

#include <utility>

#include <olectl.h>

#include "simulator/threads/working_threads.h"

using Microsoft::WRL::ComPtr;
using std::chrono::milliseconds;

namespace simulator {

namespace {

/// How often a foreign clock is looked at.
constexpr milliseconds kLookPeriod{2};

}  // namespace

HRESULT MobileBroadbandService::Enter(const std::string& call) {
  {
    const std::lock_guard lock(m_Mutex);
    m_Calls.push_back(call);
  }
  if (behaviour.onCall) behaviour.onCall(call);
  const auto failure = behaviour.failures.find(call);
  return failure == behaviour.failures.end() ? S_OK : failure->second;
}

std::vector<std::string> MobileBroadbandService::Calls() const {
  const std::lock_guard lock(m_Mutex);
  return m_Calls;
}

void MobileBroadbandService::RecordPayload(std::vector<BYTE> payload) {
  const std::lock_guard lock(m_Mutex);
  m_Payloads.push_back(std::move(payload));
}

std::vector<std::vector<BYTE>> MobileBroadbandService::Payloads() const {
  const std::lock_guard lock(m_Mutex);
  return m_Payloads;
}

void MobileBroadbandService::ForgetCalls() {
  const std::lock_guard lock(m_Mutex);
  std::vector<std::string>().swap(m_Calls);
  std::vector<std::vector<BYTE>>().swap(m_Payloads);
}

DWORD MobileBroadbandService::Advise(ComPtr<IMbnDeviceServicesEvents> sink) {
  const std::lock_guard lock(m_Mutex);
  m_Sinks.emplace(++m_LastCookie, std::move(sink));
  return m_LastCookie;
}

HRESULT MobileBroadbandService::Unadvise(DWORD cookie) {
  decltype(m_Sinks)::node_type sink;
  const std::lock_guard lock(m_Mutex);
  sink = m_Sinks.extract(cookie);
  return sink.empty() ? CONNECT_E_NOCONNECTION : S_OK;
}

int MobileBroadbandService::AdvisedSinks() const {
  const std::lock_guard lock(m_Mutex);
  return static_cast<int>(m_Sinks.size());
}

void MobileBroadbandService::CallSinks(const std::function<void(IMbnDeviceServicesEvents&)>& notification) {
  std::vector<ComPtr<IMbnDeviceServicesEvents>> sinks;
  {
    const std::lock_guard lock(m_Mutex);
    for (const auto& [cookie, sink] : m_Sinks) sinks.push_back(sink);
  }
  for (const auto& sink : sinks) notification(*sink.Get());
}

void MobileBroadbandService::CompleteLater(const SimulatedRequest& request,
                                           std::function<void()> completion) {
  if (request.answer != S_OK && request.answer != E_PENDING) return;
  if (!request.completesAfter) return;
  const bool inRealTime = behaviour.realTime && !behaviour.virtualNow;
  const milliseconds delay =
      inRealTime ? behaviour.realTime(*request.completesAfter) : *request.completesAfter;
  const std::lock_guard lock(m_Mutex);
  m_Completions.emplace(Now() + delay, std::move(completion));
  m_Changed.NotifyAll();
}

void MobileBroadbandService::HangInFirstRelease() {
  if (!behaviour.firstReleaseHangs || ::GetCurrentThreadId() == m_OwnThread) return;
  if (m_WasReleased.exchange(true)) return;
  // Time has to fly for the others while this thread hangs.
  const working_threads::Rest rest;
  std::unique_lock lock(m_Mutex);
  m_Changed.Wait(lock, [this] { return m_Stopped; });
}

void MobileBroadbandService::RunCompletions() {
  m_OwnThread = ::GetCurrentThreadId();
  std::unique_lock lock(m_Mutex);
  while (!m_Stopped) {
    if (m_Completions.empty()) {
      m_Changed.Wait(lock);
      continue;
    }
    const milliseconds left = m_Completions.begin()->first - Now();
    if (left > milliseconds::zero()) {
      m_Changed.WaitFor(lock, behaviour.virtualNow ? kLookPeriod : left);
      continue;
    }
    RunFirstCompletion(lock);
  }
}

void MobileBroadbandService::Stop() {
  std::multimap<milliseconds, std::function<void()>> dropped;
  const std::lock_guard lock(m_Mutex);
  m_Stopped = true;
  dropped.swap(m_Completions);
  m_Changed.NotifyAll();
}

void MobileBroadbandService::WaitForCompletions() {
  std::unique_lock lock(m_Mutex);
  m_Changed.Wait(lock, [this] { return m_Completions.empty() && !m_Completing; });
}

milliseconds MobileBroadbandService::Now() const {
  if (behaviour.virtualNow) return behaviour.virtualNow();
  return std::chrono::ceil<milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

void MobileBroadbandService::RunFirstCompletion(std::unique_lock<Lock>& lock) {
  auto completion = m_Completions.extract(m_Completions.begin());
  m_Completing = true;
  lock.unlock();
  completion.mapped()();
  // What the completion holds is released outside the lock and before anybody hears that it is over.
  completion = {};
  lock.lock();
  m_Completing = false;
  m_Changed.NotifyAll();
}

}  // namespace simulator
