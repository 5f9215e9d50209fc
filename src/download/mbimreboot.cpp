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
class ComApartment {
 public:
  ComApartment() : m_result(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
  ~ComApartment() {
    if (SUCCEEDED(m_result)) ::CoUninitialize();
  }
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;

  HRESULT Result() const { return m_result; }

 private:
  HRESULT m_result;
};

/// Keeps a sink advised on a connection point.
class Advice {
 public:
  Advice() = default;
  ~Advice() {
    if (m_point != nullptr) m_point->Unadvise(m_cookie);
  }
  Advice(const Advice&) = delete;
  Advice& operator=(const Advice&) = delete;

  HRESULT Start(const ComPtr<IConnectionPoint>& point, CMbnSinks& sink) {
    HRESULT result = sink.QueryInterface(IID_PPV_ARGS(m_sink.ReleaseAndGetAddressOf()));
    if (FAILED(result)) return result;
    result = point->Advise(m_sink.Get(), &m_cookie);
    if (SUCCEEDED(result)) m_point = point;
    return result;
  }

 private:
  ComPtr<IUnknown> m_sink;
  ComPtr<IConnectionPoint> m_point;
  DWORD m_cookie = 0;
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
  explicit RebootRun(const std::function<bool()>& isAbandoned) : m_isAbandoned(isAbandoned) {}

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

  const std::function<bool()>& m_isAbandoned;
  const ComApartment m_apartment;
  ComPtr<IMbnInterfaceManager> m_interfaceManager;
  ComPtr<IMbnDeviceServicesManager> m_deviceServicesManager;
  ComPtr<IMbnInterface> m_interface;
  UniqueBstr m_interfaceId;
  ComPtr<IMbnDeviceServicesContext> m_context;
  ComPtr<IMbnDeviceService> m_deviceService;
  ComPtr<IConnectionPointContainer> m_eventSource;
  std::optional<SinkShare> m_sink;
  Advice m_advice;
  UniqueSafeArray m_payload;
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
  m_payload.reset();
  return SUCCEEDED(result) && m_isAbandoned() ? E_ABORT : result;
}

Outcome RebootRun::EnterApartment() {
  if (SUCCEEDED(m_apartment.Result())) return {};
  LOG_ERROR_AS(kProcedure, "\t CoInitializeEx initialization failed, 0x%x, RebootModemByMbimCmd --",
               LastErrorNumber());
  return m_apartment.Result();
}

Outcome RebootRun::CreateManagers() {
  HRESULT result = ::CoCreateInstance(__uuidof(MbnInterfaceManager), nullptr, CLSCTX_ALL,
                                      IID_PPV_ARGS(m_interfaceManager.GetAddressOf()));
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure,
                 "\t CoCreateInstance(CLSID_MbnInterfaceManager***)  failed, 0x%x, RebootModemByMbimCmd --",
                 LastErrorNumber());
    return result;
  }
  result = ::CoCreateInstance(__uuidof(MbnDeviceServicesManager), nullptr, CLSCTX_ALL,
                              IID_PPV_ARGS(m_deviceServicesManager.GetAddressOf()));
  if (SUCCEEDED(result)) return {};
  LOG_ERROR_AS(kProcedure,
               "\t CoCreateInstance(CLSID_MbnDeviceServicesManager***) failed, 0x%x, RebootModemByMbimCmd --",
               LastErrorNumber());
  return result;
}

Outcome RebootRun::FindInterface() {
  SAFEARRAY* list = nullptr;
  HRESULT result = m_interfaceManager->GetInterfaces(&list);
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
    result = FetchInterface(interfaces.get(), index, m_interface);
    if (FAILED(result)) {
      LOG_ERROR_AS(kProcedure,
                   "\t SafeArrayGetElement(IMbnInterface) FAILED hr=0x%X, RebootModemByMbimCmd --\n",
                   Hex(result));
      return result;
    }
  }
  if (m_interface != nullptr) return {};
  LOG_ERROR_AS(kProcedure, "\t pMbnInterface == NULL, RebootModemByMbimCmd --");
  return E_FAIL;
}

Outcome RebootRun::IdentifyInterface() {
  BSTR id = nullptr;
  const HRESULT result = m_interface->get_InterfaceID(&id);
  m_interfaceId.reset(id);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "get_InterfaceID FAILED hr=0x%X, RebootModemByMbimCmd --\n", Hex(result));
    return result;
  }
  LOG_TRACE_AS(kProcedure, "\t fetched interfaceID :%s", NarrowBstr(m_interfaceId).c_str());
  return {};
}

