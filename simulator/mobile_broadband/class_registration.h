#pragma once

#include <windows.h>

#include <objbase.h>
#include <unknwn.h>

#include <string>

#include "simulator/mobile_broadband/service.h"

#if defined(__GNUC__)
// The interfaces have no destructor: one would take a slot.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

namespace simulator {

/// Makes the objects of one class. Belongs to COM, and is not among the objects handed out.
class ClassFactory final : public IClassFactory {
 public:
  /// An object with one reference, which is the caller's.
  using Make = IUnknown* (*)(const Service& service);

  /// @param call the name under which a creation is recorded, and may fail.
  ClassFactory(Service service, std::string call, Make make);

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
  // Lives in the service's thread, longer than its registration.
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }

  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override;
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  Service m_Service;
  std::string m_Call;
  Make m_Make;
};

/// A class object's registration with COM in the calling thread's apartment.
class ClassRegistration {
 public:
  ClassRegistration(REFCLSID classId, IClassFactory& factory);
  ~ClassRegistration();
  ClassRegistration(const ClassRegistration&) = delete;
  ClassRegistration& operator=(const ClassRegistration&) = delete;

  HRESULT Result() const { return m_Result; }

 private:
  DWORD m_Cookie = 0;
  HRESULT m_Result;
};

}  // namespace simulator
