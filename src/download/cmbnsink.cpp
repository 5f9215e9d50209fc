#include "download/cmbnsink.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "common/automation.h"
#include "common/handles.h"
#include "common/log.h"
#include "common/win32error.h"

using namespace corvel;

CMbnSinks* g_CMbnSinks = nullptr;
HANDLE g_Event_OnOpenCommandSessionComplete = nullptr;
HANDLE g_Event_OnQuerySupportedCommandsComplete = nullptr;
HANDLE g_Event_OnSetCommandComplete = nullptr;
HRESULT g_LastStatus = S_OK;
IMbnDeviceService* g_MbnDeviceService = nullptr;
IMbnConnection* g_MbnConnection = nullptr;
IMbnInterface* g_MbnInterface = nullptr;
IMbnRadio* g_MbnRadio = nullptr;
IMbnSignal* g_MbnSignal = nullptr;
std::atomic<ULONG> g_ulNumberSupportedCommands{0};
std::array<ULONG, 64> g_ulSupportedCommandIds{};
std::vector<BYTE> g_SetCommandResponse;
std::vector<BYTE> g_QueryCommandResponse;

namespace {

constexpr std::wstring_view kDisplayName = L"Unknown";

constexpr std::array<HANDLE*, 3> kEvents{
    &g_Event_OnOpenCommandSessionComplete,
    &g_Event_OnQuerySupportedCommandsComplete,
    &g_Event_OnSetCommandComplete,
};

/// Guards the process-wide records and events: no handler may set an event that is being closed.
SRWLOCK g_recordLock = SRWLOCK_INIT;

/// Takes an object out of its slot, with its reference.
template <typename Interface>
UniqueUnknown TakeOut(Interface*& slot) {
  return UniqueUnknown(std::exchange(slot, nullptr));
}

/// The low half of a pointer, which is all that "%x" prints.
unsigned LowHalf(const void* pointer) {
  return static_cast<unsigned>(reinterpret_cast<UINT_PTR>(pointer));
}

// These log for the handlers, under the handler's name.

void LogIds(const char* handler, SAFEARRAY* commandIds, const ArrayBounds& bounds) {
  LOG_TRACE_AS(handler, "\t  lLower:%d  lUpper:%d\n", static_cast<int>(bounds.lower),
               static_cast<int>(bounds.upper));
  for (const ULONG id : ArrayElements<ULONG>(commandIds)) {
    LOG_TRACE_AS(handler, "\t ulCommandId= %d\n", static_cast<int>(id));
  }
}

void LogCommandCompletion(const char* handler, ULONG requestId, ULONG responseId, HRESULT status) {
  LOG_TRACE_AS(handler, "\t *****requestID = %d\n", static_cast<int>(requestId));
  LOG_TRACE_AS(handler, "\t *****reponseID = %d\n", static_cast<int>(responseId));
  LOG_TRACE_AS(handler, "\t *****status = %x\n", static_cast<unsigned>(status));
}

/// A copy of the bytes, as long as the modem made them, after logging them. Empty when memory is exhausted.
std::vector<BYTE> LogBytes(const char* handler, SAFEARRAY* data) noexcept try {
  const ArrayElements<const BYTE> elements(data);
  std::vector<BYTE> bytes(elements.begin(), elements.end());
  LOG_TRACE_AS(handler, "\t Response = ");
  for (const BYTE byte : bytes) LOG_TRACE_AS(handler, "%02X ", byte);
  LOG_TRACE_AS(handler, "\t NumElements = %d\n", static_cast<int>(bytes.size()));
  return bytes;
} catch (...) {
  LOG_TRACE_AS(handler, "\t NumElements = %d\n", 0);
  return {};
}

UniqueBstr DeviceServiceIdOf(IMbnDeviceService* deviceService) {
  BSTR id = nullptr;
  if (deviceService != nullptr) deviceService->get_DeviceServiceID(&id);
  return UniqueBstr(id);
}

UniqueBstr InterfaceIdOf(IMbnInterface* mbnInterface) {
  BSTR id = nullptr;
  if (mbnInterface != nullptr) mbnInterface->get_InterfaceID(&id);
  return UniqueBstr(id);
}

}  // namespace

/// One call of a handler: counts as being inside the sink, and records what the notification brought. A
/// retired sink records nothing: what it hears may come after the last reader or meet a newer sink.
class CMbnSinks::Handling {
 public:
  explicit Handling(CMbnSinks& sink) : m_Sink(sink) { ++m_Sink.m_CallsInProgress; }
  ~Handling() { --m_Sink.m_CallsInProgress; }
  Handling(const Handling&) = delete;
  Handling& operator=(const Handling&) = delete;

