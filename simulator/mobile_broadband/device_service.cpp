#include "simulator/mobile_broadband/device_service.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <utility>
#include <vector>

#include <wrl/client.h>

#include "simulator/mobile_broadband/automation.h"
#include "simulator/mobile_broadband/service_object.h"

using Microsoft::WRL::ComPtr;

namespace simulator {

namespace {

constexpr HRESULT kNoCommandSession = static_cast<HRESULT>(0x8007139F);  // ERROR_INVALID_STATE
constexpr ULONG kRebootCommand = 1;
constexpr std::array<BYTE, 4> kRebootPayload{0x01, 0x00, 0x00, 0x00};

class DeviceService final : public ServiceObject<IMbnDeviceService> {
 public:
  DeviceService(Service service, std::wstring interfaceId, std::wstring id)
      : ServiceObject(std::move(service)), m_InterfaceId(std::move(interfaceId)), m_Id(std::move(id)) {}

  ULONG STDMETHODCALLTYPE Release() override {
    TheService().HangInFirstRelease();
    return ServiceObject::Release();
  }
  HRESULT STDMETHODCALLTYPE QuerySupportedCommands(ULONG* requestID) override {
    return Request("QuerySupportedCommands", TheService().behaviour.querySupportedCommands, requestID,
                   [this](IMbnDeviceServicesEvents& sink, HRESULT status, ULONG id) {
                     const auto& commands = TheService().behaviour.supportedCommands;
                     SAFEARRAY* list = commands ? NewArray(VT_UI4, *commands) : nullptr;
                     sink.OnQuerySupportedCommandsComplete(this, list, status, id);
                     if (list != nullptr) ::SafeArrayDestroy(list);
                   });
  }
  HRESULT STDMETHODCALLTYPE OpenCommandSession(ULONG* requestID) override {
    return Request("OpenCommandSession", TheService().behaviour.openCommandSession, requestID,
                   [this](IMbnDeviceServicesEvents& sink, HRESULT status, ULONG id) {
                     m_CommandSessionIsOpen = SUCCEEDED(status);
                     sink.OnOpenCommandSessionComplete(this, status, id);
                   });
  }
  HRESULT STDMETHODCALLTYPE SetCommand(ULONG commandID, SAFEARRAY* data, ULONG* requestID) override {
    const std::vector<BYTE> payload = BytesOf(data);
    TheService().RecordPayload(payload);
    // Unlike an answer that a test asks for, this is what the service would say.
    if (!m_CommandSessionIsOpen) {
      TheService().Enter("SetCommand");
      return kNoCommandSession;
    }
    const HRESULT result = Request("SetCommand", TheService().behaviour.setCommand, requestID,
                                   [this](IMbnDeviceServicesEvents& sink, HRESULT status, ULONG id) {
                                     SAFEARRAY* response = NewArray(VT_UI1, TheService().behaviour.response);
                                     sink.OnSetCommandComplete(this, kRebootCommand, response, status, id);
                                     ::SafeArrayDestroy(response);
                                   });
    const bool taken = result == S_OK || result == E_PENDING;
    if (taken && commandID == kRebootCommand && std::ranges::equal(payload, kRebootPayload)) Reboot();
    return result;
  }

  HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* interfaceId) override {
    *interfaceId = NewBstr(m_InterfaceId);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_DeviceServiceID(BSTR* id) override {
    *id = NewBstr(m_Id);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_IsCommandSessionOpen(BOOL* value) override {
    *value = TheService().behaviour.commandSessionIsOpen || m_CommandSessionIsOpen;
    return TheService().Enter("get_IsCommandSessionOpen");
  }
  HRESULT STDMETHODCALLTYPE get_IsDataSessionOpen(BOOL* value) override {
    *value = FALSE;
    return TheService().Enter("get_IsDataSessionOpen");
  }

  HRESULT STDMETHODCALLTYPE CloseCommandSession(ULONG*) override {
    return Unsupported("CloseCommandSession");
  }
  HRESULT STDMETHODCALLTYPE QueryCommand(ULONG, SAFEARRAY*, ULONG*) override {
    return Unsupported("QueryCommand");
  }
  HRESULT STDMETHODCALLTYPE OpenDataSession(ULONG*) override { return Unsupported("OpenDataSession"); }
  HRESULT STDMETHODCALLTYPE CloseDataSession(ULONG*) override { return Unsupported("CloseDataSession"); }
  HRESULT STDMETHODCALLTYPE WriteData(SAFEARRAY*, ULONG*) override { return Unsupported("WriteData"); }

 private:
  using Completion = std::function<void(IMbnDeviceServicesEvents&, HRESULT status, ULONG requestId)>;

  HRESULT Request(const char* call, const SimulatedRequest& request, ULONG* requestID,
                  const Completion& complete) {
    *requestID = TheService().NextRequestId();
    const HRESULT failure = TheService().Enter(call);
    if (FAILED(failure)) return failure;
    TheService().CompleteLater(
        request, [self = ComPtr<DeviceService>(this), complete, status = request.status, id = *requestID] {
          self->TheService().CallSinks([&](IMbnDeviceServicesEvents& sink) { complete(sink, status, id); });
        });
    return request.answer;
  }

  void Reboot() {
    ++TheService().rebootCommands;
    if (TheService().behaviour.onRebootCommand) TheService().behaviour.onRebootCommand();
  }

  HRESULT Unsupported(const char* call) {
    TheService().Enter(call);
    return E_NOTIMPL;
  }

  std::wstring m_InterfaceId;
  std::wstring m_Id;
  std::atomic<bool> m_CommandSessionIsOpen{false};
};

}  // namespace

IMbnDeviceService* NewDeviceService(Service service, std::wstring interfaceId, std::wstring id) {
  return new DeviceService(std::move(service), std::move(interfaceId), std::move(id));
}

}  // namespace simulator
