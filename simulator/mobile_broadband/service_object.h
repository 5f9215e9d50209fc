#pragma once

#include <windows.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "simulator/mobile_broadband/service.h"

#if defined(__GNUC__)
// The interfaces have no destructor: one would take a slot.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

namespace simulator {

/// IUnknown of the service's objects: born with one reference, deleted with the last.
template <typename First, typename... Rest>
class ServiceObject : public First, public Rest... {
 public:
  ServiceObject(const ServiceObject&) = delete;
  ServiceObject& operator=(const ServiceObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (iid == __uuidof(IUnknown) || iid == __uuidof(First)) *object = static_cast<First*>(this);
    ((iid == __uuidof(Rest) ? static_cast<void>(*object = static_cast<Rest*>(this)) : void()), ...);
    if (*object == nullptr) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --m_references;
    if (left == 0) delete this;
    return left;
  }

 protected:
  explicit ServiceObject(Service service) : m_service(std::move(service)) { ++m_service->liveObjects; }
  virtual ~ServiceObject() { --m_service->liveObjects; }

  MobileBroadbandService& TheService() const { return *m_service; }
  const Service& SharedService() const { return m_service; }

  /// Records a call that hands out one object, and makes that object unless the behaviour is against it.
  template <typename Interface, typename Make>
  HRESULT HandOut(const std::string& call, Interface** out, const Make& make) {
    *out = nullptr;
    const HRESULT result = m_service->Enter(call);
    if (SUCCEEDED(result) && !m_service->IsEmptyHanded(call)) *out = make();
    return result;
  }

 private:
  Service m_service;
  std::atomic<ULONG> m_references{1};
};

}  // namespace simulator
