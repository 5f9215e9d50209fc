#include "download/mbimreboot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/automation.h"
#include "common/handles.h"
#include "download/cmbnsink.h"
#include "download/firmwaredownloader.h"
#include "download/sinkshare.h"
#include "simulator/import_patch.h"
#include "simulator/mobile_broadband.h"
#include "support/handle_census.h"
#include "support/log_entry.h"
#include "support/test_log.h"

using corvel::DeleteRetiredSinks;
using corvel::RebootModemThroughMobileBroadband;
using corvel::UniqueHandle;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr HRESULT kFailure = static_cast<HRESULT>(0x8007001F);
constexpr HRESULT kTimedOut = static_cast<HRESULT>(0x80070102);
constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070490);
constexpr wchar_t kVendorService[] = L"{0ED374CB-F835-4474-BC11-3B3FD76F5641}";
constexpr char kProcedure[] = "CFirmwareDownloader::RebootModemByMbimCmd";
constexpr char kAbandoned[] = "\t The attempt was given up: nothing more is asked of the modem";
constexpr DWORD kPatience = 20000;
/// A limit that only the waits for the modem have.
constexpr DWORD kShortestModemWait = 60000;

LogEntry Error(std::string message) {
  return {"Error", kProcedure, std::move(message)};
}
LogEntry Trace(std::string message) {
  return {"Trace", kProcedure, std::move(message)};
}
auto ErrorWith(const std::string& part) {
  return AllOf(Field(&LogEntry::level, "Error"), Field(&LogEntry::message, HasSubstr(part)));
}

// The system's functions as the library sees them. Each has one replacement, which asks the test.

std::function<DWORD(HANDLE, DWORD)> g_modemWait;
DWORD WINAPI WaitAsTheTestSays(HANDLE object, DWORD milliseconds) {
  const bool forModem = milliseconds >= kShortestModemWait && milliseconds != INFINITE;
  return forModem ? g_modemWait(object, milliseconds) : ::WaitForSingleObject(object, milliseconds);
}

std::atomic<int> g_apartmentsEntered{0};
std::vector<std::pair<void*, DWORD>> g_apartments;
HRESULT WINAPI CountEntering(void* reserved, DWORD apartment) {
  g_apartments.emplace_back(reserved, apartment);
  const HRESULT result = ::CoInitializeEx(reserved, apartment);
  if (SUCCEEDED(result)) ++g_apartmentsEntered;
  return result;
}
std::function<void()> g_onLeaving;
void WINAPI CountLeaving() {
  if (g_onLeaving) g_onLeaving();
  --g_apartmentsEntered;
  ::CoUninitialize();
}

constexpr DWORD kLastError = 0x1234;
HRESULT WINAPI NoApartment(void*, DWORD) {
  ::SetLastError(kLastError);
  return kFailure;
}

/// What each class was asked for with.
struct Creation {
  CLSID classId;
  IUnknown* outer;
  DWORD context;
};
std::vector<Creation> g_creations;
/// What a class comes to that cannot be created any more.
HRESULT g_resultWithoutObject = kFailure;
/// How many classes can be created before one cannot.
int g_creatableClasses = 0;
HRESULT WINAPI RecordCreation(REFCLSID classId, IUnknown* outer, DWORD context, REFIID iid, void** object) {
  g_creations.push_back({classId, outer, context});
  if (g_creatableClasses-- > 0) return ::CoCreateInstance(classId, outer, context, iid, object);
  ::SetLastError(kLastError);
  return g_resultWithoutObject;
}

std::function<void()> g_onArrayDestroyed;
HRESULT WINAPI TellDestroyedBytes(SAFEARRAY* array) {
  VARTYPE type = VT_EMPTY;
  ::SafeArrayGetVartype(array, &type);
  if (type == VT_UI1) g_onArrayDestroyed();
  return ::SafeArrayDestroy(array);
}

struct ArrayRequest {
  VARTYPE type;
  UINT dimensions;
  ULONG elements;
  LONG lower;
};
std::vector<ArrayRequest> g_arrayRequests;
SAFEARRAY* WINAPI RecordArray(VARTYPE type, UINT dimensions, SAFEARRAYBOUND* bounds) {
  g_arrayRequests.push_back({type, dimensions, bounds->cElements, bounds->lLbound});
  return ::SafeArrayCreate(type, dimensions, bounds);
}

std::vector<std::pair<IUnknown*, DWORD>> g_disconnected;
HRESULT WINAPI RecordDisconnect(IUnknown* object, DWORD reserved) {
  g_disconnected.emplace_back(object, reserved);
  return ::CoDisconnectObject(object, reserved);
}

std::atomic<int> g_textsFreed{0};
void WINAPI CountFreedText(BSTR text) {
  if (text != nullptr) ++g_textsFreed;
  ::SysFreeString(text);
}

/// Which call of a function fails: 1 is the next one, 0 none.
int g_failingCall = 0;
bool ThisCallFails() {
  return g_failingCall > 0 && --g_failingCall == 0;
}
HRESULT WINAPI LowerBound(SAFEARRAY* array, UINT dimension, LONG* bound) {
  return ThisCallFails() ? kFailure : ::SafeArrayGetLBound(array, dimension, bound);
}
HRESULT WINAPI UpperBound(SAFEARRAY* array, UINT dimension, LONG* bound) {
  return ThisCallFails() ? kFailure : ::SafeArrayGetUBound(array, dimension, bound);
}
HRESULT WINAPI GetElement(SAFEARRAY* array, LONG* index, void* element) {
  return ThisCallFails() ? kFailure : ::SafeArrayGetElement(array, index, element);
}
HRESULT WINAPI PutElement(SAFEARRAY* array, LONG* index, void* element) {
  return ThisCallFails() ? kFailure : ::SafeArrayPutElement(array, index, element);
}
SAFEARRAY* WINAPI NoArray(VARTYPE, UINT, SAFEARRAYBOUND*) {
  return nullptr;
}
HANDLE WINAPI NoEvent(SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*) {
  ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return nullptr;
}
void* __cdecl NoMemoryForASink(std::size_t size) {
  return size == sizeof(CMbnSinks) ? nullptr : std::malloc(size);
}

/// The sink to look for; none once it was freed, because its memory may be handed out again at once.
std::atomic<void*> g_watchedSink{nullptr};
void __cdecl WatchFree(void* memory) {
  void* freed = memory;
  if (memory != nullptr) g_watchedSink.compare_exchange_strong(freed, nullptr);
  std::free(memory);
}

