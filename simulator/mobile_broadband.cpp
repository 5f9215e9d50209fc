#include "mobile_broadband.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <olectl.h>

#include <wrl/client.h>

#include "lock.h"
#include "working_threads.h"

#if defined(__GNUC__)
// The interfaces have no destructor: one would take a slot.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

using Microsoft::WRL::ComPtr;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070490);
constexpr HRESULT kNoCommandSession = static_cast<HRESULT>(0x8007139F);  // ERROR_INVALID_STATE
constexpr ULONG kRebootCommand = 1;
constexpr std::array<BYTE, 4> kRebootPayload{0x01, 0x00, 0x00, 0x00};
constexpr ULONG kLongestData = 4096;

BSTR NewBstr(std::wstring_view text) {
  return ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
}

std::wstring_view TextOf(BSTR text) {
  return {text, ::SysStringLen(text)};
}

/// A new array of plain elements. The caller destroys it.
template <typename T>
SAFEARRAY* NewArray(VARTYPE type, const std::vector<T>& elements) {
  SAFEARRAY* array = ::SafeArrayCreateVector(type, 0, static_cast<ULONG>(elements.size()));
  void* data = nullptr;
  if (array == nullptr || FAILED(::SafeArrayAccessData(array, &data))) return array;
  std::ranges::copy(elements, static_cast<T*>(data));
  ::SafeArrayUnaccessData(array);
  return array;
}

/// The bytes of a one-dimensional VT_UI1 array; empty when it is anything else.
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

}  // namespace

/// What the handed-out objects share: the behaviour, the record of calls, the advised sinks, and the queue
/// of completions that the service's thread works off.
class MobileBroadbandService {
 public:
  MobileBroadbandBehaviour behaviour;
  std::atomic<int> liveObjects{0};
  std::atomic<int> rebootCommands{0};

  /// Records a call. @return its failure, if the behaviour has one for it.
  HRESULT Enter(const std::string& call) {
    {
      const std::lock_guard lock(m_mutex);
      m_calls.push_back(call);
    }
    if (behaviour.onCall) behaviour.onCall(call);
    const auto failure = behaviour.failures.find(call);
    return failure == behaviour.failures.end() ? S_OK : failure->second;
  }
  bool IsEmptyHanded(const std::string& call) const { return behaviour.emptyHanded.contains(call); }
  bool ModemIsThere() const { return !behaviour.modemIsInNormalMode || behaviour.modemIsInNormalMode(); }

  std::vector<std::string> Calls() const {
    const std::lock_guard lock(m_mutex);
    return m_calls;
  }

  void RecordPayload(std::vector<BYTE> payload) {
    const std::lock_guard lock(m_mutex);
    m_payloads.push_back(std::move(payload));
  }
  std::vector<std::vector<BYTE>> Payloads() const {
    const std::lock_guard lock(m_mutex);
    return m_payloads;
  }

  void ForgetCalls() {
    const std::lock_guard lock(m_mutex);
    std::vector<std::string>().swap(m_calls);
    std::vector<std::vector<BYTE>>().swap(m_payloads);
  }

  DWORD Advise(ComPtr<IMbnDeviceServicesEvents> sink) {
    const std::lock_guard lock(m_mutex);
    m_sinks.emplace(++m_lastCookie, std::move(sink));
    return m_lastCookie;
  }
  HRESULT Unadvise(DWORD cookie) {
    decltype(m_sinks)::node_type sink;
    const std::lock_guard lock(m_mutex);
    sink = m_sinks.extract(cookie);
    return sink.empty() ? CONNECT_E_NOCONNECTION : S_OK;
  }
  int AdvisedSinks() const {
    const std::lock_guard lock(m_mutex);
    return static_cast<int>(m_sinks.size());
  }

  void CallSinks(const std::function<void(IMbnDeviceServicesEvents&)>& notification) {
    std::vector<ComPtr<IMbnDeviceServicesEvents>> sinks;
    {
      const std::lock_guard lock(m_mutex);
      for (const auto& [cookie, sink] : m_sinks) sinks.push_back(sink);
    }
    for (const auto& sink : sinks) notification(*sink.Get());
  }

  ULONG NextRequestId() { return ++m_lastRequestId; }