  /// Replaces the last object of its kind, if there is a new one.
  template <typename Interface>
  HRESULT Keep(Interface*& slot, Interface* object) const {
    if (object == nullptr) return S_OK;
    object->AddRef();
    Interface* released = object;
    {
      const ScopedLock lock(g_recordLock);
      if (!m_Sink.m_Retired) released = std::exchange(slot, object);
    }
    if (released != nullptr) released->Release();
    return S_OK;
  }

  void Keep(std::vector<BYTE>& slot, std::vector<BYTE> bytes) const {
    const ScopedLock lock(g_recordLock);
    if (!m_Sink.m_Retired) slot.swap(bytes);
  }

  void KeepCount(std::size_t supportedCommands) const {
    const ScopedLock lock(g_recordLock);
    if (!m_Sink.m_Retired) g_ulNumberSupportedCommands = static_cast<ULONG>(supportedCommands);
  }

  /// Records the status of a completion, then sets its event, if it has one.
  HRESULT Completed(HRESULT status, const HANDLE* event = nullptr) const {
    const ScopedLock lock(g_recordLock);
    if (m_Sink.m_Retired) return S_OK;
    g_LastStatus = status;
    if (event != nullptr && *event != nullptr) ::SetEvent(*event);
    return S_OK;
  }

  /// Tells the client what it asked to be told.
  void Tell(ULONG kind, const UniqueBstr& id, const std::vector<BYTE>& bytes) const {
    m_Sink.m_Hooks.onNotification(kind, id == nullptr ? L"" : id.get(), bytes.data(),
                                  static_cast<ULONG>(bytes.size()));
  }

 private:
  CMbnSinks& m_Sink;
};

CMbnSinks::CMbnSinks() {
  for (HANDLE* event : kEvents) *event = nullptr;
  std::ranges::copy(kDisplayName, m_DisplayName.begin());
}

CMbnSinks::~CMbnSinks() = default;

HRESULT CMbnSinks::Initilazation() {
  const ScopedLock lock(g_recordLock);
  std::array<UniqueHandle, kEvents.size()> created;
  for (std::size_t i = 0; i < kEvents.size(); ++i) {
    if (*kEvents[i] != nullptr) continue;
    created[i].reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (created[i] == nullptr) return HResultFromWin32(::GetLastError());
  }
  for (std::size_t i = 0; i < kEvents.size(); ++i) {
    if (created[i] != nullptr) *kEvents[i] = created[i].release();
  }
  return S_OK;
}

HRESULT CMbnSinks::DeInitilazation() {
  const ScopedLock lock(g_recordLock);
  for (HANDLE* event : kEvents) UniqueHandle(std::exchange(*event, nullptr));
  return S_OK;
}

MbnKeptObjects CMbnSinks::Retire() {
  const ScopedLock lock(g_recordLock);
  m_Retired = true;
  return {TakeOut(g_MbnDeviceService), TakeOut(g_MbnConnection), TakeOut(g_MbnInterface), TakeOut(g_MbnRadio),
          TakeOut(g_MbnSignal)};
}

void CMbnSinks::Disconnect() {
  // A stub would hold a reference. Without one there is nothing to cut off, and looking for it would count
  // and log references that are nobody's.
  if (!AddRefToOthers()) return;
  ::CoDisconnectObject(static_cast<IMbnRadioEvents*>(this), 0);
  Release();
}

/// Adds a reference if there are any. @return whether there are.
bool CMbnSinks::AddRefToOthers() {
  ULONG count = m_References;
  while (count != 0 && !m_References.compare_exchange_weak(count, count + 1)) continue;
  return count != 0;
}

