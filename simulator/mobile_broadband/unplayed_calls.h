#pragma once

#include "download/mobilebroadband.h"

#if defined(__GNUC__)
// The interfaces have no destructor: one would take a slot.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

namespace simulator {

/// The calls of IMbnInterface that the product never makes. What derives from it plays the rest.
/// @tparam Base IMbnInterface, or a class that brings its IUnknown along.
template <typename Base>
class UnplayedInterfaceCalls : public Base {
 public:
  using Base::Base;
  UnplayedInterfaceCalls() = default;
  UnplayedInterfaceCalls(const UnplayedInterfaceCalls&) = delete;
  UnplayedInterfaceCalls& operator=(const UnplayedInterfaceCalls&) = delete;

  HRESULT STDMETHODCALLTYPE GetInterfaceCapability(MBN_INTERFACE_CAPS*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetSubscriberInformation(IMbnSubscriberInformation**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetReadyState(MBN_READY_STATE*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE InEmergencyMode(VARIANT_BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetHomeProvider(MBN_PROVIDER*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetPreferredProviders(SAFEARRAY**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetPreferredProviders(SAFEARRAY*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetVisibleProviders(ULONG*, SAFEARRAY**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE ScanNetwork(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetConnection(IMbnConnection**) override { return E_NOTIMPL; }

 protected:
  ~UnplayedInterfaceCalls() = default;
};

}  // namespace simulator

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
