#include "simulator/mobile_broadband.h"

#include <algorithm>
#include <future>
#include <stdexcept>
#include <utility>

#include "simulator/mobile_broadband/class_registration.h"
#include "simulator/mobile_broadband/device_services.h"
#include "simulator/mobile_broadband/interfaces.h"
#include "simulator/mobile_broadband/service.h"

namespace simulator {

namespace {

/// The service's thread: registers the classes, tells how that went, completes requests until the end.
void Serve(const Service& service, std::promise<HRESULT> started) {
  const HRESULT entered = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (FAILED(entered)) return started.set_value(entered);
  {
    ClassFactory interfaceFactory(service, "MbnInterfaceManager", &NewInterfaceManager);
    ClassFactory servicesFactory(service, "MbnDeviceServicesManager", &NewDeviceServicesManager);
    const ClassRegistration interfaceClass(__uuidof(MbnInterfaceManager), interfaceFactory);
    const ClassRegistration servicesClass(__uuidof(MbnDeviceServicesManager), servicesFactory);
    started.set_value(FAILED(interfaceClass.Result()) ? interfaceClass.Result() : servicesClass.Result());
    service->RunCompletions();
  }
  ::CoUninitialize();
}

}  // namespace

SimulatedMobileBroadband::SimulatedMobileBroadband(MobileBroadbandBehaviour behaviour)
    : m_service(std::make_shared<MobileBroadbandService>()) {
  m_service->behaviour = std::move(behaviour);
  std::promise<HRESULT> started;
  std::future<HRESULT> start = started.get_future();
  m_thread = std::thread(Serve, m_service, std::move(started));
  if (SUCCEEDED(start.get())) return;
  m_service->Stop();
  m_thread.join();
  throw std::runtime_error("the simulated Mobile Broadband classes could not be registered");
}

SimulatedMobileBroadband::~SimulatedMobileBroadband() {
  m_service->Stop();
  m_thread.join();
}

MobileBroadbandBehaviour& SimulatedMobileBroadband::Behaviour() {
  return m_service->behaviour;
}

std::vector<std::string> SimulatedMobileBroadband::Calls() const {
  return m_service->Calls();
}

int SimulatedMobileBroadband::CallCount(const std::string& name) const {
  return static_cast<int>(std::ranges::count(m_service->Calls(), name));
}

std::vector<std::vector<BYTE>> SimulatedMobileBroadband::Payloads() const {
  return m_service->Payloads();
}

void SimulatedMobileBroadband::ForgetCalls() {
  m_service->ForgetCalls();
}

int SimulatedMobileBroadband::RebootCommands() const {
  return m_service->rebootCommands;
}

int SimulatedMobileBroadband::LiveObjects() const {
  return m_service->liveObjects;
}

int SimulatedMobileBroadband::AdvisedSinks() const {
  return m_service->AdvisedSinks();
}

void SimulatedMobileBroadband::Notify(const std::function<void(IMbnDeviceServicesEvents&)>& notification) {
  std::thread([&] { m_service->CallSinks(notification); }).join();
}

void SimulatedMobileBroadband::WaitForCompletions() {
  m_service->WaitForCompletions();
}

}  // namespace simulator
