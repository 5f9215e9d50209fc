#include "simulator/mobile_broadband/class_registration.h"

#include <utility>

#include <wrl/client.h>

namespace simulator {

ClassFactory::ClassFactory(Service service, std::string call, Make make)
    : m_Service(std::move(service)), m_Call(std::move(call)), m_Make(make) {}

HRESULT ClassFactory::QueryInterface(REFIID iid, void** object) {
  const bool known = iid == __uuidof(IUnknown) || iid == __uuidof(IClassFactory);
  *object = known ? static_cast<IClassFactory*>(this) : nullptr;
  return known ? S_OK : E_NOINTERFACE;
}

HRESULT ClassFactory::CreateInstance(IUnknown* outer, REFIID iid, void** object) {
  *object = nullptr;
  if (outer != nullptr) return CLASS_E_NOAGGREGATION;
  const HRESULT failure = m_Service->Enter(m_Call);
  if (FAILED(failure)) return failure;
  // Not Attach: mingw-w64's takes a reference of its own.
  Microsoft::WRL::ComPtr<IUnknown> made;
  *made.GetAddressOf() = m_Make(m_Service);
  return made->QueryInterface(iid, object);
}

ClassRegistration::ClassRegistration(REFCLSID classId, IClassFactory& factory)
    : m_Result(
          ::CoRegisterClassObject(classId, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &m_Cookie)) {}

ClassRegistration::~ClassRegistration() {
  if (SUCCEEDED(m_Result)) ::CoRevokeClassObject(m_Cookie);
}

}  // namespace simulator