HRESULT CMbnSinks::QueryInterface(REFIID iid, void** object) {
  if (object == nullptr) return E_POINTER;
  const struct {
    REFIID iid;
    void* base;
  } bases[] = {
      {__uuidof(IUnknown), static_cast<IMbnRadioEvents*>(this)},
      {__uuidof(IMbnRadioEvents), static_cast<IMbnRadioEvents*>(this)},
      {__uuidof(IMbnRegistrationEvents), static_cast<IMbnRegistrationEvents*>(this)},
      {__uuidof(IMbnSignalEvents), static_cast<IMbnSignalEvents*>(this)},
      {__uuidof(IMbnInterfaceEvents), static_cast<IMbnInterfaceEvents*>(this)},
      {__uuidof(IMbnInterfaceManagerEvents), static_cast<IMbnInterfaceManagerEvents*>(this)},
      {__uuidof(IMbnConnectionManagerEvents), static_cast<IMbnConnectionManagerEvents*>(this)},
      {__uuidof(IMbnConnectionEvents), static_cast<IMbnConnectionEvents*>(this)},
      {__uuidof(IMbnSmsEvents), static_cast<IMbnSmsEvents*>(this)},
      {__uuidof(IMbnDeviceServicesEvents), static_cast<IMbnDeviceServicesEvents*>(this)},
      {__uuidof(IMbnVendorSpecificEvents), static_cast<IMbnVendorSpecificEvents*>(this)},
  };
  const auto* found = std::ranges::find_if(bases, [&](const auto& base) { return base.iid == iid; });
  *object = found == std::end(bases) ? nullptr : found->base;
  if (*object == nullptr) return E_NOINTERFACE;
  // A caller who asks a retired sink cuts it off: nothing is set any more.
  if (iid == __uuidof(IUnknown) && !m_Retired) {
    LOG_TRACE("\t QueryInterface, set CMbnSinks as nofity object");
  }
  AddRef();
  return S_OK;
}

ULONG CMbnSinks::AddRef() {
  return ++m_References;
}

ULONG CMbnSinks::Release() {
  const ULONG left = --m_References;
  // The sink stays: its owner deletes it when the notifications have been called off.
  if (left == 0) LOG_TRACE("\t ***** CMbnSinks::Release() ulNewRef=0\n");
  return left;
}

HRESULT CMbnSinks::OnRadioStateChange(IMbnRadio* newInterface) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnRadioStateChange Event\n");
  return handling.Keep(g_MbnRadio, newInterface);
}

HRESULT CMbnSinks::OnSetSoftwareRadioStateComplete(IMbnRadio* newInterface, ULONG requestID, HRESULT status) {
  const Handling handling(*this);
  LOG_TRACE("\t ***Received OnSetSoftwareRadioStateComplete Event for requestID = %d\n",
            static_cast<int>(requestID));
  handling.Keep(g_MbnRadio, newInterface);
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnRegisterModeAvailable(IMbnRegistration*) {
  LOG_TRACE("\t *****Received OnRegisterModeAvailable Event\n");
  return S_OK;
}

HRESULT CMbnSinks::OnRegisterStateChange(IMbnRegistration*) {
  LOG_TRACE("\t *****Received OnRegisterStateChange Event\n");
  return S_OK;
}

HRESULT CMbnSinks::OnPacketServiceStateChange(IMbnRegistration*) {
  LOG_TRACE("\t *****Received OnPacketServiceStateChange Event\n");
  return S_OK;
}

HRESULT CMbnSinks::OnSetRegisterModeComplete(IMbnRegistration*, ULONG, HRESULT status) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnSetRegisterModeComplete Event\n");
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnSignalStateChange(IMbnSignal* newInterface) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnSignalStateChange Event\n");
  return handling.Keep(g_MbnSignal, newInterface);
}

HRESULT CMbnSinks::OnInterfaceCapabilityAvailable(IMbnInterface* newInterface) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnInterfaceCapabilityAvailable Event\n");
  return handling.Keep(g_MbnInterface, newInterface);
}

HRESULT CMbnSinks::OnSubscriberInformationChange(IMbnInterface* newInterface) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnSubscriberInformationChange Event\n");
  return handling.Keep(g_MbnInterface, newInterface);
}

HRESULT CMbnSinks::OnReadyStateChange(IMbnInterface* newInterface) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnReadyStateChange Event\n");
  return handling.Keep(g_MbnInterface, newInterface);
}

HRESULT CMbnSinks::OnEmergencyModeChange(IMbnInterface* newInterface) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnEmergencyModeChange Event\n");
  return handling.Keep(g_MbnInterface, newInterface);
}

HRESULT CMbnSinks::OnHomeProviderAvailable(IMbnInterface* newInterface) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnHomeProviderAvailable Event\n");
  return handling.Keep(g_MbnInterface, newInterface);
}

HRESULT CMbnSinks::OnPreferredProvidersChange(IMbnInterface* newInterface) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnPreferredProvidersChange Event\n");
  return handling.Keep(g_MbnInterface, newInterface);
}

