#include "download/cmbnsink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/automation.h"
#include "common/handles.h"
#include "simulator/import_patch.h"
#include "simulator/mobile_broadband/unplayed_calls.h"
#include "support/lock_turns.h"
#include "support/log_entry.h"
#include "support/test_log.h"

using corvel::UniqueHandle;
using corvel::UniqueSafeArray;

#if defined(__GNUC__)
// The interfaces have no destructor: one would take a slot.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr HRESULT kStatus = static_cast<HRESULT>(0x8007001F);

/// Stands for any object of the service: it can be referred to, and no more.
class CountedObject final : public IUnknown {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references); }
  ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--references); }

  template <typename Interface>
  Interface* As() {
    return reinterpret_cast<Interface*>(this);
  }

  int references = 0;
};

/// A device service that knows its id.
class NamedDeviceService final : public IMbnDeviceService {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE get_DeviceServiceID(BSTR* id) override {
    *id = ::SysAllocString(L"{service}");
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE QuerySupportedCommands(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OpenCommandSession(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE CloseCommandSession(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetCommand(ULONG, SAFEARRAY*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE QueryCommand(ULONG, SAFEARRAY*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OpenDataSession(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE CloseDataSession(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE WriteData(SAFEARRAY*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE get_IsCommandSessionOpen(BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE get_IsDataSessionOpen(BOOL*) override { return E_NOTIMPL; }
};

/// An interface that knows its id.
class NamedInterface final : public simulator::UnplayedInterfaceCalls<IMbnInterface> {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* id) override {
    *id = ::SysAllocString(L"{interface}");
    return S_OK;
  }
};

template <typename T>
UniqueSafeArray ArrayOf(VARTYPE type, const std::vector<T>& elements) {
  UniqueSafeArray array(::SafeArrayCreateVector(type, 0, static_cast<ULONG>(elements.size())));
  void* data = nullptr;
  if (FAILED(::SafeArrayAccessData(array.get(), &data))) return array;
  std::ranges::copy(elements, static_cast<T*>(data));
  ::SafeArrayUnaccessData(array.get());
  return array;
}

UniqueSafeArray Bytes(const std::vector<BYTE>& bytes) {
  return ArrayOf(VT_UI1, bytes);
}

UniqueSafeArray Ids(const std::vector<ULONG>& ids) {
  return ArrayOf(VT_UI4, ids);
}

LogEntry Trace(const std::string& method, std::string message) {
  return {"Trace", "CMbnSinks::" + method, std::move(message)};
}

/// Exactly these messages, all of them traces of one method.
auto TracesOf(const std::string& method, const std::vector<std::string>& messages) {
  std::vector<LogEntry> entries;
  entries.reserve(messages.size());
  for (const std::string& message : messages) entries.push_back(Trace(method, message));
  return ElementsAreArray(entries);
}

/// Takes the signal of an auto-reset event, if there is one.
bool TakeSignal(HANDLE event) {
  return ::WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
}

class MbnSinkTest : public testing::Test {
 protected:
  MbnSinkTest() {
    g_LastStatus = S_OK;
    g_ulNumberSupportedCommands = 0;
    g_SetCommandResponse.clear();
    g_QueryCommandResponse.clear();
    EXPECT_EQ(m_Sink->Initilazation(), S_OK);
  }
  ~MbnSinkTest() override {
    m_Sink->DeInitilazation();
    m_Sink->Retire();
  }

  CMbnSinks& Sink() { return *m_Sink; }
  void* As(REFIID iid) {
    void* object = nullptr;
    EXPECT_EQ(m_Sink->QueryInterface(iid, &object), S_OK);
    return object;
  }
  std::vector<LogEntry> Entries() const { return EntriesOf(m_Log); }
  bool Logged(const std::string& message) const { return m_Log.Count(message) > 0; }

 private:
  TestLog m_Log;
  std::unique_ptr<CMbnSinks> m_Sink = std::make_unique<CMbnSinks>();
};

// Identity and life

TEST_F(MbnSinkTest, AnswersEachOfItsTenInterfacesWithItsOwnBase) {
  EXPECT_EQ(As(__uuidof(IMbnRadioEvents)), static_cast<IMbnRadioEvents*>(&Sink()));
  EXPECT_EQ(As(__uuidof(IMbnRegistrationEvents)), static_cast<IMbnRegistrationEvents*>(&Sink()));
  EXPECT_EQ(As(__uuidof(IMbnSignalEvents)), static_cast<IMbnSignalEvents*>(&Sink()));
  EXPECT_EQ(As(__uuidof(IMbnInterfaceEvents)), static_cast<IMbnInterfaceEvents*>(&Sink()));
  EXPECT_EQ(As(__uuidof(IMbnInterfaceManagerEvents)), static_cast<IMbnInterfaceManagerEvents*>(&Sink()));
  EXPECT_EQ(As(__uuidof(IMbnConnectionManagerEvents)), static_cast<IMbnConnectionManagerEvents*>(&Sink()));
  EXPECT_EQ(As(__uuidof(IMbnConnectionEvents)), static_cast<IMbnConnectionEvents*>(&Sink()));
  EXPECT_EQ(As(__uuidof(IMbnSmsEvents)), static_cast<IMbnSmsEvents*>(&Sink()));
  EXPECT_EQ(As(__uuidof(IMbnDeviceServicesEvents)), static_cast<IMbnDeviceServicesEvents*>(&Sink()));
  EXPECT_EQ(As(__uuidof(IMbnVendorSpecificEvents)), static_cast<IMbnVendorSpecificEvents*>(&Sink()));
}

TEST_F(MbnSinkTest, ItsBasesLieInTheDocumentedOrder) {
  const std::vector<void*> bases{static_cast<IMbnRadioEvents*>(&Sink()),
                                 static_cast<IMbnRegistrationEvents*>(&Sink()),
                                 static_cast<IMbnSignalEvents*>(&Sink()),
                                 static_cast<IMbnInterfaceEvents*>(&Sink()),
                                 static_cast<IMbnInterfaceManagerEvents*>(&Sink()),
                                 static_cast<IMbnConnectionManagerEvents*>(&Sink()),
                                 static_cast<IMbnConnectionEvents*>(&Sink()),
                                 static_cast<IMbnSmsEvents*>(&Sink()),
                                 static_cast<IMbnDeviceServicesEvents*>(&Sink()),
                                 static_cast<IMbnVendorSpecificEvents*>(&Sink())};
  EXPECT_TRUE(std::ranges::is_sorted(bases));
}

TEST_F(MbnSinkTest, ItsUnknownIsItsFirstInterface) {
  EXPECT_EQ(As(__uuidof(IUnknown)), static_cast<IMbnRadioEvents*>(&Sink()));
  EXPECT_THAT(Entries(), TracesOf("QueryInterface", {"\t QueryInterface, set CMbnSinks as nofity object"}));
}

TEST_F(MbnSinkTest, AnInterfaceThatItGivesCarriesAReference) {
  As(__uuidof(IMbnSmsEvents));
  EXPECT_EQ(Sink().Release(), 0u);
}

TEST_F(MbnSinkTest, IDispatchIsRefusedWithANullPointer) {
  void* object = this;
  EXPECT_EQ(Sink().QueryInterface(__uuidof(IDispatch), &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
}

TEST_F(MbnSinkTest, ANullPlaceForTheInterfaceIsRefused) {
  EXPECT_EQ(Sink().QueryInterface(__uuidof(IUnknown), nullptr), E_POINTER);
}

TEST_F(MbnSinkTest, CountsReferencesFromZero) {
  EXPECT_EQ(Sink().AddRef(), 1u);
  EXPECT_EQ(Sink().AddRef(), 2u);
  EXPECT_EQ(Sink().Release(), 1u);
}

TEST_F(MbnSinkTest, TheLastReleaseLeavesItAliveAndUsable) {
  Sink().AddRef();
  EXPECT_EQ(Sink().Release(), 0u);
  EXPECT_THAT(Entries(), TracesOf("Release", {"\t ***** CMbnSinks::Release() ulNewRef=0\n"}));
  EXPECT_EQ(Sink().OnOpenCommandSessionComplete(nullptr, kStatus, 1), S_OK);
  EXPECT_EQ(g_LastStatus, kStatus);
}

TEST_F(MbnSinkTest, TheLastReleaseOfAnInterfaceLeavesItAlive) {
  auto* events = static_cast<IMbnDeviceServicesEvents*>(As(__uuidof(IMbnDeviceServicesEvents)));
  EXPECT_EQ(events->Release(), 0u);
  EXPECT_EQ(events->AddRef(), 1u);
  events->Release();
}

TEST_F(MbnSinkTest, MakingASinkClearsTheProcessWideEvents) {
  Sink().DeInitilazation();
  g_Event_OnSetCommandComplete = reinterpret_cast<HANDLE>(4);
  const CMbnSinks second;
  EXPECT_EQ(g_Event_OnSetCommandComplete, nullptr);
}

// Events

TEST_F(MbnSinkTest, InitialisingCreatesThreeEventsThatAreNotSet) {
  EXPECT_FALSE(TakeSignal(g_Event_OnOpenCommandSessionComplete));
  EXPECT_FALSE(TakeSignal(g_Event_OnQuerySupportedCommandsComplete));
  EXPECT_FALSE(TakeSignal(g_Event_OnSetCommandComplete));
}

TEST_F(MbnSinkTest, TheEventsResetThemselves) {
  Sink().OnSetCommandComplete(nullptr, 1, nullptr, S_OK, 1);
  EXPECT_TRUE(TakeSignal(g_Event_OnSetCommandComplete));
  EXPECT_FALSE(TakeSignal(g_Event_OnSetCommandComplete));
}

TEST_F(MbnSinkTest, InitialisingAgainKeepsTheEventsThatExist) {
  const HANDLE event = g_Event_OnOpenCommandSessionComplete;
  EXPECT_EQ(Sink().Initilazation(), S_OK);
  EXPECT_EQ(g_Event_OnOpenCommandSessionComplete, event);
}

TEST_F(MbnSinkTest, DeInitialisingClosesTheEvents) {
  const HANDLE event = g_Event_OnOpenCommandSessionComplete;
  EXPECT_EQ(Sink().DeInitilazation(), S_OK);
  EXPECT_EQ(g_Event_OnOpenCommandSessionComplete, nullptr);
  EXPECT_EQ(g_Event_OnQuerySupportedCommandsComplete, nullptr);
  EXPECT_EQ(g_Event_OnSetCommandComplete, nullptr);
  DWORD flags = 0;
  EXPECT_FALSE(::GetHandleInformation(event, &flags));
}

/// What each event was asked for with.
struct EventRequest {
  SECURITY_ATTRIBUTES* security;
  BOOL manualReset;
  BOOL signalled;
  const wchar_t* name;
};
std::vector<EventRequest> g_eventRequests;
HANDLE WINAPI RecordEvent(SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL signalled,
                          const wchar_t* name) {
  g_eventRequests.push_back({security, manualReset, signalled, name});
  return ::CreateEventW(security, manualReset, signalled, name);
}

TEST_F(MbnSinkTest, ItsEventsAreUnnamedAndResetThemselves) {
  Sink().DeInitilazation();
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("CreateEventW", &RecordEvent);
  g_eventRequests.clear();
  Sink().Initilazation();
  EXPECT_THAT(g_eventRequests, SizeIs(3));
  EXPECT_THAT(g_eventRequests,
              Each(AllOf(Field(&EventRequest::security, nullptr), Field(&EventRequest::manualReset, FALSE),
                         Field(&EventRequest::signalled, FALSE), Field(&EventRequest::name, nullptr))));
}

int g_eventsToCreate = 0;
HANDLE WINAPI CreateEventUntilNoneIsLeft(SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL signalled,
                                         const wchar_t* name) {
  if (g_eventsToCreate-- > 0) return ::CreateEventW(security, manualReset, signalled, name);
  ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return nullptr;
}

int g_closedHandles = 0;
BOOL WINAPI CountClosedHandle(HANDLE handle) {
  ++g_closedHandles;
  return ::CloseHandle(handle);
}

TEST_F(MbnSinkTest, AnEventThatCannotBeCreatedTakesThoseCreatedBeforeWithIt) {
  Sink().DeInitilazation();
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("CreateEventW", &CreateEventUntilNoneIsLeft);
  patch.Replace("CloseHandle", &CountClosedHandle);
  g_eventsToCreate = 2;
  g_closedHandles = 0;
  EXPECT_EQ(Sink().Initilazation(), static_cast<HRESULT>(0x80070008));
  EXPECT_EQ(g_closedHandles, 2);
  EXPECT_EQ(g_Event_OnOpenCommandSessionComplete, nullptr);
  EXPECT_EQ(g_Event_OnQuerySupportedCommandsComplete, nullptr);
}

TEST_F(MbnSinkTest, ACompletionAfterTheEventsAreGoneIsRecordedAndSignalsNothing) {
  Sink().DeInitilazation();
  EXPECT_EQ(Sink().OnOpenCommandSessionComplete(nullptr, kStatus, 1), S_OK);
  EXPECT_EQ(g_LastStatus, kStatus);
}

// The supported commands

TEST_F(MbnSinkTest, ListedCommandsAreLoggedAndCounted) {
  const UniqueSafeArray ids = Ids({1, 7, 12});
  EXPECT_EQ(Sink().OnQuerySupportedCommandsComplete(nullptr, ids.get(), kStatus, 5), S_OK);
  EXPECT_THAT(Entries(), TracesOf("OnQuerySupportedCommandsComplete",
                                  {"\t *****Received OnQuerySupportedCommandsComplete Event\n",
                                   "\t  lLower:0  lUpper:2\n", "\t ulCommandId= 1\n", "\t ulCommandId= 7\n",
                                   "\t ulCommandId= 12\n", "\t g_ulNumberSupportedCommands = 3\n"}));
  EXPECT_EQ(g_ulNumberSupportedCommands, 3u);
  EXPECT_EQ(g_LastStatus, kStatus);
  EXPECT_TRUE(TakeSignal(g_Event_OnQuerySupportedCommandsComplete));
}

TEST_F(MbnSinkTest, TheListedIdsThemselvesAreNotKept) {
  const UniqueSafeArray ids = Ids({1, 1, 1});
  Sink().OnQuerySupportedCommandsComplete(nullptr, ids.get(), S_OK, 5);
  EXPECT_EQ(g_ulSupportedCommandIds[0], 0u);
}

TEST_F(MbnSinkTest, AnEmptyListCountsZeroAndSignals) {
  g_ulNumberSupportedCommands = 9;
  const UniqueSafeArray none = Ids({});
  Sink().OnQuerySupportedCommandsComplete(nullptr, none.get(), S_OK, 5);
  EXPECT_EQ(g_ulNumberSupportedCommands, 0u);
  EXPECT_TRUE(TakeSignal(g_Event_OnQuerySupportedCommandsComplete));
}

TEST_F(MbnSinkTest, AnAbsentListLeavesTheCountAndSignals) {
  g_ulNumberSupportedCommands = 9;
  Sink().OnQuerySupportedCommandsComplete(nullptr, nullptr, S_OK, 5);
  EXPECT_EQ(g_ulNumberSupportedCommands, 9u);
  EXPECT_TRUE(TakeSignal(g_Event_OnQuerySupportedCommandsComplete));
}

TEST_F(MbnSinkTest, AListWithoutBoundsIsNeitherRecordedNorSignalled) {
  UniqueSafeArray ids = Ids({1});
  ids->cDims = 0;
  EXPECT_EQ(Sink().OnQuerySupportedCommandsComplete(nullptr, ids.get(), kStatus, 5), S_OK);
  ids->cDims = 1;
  EXPECT_EQ(g_LastStatus, S_OK);
  EXPECT_FALSE(TakeSignal(g_Event_OnQuerySupportedCommandsComplete));
}

TEST_F(MbnSinkTest, AListThatDoesNotBeginAtZeroIsCountedByItsBounds) {
  SAFEARRAYBOUND bound{4, 10};
  const UniqueSafeArray ids(::SafeArrayCreate(VT_UI4, 1, &bound));
  Sink().OnQuerySupportedCommandsComplete(nullptr, ids.get(), S_OK, 5);
  EXPECT_THAT(Entries(), Contains(Trace("OnQuerySupportedCommandsComplete", "\t  lLower:10  lUpper:13\n")));
  EXPECT_EQ(g_ulNumberSupportedCommands, 4u);
}

TEST_F(MbnSinkTest, AnEmptyListAtTheLowestIndexEndsAroundTheCornerAndHoldsNothing) {
  SAFEARRAYBOUND bound{0, std::numeric_limits<LONG>::min()};
  const UniqueSafeArray ids(::SafeArrayCreate(VT_UI4, 1, &bound));
  g_ulNumberSupportedCommands = 9;
  Sink().OnQuerySupportedCommandsComplete(nullptr, ids.get(), S_OK, 5);
  EXPECT_EQ(g_ulNumberSupportedCommands, 0u);
  EXPECT_EQ(corvel::ArrayElements<ULONG>(ids.get()).begin(), corvel::ArrayElements<ULONG>(ids.get()).end());
}

TEST_F(MbnSinkTest, AListOfOtherElementsIsCountedAndNotRead) {
  const UniqueSafeArray bytes = Bytes({1, 2});
  Sink().OnQuerySupportedCommandsComplete(nullptr, bytes.get(), S_OK, 5);
  EXPECT_FALSE(Logged("\t ulCommandId= 1\n"));
  EXPECT_EQ(g_ulNumberSupportedCommands, 2u);
}

// The command session

TEST_F(MbnSinkTest, AnOpenedSessionIsLoggedWithTheLowHalfOfItsService) {
  CountedObject service;
  std::ostringstream lowHalf;
  lowHalf << std::hex << static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&service));
  Sink().OnOpenCommandSessionComplete(service.As<IMbnDeviceService>(), kStatus, 3);
  EXPECT_THAT(Entries(),
              TracesOf("OnOpenCommandSessionComplete",
                       {"\t *****Received OnOpenCommandSessionComplete Event\n",
                        "\t *****deviceService = " + lowHalf.str() + "\n", "\t *****status = 8007001f\n"}));
  EXPECT_TRUE(TakeSignal(g_Event_OnOpenCommandSessionComplete));
}

TEST_F(MbnSinkTest, ANewServiceReplacesTheOneKept) {
  CountedObject first;
  CountedObject second;
  Sink().OnOpenCommandSessionComplete(first.As<IMbnDeviceService>(), S_OK, 1);
  Sink().OnOpenCommandSessionComplete(second.As<IMbnDeviceService>(), S_OK, 2);
  EXPECT_EQ(g_MbnDeviceService, second.As<IMbnDeviceService>());
  EXPECT_EQ(first.references, 0);
  EXPECT_EQ(second.references, 1);
  Sink().Retire();
}

TEST_F(MbnSinkTest, TheSameServiceAgainIsKeptWithOneReference) {
  CountedObject service;
  Sink().OnOpenCommandSessionComplete(service.As<IMbnDeviceService>(), S_OK, 1);
  Sink().OnSetCommandComplete(service.As<IMbnDeviceService>(), 1, nullptr, S_OK, 2);
  EXPECT_EQ(service.references, 1);
  Sink().Retire();
}

TEST_F(MbnSinkTest, AClosedSessionIsLoggedWithItsRequest) {
  Sink().OnCloseCommandSessionComplete(nullptr, kStatus, 0x1F);
  EXPECT_THAT(Entries(), TracesOf("OnCloseCommandSessionComplete",
                                  {"\t *****Received OnCloseCommandSessionComplete Event\n",
                                   "\t *****status = 8007001f\n", "\t *****requestID = 1f\n"}));
  EXPECT_EQ(g_LastStatus, kStatus);
}

// Set and query

TEST_F(MbnSinkTest, ASetCommandsResponseIsLoggedAndKept) {
  const UniqueSafeArray data = Bytes({0x01, 0xAB});
  EXPECT_EQ(Sink().OnSetCommandComplete(nullptr, 6, data.get(), S_OK, 5), S_OK);
  EXPECT_THAT(Entries(), TracesOf("OnSetCommandComplete",
                                  {"\t *****Received OnSetCommandComplete Event\n", "\t *****requestID = 5\n",
                                   "\t *****reponseID = 6\n", "\t *****status = 0\n", "\t Response = ", "01 ",
                                   "AB ", "\t NumElements = 2\n"}));
  EXPECT_THAT(g_SetCommandResponse, ElementsAre(0x01, 0xAB));
  EXPECT_TRUE(TakeSignal(g_Event_OnSetCommandComplete));
}

TEST_F(MbnSinkTest, AFailingSetCommandIsRecordedAndSignalledWithoutTouchingTheResponse) {
  g_SetCommandResponse = {0x55};
  const UniqueSafeArray data = Bytes({0x01});
  Sink().OnSetCommandComplete(nullptr, 6, data.get(), kStatus, 5);
  EXPECT_THAT(Entries(), Contains(Trace("OnSetCommandComplete", "\t *****status = 8007001f\n")));
  EXPECT_THAT(g_SetCommandResponse, ElementsAre(0x55));
  EXPECT_EQ(g_LastStatus, kStatus);
  EXPECT_TRUE(TakeSignal(g_Event_OnSetCommandComplete));
}

TEST_F(MbnSinkTest, NoSuccessButTheWholeOneKeepsAResponse) {
  g_SetCommandResponse = {0x55};
  g_QueryCommandResponse = {0x66};
  const UniqueSafeArray data = Bytes({0x01});
  Sink().OnSetCommandComplete(nullptr, 6, data.get(), S_FALSE, 5);
  Sink().OnQueryCommandComplete(nullptr, 6, data.get(), S_FALSE, 5);
  EXPECT_THAT(g_SetCommandResponse, ElementsAre(0x55));
  EXPECT_THAT(g_QueryCommandResponse, ElementsAre(0x66));
  EXPECT_EQ(g_LastStatus, S_FALSE);
}

TEST_F(MbnSinkTest, ASetCommandWithoutDataLeavesTheResponse) {
  g_SetCommandResponse = {0x55};
  Sink().OnSetCommandComplete(nullptr, 6, nullptr, S_OK, 5);
  EXPECT_THAT(g_SetCommandResponse, ElementsAre(0x55));
  EXPECT_TRUE(TakeSignal(g_Event_OnSetCommandComplete));
}

TEST_F(MbnSinkTest, AResponseIsKeptAsLongAsTheModemMadeIt) {
  const UniqueSafeArray data = Bytes(std::vector<BYTE>(300, 0x7E));
  Sink().OnSetCommandComplete(nullptr, 6, data.get(), S_OK, 5);
  EXPECT_EQ(g_SetCommandResponse, std::vector<BYTE>(300, 0x7E));
}

constexpr std::size_t kLongResponse = 777;
void* __cdecl NoMemoryForALongResponse(std::size_t size) {
  return size == kLongResponse ? nullptr : std::malloc(size);
}

TEST_F(MbnSinkTest, AResponseThatThereIsNoMemoryForCountsAsEmptyAndSignals) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  if (!patch.ReplaceIfImported("malloc", &NoMemoryForALongResponse))
    GTEST_SKIP() << "the runtime is linked in";
  const UniqueSafeArray data = Bytes(std::vector<BYTE>(kLongResponse, 0x7E));
  EXPECT_EQ(Sink().OnSetCommandComplete(nullptr, 6, data.get(), S_OK, 5), S_OK);
  EXPECT_THAT(Entries(),
              TracesOf("OnSetCommandComplete",
                       {"\t *****Received OnSetCommandComplete Event\n", "\t *****requestID = 5\n",
                        "\t *****reponseID = 6\n", "\t *****status = 0\n", "\t NumElements = 0\n"}));
  EXPECT_THAT(g_SetCommandResponse, IsEmpty());
  EXPECT_TRUE(TakeSignal(g_Event_OnSetCommandComplete));
}

TEST_F(MbnSinkTest, TheServicesArrayIsLeftUnlocked) {
  const UniqueSafeArray data = Bytes({0x01});
  Sink().OnSetCommandComplete(nullptr, 6, data.get(), S_OK, 5);
  EXPECT_EQ(data->cLocks, 0u);
}

TEST_F(MbnSinkTest, ADataArrayOfOtherElementsIsNotRead) {
  const UniqueSafeArray data = Ids({1, 2});
  Sink().OnSetCommandComplete(nullptr, 6, data.get(), S_OK, 5);
  EXPECT_THAT(Entries(), Contains(Trace("OnSetCommandComplete", "\t NumElements = 0\n")));
  EXPECT_TRUE(TakeSignal(g_Event_OnSetCommandComplete));
}

TEST_F(MbnSinkTest, AQueryCommandsResponseIsLoggedAndKeptApart) {
  const UniqueSafeArray data = Bytes({0x02});
  EXPECT_EQ(Sink().OnQueryCommandComplete(nullptr, 6, data.get(), S_OK, 5), S_OK);
  EXPECT_THAT(Entries(), TracesOf("OnQueryCommandComplete",
                                  {"\t *****Received OnQueryCommandComplete Event\n",
                                   "\t *****requestID = 5\n", "\t *****reponseID = 6\n",
                                   "\t *****status = 0\n", "\t Response = ", "02 ", "\t NumElements = 1\n"}));
  EXPECT_THAT(g_QueryCommandResponse, ElementsAre(0x02));
  EXPECT_THAT(g_SetCommandResponse, IsEmpty());
}

TEST_F(MbnSinkTest, AFailingQueryCommandIsRecordedWithoutTouchingTheResponse) {
  g_QueryCommandResponse = {0x55};
  const UniqueSafeArray data = Bytes({0x01});
  EXPECT_EQ(Sink().OnQueryCommandComplete(nullptr, 6, data.get(), kStatus, 5), S_OK);
  EXPECT_THAT(g_QueryCommandResponse, ElementsAre(0x55));
  EXPECT_EQ(g_LastStatus, kStatus);
}

TEST_F(MbnSinkTest, AQueryCommandWithoutDataLeavesTheResponse) {
  g_QueryCommandResponse = {0x55};
  Sink().OnQueryCommandComplete(nullptr, 6, nullptr, S_OK, 5);
  EXPECT_THAT(g_QueryCommandResponse, ElementsAre(0x55));
}

TEST_F(MbnSinkTest, ASetCommandsServiceIsKept) {
  CountedObject service;
  Sink().OnSetCommandComplete(service.As<IMbnDeviceService>(), 6, nullptr, S_OK, 5);
  EXPECT_EQ(g_MbnDeviceService, service.As<IMbnDeviceService>());
  Sink().Retire();
}

TEST_F(MbnSinkTest, AQueryCommandsServiceIsKept) {
  CountedObject service;
  Sink().OnQueryCommandComplete(service.As<IMbnDeviceService>(), 6, nullptr, S_OK, 5);
  EXPECT_EQ(g_MbnDeviceService, service.As<IMbnDeviceService>());
  Sink().Retire();
}

TEST_F(MbnSinkTest, NobodyIsWokenByAQueryCommand) {
  Sink().OnQueryCommandComplete(nullptr, 6, nullptr, S_OK, 5);
  EXPECT_FALSE(TakeSignal(g_Event_OnQuerySupportedCommandsComplete));
  EXPECT_FALSE(TakeSignal(g_Event_OnSetCommandComplete));
  EXPECT_FALSE(TakeSignal(g_Event_OnOpenCommandSessionComplete));
}

// What a client may ask to be told

struct Told {
  ULONG kind = 0;
  std::wstring id;
  std::vector<BYTE> data;
  friend bool operator==(const Told&, const Told&) = default;
};
std::vector<Told> g_told;
std::vector<std::pair<IMbnInterface*, int>> g_arrivals;

void Tell(ULONG kind, const wchar_t* id, const BYTE* data, ULONG count) noexcept {
  g_told.push_back({kind, id, std::vector<BYTE>(data, data + count)});
}

void NoteArrival(IMbnInterface* mbnInterface, int arrived) noexcept {
  g_arrivals.emplace_back(mbnInterface, arrived);
}

class MbnSinkClientTest : public MbnSinkTest {
 protected:
  MbnSinkClientTest() {
    g_told.clear();
    g_arrivals.clear();
  }
  void AskFor(ULONG wanted) {
    Sink().ClientHooks().onNotification = &Tell;
    Sink().ClientHooks().wantedNotifications = wanted;
  }

  NamedDeviceService m_Service;
  NamedInterface m_Interface;
};

TEST_F(MbnSinkClientTest, AnEventNotificationsBytesAreLogged) {
  const UniqueSafeArray data = Bytes({0x0C});
  EXPECT_EQ(Sink().OnEventNotification(&m_Service, 3, data.get()), S_OK);
  EXPECT_THAT(Entries(), TracesOf("OnEventNotification", {"\t *****Received OnEventNotification Event\n",
                                                          "\t Response = ", "0C ", "\t NumElements = 1\n"}));
}

TEST_F(MbnSinkClientTest, AnEventNotificationThatIsWantedIsPassedOnWithItsService) {
  AskFor(0x100);
  const UniqueSafeArray data = Bytes({0x0C, 0x0D});
  Sink().OnEventNotification(&m_Service, 3, data.get());
  EXPECT_THAT(g_told, ElementsAre(Told{0x100, L"{service}", {0x0C, 0x0D}}));
  EXPECT_THAT(Sink().ClientHooks().deviceServiceData, ElementsAre(0x0C, 0x0D));
}

TEST_F(MbnSinkClientTest, AnEventNotificationThatIsNotWantedIsNotPassedOn) {
  AskFor(0x0FF);
  Sink().OnEventNotification(&m_Service, 3, nullptr);
  AskFor(0x200);
  Sink().OnEventNotification(&m_Service, 3, nullptr);
  EXPECT_THAT(g_told, IsEmpty());
  EXPECT_THAT(Sink().ClientHooks().deviceServiceData, IsEmpty());
}

TEST_F(MbnSinkClientTest, AnEventNotificationWithoutDataOrServiceIsPassedOnEmpty) {
  AskFor(0x100);
  Sink().OnEventNotification(static_cast<IMbnDeviceService*>(nullptr), 3, nullptr);
  EXPECT_THAT(g_told, ElementsAre(Told{0x100, L"", {}}));
}

TEST_F(MbnSinkClientTest, ReadDataIsLoggedAndItsServicePassedOn) {
  AskFor(0);
  const UniqueSafeArray data = Bytes({0x0E});
  EXPECT_EQ(Sink().OnReadData(&m_Service, data.get()), S_OK);
  EXPECT_THAT(Entries(), TracesOf("OnReadData", {"\t *****Received OnReadData Event\n",
                                                 "\t Response = ", "0E ", "\t NumElements = 1\n"}));
  EXPECT_THAT(g_told, ElementsAre(Told{0x100, L"{service}", {}}));
}

TEST_F(MbnSinkClientTest, AnArrivingInterfaceReachesTheArrivalHook) {
  Sink().ClientHooks().onInterfaceArrival = &NoteArrival;
  EXPECT_EQ(Sink().OnInterfaceArrival(&m_Interface), S_OK);
  EXPECT_THAT(g_arrivals, ElementsAre(std::pair<IMbnInterface*, int>(&m_Interface, 1)));
}

TEST_F(MbnSinkClientTest, WithoutAHookNobodyIsTold) {
  Sink().ClientHooks().wantedNotifications = 0x180;
  const UniqueSafeArray data = Bytes({0x0C});
  EXPECT_EQ(Sink().OnEventNotification(&m_Service, 3, data.get()), S_OK);
  EXPECT_EQ(Sink().OnReadData(&m_Service, data.get()), S_OK);
  EXPECT_EQ(Sink().OnInterfaceArrival(&m_Interface), S_OK);
  EXPECT_THAT(Sink().ClientHooks().deviceServiceData, IsEmpty());
}

TEST_F(MbnSinkClientTest, AnArrivingInterfaceIsPassedOnFromMask128Upwards) {
  AskFor(0x80);
  Sink().OnInterfaceArrival(&m_Interface);
  AskFor(0x100);
  Sink().OnInterfaceArrival(&m_Interface);
  EXPECT_THAT(g_told, ElementsAre(Told{0x80, L"{interface}", {}}, Told{0x80, L"{interface}", {}}));
}

TEST_F(MbnSinkClientTest, AnArrivingInterfaceIsNotPassedOnBelowMask128) {
  AskFor(0x7F);
  Sink().OnInterfaceArrival(&m_Interface);
  EXPECT_THAT(g_told, IsEmpty());
}

// The handlers that only log, and those that record as well

struct Handler {
  /// The method's.
  const char* name;
  std::function<HRESULT(CMbnSinks&, CountedObject&)> call;
  const char* message;
  bool recordsStatus = false;
  /// The slot that keeps the object; null where none does.
  std::function<void*()> slot;
};

void PrintTo(const Handler& handler, std::ostream* stream) {
  *stream << handler.name;
}

void* KeptRadio() {
  return g_MbnRadio;
}
void* KeptSignal() {
  return g_MbnSignal;
}
void* KeptInterface() {
  return g_MbnInterface;
}
void* KeptConnection() {
  return g_MbnConnection;
}
void* KeptService() {
  return g_MbnDeviceService;
}

const std::vector<Handler>& Handlers() {
  using S = CMbnSinks;
  using O = CountedObject;
  static const std::vector<Handler> handlers{
      {"OnRadioStateChange", [](S& s, O& o) { return s.OnRadioStateChange(o.As<IMbnRadio>()); },
       "\t *****Received OnRadioStateChange Event\n", false, &KeptRadio},
      {"OnSetSoftwareRadioStateComplete",
       [](S& s, O& o) { return s.OnSetSoftwareRadioStateComplete(o.As<IMbnRadio>(), 77, kStatus); },
       "\t ***Received OnSetSoftwareRadioStateComplete Event for requestID = 77\n", true, &KeptRadio},
      {"OnRegisterModeAvailable",
       [](S& s, O& o) { return s.OnRegisterModeAvailable(o.As<IMbnRegistration>()); },
       "\t *****Received OnRegisterModeAvailable Event\n",
       false,
       {}},
      {"OnRegisterStateChange",
       [](S& s, O& o) { return s.OnRegisterStateChange(o.As<IMbnRegistration>()); },
       "\t *****Received OnRegisterStateChange Event\n",
       false,
       {}},
      {"OnPacketServiceStateChange",
       [](S& s, O& o) { return s.OnPacketServiceStateChange(o.As<IMbnRegistration>()); },
       "\t *****Received OnPacketServiceStateChange Event\n",
       false,
       {}},
      {"OnSetRegisterModeComplete",
       [](S& s, O& o) { return s.OnSetRegisterModeComplete(o.As<IMbnRegistration>(), 1, kStatus); },
       "\t *****Received OnSetRegisterModeComplete Event\n",
       true,
       {}},
      {"OnSignalStateChange", [](S& s, O& o) { return s.OnSignalStateChange(o.As<IMbnSignal>()); },
       "\t *****Received OnSignalStateChange Event\n", false, &KeptSignal},
      {"OnInterfaceCapabilityAvailable",
       [](S& s, O& o) { return s.OnInterfaceCapabilityAvailable(o.As<IMbnInterface>()); },
       "\t *****Received OnInterfaceCapabilityAvailable Event\n", false, &KeptInterface},
      {"OnSubscriberInformationChange",
       [](S& s, O& o) { return s.OnSubscriberInformationChange(o.As<IMbnInterface>()); },
       "\t *****Received OnSubscriberInformationChange Event\n", false, &KeptInterface},
      {"OnReadyStateChange", [](S& s, O& o) { return s.OnReadyStateChange(o.As<IMbnInterface>()); },
       "\t *****Received OnReadyStateChange Event\n", false, &KeptInterface},
      {"OnEmergencyModeChange", [](S& s, O& o) { return s.OnEmergencyModeChange(o.As<IMbnInterface>()); },
       "\t *****Received OnEmergencyModeChange Event\n", false, &KeptInterface},
      {"OnHomeProviderAvailable", [](S& s, O& o) { return s.OnHomeProviderAvailable(o.As<IMbnInterface>()); },
       "\t *****Received OnHomeProviderAvailable Event\n", false, &KeptInterface},
      {"OnPreferredProvidersChange",
       [](S& s, O& o) { return s.OnPreferredProvidersChange(o.As<IMbnInterface>()); },
       "\t *****Received OnPreferredProvidersChange Event\n", false, &KeptInterface},
      {"OnSetPreferredProvidersComplete",
       [](S& s, O& o) { return s.OnSetPreferredProvidersComplete(o.As<IMbnInterface>(), 1, kStatus); },
       "\t *****Received OnSetPreferredProvidersComplete Event\n", true, &KeptInterface},
      {"OnScanNetworkComplete",
       [](S& s, O& o) { return s.OnScanNetworkComplete(o.As<IMbnInterface>(), 1, kStatus); },
       "\t *****Received OnScanNetworkComplete Event\n", true, &KeptInterface},
      {"OnInterfaceArrival",
       [](S& s, O& o) { return s.OnInterfaceArrival(o.As<IMbnInterface>()); },
       "\t *****Received OnInterfaceArrival Event\n",
       false,
       {}},
      {"OnInterfaceRemoval",
       [](S& s, O& o) { return s.OnInterfaceRemoval(o.As<IMbnInterface>()); },
       "\t *****Received OnInterfaceRemoval Event\n",
       false,
       {}},
      {"OnConnectionArrival", [](S& s, O& o) { return s.OnConnectionArrival(o.As<IMbnConnection>()); },
       "\t *****Received OnConnectionArrival Event\n", false, &KeptConnection},
      {"OnConnectionRemoval", [](S& s, O& o) { return s.OnConnectionRemoval(o.As<IMbnConnection>()); },
       "\t *****Received OnConnectionRemoval Event\n", false, &KeptConnection},
      {"OnConnectStateChange", [](S& s, O& o) { return s.OnConnectStateChange(o.As<IMbnConnection>()); },
       "\t *****Received OnConnectStateChange Event\n", false, &KeptConnection},
      {"OnVoiceCallStateChange", [](S& s, O& o) { return s.OnVoiceCallStateChange(o.As<IMbnConnection>()); },
       "\t *****Received OnVoiceCallStateChange Event\n", false, &KeptConnection},
      {"OnConnectComplete",
       [](S& s, O& o) { return s.OnConnectComplete(o.As<IMbnConnection>(), 1, kStatus); },
       "\t *****Received OnConnectComplete Event, Status=8007001f\n", true, &KeptConnection},
      {"OnDisconnectComplete",
       [](S& s, O& o) { return s.OnDisconnectComplete(o.As<IMbnConnection>(), 1, kStatus); },
       "\t *****Received OnDisconnectComplete Event\n", true, &KeptConnection},
      {"OnOpenDataSessionComplete",
       [](S& s, O& o) { return s.OnOpenDataSessionComplete(o.As<IMbnDeviceService>(), kStatus, 1); },
       "\t *****Received OnOpenDataSessionComplete Event\n", true, &KeptService},
      {"OnCloseDataSessionComplete",
       [](S& s, O& o) { return s.OnCloseDataSessionComplete(o.As<IMbnDeviceService>(), kStatus, 1); },
       "\t *****Received OnCloseDataSessionComplete Event\n", true, &KeptService},
      {"OnWriteDataComplete",
       [](S& s, O& o) { return s.OnWriteDataComplete(o.As<IMbnDeviceService>(), kStatus, 1); },
       "\t *****Received OnWriteDataComplete Event\n", true, &KeptService},
      {"OnInterfaceStateChange",
       [](S& s, O& o) {
         static_cast<void>(o);
         return s.OnInterfaceStateChange(nullptr, MBN_DEVICE_SERVICES_CAPABLE_INTERFACE_REMOVAL);
       },
       "\t *****Received OnInterfaceStateChange Event\n",
       false,
       {}},
      {"OnEventNotification",
       [](S& s, O& o) { return s.OnEventNotification(o.As<IMbnVendorSpecificOperation>(), nullptr); },
       "\t ***Received IMbnVendorSpecificEvents::OnEventNotification Event\n",
       false,
       {}},
  };
  return handlers;
}

class MbnSinkHandlerTest : public MbnSinkTest, public testing::WithParamInterface<Handler> {
 protected:
  ~MbnSinkHandlerTest() override { Sink().Retire(); }
  CountedObject m_Object;
};

TEST_P(MbnSinkHandlerTest, LogsItsOwnLineAndSucceeds) {
  EXPECT_EQ(GetParam().call(Sink(), m_Object), S_OK);
  EXPECT_THAT(Entries(), TracesOf(GetParam().name, {GetParam().message}));
}

TEST_P(MbnSinkHandlerTest, RecordsTheStatusIfItCarriesOne) {
  GetParam().call(Sink(), m_Object);
  EXPECT_EQ(g_LastStatus, GetParam().recordsStatus ? kStatus : S_OK);
}

TEST_P(MbnSinkHandlerTest, KeepsTheObjectIfItHasAPlaceForIt) {
  GetParam().call(Sink(), m_Object);
  EXPECT_EQ(m_Object.references, GetParam().slot ? 1 : 0);
  if (GetParam().slot) {
    EXPECT_EQ(GetParam().slot(), &m_Object);
  }
}

TEST_P(MbnSinkHandlerTest, WakesNobody) {
  GetParam().call(Sink(), m_Object);
  EXPECT_FALSE(TakeSignal(g_Event_OnOpenCommandSessionComplete));
  EXPECT_FALSE(TakeSignal(g_Event_OnQuerySupportedCommandsComplete));
  EXPECT_FALSE(TakeSignal(g_Event_OnSetCommandComplete));
}

INSTANTIATE_TEST_SUITE_P(Each, MbnSinkHandlerTest, testing::ValuesIn(Handlers()),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(MbnSinkTest, TheSmsHandlersAndTheVendorCompletionSucceedSilently) {
  EXPECT_EQ(Sink().OnSmsConfigurationChange(nullptr), S_OK);
  EXPECT_EQ(Sink().OnSetSmsConfigurationComplete(nullptr, 1, kStatus), S_OK);
  EXPECT_EQ(Sink().OnSmsSendComplete(nullptr, 1, kStatus), S_OK);
  EXPECT_EQ(Sink().OnSmsReadComplete(nullptr, MBN_SMS_FORMAT_PDU, nullptr, VARIANT_TRUE, 1, kStatus), S_OK);
  EXPECT_EQ(Sink().OnSmsNewClass0Message(nullptr, MBN_SMS_FORMAT_TEXT, nullptr), S_OK);
  EXPECT_EQ(Sink().OnSmsDeleteComplete(nullptr, 1, kStatus), S_OK);
  EXPECT_EQ(Sink().OnSmsStatusChange(nullptr), S_OK);
  EXPECT_EQ(Sink().OnSetVendorSpecificComplete(nullptr, nullptr, 1), S_OK);
  EXPECT_THAT(Entries(), IsEmpty());
  EXPECT_EQ(g_LastStatus, S_OK);
}

// The end of a sink

TEST_F(MbnSinkTest, RetiringGivesUpEveryObjectKept) {
  CountedObject object;
  Sink().OnRadioStateChange(object.As<IMbnRadio>());
  Sink().OnSignalStateChange(object.As<IMbnSignal>());
  Sink().OnReadyStateChange(object.As<IMbnInterface>());
  Sink().OnConnectionArrival(object.As<IMbnConnection>());
  Sink().OnOpenCommandSessionComplete(object.As<IMbnDeviceService>(), S_OK, 1);
  EXPECT_EQ(object.references, 5);
  Sink().Retire();
  EXPECT_EQ(object.references, 0);
  EXPECT_EQ(g_MbnDeviceService, nullptr);
}

TEST_F(MbnSinkTest, ARetiredSinkKeepsAndRecordsAndSignalsNothing) {
  CountedObject object;
  const UniqueSafeArray data = Bytes({0x01});
  const UniqueSafeArray ids = Ids({1});
  Sink().Retire();
  Sink().OnSetCommandComplete(object.As<IMbnDeviceService>(), 1, data.get(), S_OK, 1);
  Sink().OnQuerySupportedCommandsComplete(nullptr, ids.get(), kStatus, 1);
  EXPECT_EQ(object.references, 0);
  EXPECT_THAT(g_SetCommandResponse, IsEmpty());
  EXPECT_EQ(g_ulNumberSupportedCommands, 0u);
  EXPECT_EQ(g_LastStatus, S_OK);
  EXPECT_FALSE(TakeSignal(g_Event_OnSetCommandComplete));
  EXPECT_FALSE(TakeSignal(g_Event_OnQuerySupportedCommandsComplete));
}

TEST_F(MbnSinkTest, ARetiredSinkIsNotSaidToBeSetAnyMore) {
  Sink().Retire();
  EXPECT_EQ(As(__uuidof(IUnknown)), static_cast<IMbnRadioEvents*>(&Sink()));
  EXPECT_THAT(Entries(), IsEmpty());
  Sink().Release();
}

TEST_F(MbnSinkTest, DisconnectingLeavesTheReferencesOfOthers) {
  Sink().AddRef();
  Sink().Retire();
  Sink().Disconnect();
  EXPECT_THAT(Entries(), IsEmpty());
  EXPECT_EQ(Sink().Release(), 0u);
}

TEST_F(MbnSinkTest, DisconnectingASinkThatNobodyRefersToTellsNothing) {
  Sink().Retire();
  Sink().Disconnect();
  EXPECT_THAT(Entries(), IsEmpty());
}

TEST_F(MbnSinkTest, ARetiredSinkThatNobodyRefersToMayBeDeleted) {
  Sink().Retire();
  EXPECT_TRUE(Sink().IsDeserted());
}

TEST_F(MbnSinkTest, ARetiredSinkThatSomebodyRefersToMustStay) {
  Sink().AddRef();
  Sink().Retire();
  EXPECT_FALSE(Sink().IsDeserted());
  Sink().Release();
  EXPECT_TRUE(Sink().IsDeserted());
}

HANDLE g_handlerEntered = nullptr;
HANDLE g_handlerMayLeave = nullptr;

void StayInTheHandler(IMbnInterface*, int) noexcept {
  ::SetEvent(g_handlerEntered);
  ::WaitForSingleObject(g_handlerMayLeave, 10000);
}

TEST_F(MbnSinkTest, ARetiredSinkThatIsInAHandlerMustStay) {
  const UniqueHandle entered(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const UniqueHandle mayLeave(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  g_handlerEntered = entered.get();
  g_handlerMayLeave = mayLeave.get();
  Sink().ClientHooks().onInterfaceArrival = &StayInTheHandler;
  std::thread caller([this] { Sink().OnInterfaceArrival(nullptr); });
  EXPECT_EQ(::WaitForSingleObject(entered.get(), 10000), WAIT_OBJECT_0);
  Sink().Retire();
  EXPECT_FALSE(Sink().IsDeserted());
  ::SetEvent(mayLeave.get());
  caller.join();
  EXPECT_TRUE(Sink().IsDeserted());
}

// The lock on what all sinks record

struct GuardedCall {
  const char* name;
  std::function<void(CMbnSinks&)> prepare;
  std::function<void(CMbnSinks&)> call;
  /// Whether the call has had its effect.
  std::function<bool()> done;
};

void PrintTo(const GuardedCall& guarded, std::ostream* stream) {
  *stream << guarded.name;
}

CountedObject g_keptObject;
CountedObject g_objectOfTheOther;

const std::vector<GuardedCall>& GuardedCalls() {
  using S = CMbnSinks;
  const auto nothing = [](S&) {};
  static const std::vector<GuardedCall> calls{
      {"KeepingAnObject", nothing, [](S& s) { s.OnReadyStateChange(g_keptObject.As<IMbnInterface>()); },
       [] { return g_MbnInterface != nullptr; }},
      {"KeepingAResponse", nothing,
       [](S& s) {
         const UniqueSafeArray data = Bytes({0x01});
         s.OnQueryCommandComplete(nullptr, 1, data.get(), S_OK, 1);
       },
       [] { return !g_QueryCommandResponse.empty(); }},
      {"KeepingTheNumberOfCommands", nothing,
       [](S& s) {
         const UniqueSafeArray ids = Ids({1, 2});
         s.OnQuerySupportedCommandsComplete(nullptr, ids.get(), S_OK, 1);
       },
       [] { return g_ulNumberSupportedCommands == 2; }},
      {"ReportingACompletion", nothing, [](S& s) { s.OnOpenCommandSessionComplete(nullptr, kStatus, 1); },
       [] { return g_LastStatus == kStatus && TakeSignal(g_Event_OnOpenCommandSessionComplete); }},
      {"Initialising", [](S& s) { s.DeInitilazation(); }, [](S& s) { s.Initilazation(); },
       [] { return g_Event_OnSetCommandComplete != nullptr; }},
      {"DeInitialising", nothing, [](S& s) { s.DeInitilazation(); },
       [] { return g_Event_OnSetCommandComplete == nullptr; }},
      {"Retiring", [](S& s) { s.OnReadyStateChange(g_keptObject.As<IMbnInterface>()); },
       [](S& s) { s.Retire(); }, [] { return g_MbnInterface == nullptr; }},
  };
  return calls;
}

class MbnSinkLockTest : public MbnSinkTest, public testing::WithParamInterface<GuardedCall> {
 protected:
  MbnSinkLockTest() { GetParam().prepare(Sink()); }
  ~MbnSinkLockTest() override { Sink().Retire(); }
  std::function<void()> TheCall() {
    return [this] { GetParam().call(Sink()); };
  }
  std::function<void()> AnotherCall() {
    return [this] { Sink().OnSignalStateChange(g_objectOfTheOther.As<IMbnSignal>()); };
  }
};

TEST_P(MbnSinkLockTest, KeepsOthersOutUntilItIsDone) {
  LockTurns turns;
  ASSERT_TRUE(turns.HoldInside(TheCall()));
  EXPECT_TRUE(GetParam().done());
  EXPECT_TRUE(turns.AsksForTheSameLock(AnotherCall()));
  EXPECT_EQ(g_MbnSignal, nullptr);
}

TEST_P(MbnSinkLockTest, WaitsForWhoeverIsIn) {
  LockTurns turns;
  ASSERT_TRUE(turns.HoldInside(AnotherCall()));
  EXPECT_NE(g_MbnSignal, nullptr);
  EXPECT_TRUE(turns.AsksForTheSameLock(TheCall()));
  EXPECT_FALSE(GetParam().done());
}

INSTANTIATE_TEST_SUITE_P(Of, MbnSinkLockTest, testing::ValuesIn(GuardedCalls()),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
