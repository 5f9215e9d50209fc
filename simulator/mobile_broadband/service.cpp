#include "simulator/mobile_broadband/service.h"

#include <utility>

#include <olectl.h>

#include "simulator/working_threads.h"

using Microsoft::WRL::ComPtr;
using std::chrono::milliseconds;

namespace simulator {

namespace {

/// How often a foreign clock is looked at.
constexpr milliseconds kLookPeriod{2};

}  // namespace

HRESULT MobileBroadbandService::Enter(const std::string& call) {
  {
    const std::lock_guard lock(m_mutex);
    m_calls.push_back(call);
  }
  if (behaviour.onCall) behaviour.onCall(call);
  const auto failure = behaviour.failures.find(call);
  return failure == behaviour.failures.end() ? S_OK : failure->second;
}

std::vector<std::string> MobileBroadbandService::Calls() const {
  const std::lock_guard lock(m_mutex);
  return m_calls;
}

void MobileBroadbandService::RecordPayload(std::vector<BYTE> payload) {
  const std::lock_guard lock(m_mutex);
  m_payloads.push_back(std::move(payload));
}

std::vector<std::vector<BYTE>> MobileBroadbandService::Payloads() const {
  const std::lock_guard lock(m_mutex);
  return m_payloads;
}

void MobileBroadbandService::ForgetCalls() {
  const std::lock_guard lock(m_mutex);
  std::vector<std::string>().swap(m_calls);
  std::vector<std::vector<BYTE>>().swap(m_payloads);
}

DWORD MobileBroadbandService::Advise(ComPtr<IMbnDeviceServicesEvents> sink) {
  const std::lock_guard lock(m_mutex);
  m_sinks.emplace(++m_lastCookie, std::move(sink));
  return m_lastCookie;
}

HRESULT MobileBroadbandService::Unadvise(DWORD cookie) {
  decltype(m_sinks)::node_type sink;
  const std::lock_guard lock(m_mutex);
  sink = m_sinks.extract(cookie);
  return sink.empty() ? CONNECT_E_NOCONNECTION : S_OK;
}

int MobileBroadbandService::AdvisedSinks() const {
  const std::lock_guard lock(m_mutex);
  return static_cast<int>(m_sinks.size());
}

void MobileBroadbandService::CallSinks(const std::function<void(IMbnDeviceServicesEvents&)>& notification) {
  std::vector<ComPtr<IMbnDeviceServicesEvents>> sinks;
  {
    const std::lock_guard lock(m_mutex);
    for (const auto& [cookie, sink] : m_sinks) sinks.push_back(sink);
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
  const std::lock_guard lock(m_mutex);
  m_completions.emplace(Now() + delay, std::move(completion));
  m_changed.NotifyAll();
}

void MobileBroadbandService::HangInFirstRelease() {
  if (!behaviour.firstReleaseHangs || ::GetCurrentThreadId() == m_ownThread) return;
  if (m_wasReleased.exchange(true)) return;
  // Time has to fly for the others while this thread hangs.
  const working_threads::Rest rest;
  std::unique_lock lock(m_mutex);
  m_changed.Wait(lock, [this] { return m_stopped; });
}

void MobileBroadbandService::RunCompletions() {
  m_ownThread = ::GetCurrentThreadId();
  std::unique_lock lock(m_mutex);
  while (!m_stopped) {
    if (m_completions.empty()) {
      m_changed.Wait(lock);
      continue;
    }
    const milliseconds left = m_completions.begin()->first - Now();
    if (left > milliseconds::zero()) {
      m_changed.WaitFor(lock, behaviour.virtualNow ? kLookPeriod : left);
      continue;
    }
    RunFirstCompletion(lock);
  }
}

void MobileBroadbandService::Stop() {
  std::multimap<milliseconds, std::function<void()>> dropped;
  const std::lock_guard lock(m_mutex);
  m_stopped = true;
  dropped.swap(m_completions);
  m_changed.NotifyAll();
}

void MobileBroadbandService::WaitForCompletions() {
  std::unique_lock lock(m_mutex);
  m_changed.Wait(lock, [this] { return m_completions.empty() && !m_completing; });
}

milliseconds MobileBroadbandService::Now() const {
  if (behaviour.virtualNow) return behaviour.virtualNow();
  return std::chrono::ceil<milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

void MobileBroadbandService::RunFirstCompletion(std::unique_lock<Lock>& lock) {
  auto completion = m_completions.extract(m_completions.begin());
  m_completing = true;
  lock.unlock();
  completion.mapped()();
  // What the completion holds is released outside the lock and before anybody hears that it is over.
  completion = {};
  lock.lock();
  m_completing = false;
  m_changed.NotifyAll();
}

}  // namespace simulator
