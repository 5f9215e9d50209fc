#include "download/mbimreboot.h"

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <wrl/client.h>

#include "common/automation.h"
#include "common/log.h"
#include "common/text.h"
#include "common/win32error.h"
#include "download/cmbnsink.h"
#include "download/mobilebroadband.h"
#include "download/sinkshare.h"

namespace corvel {

using Microsoft::WRL::ComPtr;
using std::chrono::milliseconds;

namespace {

/// Under whose name all of it is logged.
constexpr char kProcedure[] = "CFirmwareDownloader::RebootModemByMbimCmd";

constexpr std::wstring_view kVendorServiceId = L"{0ED374CB-F835-4474-BC11-3B3FD76F5641}";
constexpr ULONG kRebootCommand = 1;
constexpr std::array<BYTE, 4> kRebootPayload{0x01, 0x00, 0x00, 0x00};

constexpr milliseconds kOpenAndQueryWait{60000};
constexpr milliseconds kRebootCommandWait{90000};

constexpr HRESULT kNoSink = -1;

/// How a step ends the run; nothing: the next step follows.
using Outcome = std::optional<HRESULT>;

unsigned Hex(HRESULT result) {
  return static_cast<unsigned>(result);
}

std::string NarrowBstr(const UniqueBstr& text) {
  return Utf8FromWide(TextOf(text.get()));
}

/// Where a call succeeded and handed out nothing all the same, there is nothing to go on with.
template <typename Interface>
HRESULT Obtained(HRESULT result, const ComPtr<Interface>& object) {
  return SUCCEEDED(result) && object == nullptr ? E_FAIL : result;
}

/// The calling thread's stay in the multithreaded apartment.
class MultithreadedApartment {
 public:
  MultithreadedApartment() : m_Result(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
  ~MultithreadedApartment() {
    if (SUCCEEDED(m_Result)) ::CoUninitialize();
  }
  MultithreadedApartment(const MultithreadedApartment&) = delete;
  MultithreadedApartment& operator=(const MultithreadedApartment&) = delete;

  HRESULT Result() const { return m_Result; }

 private:
  HRESULT m_Result;
};

/// Keeps a sink advised on a connection point.
class Advice {
 public:
  Advice() = default;
  ~Advice() {
    if (m_Point != nullptr) m_Point->Unadvise(m_Cookie);
  }
  Advice(const Advice&) = delete;
  Advice& operator=(const Advice&) = delete;

  HRESULT Start(const ComPtr<IConnectionPoint>& point, CMbnSinks& sink) {
    HRESULT result = sink.QueryInterface(IID_PPV_ARGS(m_Sink.ReleaseAndGetAddressOf()));
    if (FAILED(result)) return result;
    result = point->Advise(m_Sink.Get(), &m_Cookie);
    if (SUCCEEDED(result)) m_Point = point;
    return result;
  }

 private:
  ComPtr<IUnknown> m_Sink;
  ComPtr<IConnectionPoint> m_Point;
  DWORD m_Cookie = 0;
};

/// Destroys a list of device services. Its ids belong to whoever asked for the list; the array would free
/// them itself only if it knows its records, which finds null then.
struct DeviceServicesDestroyer {
  void operator()(SAFEARRAY* services) const noexcept {
    for (auto& service : ArrayElements<MBN_DEVICE_SERVICE>(services)) {
      ::SysFreeString(std::exchange(service.deviceServiceID, nullptr));
    }
    ::SafeArrayDestroy(services);
  }
};
using UniqueDeviceServices = std::unique_ptr<SAFEARRAY, DeviceServicesDestroyer>;

HRESULT FetchInterface(SAFEARRAY* interfaces, LONG index, ComPtr<IMbnInterface>& mbnInterface) {
  mbnInterface.Reset();
  ComPtr<IUnknown> element;
  if (::SafeArrayGetElemsize(interfaces) != sizeof(IUnknown*)) return DISP_E_TYPEMISMATCH;
  const HRESULT result = ::SafeArrayGetElement(interfaces, &index, element.GetAddressOf());
  if (FAILED(result) || element == nullptr) return result;
  return element->QueryInterface(IID_PPV_ARGS(mbnInterface.GetAddressOf()));
}

/// One reboot. The members are released in the reverse order of their making, the apartment left last.
class RebootRun {
 public:
  explicit RebootRun(const std::function<bool()>& isAbandoned) : m_IsAbandoned(isAbandoned) {}