/// Counts the modem's waits and says how each one ends; by default as it really does.
class ModemWaits {
 public:
  ModemWaits() {
    g_modemWait = [this](HANDLE object, DWORD milliseconds) { return Wait(object, milliseconds); };
  }
  ~ModemWaits() { g_modemWait = nullptr; }
  ModemWaits(const ModemWaits&) = delete;
  ModemWaits& operator=(const ModemWaits&) = delete;

  /// From now on every wait whose signal has not come yet is a long one that comes to its end.
  void RunOut() { m_Patience = 0; }
  const std::vector<DWORD>& Limits() const { return m_Limits; }
  /// Runs on each wait, before it begins, with its number and its event.
  std::function<void(int, HANDLE)> onWait;

 private:
  DWORD Wait(HANDLE object, DWORD milliseconds) {
    m_Limits.push_back(milliseconds);
    if (onWait) onWait(static_cast<int>(m_Limits.size()), object);
    return ::WaitForSingleObject(object, m_Patience);
  }

  DWORD m_Patience = kPatience;
  std::vector<DWORD> m_Limits;
};

class MbimRebootTest : public testing::Test {
 protected:
  MbimRebootTest() {
    patch.Replace("WaitForSingleObject", &WaitAsTheTestSays);
    patch.Replace("CoInitializeEx", &CountEntering);
    patch.Replace("CoUninitialize", &CountLeaving);
    g_apartmentsEntered = 0;
    g_apartments.clear();
    g_failingCall = 0;
    g_LastStatus = S_OK;
    g_ulNumberSupportedCommands = 0;
    g_ulSupportedCommandIds = {};
  }
  /// However a reboot ends, it leaves nothing behind, and all that it told carries its name.
  ~MbimRebootTest() override {
    service.WaitForCompletions();
    g_onLeaving = nullptr;
    EXPECT_THAT(FunctionsThatLoggedIn("mbimreboot.cpp"), Each(kProcedure));
    EXPECT_THAT(FunctionsThatLoggedIn("cmbnsink.cpp"), Each(StartsWith("CMbnSinks::")));
    EXPECT_EQ(service.LiveObjects(), 0);
    EXPECT_EQ(g_apartmentsEntered, 0);
    EXPECT_EQ(g_CMbnSinks, nullptr);
    EXPECT_EQ(g_MbnDeviceService, nullptr);
    EXPECT_EQ(g_Event_OnOpenCommandSessionComplete, nullptr);
    EXPECT_EQ(g_Event_OnSetCommandComplete, nullptr);
  }

  HRESULT Reboot() {
    return RebootModemThroughMobileBroadband([this] { return abandoned.load(); });
  }
  void Fail(const std::string& call) { service.Behaviour().failures[call] = kFailure; }
  void HandOutNothingFrom(const std::string& call) { service.Behaviour().emptyHanded.insert(call); }
  template <typename Function>
  void FailCall(const char* function, int number, Function* replacement) {
    patch.Replace(function, replacement);
    g_failingCall = number;
  }
  bool Asked(const std::string& call) const { return service.CallCount(call) > 0; }
  /// What the reboot told, without the sink's records: those come on the service's threads too, some of them
  /// after the reboot's last one.
  std::vector<LogEntry> Told() const {
    std::vector<LogEntry> told = EntriesOf(log);
    std::erase_if(told, [](const LogEntry& entry) { return entry.function != kProcedure; });
    return told;
  }
  LogEntry LastTold() const {
    const std::vector<LogEntry> told = Told();
    return told.empty() ? LogEntry{} : told.back();
  }
  std::vector<std::string> FunctionsThatLoggedIn(const std::string& file) const {
    std::vector<std::string> functions;
    for (const LogRecord& record : log.Records()) {
      if (record.file == file) functions.push_back(record.function);
    }
    return functions;
  }
  /// What the sink told from the reboot's clean-up on.
  std::vector<LogEntry> ToldBySinkInTheEnd() const {
    std::vector<LogEntry> told = EntriesOf(log);
    told.erase(told.begin(), std::ranges::find(told, Trace("\t DeInitilazation()")));
    std::erase_if(told, [](const LogEntry& entry) { return !entry.function.starts_with("CMbnSinks::"); });
    return told;
  }
  /// @return false where the runtime is linked in, and nothing can be watched.
  bool WatchTheSink() {
    g_watchedSink = nullptr;
    service.Behaviour().onCall = [](const std::string& call) {
      if (call == "Advise") g_watchedSink = g_CMbnSinks;
    };
    return patch.ReplaceIfImported("free", &WatchFree);
  }
  bool SinkWasMade() const { return std::ranges::count(Told(), Trace("\t new CMbnSinks OK")) == 1; }

  TestLog log;
  simulator::SimulatedMobileBroadband service;
  ModemWaits waits;
  simulator::ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  std::atomic<bool> abandoned{false};
};

// The whole way

TEST_F(MbimRebootTest, SendsTheRebootCommandWithItsFourBytes) {
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(service.RebootCommands(), 1);
  EXPECT_THAT(service.Payloads(), ElementsAre(std::vector<BYTE>{0x01, 0x00, 0x00, 0x00}));
}

TEST_F(MbimRebootTest, AsksTheServiceInItsOrder) {
  Reboot();
  EXPECT_THAT(service.Calls(),
              ElementsAre("MbnInterfaceManager", "MbnDeviceServicesManager", "GetInterfaces",
                          "get_InterfaceID", "GetDeviceServicesContext", "EnumerateDeviceServices",
                          "GetDeviceService", "get_IsCommandSessionOpen",
                          "QueryInterface(IConnectionPointContainer)", "FindConnectionPoint", "Advise",
                          "OpenCommandSession", "QuerySupportedCommands", "SetCommand", "Unadvise"));
}

TEST_F(MbimRebootTest, LogsItsSteps) {
  Reboot();
  EXPECT_THAT(
      Told(),
      ElementsAre(
          Trace("RebootModemByMbimCmd ++"),
          Trace("\t fetched interfaceID :{4D36E972-E325-11CE-BFC1-08002BE10318}"), Trace("Reboot Modem"),
          Trace("\t new CMbnSinks OK"),
          Trace("\t OpenCommandSession call successful... waiting for callback"),
          Trace("\t pMbnDeviceService = g_MbnDeviceService;"), Trace("\t 01 "), Trace("\t 00 "),
          Trace("\t 00 "), Trace("\t 00 "), Trace("\t QuerySupportedCommands call successful, hr:0x0\n"),
          Trace("\t g_Event_OnQuerySupportedCommandsComplete is valid"), Trace("\t ulCommandId[0] = 0\n"),
          Trace("\t ulCommandId[1] = 0\n"), Trace("\t ulCommandId[2] = 0\n"), Trace("\t to SetCommand"),
          Trace("\t SetCommand result, errorCode:0x0"), Trace("\t SetCommand call successful\n"),
          Trace("\t SetCommand call successful... waiting for callback -> requestID=3\n"),
          Trace("\t DeInitilazation()"), Trace("RebootModemByMbimCmd --")));
}