  /// Plans the completion of a request that was taken.
  void CompleteLater(const SimulatedRequest& request, std::function<void()> completion) {
    if (request.answer != S_OK && request.answer != E_PENDING) return;
    if (!request.completesAfter) return;
    const bool inRealTime = behaviour.realTime && !behaviour.virtualNow;
    const milliseconds delay =
        inRealTime ? behaviour.realTime(*request.completesAfter) : *request.completesAfter;
    const std::lock_guard lock(m_mutex);
    m_completions.emplace(Now() + delay, std::move(completion));
    m_changed.NotifyAll();
  }

  /// Hangs until Stop, if the behaviour has it so for this Release.
  void HangInFirstRelease() {
    if (!behaviour.firstReleaseHangs || ::GetCurrentThreadId() == m_ownThread) return;
    if (m_wasReleased.exchange(true)) return;
    // Time has to fly for the others while this thread hangs.
    const working_threads::Rest rest;
    std::unique_lock lock(m_mutex);
    m_changed.Wait(lock, [this] { return m_stopped; });
  }

  /// Works the completions off until Stop.
  void RunCompletions() {
    m_ownThread = ::GetCurrentThreadId();
    std::unique_lock lock(m_mutex);
    while (!m_stopped) {
      if (m_completions.empty()) {
        m_changed.Wait(lock);
        continue;
      }
      const milliseconds left = m_completions.begin()->first - Now();
      if (left > milliseconds::zero()) {
        m_changed.WaitFor(lock, behaviour.virtualNow ? kLookPeriod : left);
        continue;
      }
      RunFirstCompletion(lock);
    }
  }

  void Stop() {
    std::multimap<milliseconds, std::function<void()>> dropped;
    const std::lock_guard lock(m_mutex);
    m_stopped = true;
    dropped.swap(m_completions);
    m_changed.NotifyAll();
  }

  void WaitForCompletions() {
    std::unique_lock lock(m_mutex);
    m_changed.Wait(lock, [this] { return m_completions.empty() && !m_completing; });
  }

 private:
  /// How often a foreign clock is looked at.
  static constexpr milliseconds kLookPeriod{2};

  milliseconds Now() const {
    if (behaviour.virtualNow) return behaviour.virtualNow();
    return std::chrono::ceil<milliseconds>(steady_clock::now().time_since_epoch());
  }

  void RunFirstCompletion(std::unique_lock<Lock>& lock) {
    auto completion = m_completions.extract(m_completions.begin());
    m_completing = true;
    lock.unlock();
    completion.mapped()();
    // What the completion holds is released outside the lock and before anybody hears that it is over.
    completion = {};
    lock.lock();
    m_completing = false;
    m_changed.NotifyAll();
  }

  mutable Lock m_mutex;
  Condition m_changed;
  std::atomic<DWORD> m_ownThread{0};
  std::atomic<bool> m_wasReleased{false};
  bool m_stopped = false;
  bool m_completing = false;
  std::multimap<milliseconds, std::function<void()>> m_completions;
  std::vector<std::string> m_calls;
  std::vector<std::vector<BYTE>> m_payloads;
  std::map<DWORD, ComPtr<IMbnDeviceServicesEvents>> m_sinks;
  DWORD m_lastCookie = 0;
  std::atomic<ULONG> m_lastRequestId{0};
};

namespace {

using Service = std::shared_ptr<MobileBroadbandService>;

/// IUnknown of the service's objects: born with one reference, deleted with the last.
template <typename First, typename... Rest>
class ServiceObject : public First, public Rest... {
 public:
  ServiceObject(const ServiceObject&) = delete;
  ServiceObject& operator=(const ServiceObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (iid == __uuidof(IUnknown) || iid == __uuidof(First)) *object = static_cast<First*>(this);
    ((iid == __uuidof(Rest) ? static_cast<void>(*object = static_cast<Rest*>(this)) : void()), ...);
    if (*object == nullptr) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --m_references;
    if (left == 0) delete this;
    return left;
  }

 protected:
  explicit ServiceObject(Service service) : m_service(std::move(service)) { ++m_service->liveObjects; }
  virtual ~ServiceObject() { --m_service->liveObjects; }

  MobileBroadbandService& TheService() const { return *m_service; }
  const Service& SharedService() const { return m_service; }

