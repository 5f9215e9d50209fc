#include "simulator/mobile_broadband/class_registration.h"

#include <utility>

#include <wrl/client.h>

namespace simulator {

ClassFactory::ClassFactory(Service service, std::string call, Make make)
    : m_service(std::move(service)), m_call(std::move(call)), m_make(make) {}

HRESULT ClassFactory::QueryInterface(REFIID iid, void** object) {
  const bool known = iid == __uuidof(IUnknown) || iid == __uuidof(IClassFactory);
  *object = known ? static_cast<IClassFactory*>(this) : nullptr;
  return known ? S_OK : E_NOINTERFACE;
}

HRESULT ClassFactory::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  *object = nullptr;
  if (outer != nullptr) return CLASS_E_NOAGGREGATION;
  const HRESULT failure = m_service->Enter(m_call);
  if (FAILED(failure)) return failure;
  // Not Attach: mingw-w64's takes a reference of its own.
  Microsoft::WRL::ComPtr<IUnknown> made;
  *made.GetAddressOf() = m_make(m_service);
  return made->QueryInterface(iid, object);
}

ClassRegistration::ClassRegistration(REFCLSID classId, IClassFactory& factory)
    : m_result(
          ::CoRegisterClassObject(classId, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &m_cookie)) {}

ClassRegistration::~ClassRegistration() {
  if (SUCCEEDED(m_result)) ::CoRevokeClassObject(m_cookie);
}

}  // namespace simulator