  /// Everything up to the sink. Each failing step tells in its own line that the call ends there.
  Outcome Prepare();
  /// Everything with the sink. Nothing of it is left afterwards but what the end of the run gives back.
  HRESULT Command();

 private:
  using Step = Outcome (RebootRun::*)();
  Outcome Follow(std::span<const Step> steps);

  Outcome EnterApartment();
  Outcome CreateManagers();
  Outcome FindInterface();
  Outcome IdentifyInterface();
  Outcome GetContext();
  Outcome FindVendorService();
  Outcome GetDeviceService();
  Outcome RefuseOpenSession();
  Outcome GetEventSource();
  Outcome TakeSink();

  Outcome AdviseSink();
  Outcome OpenCommandSession();
  Outcome BuildPayload();
  Outcome QuerySupportedCommands();
  Outcome SendRebootCommand();

  Outcome EndIfAbandoned() const;
  DWORD WaitForCompletion(HANDLE event, milliseconds timeout) const;

  const std::function<bool()>& m_IsAbandoned;
  const MultithreadedApartment m_Apartment;
  ComPtr<IMbnInterfaceManager> m_InterfaceManager;
  ComPtr<IMbnDeviceServicesManager> m_DeviceServicesManager;
  ComPtr<IMbnInterface> m_Interface;
  UniqueBstr m_InterfaceId;
  ComPtr<IMbnDeviceServicesContext> m_Context;
  ComPtr<IMbnDeviceService> m_DeviceService;
  ComPtr<IConnectionPointContainer> m_EventSource;
  std::optional<SinkShare> m_Sink;
  Advice m_Advice;
  UniqueSafeArray m_Payload;
};

Outcome RebootRun::Follow(std::span<const Step> steps) {
  for (const Step step : steps) {
    if (const Outcome outcome = (this->*step)()) return outcome;
  }
  return {};
}

Outcome RebootRun::Prepare() {
  static constexpr std::array<Step, 10> kSteps{&RebootRun::EnterApartment,   &RebootRun::CreateManagers,
                                               &RebootRun::FindInterface,    &RebootRun::IdentifyInterface,
                                               &RebootRun::GetContext,       &RebootRun::FindVendorService,
                                               &RebootRun::GetDeviceService, &RebootRun::RefuseOpenSession,
                                               &RebootRun::GetEventSource,   &RebootRun::TakeSink};
  return Follow(kSteps);
}

HRESULT RebootRun::Command() {
  static constexpr std::array<Step, 5> kSteps{&RebootRun::AdviseSink, &RebootRun::OpenCommandSession,
                                              &RebootRun::BuildPayload, &RebootRun::QuerySupportedCommands,
                                              &RebootRun::SendRebootCommand};
  const HRESULT result = Follow(kSteps).value_or(S_OK);
  m_Payload.reset();
  return SUCCEEDED(result) && m_IsAbandoned() ? E_ABORT : result;
}

Outcome RebootRun::EnterApartment() {
  if (SUCCEEDED(m_Apartment.Result())) return {};
  LOG_ERROR_AS(kProcedure, "\t CoInitializeEx initialization failed, 0x%x, RebootModemByMbimCmd --",
               LastErrorNumber());
  return m_Apartment.Result();
}

Outcome RebootRun::CreateManagers() {
  HRESULT result = Obtained(::CoCreateInstance(__uuidof(MbnInterfaceManager), nullptr, CLSCTX_ALL,
                                               IID_PPV_ARGS(m_InterfaceManager.GetAddressOf())),
                            m_InterfaceManager);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure,
                 "\t CoCreateInstance(CLSID_MbnInterfaceManager***)  failed, 0x%x, RebootModemByMbimCmd --",
                 LastErrorNumber());
    return result;
  }
  result = Obtained(::CoCreateInstance(__uuidof(MbnDeviceServicesManager), nullptr, CLSCTX_ALL,
                                       IID_PPV_ARGS(m_DeviceServicesManager.GetAddressOf())),
                    m_DeviceServicesManager);
  if (SUCCEEDED(result)) return {};
  LOG_ERROR_AS(kProcedure,
               "\t CoCreateInstance(CLSID_MbnDeviceServicesManager***) failed, 0x%x, RebootModemByMbimCmd --",
               LastErrorNumber());
  return result;
}

Outcome RebootRun::FindInterface() {
  SAFEARRAY* list = nullptr;
  HRESULT result = m_InterfaceManager->GetInterfaces(&list);
  const UniqueSafeArray interfaces(list);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "\t GetInterfaces FAIL, RebootModemByMbimCmd --\n");
    return result;
  }
  ArrayBounds bounds;
  result = ::SafeArrayGetLBound(interfaces.get(), 1, &bounds.lower);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "\t SafeArrayGetLBound FAIL, RebootModemByMbimCmd --\n");
    return result;
  }
  result = ::SafeArrayGetUBound(interfaces.get(), 1, &bounds.upper);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "\t SafeArrayGetUBound FAIL, RebootModemByMbimCmd --\n");
    return result;
  }
  // Of several interfaces the last one is used.
  for (LONG index = bounds.lower; index <= bounds.upper; ++index) {
    result = FetchInterface(interfaces.get(), index, m_Interface);
    if (FAILED(result)) {
      LOG_ERROR_AS(kProcedure,
                   "\t SafeArrayGetElement(IMbnInterface) FAILED hr=0x%X, RebootModemByMbimCmd --\n",
                   Hex(result));
      return result;
    }
  }
  if (m_Interface != nullptr) return {};
  LOG_ERROR_AS(kProcedure, "\t pMbnInterface == NULL, RebootModemByMbimCmd --");
  return E_FAIL;
}