  /// Records a call that hands out one object, and makes that object unless the behaviour is against it.
  template <typename Interface, typename Make>
  HRESULT HandOut(const std::string& call, Interface** out, const Make& make) {
    *out = nullptr;
    const HRESULT result = m_service->Enter(call);
    if (SUCCEEDED(result) && !m_service->IsEmptyHanded(call)) *out = make();
    return result;
  }

 private:
  Service m_service;
  std::atomic<ULONG> m_references{1};
};

class DeviceService final : public ServiceObject<IMbnDeviceService> {
 public:
  DeviceService(Service service, std::wstring interfaceId, std::wstring id)
      : ServiceObject(std::move(service)), m_interfaceId(std::move(interfaceId)), m_id(std::move(id)) {}

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
                     m_commandSessionIsOpen = SUCCEEDED(status);
                     sink.OnOpenCommandSessionComplete(this, status, id);
                   });
  }
  HRESULT STDMETHODCALLTYPE SetCommand(ULONG commandID, SAFEARRAY* data, ULONG* requestID) override {
    const std::vector<BYTE> payload = BytesOf(data);
    TheService().RecordPayload(payload);
    // Unlike an answer that a test asks for, this is what the service would say.
    if (!m_commandSessionIsOpen) {
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
    *interfaceId = NewBstr(m_interfaceId);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_DeviceServiceID(BSTR* id) override {
    *id = NewBstr(m_id);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_IsCommandSessionOpen(BOOL* value) override {
    *value = TheService().behaviour.commandSessionIsOpen || m_commandSessionIsOpen;
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

  std::wstring m_interfaceId;
  std::wstring m_id;
  std::atomic<bool> m_commandSessionIsOpen{false};
};

class DeviceServicesContext final : public ServiceObject<IMbnDeviceServicesContext> {
 public:
  DeviceServicesContext(Service service, std::wstring interfaceId)
      : ServiceObject(std::move(service)), m_interfaceId(std::move(interfaceId)) {}

  HRESULT STDMETHODCALLTYPE EnumerateDeviceServices(SAFEARRAY** deviceServices) override {
    return HandOut("EnumerateDeviceServices", deviceServices, [this] { return ListOfServices(); });
  }
  HRESULT STDMETHODCALLTYPE GetDeviceService(BSTR id, IMbnDeviceService** deviceService) override {
    const auto& known = TheService().behaviour.deviceServices;
    const bool found = std::ranges::find(known, TextOf(id)) != known.end();
    const HRESULT result = HandOut("GetDeviceService", deviceService, [&]() -> IMbnDeviceService* {
      return found ? new DeviceService(SharedService(), m_interfaceId, std::wstring(TextOf(id))) : nullptr;
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

  std::wstring m_interfaceId;
};

class ConnectionPoint final : public ServiceObject<IConnectionPoint> {
 public:
  ConnectionPoint(Service service, ComPtr<IConnectionPointContainer> container)
      : ServiceObject(std::move(service)), m_container(std::move(container)) {}

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
    return m_container.CopyTo(container);
  }
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections**) override { return E_NOTIMPL; }

 private:
  ComPtr<IConnectionPointContainer> m_container;
};

class DeviceServicesManager final
    : public ServiceObject<IMbnDeviceServicesManager, IConnectionPointContainer> {
 public:
  explicit DeviceServicesManager(Service service) : ServiceObject(std::move(service)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (iid == __uuidof(IConnectionPointContainer)) {
      const HRESULT failure = TheService().Enter("QueryInterface(IConnectionPointContainer)");
      if (FAILED(failure)) return failure;
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

class Interface final : public ServiceObject<IMbnInterface> {
 public:
  Interface(Service service, std::wstring id) : ServiceObject(std::move(service)), m_id(std::move(id)) {}

  HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* id) override {
    return HandOut("get_InterfaceID", id, [this] { return NewBstr(m_id); });
  }
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

 private:
  std::wstring m_id;
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
        interfaces.push_back(id.empty() ? nullptr : new Interface(SharedService(), id));
      }
    }
    return NewArray(VT_UNKNOWN, interfaces);
  }
};

/// Makes the objects of one class. Belongs to COM, and is not among the objects handed out.
template <typename Object>
class ClassFactory final : public IClassFactory {
 public:
  ClassFactory(Service service, std::string call) : m_service(std::move(service)), m_call(std::move(call)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    const bool known = iid == __uuidof(IUnknown) || iid == __uuidof(IClassFactory);
    *object = known ? static_cast<IClassFactory*>(this) : nullptr;
    return known ? S_OK : E_NOINTERFACE;
  }
  // Lives in the service's thread, longer than its registration.
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }

  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    *object = nullptr;
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    const HRESULT failure = m_service->Enter(m_call);
    if (FAILED(failure)) return failure;
    // Not Attach: mingw-w64's takes a reference of its own.
    ComPtr<Object> made;
    *made.GetAddressOf() = new Object(m_service);
    return made->QueryInterface(iid, object);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  Service m_service;
  std::string m_call;
};

/// A class object's registration with COM in the calling thread's apartment.
class ClassRegistration {
 public:
  ClassRegistration(REFCLSID classId, IClassFactory& factory)
      : m_result(::CoRegisterClassObject(classId, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                         &m_cookie)) {}
  ~ClassRegistration() {
    if (SUCCEEDED(m_result)) ::CoRevokeClassObject(m_cookie);
  }
  ClassRegistration(const ClassRegistration&) = delete;
  ClassRegistration& operator=(const ClassRegistration&) = delete;

  HRESULT Result() const { return m_result; }

 private:
  DWORD m_cookie = 0;
  HRESULT m_result;
};

/// The service's thread: registers the classes, tells how that went, completes requests until the end.
void Serve(const Service& service, std::promise<HRESULT> started) {
  const HRESULT entered = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (FAILED(entered)) return started.set_value(entered);
  {
    ClassFactory<InterfaceManager> interfaceFactory(service, "MbnInterfaceManager");
    ClassFactory<DeviceServicesManager> servicesFactory(service, "MbnDeviceServicesManager");
    const ClassRegistration interfaceClass(__uuidof(MbnInterfaceManager), interfaceFactory);
    const ClassRegistration servicesClass(__uuidof(MbnDeviceServicesManager), servicesFactory);
    started.set_value(FAILED(interfaceClass.Result()) ? interfaceClass.Result() : servicesClass.Result());
    service->RunCompletions();
  }
  ::CoUninitialize();
}

}  // namespace

SimulatedMobileBroadband::SimulatedMobileBroadband(MobileBroadbandBehaviour behaviour)
    : m_service(std::make_shared<MobileBroadbandService>()) {
  m_service->behaviour = std::move(behaviour);
  std::promise<HRESULT> started;
  std::future<HRESULT> start = started.get_future();
  m_thread = std::thread(Serve, m_service, std::move(started));
  if (SUCCEEDED(start.get())) return;
  m_service->Stop();
  m_thread.join();
  throw std::runtime_error("the simulated Mobile Broadband classes could not be registered");
}

SimulatedMobileBroadband::~SimulatedMobileBroadband() {
  m_service->Stop();
  m_thread.join();
}

MobileBroadbandBehaviour& SimulatedMobileBroadband::Behaviour() {
  return m_service->behaviour;
}

std::vector<std::string> SimulatedMobileBroadband::Calls() const {
  return m_service->Calls();
}

int SimulatedMobileBroadband::CallCount(const std::string& name) const {
  return static_cast<int>(std::ranges::count(m_service->Calls(), name));
}

std::vector<std::vector<BYTE>> SimulatedMobileBroadband::Payloads() const {
  return m_service->Payloads();
}

void SimulatedMobileBroadband::ForgetCalls() {
  m_service->ForgetCalls();
}

int SimulatedMobileBroadband::RebootCommands() const {
  return m_service->rebootCommands;
}

int SimulatedMobileBroadband::LiveObjects() const {
  return m_service->liveObjects;
}

int SimulatedMobileBroadband::AdvisedSinks() const {
  return m_service->AdvisedSinks();
}

void SimulatedMobileBroadband::Notify(const std::function<void(IMbnDeviceServicesEvents&)>& notification) {
  std::thread([&] { m_service->CallSinks(notification); }).join();
}

void SimulatedMobileBroadband::WaitForCompletions() {
  m_service->WaitForCompletions();
}