TEST_F(MbimRebootTest, WaitsSixtySecondsForSessionAndCommandListAndNinetyForTheCommand) {
  Reboot();
  EXPECT_THAT(waits.Limits(), ElementsAre(60000u, 60000u, 90000u));
}

TEST_F(MbimRebootTest, ALaterCallStartsAfresh) {
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(service.RebootCommands(), 2);
}

TEST_F(MbimRebootTest, ACompletionThatComesLateButInTimeIsWaitedFor) {
  service.Behaviour().openCommandSession.completesAfter = 50s;
  service.Behaviour().realTime = [](std::chrono::milliseconds delay) { return delay / 1000; };
  EXPECT_EQ(Reboot(), S_OK);
}

TEST_F(MbimRebootTest, AThreadThatIsInTheApartmentAlreadyStaysInIt) {
  ASSERT_EQ(::CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
  EXPECT_EQ(Reboot(), S_OK);
  APTTYPE type = APTTYPE_CURRENT;
  APTTYPEQUALIFIER qualifier = APTTYPEQUALIFIER_NONE;
  EXPECT_EQ(::CoGetApartmentType(&type, &qualifier), S_OK);
  EXPECT_EQ(type, APTTYPE_MTA);
  ::CoUninitialize();
}

TEST_F(MbimRebootTest, AThreadInAnApartmentOfItsOwnIsRefusedAndLeftThere) {
  HRESULT result = S_OK;
  HRESULT stillThere = S_OK;
  std::thread([&] {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    result = Reboot();
    stillThere = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    ::CoUninitialize();
  }).join();
  EXPECT_EQ(result, RPC_E_CHANGED_MODE);
  EXPECT_EQ(stillThere, RPC_E_CHANGED_MODE);
  EXPECT_THAT(LastTold(), ErrorWith("\t CoInitializeEx initialization failed, 0x"));
}

TEST_F(MbimRebootTest, EntersTheMultithreadedApartment) {
  Reboot();
  EXPECT_THAT(g_apartments, ElementsAre(std::pair<void*, DWORD>(nullptr, COINIT_MULTITHREADED)));
}

TEST_F(MbimRebootTest, AnApartmentThatCannotBeEnteredIsToldWithTheLastError) {
  patch.Replace("CoInitializeEx", &NoApartment);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(LastTold(), Error("\t CoInitializeEx initialization failed, 0x1234, RebootModemByMbimCmd --"));
}

/// The creation of the service's two classes.
class MbimRebootClassTest : public MbimRebootTest {
 protected:
  MbimRebootClassTest() {
    patch.Replace("CoCreateInstance", &RecordCreation);
    g_creations.clear();
    g_creatableClasses = 2;
    g_resultWithoutObject = kFailure;
  }
};

TEST_F(MbimRebootClassTest, BothAreLookedForInEveryContext) {
  EXPECT_EQ(Reboot(), S_OK);
  ASSERT_EQ(g_creations.size(), 2u);
  EXPECT_EQ(g_creations[0].classId, __uuidof(MbnInterfaceManager));
  EXPECT_EQ(g_creations[1].classId, __uuidof(MbnDeviceServicesManager));
  EXPECT_THAT(g_creations, Each(AllOf(Field(&Creation::outer, nullptr), Field(&Creation::context, 23u))));
}

TEST_F(MbimRebootClassTest, AnInterfaceManagerThatIsMissingIsToldWithTheLastError) {
  g_creatableClasses = 0;
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(LastTold(), Error("\t CoCreateInstance(CLSID_MbnInterfaceManager***)  failed, 0x1234, "
                              "RebootModemByMbimCmd --"));
}

TEST_F(MbimRebootClassTest, ADeviceServicesManagerThatIsMissingIsToldWithTheLastError) {
  g_creatableClasses = 1;
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(LastTold(), Error("\t CoCreateInstance(CLSID_MbnDeviceServicesManager***) failed, 0x1234, "
                              "RebootModemByMbimCmd --"));
}

class MbimRebootEmptyCreationTest : public MbimRebootClassTest,
                                    public testing::WithParamInterface<std::pair<int, const char*>> {};

TEST_P(MbimRebootEmptyCreationTest, ASuccessWithoutAnObjectIsAFailure) {
  g_resultWithoutObject = S_FALSE;
  g_creatableClasses = GetParam().first;
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastTold(), Error(GetParam().second));
}

INSTANTIATE_TEST_SUITE_P(
    Classes, MbimRebootEmptyCreationTest,
    testing::Values(
        std::pair(
            0, "\t CoCreateInstance(CLSID_MbnInterfaceManager***)  failed, 0x1234, RebootModemByMbimCmd --"),
        std::pair(1,
                  "\t CoCreateInstance(CLSID_MbnDeviceServicesManager***) failed, 0x1234, "
                  "RebootModemByMbimCmd --")));

// The clean-up

const LogEntry kLastReference{"Trace", "CMbnSinks::Release", "\t ***** CMbnSinks::Release() ulNewRef=0\n"};

TEST_F(MbimRebootTest, TheSinkTellsOfItsLastReferenceOnceAndOfNothingElse) {
  Reboot();
  service.WaitForCompletions();
  EXPECT_THAT(ToldBySinkInTheEnd(), ElementsAre(kLastReference));
}

TEST_F(MbimRebootTest, ASinkThatIsCutOffFromTheServiceTellsNothing) {
  Fail("Unadvise");
  Reboot();
  EXPECT_THAT(ToldBySinkInTheEnd(), ElementsAre());
}

TEST_F(MbimRebootTest, ASinkThatTheServiceRefersToIsCutOff) {
  Fail("Unadvise");
  IUnknown* sink = nullptr;
  service.Behaviour().onCall = [&sink](const std::string& call) {
    if (call == "Advise") sink = static_cast<IMbnRadioEvents*>(g_CMbnSinks);
  };
  patch.Replace("CoDisconnectObject", &RecordDisconnect);
  g_disconnected.clear();
  Reboot();
  ASSERT_NE(sink, nullptr);
  EXPECT_THAT(g_disconnected, ElementsAre(std::pair<IUnknown*, DWORD>(sink, 0)));
}

TEST_F(MbimRebootTest, ThePayloadIsGoneBeforeTheCleanUpIsTold) {
  patch.Replace("SafeArrayDestroy", &TellDestroyedBytes);
  std::vector<LogEntry> lastTold;
  g_onArrayDestroyed = [&] { lastTold.push_back(LastTold()); };
  Reboot();
  g_onArrayDestroyed = nullptr;
  EXPECT_THAT(lastTold,
              ElementsAre(Trace("\t SetCommand call successful... waiting for callback -> requestID=3\n")));
}

