#include "simulator/mobile_broadband/device_services.h"

#include <algorithm>
#include <string>
#include <utility>

#include <olectl.h>

#include <wrl/client.h>

#include "download/mobilebroadband.h"
#include "simulator/mobile_broadband/automation.h"
#include "simulator/mobile_broadband/device_service.h"
#include "simulator/mobile_broadband/service_object.h"

using Microsoft::WRL::ComPtr;

namespace simulator {

namespace {

constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070490);
constexpr ULONG kLongestData = 4096;

class DeviceServicesContext final : public ServiceObject<IMbnDeviceServicesContext> {
 public:
  DeviceServicesContext(Service service, std::wstring interfaceId)
      : ServiceObject(std::move(service)), m_InterfaceId(std::move(interfaceId)) {}

  HRESULT STDMETHODCALLTYPE EnumerateDeviceServices(SAFEARRAY** deviceServices) override {
    return HandOut("EnumerateDeviceServices", deviceServices, [this] { return ListOfServices(); });
  }
  HRESULT STDMETHODCALLTYPE GetDeviceService(BSTR id, IMbnDeviceService** deviceService) override {
    const auto& known = TheService().behaviour.deviceServices;
    const bool found = std::ranges::find(known, TextOf(id)) != known.end();
    const HRESULT result = HandOut("GetDeviceService", deviceService, [&]() -> IMbnDeviceService* {
      return found ? NewDeviceService(SharedService(), m_InterfaceId, std::wstring(TextOf(id))) : nullptr;
    });
    return SUCCEEDED(result) && !found ? kNotFound : result;
  }
  HRESULT STDMETHODCALLTYPE get_MaxCommandSize(ULONG* size) override {
    *size = kLongestData;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_MaxDataSize(ULONG* size) override {
    *size = kLongestData;
    return S_OK;
  }

 private:
  SAFEARRAY* ListOfServices() const {
    const auto& ids = TheService().behaviour.deviceServices;
    SAFEARRAY* array = NewDeviceServiceArray(static_cast<ULONG>(ids.size()),
                                             TheService().behaviour.deviceServicesCarryRecordInfo);
    void* data = nullptr;
    if (array == nullptr || FAILED(::SafeArrayAccessData(array, &data))) return array;
    std::ranges::transform(ids, static_cast<MBN_DEVICE_SERVICE*>(data), [](const std::wstring& id) {
      return MBN_DEVICE_SERVICE{id.empty() ? nullptr : NewBstr(id), VARIANT_TRUE, VARIANT_TRUE};
    });
    ::SafeArrayUnaccessData(array);
    return array;
  }

  std::wstring m_InterfaceId;
};

class ConnectionPoint final : public ServiceObject<IConnectionPoint> {
 public:
  ConnectionPoint(Service service, ComPtr<IConnectionPointContainer> container)
      : ServiceObject(std::move(service)), m_Container(std::move(container)) {}

  HRESULT STDMETHODCALLTYPE Advise(IUnknown* unknown, DWORD* cookie) override {
    *cookie = 0;
    const HRESULT failure = TheService().Enter("Advise");
    if (FAILED(failure)) return failure;
    ComPtr<IMbnDeviceServicesEvents> sink;
    if (FAILED(unknown->QueryInterface(IID_PPV_ARGS(sink.GetAddressOf())))) return CONNECT_E_CANNOTCONNECT;
    *cookie = TheService().Advise(std::move(sink));
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override {
    const HRESULT failure = TheService().Enter("Unadvise");
    return FAILED(failure) ? failure : TheService().Unadvise(cookie);
  }
  HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID* iid) override {
    *iid = __uuidof(IMbnDeviceServicesEvents);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer** container) override {
    return m_Container.CopyTo(container);
  }
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections**) override { return E_NOTIMPL; }

 private:
  ComPtr<IConnectionPointContainer> m_Container;
};

class DeviceServicesManager final
    : public ServiceObject<IMbnDeviceServicesManager, IConnectionPointContainer> {
 public:
  explicit DeviceServicesManager(Service service) : ServiceObject(std::move(service)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (iid == __uuidof(IConnectionPointContainer)) {
      constexpr char kCall[] = "QueryInterface(IConnectionPointContainer)";
      const HRESULT result = TheService().Enter(kCall);
      if (FAILED(result) || TheService().IsEmptyHanded(kCall)) return result;
    }
    return ServiceObject::QueryInterface(iid, object);
  }
  HRESULT STDMETHODCALLTYPE GetDeviceServicesContext(BSTR interfaceId,
                                                     IMbnDeviceServicesContext** context) override {
    const auto& known = TheService().behaviour.interfaces;
    const bool found =
        TheService().ModemIsThere() && std::ranges::find(known, TextOf(interfaceId)) != known.end();
    const HRESULT result = HandOut("GetDeviceServicesContext", context, [&]() -> IMbnDeviceServicesContext* {
      return found ? new DeviceServicesContext(SharedService(), std::wstring(TextOf(interfaceId))) : nullptr;
    });
    return SUCCEEDED(result) && !found ? kNotFound : result;
  }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** point) override {
    const bool found = iid == __uuidof(IMbnDeviceServicesEvents);
    const HRESULT result = HandOut("FindConnectionPoint", point, [&]() -> IConnectionPoint* {
      return found ? new ConnectionPoint(SharedService(), this) : nullptr;
    });
    return SUCCEEDED(result) && !found ? CONNECT_E_NOCONNECTION : result;
  }
  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints**) override { return E_NOTIMPL; }
};

}  // namespace

IUnknown* NewDeviceServicesManager(const Service& service) {
  return static_cast<IMbnDeviceServicesManager*>(new DeviceServicesManager(service));
}

}  // namespace simulator