Outcome RebootRun::GetContext() {
  const HRESULT result = Obtained(
      m_deviceServicesManager->GetDeviceServicesContext(m_interfaceId.get(), m_context.GetAddressOf()),
      m_context);
  if (SUCCEEDED(result)) return {};
  LOG_ERROR_AS(kProcedure,
               "\t IMbnDeviceServicesManager::GetDeviceServicesContext('%s') failed with: %x, "
               "RebootModemByMbimCmd --",
               NarrowBstr(m_interfaceId).c_str(), Hex(result));
  return result;
}

Outcome RebootRun::FindVendorService() {
  SAFEARRAY* list = nullptr;
  HRESULT result = m_context->EnumerateDeviceServices(&list);
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
  const HRESULT result = m_context->GetDeviceService(id.get(), m_deviceService.GetAddressOf());
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "\t IMbnDeviceServicesContext::GetDeviceService('%s') failed with: %x",
                 Utf8FromWide(kVendorServiceId).c_str(), Hex(result));
    return result;
  }
  if (m_deviceService != nullptr) return {};
  LOG_ERROR_AS(kProcedure,
               "\t IMbnDeviceServicesContext::GetDeviceService('%s') succeeded but (pDeviceService) is NULL!",
               Utf8FromWide(kVendorServiceId).c_str());
  return E_FAIL;
}

Outcome RebootRun::RefuseOpenSession() {
  BOOL isOpen = FALSE;
  const HRESULT result = m_deviceService->get_IsCommandSessionOpen(&isOpen);
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
  const HRESULT result = m_deviceServicesManager->QueryInterface(IID_PPV_ARGS(m_eventSource.GetAddressOf()));
  if (SUCCEEDED(result)) return {};
  LOG_ERROR_AS(kProcedure,
               "\t QueryInterface(IID_IConnectionPointContainer **) failed, RebootModemByMbimCmd --");
  return result;
}

Outcome RebootRun::TakeSink() {
  m_sink.emplace();
  if (m_sink->MadeIt()) LOG_TRACE_AS(kProcedure, "\t new CMbnSinks OK");
  if (m_sink->Get() != nullptr) return {};
  LOG_ERROR_AS(kProcedure, "\t new CMbnSinks failed, RebootModemByMbimCmd --");
  return kNoSink;
}

Outcome RebootRun::AdviseSink() {
  HRESULT result = m_sink->Get()->Initilazation();
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "\t g_CMbnSinks->Initilazation() failed");
    return result;
  }
  ComPtr<IConnectionPoint> point;
  result = Obtained(
      m_eventSource->FindConnectionPoint(__uuidof(IMbnDeviceServicesEvents), point.GetAddressOf()), point);
  if (FAILED(result)) {
    LOG_ERROR_AS(kProcedure, "\t FindConnectionPoint(IID_IMbnDeviceServicesEvents,**) failed");
    return result;
  }
  if (const Outcome abandoned = EndIfAbandoned()) return abandoned;
  result = m_advice.Start(point, *m_sink->Get());
  if (SUCCEEDED(result)) return {};
  LOG_ERROR_AS(kProcedure, "\t Register, Advise(pUnkSink,**) failed");
  return result;
}

Outcome RebootRun::OpenCommandSession() {
  if (const Outcome abandoned = EndIfAbandoned()) return abandoned;
  ::ResetEvent(g_Event_OnOpenCommandSessionComplete);
  ULONG requestId = 0;
  const HRESULT result = m_deviceService->OpenCommandSession(&requestId);
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
  m_payload.reset(::SafeArrayCreate(VT_UI1, 1, &bound));
  if (m_payload == nullptr) return E_OUTOFMEMORY;
  for (LONG index = 0; BYTE byte : kRebootPayload) {
    const HRESULT result = ::SafeArrayPutElement(m_payload.get(), &index, &byte);
    if (FAILED(result)) return result;
    LOG_TRACE_AS(kProcedure, "\t %02X ", byte);
    ++index;
  }
  return {};
}

Outcome RebootRun::QuerySupportedCommands() {
  if (const Outcome abandoned = EndIfAbandoned()) return abandoned;
  ::ResetEvent(g_Event_OnQuerySupportedCommandsComplete);
  ULONG requestId = 0;
  const HRESULT result = m_deviceService->QuerySupportedCommands(&requestId);
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
  const HRESULT result = m_deviceService->SetCommand(kRebootCommand, m_payload.get(), &requestId);
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
  if (!m_isAbandoned()) return {};
  LOG_ERROR_AS(kProcedure, "\t The attempt was given up: nothing more is asked of the modem");
  return E_ABORT;
}

DWORD RebootRun::WaitForCompletion(HANDLE event, milliseconds timeout) const {
  const DWORD waited = ::WaitForSingleObject(event, static_cast<DWORD>(timeout.count()));
  // The events are shared: a completion that an abandoned run wakes up to may be what a newer one waits for.
  if (waited == WAIT_OBJECT_0 && m_isAbandoned()) ::SetEvent(event);
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