HRESULT CMbnSinks::OnSetPreferredProvidersComplete(IMbnInterface* newInterface, ULONG, HRESULT status) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnSetPreferredProvidersComplete Event\n");
  handling.Keep(g_MbnInterface, newInterface);
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnScanNetworkComplete(IMbnInterface* newInterface, ULONG, HRESULT status) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnScanNetworkComplete Event\n");
  handling.Keep(g_MbnInterface, newInterface);
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnInterfaceArrival(IMbnInterface* newInterface) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnInterfaceArrival Event\n");
  if (m_Hooks.onInterfaceArrival != nullptr) m_Hooks.onInterfaceArrival(newInterface, 1);
  if (m_Hooks.wantedNotifications >= kInterfaceArrivalNotification && m_Hooks.onNotification != nullptr) {
    handling.Tell(kInterfaceArrivalNotification, InterfaceIdOf(newInterface), {});
  }
  return S_OK;
}

HRESULT CMbnSinks::OnInterfaceRemoval(IMbnInterface*) {
  LOG_TRACE("\t *****Received OnInterfaceRemoval Event\n");
  return S_OK;
}

HRESULT CMbnSinks::OnConnectionArrival(IMbnConnection* newConnection) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnConnectionArrival Event\n");
  return handling.Keep(g_MbnConnection, newConnection);
}

HRESULT CMbnSinks::OnConnectionRemoval(IMbnConnection* oldConnection) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnConnectionRemoval Event\n");
  return handling.Keep(g_MbnConnection, oldConnection);
}

HRESULT CMbnSinks::OnConnectComplete(IMbnConnection* newConnection, ULONG, HRESULT status) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnConnectComplete Event, Status=%x\n", static_cast<unsigned>(status));
  handling.Keep(g_MbnConnection, newConnection);
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnDisconnectComplete(IMbnConnection* newConnection, ULONG, HRESULT status) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnDisconnectComplete Event\n");
  handling.Keep(g_MbnConnection, newConnection);
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnConnectStateChange(IMbnConnection* newConnection) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnConnectStateChange Event\n");
  return handling.Keep(g_MbnConnection, newConnection);
}

HRESULT CMbnSinks::OnVoiceCallStateChange(IMbnConnection* newConnection) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnVoiceCallStateChange Event\n");
  return handling.Keep(g_MbnConnection, newConnection);
}

HRESULT CMbnSinks::OnSmsConfigurationChange(IMbnSms*) {
  return S_OK;
}

HRESULT CMbnSinks::OnSetSmsConfigurationComplete(IMbnSms*, ULONG, HRESULT) {
  return S_OK;
}

HRESULT CMbnSinks::OnSmsSendComplete(IMbnSms*, ULONG, HRESULT) {
  return S_OK;
}

HRESULT CMbnSinks::OnSmsReadComplete(IMbnSms*, MBN_SMS_FORMAT, SAFEARRAY*, VARIANT_BOOL, ULONG, HRESULT) {
  return S_OK;
}

HRESULT CMbnSinks::OnSmsNewClass0Message(IMbnSms*, MBN_SMS_FORMAT, SAFEARRAY*) {
  return S_OK;
}

HRESULT CMbnSinks::OnSmsDeleteComplete(IMbnSms*, ULONG, HRESULT) {
  return S_OK;
}

HRESULT CMbnSinks::OnSmsStatusChange(IMbnSms*) {
  return S_OK;
}

HRESULT CMbnSinks::OnQuerySupportedCommandsComplete(IMbnDeviceService*, SAFEARRAY* commandIDList,
                                                    HRESULT status, ULONG) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnQuerySupportedCommandsComplete Event\n");
  if (commandIDList != nullptr) {
    ArrayBounds bounds;
    if (FAILED(::SafeArrayGetLBound(commandIDList, 1, &bounds.lower))) return S_OK;
    if (FAILED(::SafeArrayGetUBound(commandIDList, 1, &bounds.upper))) return S_OK;
    LogIds(QUALIFIED_FUNCTION, commandIDList, bounds);
    handling.KeepCount(bounds.Count());
    LOG_TRACE("\t g_ulNumberSupportedCommands = %d\n", static_cast<int>(bounds.Count()));
  }
  return handling.Completed(status, &g_Event_OnQuerySupportedCommandsComplete);
}