Outcome RebootRun::IdentifyInterface() {
  BSTR id = nullptr;
  const HRESULT result = m_Interface->get_InterfaceID(&id);
  m_InterfaceId.reset(id);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "get_InterfaceID FAILED hr=0x%X, RebootModemByMbimCmd --\n", Hex(result));
    return result;
  }
  LOG_TRACE_AS(kProcedure, "\t fetched interfaceID :%s", NarrowBstr(m_InterfaceId).c_str());
  return {};
}

Outcome RebootRun::GetContext() {
  const HRESULT result = Obtained(
      m_DeviceServicesManager->GetDeviceServicesContext(m_InterfaceId.get(), m_Context.GetAddressOf()),
      m_Context);
  if (SUCCEEDED(result)) return {};
  LOG_ERROR_AS(kProcedure,
               "\t IMbnDeviceServicesManager::GetDeviceServicesContext('%s') failed with: %x, "
               "RebootModemByMbimCmd --",
               NarrowBstr(m_InterfaceId).c_str(), Hex(result));
  return result;
}

Outcome RebootRun::FindVendorService() {
  SAFEARRAY* list = nullptr;
  HRESULT result = m_Context->EnumerateDeviceServices(&list);
  const UniqueDeviceServices services(list);
  if (FAILED(result)) return result;
  ArrayBounds bounds;
  result = ::SafeArrayGetLBound(services.get(), 1, &bounds.lower);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure,
                 "\t SafeArrayGetLBound on allDeviceServices failed with: %x, RebootModemByMbimCmd --",
                 Hex(result));
    return result;
  }
  result = ::SafeArrayGetUBound(services.get(), 1, &bounds.upper);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure,
                 "\t SafeArrayGetUBound on allDeviceServices failed with: %x, RebootModemByMbimCmd --",
                 Hex(result));
    return result;
  }
  for (const auto& service : ArrayElements<MBN_DEVICE_SERVICE>(services.get())) {
    if (TextOf(service.deviceServiceID) == kVendorServiceId) return {};
  }
  // The modem may know the service although it does not list it: the next step decides.
  LOG_ERROR_AS(kProcedure, "\t Service Not found");
  return {};
}

Outcome RebootRun::GetDeviceService() {
  const UniqueBstr id(
      ::SysAllocStringLen(kVendorServiceId.data(), static_cast<UINT>(kVendorServiceId.size())));
  const HRESULT result = m_Context->GetDeviceService(id.get(), m_DeviceService.GetAddressOf());
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "\t IMbnDeviceServicesContext::GetDeviceService('%s') failed with: %x",
                 Utf8FromWide(kVendorServiceId).c_str(), Hex(result));
    return result;
  }
  if (m_DeviceService != nullptr) return {};
  LOG_ERROR_AS(kProcedure,
               "\t IMbnDeviceServicesContext::GetDeviceService('%s') succeeded but (pDeviceService) is NULL!",
               Utf8FromWide(kVendorServiceId).c_str());
  return E_FAIL;
}

