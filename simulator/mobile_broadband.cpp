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
    : m_Service(std::make_shared<MobileBroadbandService>()) {
  m_Service->behaviour = std::move(behaviour);
  std::promise<HRESULT> started;
  std::future<HRESULT> start = started.get_future();
  m_Thread = std::thread(Serve, m_Service, std::move(started));
  if (SUCCEEDED(start.get())) return;
  m_Service->Stop();
  m_Thread.join();
  throw std::runtime_error("the simulated Mobile Broadband classes could not be registered");
}

SimulatedMobileBroadband::~SimulatedMobileBroadband() {
  m_Service->Stop();
  m_Thread.join();
}

MobileBroadbandBehaviour& SimulatedMobileBroadband::Behaviour() {
  return m_Service->behaviour;
}

std::vector<std::string> SimulatedMobileBroadband::Calls() const {
  return m_Service->Calls();
}

int SimulatedMobileBroadband::CallCount(const std::string& name) const {
  return static_cast<int>(std::ranges::count(m_Service->Calls(), name));
}

std::vector<std::vector<BYTE>> SimulatedMobileBroadband::Payloads() const {
  return m_Service->Payloads();
}

void SimulatedMobileBroadband::ForgetCalls() {
  m_Service->ForgetCalls();
}

int SimulatedMobileBroadband::RebootCommands() const {
  return m_Service->rebootCommands;
}

int SimulatedMobileBroadband::LiveObjects() const {
  return m_Service->liveObjects;
}

int SimulatedMobileBroadband::AdvisedSinks() const {
  return m_Service->AdvisedSinks();
}

void SimulatedMobileBroadband::Notify(const std::function<void(IMbnDeviceServicesEvents&)>& notification) {
  std::thread([&] { m_Service->CallSinks(notification); }).join();
}

void SimulatedMobileBroadband::WaitForCompletions() {
  m_Service->WaitForCompletions();
}

}  // namespace simulator