TEST_F(MbimRebootTest, TheCleanUpIsToldBeforeTheNotificationsAreCalledOff) {
  LogEntry lastTold;
  service.Behaviour().onCall = [&](const std::string& call) {
    if (call == "Unadvise") lastTold = LastTold();
  };
  Reboot();
  EXPECT_EQ(lastTold, Trace("\t DeInitilazation()"));
}

TEST_F(MbimRebootTest, TheEventsAreThereUntilTheNotificationsAreCalledOff) {
  HANDLE event = nullptr;
  service.Behaviour().onCall = [&](const std::string& call) {
    if (call == "Unadvise") event = g_Event_OnSetCommandComplete;
  };
  Reboot();
  EXPECT_NE(event, nullptr);
}

TEST_F(MbimRebootTest, TheApartmentIsLeftBeforeTheEndIsToldAndAfterTheSinkIsGone) {
  LogEntry lastTold;
  const CMbnSinks* sink = reinterpret_cast<CMbnSinks*>(this);
  g_onLeaving = [&] {
    lastTold = LastTold();
    sink = g_CMbnSinks;
  };
  Reboot();
  EXPECT_EQ(lastTold, Trace("\t DeInitilazation()"));
  EXPECT_EQ(sink, nullptr);
}

// Every call that can fail

struct FailingCall {
  const char* name;
  const char* call;
  /// The error's line; empty when there is none of its own.
  const char* message;
  /// Whether the sink was there already, so that the clean-up is run and told.
  bool afterTheSink;
};

void PrintTo(const FailingCall& failing, std::ostream* stream) {
  *stream << failing.name;
}

class MbimRebootFailureTest : public MbimRebootTest, public testing::WithParamInterface<FailingCall> {};

TEST_P(MbimRebootFailureTest, EndsWithItsResultAndItsLine) {
  Fail(GetParam().call);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_THAT(Told(), Contains(ErrorWith(GetParam().message)).Times(*GetParam().message != '\0' ? 1 : 0));
  EXPECT_EQ(service.RebootCommands(), 0);
}

TEST_P(MbimRebootFailureTest, CleansUpWhatWasMade) {
  Fail(GetParam().call);
  Reboot();
  EXPECT_EQ(service.AdvisedSinks(), 0);
  EXPECT_EQ(SinkWasMade(), GetParam().afterTheSink);
  EXPECT_THAT(Told(), Contains(Trace("\t DeInitilazation()")).Times(GetParam().afterTheSink ? 1 : 0));
  EXPECT_EQ(LastTold() == Trace("RebootModemByMbimCmd --"), GetParam().afterTheSink);
}

INSTANTIATE_TEST_SUITE_P(
    Of, MbimRebootFailureTest,
    testing::Values(
        FailingCall{"InterfaceManager", "MbnInterfaceManager",
                    "\t CoCreateInstance(CLSID_MbnInterfaceManager***)  failed, 0x", false},
        FailingCall{"DeviceServicesManager", "MbnDeviceServicesManager",
                    "\t CoCreateInstance(CLSID_MbnDeviceServicesManager***) failed, 0x", false},
        FailingCall{"GetInterfaces", "GetInterfaces", "\t GetInterfaces FAIL, RebootModemByMbimCmd --\n",
                    false},
        FailingCall{"InterfaceId", "get_InterfaceID",
                    "get_InterfaceID FAILED hr=0x8007001F, RebootModemByMbimCmd --\n", false},
        FailingCall{"GetDeviceServicesContext", "GetDeviceServicesContext",
                    "\t IMbnDeviceServicesManager::GetDeviceServicesContext('{4D36E972-E325-11CE-BFC1-"
                    "08002BE10318}') failed with: 8007001f, RebootModemByMbimCmd --",
                    false},
        FailingCall{"EnumerateDeviceServices", "EnumerateDeviceServices", "", false},
        FailingCall{"GetDeviceService", "GetDeviceService",
                    "\t IMbnDeviceServicesContext::GetDeviceService('{0ED374CB-F835-4474-BC11-"
                    "3B3FD76F5641}') failed with: 8007001f",
                    false},
        FailingCall{"IsCommandSessionOpen", "get_IsCommandSessionOpen",
                    "\t IMbnDeviceService::get_IsCommandSessionOpen() failed with: 8007001f, "
                    "RebootModemByMbimCmd --",
                    false},
        FailingCall{"ConnectionPointContainer", "QueryInterface(IConnectionPointContainer)",
                    "\t QueryInterface(IID_IConnectionPointContainer **) failed, RebootModemByMbimCmd --",
                    false},
        FailingCall{"FindConnectionPoint", "FindConnectionPoint",
                    "\t FindConnectionPoint(IID_IMbnDeviceServicesEvents,**) failed", true},
        FailingCall{"Advise", "Advise", "\t Register, Advise(pUnkSink,**) failed", true},
        FailingCall{"OpenCommandSession", "OpenCommandSession",
                    "\t IMbnDeviceService::OpenCommandSession() failed with: 8007001f", true},
        FailingCall{"SetCommand", "SetCommand", "IMbnDeviceService::SetCommand() failed with: 8007001f",
                    true}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(MbimRebootTest, AServiceThatStillProbesTheModemIsReportedAsItSays) {
  service.Behaviour().failures["EnumerateDeviceServices"] = E_PENDING;
  EXPECT_EQ(Reboot(), E_PENDING);
  EXPECT_THAT(Told(), Each(Field(&LogEntry::level, "Trace")));
}

TEST_F(MbimRebootTest, NoMemoryForTheSinkIsMinusOne) {
  if (!patch.ReplaceIfImported("malloc", &NoMemoryForASink)) GTEST_SKIP() << "the runtime is linked in";
  EXPECT_EQ(Reboot(), static_cast<HRESULT>(-1));
  EXPECT_EQ(LastTold(), Error("\t new CMbnSinks failed, RebootModemByMbimCmd --"));
}

TEST_F(MbimRebootTest, EventsThatCannotBeCreatedEndItWithTheirError) {
  patch.Replace("CreateEventW", &NoEvent);
  EXPECT_EQ(Reboot(), static_cast<HRESULT>(0x80070008));
  EXPECT_THAT(Told(), Contains(Error("\t g_CMbnSinks->Initilazation() failed")));
  EXPECT_THAT(Told(), Contains(Trace("\t DeInitilazation()")).Times(1));
  EXPECT_FALSE(Asked("Advise"));
}

TEST_F(MbimRebootTest, APayloadThatCannotBeMadeEndsIt) {
  patch.Replace("SafeArrayCreate", &NoArray);
  EXPECT_EQ(Reboot(), E_OUTOFMEMORY);
  EXPECT_FALSE(Asked("SetCommand"));
  EXPECT_THAT(Told(), Contains(Error("\t No memory for the reboot command's payload")));
}

TEST_F(MbimRebootTest, APayloadThatCannotBeFilledEndsIt) {
  FailCall("SafeArrayPutElement", 3, &PutElement);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_FALSE(Asked("SetCommand"));
  EXPECT_THAT(Told(), Contains(Error("\t SafeArrayPutElement failed with: 8007001f")));
}

TEST_F(MbimRebootTest, ThePayloadIsAnArrayOfFourBytesFromZero) {
  patch.Replace("SafeArrayCreate", &RecordArray);
  g_arrayRequests.clear();
  Reboot();
  ASSERT_EQ(g_arrayRequests.size(), 1u);
  EXPECT_EQ(g_arrayRequests[0].type, VT_UI1);
  EXPECT_EQ(g_arrayRequests[0].dimensions, 1u);
  EXPECT_EQ(g_arrayRequests[0].elements, 4u);
  EXPECT_EQ(g_arrayRequests[0].lower, 0);
}

// Interfaces

TEST_F(MbimRebootTest, NoInterfaceIsAFailureWithoutASink) {
  service.Behaviour().interfaces.clear();
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastTold(), Error("\t pMbnInterface == NULL, RebootModemByMbimCmd --"));
  EXPECT_FALSE(SinkWasMade());
}

TEST_F(MbimRebootTest, AModemThatIsNotInNormalModeHasNoInterface) {
  service.Behaviour().modemIsInNormalMode = [] { return false; };
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastTold(), Error("\t pMbnInterface == NULL, RebootModemByMbimCmd --"));
}

