#pragma once

#include <windows.h>

#include <atomic>
#include <string>
#include <type_traits>
#include <utility>

#include "simulator/mobile_broadband/interface_calls.h"
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
    if (iid == __uuidof(IUnknown) || iid == __uuidof(First)) *object = Announced<First>(this);
    ((iid == __uuidof(Rest) ? static_cast<void>(*object = Announced<Rest>(this)) : void()), ...);
    if (*object == nullptr) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_References; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --m_References;
    if (left == 0) delete this;
    return left;
  }

 protected:
  explicit ServiceObject(Service service) : m_Service(std::move(service)) { ++m_Service->liveObjects; }
  virtual ~ServiceObject() { --m_Service->liveObjects; }

  MobileBroadbandService& TheService() const { return *m_Service; }
  const Service& SharedService() const { return m_Service; }

  /// Records a call that hands out one object, and makes that object unless the behaviour is against it.
  template <typename Interface, typename Make>
  HRESULT HandOut(const std::string& call, Interface** out, const Make& make) {
    *out = nullptr;
    const HRESULT result = m_Service->Enter(call);
    if (SUCCEEDED(result) && !m_Service->IsEmptyHanded(call)) *out = Announced<Interface>(make());
    return result;
  }

  /// Tells whoever wants to know of an object that the caller gets.
  template <typename Interface>
  Interface* Announced(Interface* object) const {
    if constexpr (std::is_base_of_v<IUnknown, Interface>) {
      const auto& tell = m_Service->behaviour.onHandOut;
      if (tell && object != nullptr) tell(CallsOf<Interface>(), object);
    }
    return object;
  }

 private:
  Service m_Service;
  std::atomic<ULONG> m_References{1};
};

}  // namespace simulator
