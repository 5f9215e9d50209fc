#include "simulator/mobile_broadband/interfaces.h"

#include <string>
#include <utility>
#include <vector>

#include "download/mobilebroadband.h"
#include "simulator/mobile_broadband/automation.h"
#include "simulator/mobile_broadband/service_object.h"
#include "simulator/mobile_broadband/unplayed_calls.h"

namespace simulator {

namespace {

class BroadbandInterface final : public UnplayedInterfaceCalls<ServiceObject<IMbnInterface>> {
 public:
  BroadbandInterface(Service service, std::wstring id)
      : UnplayedInterfaceCalls(std::move(service)), m_Id(std::move(id)) {}

  HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* id) override {
    return HandOut("get_InterfaceID", id, [this] { return NewBstr(m_Id); });
  }

 private:
  std::wstring m_Id;
};

class InterfaceManager final : public ServiceObject<IMbnInterfaceManager> {
 public:
  explicit InterfaceManager(Service service) : ServiceObject(std::move(service)) {}

  HRESULT STDMETHODCALLTYPE GetInterface(LPCWSTR, IMbnInterface**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetInterfaces(SAFEARRAY** interfaces) override {
    return HandOut("GetInterfaces", interfaces, [this] { return ListOfInterfaces(); });
  }

 private:
  SAFEARRAY* ListOfInterfaces() const {
    std::vector<IUnknown*> interfaces;
    if (TheService().ModemIsThere()) {
      for (const auto& id : TheService().behaviour.interfaces) {
        // The array takes over the reference; an empty id stands for an element that holds nothing.
        interfaces.push_back(
            id.empty() ? nullptr : Announced<IMbnInterface>(new BroadbandInterface(SharedService(), id)));
      }
    }
    return NewArray(VT_UNKNOWN, interfaces);
  }
};

}  // namespace

IUnknown* NewInterfaceManager(const Service& service) {
  return new InterfaceManager(service);
}

}  // namespace simulator