TEST_F(MbimRebootTest, TheLastOfSeveralInterfacesIsUsedAndNoneIsLeaked) {
  service.Behaviour().interfaces = {L"{first}", L"{second}", L"{third}"};
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_THAT(Told(), Contains(Trace("\t fetched interfaceID :{third}")).Times(1));
}

TEST_F(MbimRebootTest, ALastInterfaceThatIsNullIsAFailure) {
  service.Behaviour().interfaces = {L"{first}", L""};
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastTold(), Error("\t pMbnInterface == NULL, RebootModemByMbimCmd --"));
}

TEST_F(MbimRebootTest, InterfacesThatAreNoArrayAreAFailure) {
  HandOutNothingFrom("GetInterfaces");
  EXPECT_EQ(Reboot(), E_INVALIDARG);
  EXPECT_EQ(LastTold(), Error("\t SafeArrayGetLBound FAIL, RebootModemByMbimCmd --\n"));
}

TEST_F(MbimRebootTest, InterfacesWithoutUpperBoundAreAFailure) {
  FailCall("SafeArrayGetUBound", 1, &UpperBound);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(LastTold(), Error("\t SafeArrayGetUBound FAIL, RebootModemByMbimCmd --\n"));
}

TEST_F(MbimRebootTest, TheFirstInterfaceThatCannotBeReadEndsIt) {
  service.Behaviour().interfaces = {L"{first}", L"{second}", L"{third}"};
  FailCall("SafeArrayGetElement", 2, &GetElement);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(LastTold(),
            Error("\t SafeArrayGetElement(IMbnInterface) FAILED hr=0x8007001F, RebootModemByMbimCmd --\n"));
}

TEST_F(MbimRebootTest, AnInterfaceWithoutIdIsLoggedAsEmptyAndNotFound) {
  HandOutNothingFrom("get_InterfaceID");
  EXPECT_EQ(Reboot(), kNotFound);
  EXPECT_THAT(Told(), Contains(Trace("\t fetched interfaceID :")).Times(1));
}

TEST_F(MbimRebootTest, ASuccessWithoutAContextIsAFailure) {
  HandOutNothingFrom("GetDeviceServicesContext");
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastTold(),
            Error("\t IMbnDeviceServicesManager::GetDeviceServicesContext('{4D36E972-E325-11CE-BFC1-"
                  "08002BE10318}') failed with: 80004005, RebootModemByMbimCmd --"));
}

// Device services

class MbimRebootServicesTest : public MbimRebootTest, public testing::WithParamInterface<bool> {
 protected:
  MbimRebootServicesTest() {
    service.Behaviour().deviceServicesCarryRecordInfo = GetParam();
    patch.Replace("SysFreeString", &CountFreedText);
    g_textsFreed = 0;
  }
};

TEST_P(MbimRebootServicesTest, FindsTheVendorServiceAmongOthersAndFreesEveryId) {
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_THAT(Told(), Not(Contains(Field(&LogEntry::message, "\t Service Not found"))));
  // Three listed ids, the interface's id, and the id that the service was asked for by.
  EXPECT_EQ(g_textsFreed, 5);
}

TEST_P(MbimRebootServicesTest, AMissingVendorServiceIsLoggedAndThenRefused) {
  service.Behaviour().deviceServices = {L"{533FBEEB-14FE-4467-9F90-33A223E56C3F}"};
  EXPECT_EQ(Reboot(), kNotFound);
  EXPECT_THAT(Told(), Contains(Error("\t Service Not found")).Times(1));
  EXPECT_EQ(LastTold(), Error("\t IMbnDeviceServicesContext::GetDeviceService('{0ED374CB-F835-4474-BC11-"
                              "3B3FD76F5641}') failed with: 80070490"));
}

TEST_P(MbimRebootServicesTest, AnIdThatIsNullShorterLongerOrInOtherCaseIsNotTheVendorService) {
  service.Behaviour().deviceServices = {L"", L"{0ED374CB", std::wstring(kVendorService) + L"}",
                                        L"{0ed374cb-f835-4474-bc11-3b3fd76f5641}"};
  EXPECT_EQ(Reboot(), kNotFound);
  EXPECT_THAT(Told(), Contains(Error("\t Service Not found")).Times(1));
}

TEST_P(MbimRebootServicesTest, AnEmptyListIsNoVendorService) {
  service.Behaviour().deviceServices.clear();
  EXPECT_EQ(Reboot(), kNotFound);
  EXPECT_THAT(Told(), Contains(Error("\t Service Not found")).Times(1));
}