Outcome RebootRun::RefuseOpenSession() {
  BOOL isOpen = FALSE;
  const HRESULT result = m_DeviceService->get_IsCommandSessionOpen(&isOpen);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure,
                 "\t IMbnDeviceService::get_IsCommandSessionOpen() failed with: %x, RebootModemByMbimCmd --",
                 Hex(result));
    return result;
  }
  if (!isOpen) return {};
  LOG_ERROR_AS(kProcedure, "\t Command session is open; cannot proceed, RebootModemByMbimCmd --");
  return E_FAIL;
}

Outcome RebootRun::GetEventSource() {
  LOG_TRACE_AS(kProcedure, "Reboot Modem");
  const HRESULT result = Obtained(
      m_DeviceServicesManager->QueryInterface(IID_PPV_ARGS(m_EventSource.GetAddressOf())), m_EventSource);
  if (SUCCEEDED(result)) return {};
  LOG_ERROR_AS(kProcedure,
               "\t QueryInterface(IID_IConnectionPointContainer **) failed, RebootModemByMbimCmd --");
  return result;
}

Outcome RebootRun::TakeSink() {
  m_Sink.emplace();
  if (m_Sink->MadeIt()) LOG_TRACE_AS(kProcedure, "\t new CMbnSinks OK");
  if (m_Sink->Get() != nullptr) return {};
  LOG_ERROR_AS(kProcedure, "\t new CMbnSinks failed, RebootModemByMbimCmd --");
  return kNoSink;
}

Outcome RebootRun::AdviseSink() {
  HRESULT result = m_Sink->Get()->Initilazation();
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "\t g_CMbnSinks->Initilazation() failed");
    return result;
  }
  ComPtr<IConnectionPoint> point;
  result = Obtained(
      m_EventSource->FindConnectionPoint(__uuidof(IMbnDeviceServicesEvents), point.GetAddressOf()), point);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "\t FindConnectionPoint(IID_IMbnDeviceServicesEvents,**) failed");
    return result;
  }
  if (const Outcome abandoned = EndIfAbandoned()) return abandoned;
  result = m_Advice.Start(point, *m_Sink->Get());
  if (SUCCEEDED(result)) return {};
  LOG_ERROR_AS(kProcedure, "\t Register, Advise(pUnkSink,**) failed");
  return result;
}

Outcome RebootRun::OpenCommandSession() {
  if (const Outcome abandoned = EndIfAbandoned()) return abandoned;
  ::ResetEvent(g_Event_OnOpenCommandSessionComplete);
  ULONG requestId = 0;
  const HRESULT result = m_DeviceService->OpenCommandSession(&requestId);
  if (FAILED(result) && result != E_PENDING) {
    LOG_ERROR_AS(kProcedure, "\t IMbnDeviceService::OpenCommandSession() failed with: %x", Hex(result));
    return result;
  }
  LOG_TRACE_AS(kProcedure, "\t OpenCommandSession call successful... waiting for callback");
  if (WaitForCompletion(g_Event_OnOpenCommandSessionComplete, kOpenAndQueryWait) != WAIT_OBJECT_0) {
    LOG_ERROR_AS(kProcedure, "\t OpenCommandSession failed with timeOut or other issue");
    // Callers rely on it: the call's own result stands, a success included.
    return result;
  }
  LOG_TRACE_AS(kProcedure, "\t pMbnDeviceService = g_MbnDeviceService;");
  if (SUCCEEDED(result)) return {};
  // A pending open is waited for and refused all the same; callers rely on that, too.
  LOG_ERROR_AS(kProcedure, "\t OpenCommandSession (FAILED(hr))");
  return result;
}

Outcome RebootRun::BuildPayload() {
  SAFEARRAYBOUND bound{static_cast<ULONG>(kRebootPayload.size()), 0};
  m_Payload.reset(::SafeArrayCreate(VT_UI1, 1, &bound));
  if (m_Payload == nullptr) {
    LOG_ERROR_AS(kProcedure, "\t No memory for the reboot command's payload");
    return E_OUTOFMEMORY;
  }
  for (LONG index = 0; BYTE byte : kRebootPayload) {
    const HRESULT result = ::SafeArrayPutElement(m_Payload.get(), &index, &byte);
    if (FAILED(result)) {
      LOG_ERROR_AS(kProcedure, "\t SafeArrayPutElement failed with: %x", Hex(result));
      return result;
    }
    LOG_TRACE_AS(kProcedure, "\t %02X ", byte);
    ++index;
  }
  return {};
}

