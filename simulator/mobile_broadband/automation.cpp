#include "simulator/mobile_broadband/automation.h"

#include "download/mobilebroadband.h"

#if defined(__GNUC__)
// The interfaces have no destructor: one would take a slot.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

namespace simulator {

namespace {

/// Tells Automation how to clear and copy a MBN_DEVICE_SERVICE, as the type library does on Windows. Never
/// deleted.
class DeviceServiceRecordInfo final : public IRecordInfo {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (iid != __uuidof(IUnknown) && iid != __uuidof(IRecordInfo)) {
      *object = nullptr;
      return E_NOINTERFACE;
    }
    *object = static_cast<IRecordInfo*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }

  HRESULT STDMETHODCALLTYPE RecordInit(void* record) override {
    *static_cast<MBN_DEVICE_SERVICE*>(record) = {};
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE RecordClear(void* record) override {
    auto* service = static_cast<MBN_DEVICE_SERVICE*>(record);
    ::SysFreeString(service->deviceServiceID);
    service->deviceServiceID = nullptr;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE RecordCopy(void* from, void* to) override {
    RecordClear(to);
    const auto* service = static_cast<const MBN_DEVICE_SERVICE*>(from);
    auto* copy = static_cast<MBN_DEVICE_SERVICE*>(to);
    *copy = *service;
    copy->deviceServiceID = NewBstr(TextOf(service->deviceServiceID));
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetGuid(GUID* guid) override {
    *guid = {0x60436154, 0x3466, 0x48A4, {0x82, 0xE2, 0x9A, 0x46, 0x15, 0x27, 0xA8, 0xC5}};
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetSize(ULONG* size) override {
    *size = sizeof(MBN_DEVICE_SERVICE);
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE GetName(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetField(void*, LPCOLESTR, VARIANT*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetFieldNoCopy(void*, LPCOLESTR, VARIANT*, void**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE PutField(ULONG, void*, LPCOLESTR, VARIANT*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE PutFieldNoCopy(ULONG, void*, LPCOLESTR, VARIANT*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetFieldNames(ULONG*, BSTR*) override { return E_NOTIMPL; }
  BOOL STDMETHODCALLTYPE IsMatchingType(IRecordInfo* other) override { return other == this; }
  PVOID STDMETHODCALLTYPE RecordCreate() override { return nullptr; }
  HRESULT STDMETHODCALLTYPE RecordCreateCopy(void*, void**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE RecordDestroy(void*) override { return E_NOTIMPL; }
};

}  // namespace

BSTR NewBstr(std::wstring_view text) {
  return ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
}

std::wstring_view TextOf(BSTR text) {
  return {text, ::SysStringLen(text)};
}

std::vector<BYTE> BytesOf(SAFEARRAY* array) {
  VARTYPE type = VT_EMPTY;
  if (array == nullptr || ::SafeArrayGetDim(array) != 1) return {};
  if (FAILED(::SafeArrayGetVartype(array, &type)) || type != VT_UI1) return {};
  void* data = nullptr;
  if (FAILED(::SafeArrayAccessData(array, &data))) return {};
  const auto* bytes = static_cast<const BYTE*>(data);
  std::vector<BYTE> copy(bytes, bytes + array->rgsabound[0].cElements);
  ::SafeArrayUnaccessData(array);
  return copy;
}

SAFEARRAY* NewDeviceServiceArray(ULONG count, bool withRecordInfo) {
  SAFEARRAYBOUND bound{count, 0};
  if (withRecordInfo) {
    static DeviceServiceRecordInfo recordInfo;
    return ::SafeArrayCreateEx(VT_RECORD, 1, &bound, &recordInfo);
  }
  SAFEARRAY* array = nullptr;
  if (FAILED(::SafeArrayAllocDescriptor(1, &array))) return nullptr;
  array->cbElements = sizeof(MBN_DEVICE_SERVICE);
  array->rgsabound[0] = bound;
  ::SafeArrayAllocData(array);
  return array;
}

}  // namespace simulator