INSTANTIATE_TEST_SUITE_P(RecordInfo, MbimRebootServicesTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Carried" : "Absent"; });

TEST_F(MbimRebootTest, ServicesThatAreNoArrayAreAFailure) {
  HandOutNothingFrom("EnumerateDeviceServices");
  EXPECT_EQ(Reboot(), E_INVALIDARG);
  EXPECT_EQ(
      LastTold(),
      Error("\t SafeArrayGetLBound on allDeviceServices failed with: 80070057, RebootModemByMbimCmd --"));
}

TEST_F(MbimRebootTest, ServicesWithoutLowerBoundAreAFailure) {
  FailCall("SafeArrayGetLBound", 2, &LowerBound);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(
      LastTold(),
      Error("\t SafeArrayGetLBound on allDeviceServices failed with: 8007001f, RebootModemByMbimCmd --"));
}

TEST_F(MbimRebootTest, ServicesWithoutUpperBoundAreAFailure) {
  FailCall("SafeArrayGetUBound", 2, &UpperBound);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(
      LastTold(),
      Error("\t SafeArrayGetUBound on allDeviceServices failed with: 8007001f, RebootModemByMbimCmd --"));
}

TEST_F(MbimRebootTest, ASuccessWithoutAServiceIsAFailure) {
  HandOutNothingFrom("GetDeviceService");
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastTold(), Error("\t IMbnDeviceServicesContext::GetDeviceService('{0ED374CB-F835-4474-BC11-"
                              "3B3FD76F5641}') succeeded but (pDeviceService) is NULL!"));
}

TEST_F(MbimRebootTest, ASuccessWithoutAConnectionPointContainerIsAFailure) {
  HandOutNothingFrom("QueryInterface(IConnectionPointContainer)");
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastTold(),
            Error("\t QueryInterface(IID_IConnectionPointContainer **) failed, RebootModemByMbimCmd --"));
}

TEST_F(MbimRebootTest, ASuccessWithoutAConnectionPointIsAFailure) {
  HandOutNothingFrom("FindConnectionPoint");
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_THAT(Told(),
              Contains(Error("\t FindConnectionPoint(IID_IMbnDeviceServicesEvents,**) failed")).Times(1));
}

// The command session

TEST_F(MbimRebootTest, AnOpenSessionIsRefusedBeforeAnySinkIsMade) {
  service.Behaviour().commandSessionIsOpen = true;
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastTold(), Error("\t Command session is open; cannot proceed, RebootModemByMbimCmd --"));
  EXPECT_FALSE(SinkWasMade());
}

TEST_F(MbimRebootTest, APendingOpenIsWaitedForAndThenRefused) {
  service.Behaviour().openCommandSession.answer = E_PENDING;
  EXPECT_EQ(Reboot(), E_PENDING);
  EXPECT_THAT(Told(), Contains(Trace("\t pMbnDeviceService = g_MbnDeviceService;")).Times(1));
  EXPECT_THAT(Told(), Contains(Error("\t OpenCommandSession (FAILED(hr))")));
  EXPECT_FALSE(Asked("QuerySupportedCommands"));
}

TEST_F(MbimRebootTest, APendingOpenThatNeverCompletesStaysPending) {
  service.Behaviour().openCommandSession = {.answer = E_PENDING, .completesAfter = {}};
  waits.RunOut();
  EXPECT_EQ(Reboot(), E_PENDING);
  EXPECT_THAT(Told(), Contains(Error("\t OpenCommandSession failed with timeOut or other issue")));
}

TEST_F(MbimRebootTest, AnOpenThatNeverCompletesKeepsItsOwnSuccessAndSendsNothing) {
  service.Behaviour().openCommandSession.completesAfter.reset();
  waits.RunOut();
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_THAT(Told(), Contains(Error("\t OpenCommandSession failed with timeOut or other issue")).Times(1));
  EXPECT_FALSE(Asked("SetCommand"));
}

// The supported commands

TEST_F(MbimRebootTest, ACommandListThatNeverComesIsATimeOutAndSendsNothing) {
  service.Behaviour().querySupportedCommands.completesAfter.reset();
  waits.onWait = [this](int number, HANDLE) {
    if (number == 2) waits.RunOut();
  };
  EXPECT_EQ(Reboot(), kTimedOut);
  EXPECT_THAT(Told(), Contains(ErrorWith("\t QuerySupportedCommands failed with other issue, "
                                         "waitObject: 0x102, ErrorCode:0x")));
  EXPECT_FALSE(Asked("SetCommand"));
}

TEST_F(MbimRebootTest, AQueryThatFailsIsWaitedForAllTheSame) {
  Fail("QuerySupportedCommands");
  waits.onWait = [this](int number, HANDLE) {
    if (number == 2) waits.RunOut();
  };
  EXPECT_EQ(Reboot(), kTimedOut);
  EXPECT_THAT(Told(), Contains(Trace("\t QuerySupportedCommands call successful, hr:0x8007001f\n")).Times(1));
  EXPECT_THAT(waits.Limits(), ElementsAre(60000u, 60000u));
}

TEST_F(MbimRebootTest, AStatusThatTellsAFailureIsRecordedAndDecidesNothing) {
  service.Behaviour().querySupportedCommands.status = kFailure;
  EXPECT_EQ(Reboot(), S_OK);
}

TEST_F(MbimRebootTest, WithoutItsEventTheQueryEndsAtOnceWithTheWaitsCode) {
  service.Behaviour().onCall = [](const std::string& call) {
    if (call == "QuerySupportedCommands") g_CMbnSinks->DeInitilazation();
  };
  EXPECT_EQ(Reboot(), static_cast<HRESULT>(0xFFFFFFFF));
  EXPECT_THAT(Told(), Contains(Trace("\t g_Event_OnQuerySupportedCommandsComplete is not valid")).Times(1));
  EXPECT_THAT(Told(),
              Contains(Error("\t QuerySupportedCommands failed with other issue, waitObject: 0xffffffff, "
                             "ErrorCode:0x6"))
                  .Times(1));
}

TEST_F(MbimRebootTest, TheCommandIsSentWhateverTheListHolds) {
  service.Behaviour().supportedCommands = {{7, 8}};
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(service.RebootCommands(), 1);
}

TEST_F(MbimRebootTest, MoreCommandsThanThereIsRoomForAreLoggedAsZero) {
  service.Behaviour().supportedCommands = std::vector<ULONG>(200, 1);
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_THAT(Told(), Contains(Trace("\t ulCommandId[199] = 0\n")).Times(1));
}

TEST_F(MbimRebootTest, AnEntryThatIsTheRebootCommandIsPointedOut) {
  g_ulSupportedCommandIds[1] = 1;
  Reboot();
  EXPECT_THAT(Told(), Contains(Trace("\t ulCommandId[1] = 1\n")).Times(1));
  EXPECT_THAT(Told(), Contains(Error("\t ------- MBIM support Modem Reboot Command ----")));
}

TEST_F(MbimRebootTest, TheCountOfAnEarlierRunSurvivesACompletionWithoutList) {
  Reboot();
  service.Behaviour().supportedCommands.reset();
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_THAT(Told(), Contains(Trace("\t ulCommandId[2] = 0\n")).Times(2));
}