Outcome RebootRun::QuerySupportedCommands() {
  if (const Outcome abandoned = EndIfAbandoned()) return abandoned;
  ::ResetEvent(g_Event_OnQuerySupportedCommandsComplete);
  ULONG requestId = 0;
  const HRESULT result = m_DeviceService->QuerySupportedCommands(&requestId);
  LOG_TRACE_AS(kProcedure, "\t QuerySupportedCommands call successful, hr:0x%x\n", Hex(result));
  const HANDLE event = g_Event_OnQuerySupportedCommandsComplete;
  if (event != nullptr) {
    LOG_TRACE_AS(kProcedure, "\t g_Event_OnQuerySupportedCommandsComplete is valid");
  } else {
    LOG_TRACE_AS(kProcedure, "\t g_Event_OnQuerySupportedCommandsComplete is not valid");
  }
  // The call's result decides nothing: only the completion does.
  const DWORD waited = WaitForCompletion(event, kOpenAndQueryWait);
  if (waited != WAIT_OBJECT_0) {
    LOG_ERROR_AS(kProcedure,
                 "\t QuerySupportedCommands failed with other issue, waitObject: 0x%x, ErrorCode:0x%x",
                 static_cast<unsigned>(waited), static_cast<unsigned>(::GetLastError()));
    return HResultFromWin32(waited);
  }
  const ULONG count = g_ulNumberSupportedCommands;
  for (ULONG index = 0; index < count; ++index) {
    // The modem decides how many there are.
    const ULONG id = index < g_ulSupportedCommandIds.size() ? g_ulSupportedCommandIds[index] : 0;
    LOG_TRACE_AS(kProcedure, "\t ulCommandId[%d] = %d\n", static_cast<int>(index), static_cast<int>(id));
    if (id == kRebootCommand) LOG_ERROR_AS(kProcedure, "\t ------- MBIM support Modem Reboot Command ----");
  }
  return {};
}

Outcome RebootRun::SendRebootCommand() {
  if (const Outcome abandoned = EndIfAbandoned()) return abandoned;
  LOG_TRACE_AS(kProcedure, "\t to SetCommand");
  ::ResetEvent(g_Event_OnSetCommandComplete);
  ULONG requestId = 0;
  const HRESULT result = m_DeviceService->SetCommand(kRebootCommand, m_Payload.get(), &requestId);
  LOG_TRACE_AS(kProcedure, "\t SetCommand result, errorCode:0x%x", Hex(result));
  if (FAILED(result) && result != E_PENDING) {
    LOG_ERROR_AS(kProcedure, "IMbnDeviceService::SetCommand() failed with: %x", Hex(result));
    return result;
  }
  LOG_TRACE_AS(kProcedure, "\t SetCommand call successful\n");
  if (result != S_OK && result != E_PENDING) return result;
  LOG_TRACE_AS(kProcedure, "\t SetCommand call successful... waiting for callback -> requestID=%d\n",
               static_cast<int>(requestId));
  const DWORD waited = WaitForCompletion(g_Event_OnSetCommandComplete, kRebootCommandWait);
  if (waited == WAIT_OBJECT_0) return result;
  LOG_ERROR_AS(kProcedure, "\t SetCommand timeout or failed with other issue");
  return HResultFromWin32(waited);
}

Outcome RebootRun::EndIfAbandoned() const {
  if (!m_IsAbandoned()) return {};
  LOG_ERROR_AS(kProcedure, "\t The attempt was given up: nothing more is asked of the modem");
  return E_ABORT;
}

DWORD RebootRun::WaitForCompletion(HANDLE event, milliseconds timeout) const {
  const DWORD waited = ::WaitForSingleObject(event, static_cast<DWORD>(timeout.count()));
  // The events are shared: a completion that an abandoned run wakes up to may be what a newer one waits for.
  if (waited == WAIT_OBJECT_0 && m_IsAbandoned()) ::SetEvent(event);
  return waited;
}

}  // namespace

HRESULT RebootModemThroughMobileBroadband(const std::function<bool()>& isAbandoned) {
  LOG_TRACE_AS(kProcedure, "RebootModemByMbimCmd ++");
  std::optional<RebootRun> run(std::in_place, isAbandoned);
  if (const Outcome early = run->Prepare()) return *early;
  const HRESULT result = run->Command();
  LOG_TRACE_AS(kProcedure, "\t DeInitilazation()");
  run.reset();
  LOG_TRACE_AS(kProcedure, "RebootModemByMbimCmd --");
  return result;
}

}  // namespace corvel