HRESULT CMbnSinks::OnOpenCommandSessionComplete(IMbnDeviceService* deviceService, HRESULT status, ULONG) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnOpenCommandSessionComplete Event\n");
  LOG_TRACE("\t *****deviceService = %x\n", LowHalf(deviceService));
  LOG_TRACE("\t *****status = %x\n", static_cast<unsigned>(status));
  handling.Keep(g_MbnDeviceService, deviceService);
  return handling.Completed(status, &g_Event_OnOpenCommandSessionComplete);
}

HRESULT CMbnSinks::OnCloseCommandSessionComplete(IMbnDeviceService*, HRESULT status, ULONG requestID) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnCloseCommandSessionComplete Event\n");
  LOG_TRACE("\t *****status = %x\n", static_cast<unsigned>(status));
  LOG_TRACE("\t *****requestID = %x\n", static_cast<unsigned>(requestID));
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnSetCommandComplete(IMbnDeviceService* deviceService, ULONG responseID,
                                        SAFEARRAY* deviceServiceData, HRESULT status, ULONG requestID) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnSetCommandComplete Event\n");
  LogCommandCompletion(QUALIFIED_FUNCTION, requestID, responseID, status);
  if (status == S_OK && deviceServiceData != nullptr)
    handling.Keep(g_SetCommandResponse, LogBytes(QUALIFIED_FUNCTION, deviceServiceData));
  handling.Keep(g_MbnDeviceService, deviceService);
  return handling.Completed(status, &g_Event_OnSetCommandComplete);
}

HRESULT CMbnSinks::OnQueryCommandComplete(IMbnDeviceService* deviceService, ULONG responseID,
                                          SAFEARRAY* deviceServiceData, HRESULT status, ULONG requestID) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnQueryCommandComplete Event\n");
  LogCommandCompletion(QUALIFIED_FUNCTION, requestID, responseID, status);
  if (status == S_OK && deviceServiceData != nullptr)
    handling.Keep(g_QueryCommandResponse, LogBytes(QUALIFIED_FUNCTION, deviceServiceData));
  handling.Keep(g_MbnDeviceService, deviceService);
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnEventNotification(IMbnDeviceService* deviceService, ULONG,
                                       SAFEARRAY* deviceServiceData) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnEventNotification Event\n");
  std::vector<BYTE> bytes = LogBytes(QUALIFIED_FUNCTION, deviceServiceData);
  if ((m_Hooks.wantedNotifications & kDeviceServiceNotification) != 0 && m_Hooks.onNotification != nullptr) {
    handling.Tell(kDeviceServiceNotification, DeviceServiceIdOf(deviceService), bytes);
    handling.Keep(m_Hooks.deviceServiceData, std::move(bytes));
  }
  return S_OK;
}

HRESULT CMbnSinks::OnOpenDataSessionComplete(IMbnDeviceService* deviceService, HRESULT status, ULONG) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnOpenDataSessionComplete Event\n");
  handling.Keep(g_MbnDeviceService, deviceService);
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnCloseDataSessionComplete(IMbnDeviceService* deviceService, HRESULT status, ULONG) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnCloseDataSessionComplete Event\n");
  handling.Keep(g_MbnDeviceService, deviceService);
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnWriteDataComplete(IMbnDeviceService* deviceService, HRESULT status, ULONG) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnWriteDataComplete Event\n");
  handling.Keep(g_MbnDeviceService, deviceService);
  return handling.Completed(status);
}

HRESULT CMbnSinks::OnReadData(IMbnDeviceService* deviceService, SAFEARRAY* deviceServiceData) {
  const Handling handling(*this);
  LOG_TRACE("\t *****Received OnReadData Event\n");
  LogBytes(QUALIFIED_FUNCTION, deviceServiceData);
  if (m_Hooks.onNotification != nullptr) {
    handling.Tell(kDeviceServiceNotification, DeviceServiceIdOf(deviceService), {});
  }
  return S_OK;
}

HRESULT CMbnSinks::OnInterfaceStateChange(BSTR, MBN_DEVICE_SERVICES_INTERFACE_STATE) {
  LOG_TRACE("\t *****Received OnInterfaceStateChange Event\n");
  return S_OK;
}

HRESULT CMbnSinks::OnEventNotification(IMbnVendorSpecificOperation*, SAFEARRAY*) {
  LOG_TRACE("\t ***Received IMbnVendorSpecificEvents::OnEventNotification Event\n");
  return S_OK;
}

HRESULT CMbnSinks::OnSetVendorSpecificComplete(IMbnVendorSpecificOperation*, SAFEARRAY*, ULONG) {
  return S_OK;
}