// The command

TEST_F(MbimRebootTest, AModemThatResetsWithoutCompletingIsATimeOut) {
  service.Behaviour().setCommand.completesAfter.reset();
  service.Behaviour().onRebootCommand = [this] { waits.RunOut(); };
  EXPECT_EQ(Reboot(), kTimedOut);
  EXPECT_THAT(Told(), Contains(Error("\t SetCommand timeout or failed with other issue")));
}

TEST_F(MbimRebootTest, APendingCommandIsWaitedForNinetySecondsAndThenATimeOut) {
  service.Behaviour().setCommand = {.answer = E_PENDING, .completesAfter = {}};
  service.Behaviour().onRebootCommand = [this] { waits.RunOut(); };
  EXPECT_EQ(Reboot(), kTimedOut);
  EXPECT_EQ(waits.Limits().back(), 90000u);
}

TEST_F(MbimRebootTest, APendingCommandThatCompletesStaysPending) {
  service.Behaviour().setCommand.answer = E_PENDING;
  EXPECT_EQ(Reboot(), E_PENDING);
  EXPECT_THAT(Told(), Contains(Trace("\t SetCommand result, errorCode:0x8000000a")).Times(1));
  EXPECT_EQ(waits.Limits().size(), 3u);
}

TEST_F(MbimRebootTest, AnyOtherSuccessIsNotWaitedFor) {
  service.Behaviour().setCommand.answer = S_FALSE;
  EXPECT_EQ(Reboot(), S_FALSE);
  EXPECT_THAT(Told(), Contains(Trace("\t SetCommand call successful\n")).Times(1));
  EXPECT_EQ(waits.Limits().size(), 2u);
}

// Attempts that were given up, and overlapping ones

struct LastCallBefore {
  const char* name;
  const char* lastCall;
  const char* notAsked;
};

void PrintTo(const LastCallBefore& step, std::ostream* stream) {
  *stream << step.name;
}

class MbimRebootAbandonedTest : public MbimRebootTest, public testing::WithParamInterface<LastCallBefore> {};

TEST_P(MbimRebootAbandonedTest, TakesNoFurtherStepAndEndsAsAFailure) {
  service.Behaviour().onCall = [this](const std::string& call) {
    if (call == GetParam().lastCall) abandoned = true;
  };
  EXPECT_EQ(Reboot(), E_ABORT);
  EXPECT_FALSE(Asked(GetParam().notAsked));
  EXPECT_EQ(service.AdvisedSinks(), 0);
  EXPECT_THAT(Told(), Contains(Error(kAbandoned)));
  EXPECT_EQ(LastTold(), Trace("RebootModemByMbimCmd --"));
}

INSTANTIATE_TEST_SUITE_P(
    Before, MbimRebootAbandonedTest,
    testing::Values(LastCallBefore{"Advise", "FindConnectionPoint", "Advise"},
                    LastCallBefore{"OpenCommandSession", "Advise", "OpenCommandSession"},
                    LastCallBefore{"QuerySupportedCommands", "OpenCommandSession", "QuerySupportedCommands"},
                    LastCallBefore{"SetCommand", "QuerySupportedCommands", "SetCommand"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(MbimRebootTest, ARunThatIsGivenUpAfterItsCommandEndsAsAFailure) {
  service.Behaviour().onRebootCommand = [this] { abandoned = true; };
  EXPECT_EQ(Reboot(), E_ABORT);
}

UniqueHandle Duplicate(HANDLE event) {
  HANDLE copy = nullptr;
  ::DuplicateHandle(::GetCurrentProcess(), event, ::GetCurrentProcess(), &copy, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
  return UniqueHandle(copy);
}

TEST_F(MbimRebootTest, ARunThatWasGivenUpPassesOnTheCompletionThatItTook) {
  UniqueHandle openEvent;
  waits.onWait = [&](int, HANDLE event) {
    openEvent = Duplicate(event);
    abandoned = true;
  };
  EXPECT_EQ(Reboot(), E_ABORT);
  EXPECT_EQ(::WaitForSingleObject(openEvent.get(), 0), WAIT_OBJECT_0);
}

TEST_F(MbimRebootTest, ARunThatWasGivenUpPassesOnNoCompletionThatDidNotCome) {
  service.Behaviour().openCommandSession.completesAfter.reset();
  UniqueHandle openEvent;
  waits.onWait = [&](int, HANDLE event) {
    openEvent = Duplicate(event);
    abandoned = true;
    waits.RunOut();
  };
  Reboot();
  EXPECT_EQ(::WaitForSingleObject(openEvent.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(MbimRebootTest, UnloadingTheEngineGivesItsRunUp) {
  CFirmwareDownloader::GetInstance();
  const std::shared_ptr<CFirmwareDownloader> engine = CFirmwareDownloader::GetInstance();
  ASSERT_NE(engine, nullptr);
  service.Behaviour().onCall = [](const std::string& call) {
    if (call == "OpenCommandSession") CFirmwareDownloader::Unload();
  };
  EXPECT_EQ(engine->RebootModemByMbimCmd(), E_ABORT);
  EXPECT_EQ(service.RebootCommands(), 0);
}

TEST_F(MbimRebootTest, ARunThatGoesOnTakesItsCompletionForItself) {
  bool signalledStill = true;
  waits.onWait = [&](int number, HANDLE) {
    if (number == 2) signalledStill = ::WaitForSingleObject(g_Event_OnOpenCommandSessionComplete, 0) == 0;
  };
  Reboot();
  EXPECT_FALSE(signalledStill);
}

// A completion that comes before its request was asked for is one that an abandoned run gave up.

TEST_F(MbimRebootTest, AnEarlierOpenIsNotTakenForThisOne) {
  service.Behaviour().openCommandSession.completesAfter.reset();
  service.Behaviour().onCall = [](const std::string& call) {
    if (call == "Advise") ::SetEvent(g_Event_OnOpenCommandSessionComplete);
  };
  waits.RunOut();
  Reboot();
  EXPECT_THAT(Told(), Contains(Error("\t OpenCommandSession failed with timeOut or other issue")));
}

TEST_F(MbimRebootTest, AnEarlierQueryIsNotTakenForThisOne) {
  service.Behaviour().querySupportedCommands.completesAfter.reset();
  service.Behaviour().onCall = [](const std::string& call) {
    if (call == "OpenCommandSession") ::SetEvent(g_Event_OnQuerySupportedCommandsComplete);
  };
  waits.onWait = [this](int number, HANDLE) {
    if (number == 2) waits.RunOut();
  };
  EXPECT_EQ(Reboot(), kTimedOut);
  EXPECT_FALSE(Asked("SetCommand"));
}

TEST_F(MbimRebootTest, AnEarlierSetIsNotTakenForThisOne) {
  service.Behaviour().setCommand.completesAfter.reset();
  service.Behaviour().onCall = [](const std::string& call) {
    if (call == "QuerySupportedCommands") ::SetEvent(g_Event_OnSetCommandComplete);
  };
  waits.onWait = [this](int number, HANDLE) {
    if (number == 3) waits.RunOut();
  };
  EXPECT_EQ(Reboot(), kTimedOut);
  EXPECT_THAT(Told(), Contains(Error("\t SetCommand timeout or failed with other issue")));
}

/// An abandoned run that is still in its first wait while others come and go.
class OverlappingRebootTest : public MbimRebootTest {
 protected:
  OverlappingRebootTest() {
    // The old attempt's own wait; the new one waits as usual.
    g_modemWait = [this](HANDLE event, DWORD) {
      if (std::this_thread::get_id() != m_OldThread) return ::WaitForSingleObject(event, kPatience);
      m_OldIsWaiting.set_value();
      ::WaitForSingleObject(m_OldMayGoOn.get(), kPatience);
      return DWORD{WAIT_TIMEOUT};
    };
  }
  ~OverlappingRebootTest() override {
    if (m_Old.joinable()) EndOldRun();
  }

  void StartOldRunThatIsGivenUpWhileItWaits() {
    m_Old = std::thread([this] {
      m_OldThread = std::this_thread::get_id();
      m_OldResult = RebootModemThroughMobileBroadband([this] { return m_OldIsAbandoned.load(); });
    });
    m_OldIsWaiting.get_future().wait();
    m_OldIsAbandoned = true;
  }
  HRESULT EndOldRun() {
    ::SetEvent(m_OldMayGoOn.get());
    m_Old.join();
    return m_OldResult;
  }

 private:
  std::thread m_Old;
  std::atomic<std::thread::id> m_OldThread;
  std::atomic<bool> m_OldIsAbandoned{false};
  std::promise<void> m_OldIsWaiting;
  UniqueHandle m_OldMayGoOn{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  HRESULT m_OldResult = S_OK;
};

TEST_F(OverlappingRebootTest, ANewAttemptSucceedsWhileAnAbandonedOneStillWaits) {
  StartOldRunThatIsGivenUpWhileItWaits();
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(service.RebootCommands(), 1);
}

TEST_F(OverlappingRebootTest, TheSinkIsSharedAndTornDownByTheLastRun) {
  StartOldRunThatIsGivenUpWhileItWaits();
  Reboot();
  EXPECT_THAT(Told(), Contains(Trace("\t new CMbnSinks OK")).Times(1));
  EXPECT_NE(g_CMbnSinks, nullptr);
  EXPECT_NE(g_Event_OnSetCommandComplete, nullptr);
  EndOldRun();
  EXPECT_EQ(g_CMbnSinks, nullptr);
}

TEST_F(OverlappingRebootTest, EachRunCallsOffItsOwnAdvice) {
  StartOldRunThatIsGivenUpWhileItWaits();
  Reboot();
  EXPECT_EQ(service.AdvisedSinks(), 1);
  EndOldRun();
  EXPECT_EQ(service.AdvisedSinks(), 0);
}

TEST_F(OverlappingRebootTest, TheAbandonedRunSendsNothingWhenItComesBack) {
  StartOldRunThatIsGivenUpWhileItWaits();
  Reboot();
  EXPECT_EQ(EndOldRun(), E_ABORT);
  EXPECT_EQ(service.RebootCommands(), 1);
}

// Notifications that come when the run is over

TEST_F(MbimRebootTest, ASinkThatCouldNotBeUnadvisedStaysAndHearsNothingMore) {
  Fail("Unadvise");
  EXPECT_EQ(Reboot(), S_OK);
  ASSERT_EQ(service.AdvisedSinks(), 1);
  service.Notify(
      [](IMbnDeviceServicesEvents& sink) { sink.OnSetCommandComplete(nullptr, 1, nullptr, kFailure, 9); });
  EXPECT_EQ(g_LastStatus, S_OK);
}

TEST_F(MbimRebootTest, ASinkThatNobodyRefersToIsDeletedWithItsRun) {
  if (!WatchTheSink()) GTEST_SKIP() << "the runtime is linked in";
  Reboot();
  EXPECT_TRUE(Asked("Advise"));
  // The service's thread may be about to leave the handler that ended the run.
  service.WaitForCompletions();
  DeleteRetiredSinks();
  EXPECT_EQ(g_watchedSink, nullptr);
}

TEST_F(MbimRebootTest, ASinkThatTheServiceStillRefersToIsNotDeleted) {
  if (!WatchTheSink()) GTEST_SKIP() << "the runtime is linked in";
  Fail("Unadvise");
  Reboot();
  DeleteRetiredSinks();
  EXPECT_NE(g_watchedSink, nullptr);
}

TEST_F(MbimRebootTest, ASinkThatTheServiceLeavesAfterTheRunIsDeletedWithTheEngine) {
  if (!WatchTheSink()) GTEST_SKIP() << "the runtime is linked in";
  CMbnSinks* held = nullptr;
  service.Behaviour().onRebootCommand = [&held] {
    held = g_CMbnSinks;
    held->AddRef();
  };
  Reboot();
  service.WaitForCompletions();
  CFirmwareDownloader::Unload();
  EXPECT_EQ(g_watchedSink, held);
  held->Release();
  CFirmwareDownloader::Unload();
  EXPECT_EQ(g_watchedSink, nullptr);
}

TEST_F(MbimRebootTest, TheNextRunAfterSuchASinkHasOneOfItsOwn) {
  Fail("Unadvise");
  Reboot();
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_THAT(Told(), Contains(Trace("\t new CMbnSinks OK")).Times(2));
}

TEST_F(MbimRebootTest, ACompletionAfterTheTimeOutReachesNobody) {
  service.Behaviour().setCommand.completesAfter = 95s;
  service.Behaviour().realTime = [](std::chrono::milliseconds delay) { return delay / 1000; };
  service.Behaviour().onRebootCommand = [this] { waits.RunOut(); };
  EXPECT_EQ(Reboot(), kTimedOut);
  service.WaitForCompletions();
  EXPECT_EQ(service.AdvisedSinks(), 0);
}

TEST_F(MbimRebootTest, ManyRunsInARowLeaveNoHandle) {
  Reboot();
  const HandleCensus before = HandlesOfThisProcess();
  for (int run = 0; run < 50; ++run) Reboot();
  EXPECT_EQ(HandlesOfThisProcess(), before);
}

}  // namespace
