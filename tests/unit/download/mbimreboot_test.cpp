#include "download/mbimreboot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "common/automation.h"
#include "common/handles.h"
#include "download/cmbnsink.h"
#include "download/firmwaredownloader.h"
#include "import_patch.h"
#include "mobile_broadband.h"
#include "support/handle_census.h"
#include "support/test_log.h"

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using namespace std::chrono_literals;

namespace {

constexpr HRESULT kFailure = static_cast<HRESULT>(0x8007001F);
constexpr HRESULT kTimedOut = static_cast<HRESULT>(0x80070102);
constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070490);
constexpr wchar_t kVendorService[] = L"{0ED374CB-F835-4474-BC11-3B3FD76F5641}";
constexpr char kAbandoned[] = "\t The attempt was given up: nothing more is asked of the modem";
constexpr DWORD kPatience = 20000;
/// A limit that only the waits for the modem have.
constexpr DWORD kShortestModemWait = 60000;

// The system's functions as the library sees them. Each has one replacement, which asks the test.

std::function<DWORD(HANDLE, DWORD)> g_modemWait;
DWORD WINAPI WaitAsTheTestSays(HANDLE object, DWORD milliseconds) {
  const bool forModem = milliseconds >= kShortestModemWait && milliseconds != INFINITE;
  return forModem ? g_modemWait(object, milliseconds) : ::WaitForSingleObject(object, milliseconds);
}

std::atomic<int> g_apartmentsEntered{0};
HRESULT WINAPI CountEntering(void* reserved, DWORD apartment) {
  const HRESULT result = ::CoInitializeEx(reserved, apartment);
  if (SUCCEEDED(result)) ++g_apartmentsEntered;
  return result;
}
void WINAPI CountLeaving() {
  --g_apartmentsEntered;
  ::CoUninitialize();
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

/// The sink to look for; none once it was freed, for its memory may be handed out again at once.
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
  void RunOut() { m_patience = 0; }
  const std::vector<DWORD>& Limits() const { return m_limits; }
  /// Runs on each wait, before it begins, with its number and its event.
  std::function<void(int, HANDLE)> onWait;

 private:
  DWORD Wait(HANDLE object, DWORD milliseconds) {
    m_limits.push_back(milliseconds);
    if (onWait) onWait(static_cast<int>(m_limits.size()), object);
    return ::WaitForSingleObject(object, m_patience);
  }

  DWORD m_patience = kPatience;
  std::vector<DWORD> m_limits;
};

class MbimRebootTest : public testing::Test {
 protected:
  MbimRebootTest() {
    EXPECT_TRUE(patch.Replace("WaitForSingleObject", &WaitAsTheTestSays));
    EXPECT_TRUE(patch.Replace("CoInitializeEx", &CountEntering));
    EXPECT_TRUE(patch.Replace("CoUninitialize", &CountLeaving));
    g_apartmentsEntered = 0;
    g_failingCall = 0;
    g_LastStatus = S_OK;
    g_ulNumberSupportedCommands = 0;
    g_ulSupportedCommandIds = {};
  }
  /// However a reboot ends, it leaves nothing behind.
  ~MbimRebootTest() override {
    service.WaitForCompletions();
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
    EXPECT_TRUE(patch.Replace(function, replacement));
    g_failingCall = number;
  }
  bool Asked(const std::string& call) const { return service.CallCount(call) > 0; }
  std::vector<std::string> Messages() const { return log.Messages(); }
  std::string LastMessage() const {
    const std::vector<std::string> messages = Messages();
    return messages.empty() ? "" : messages.back();
  }
  /// @return false where the runtime is linked in, and nothing can be watched.
  bool WatchTheSink() {
    g_watchedSink = nullptr;
    service.Behaviour().onCall = [](const std::string& call) {
      if (call == "Advise") g_watchedSink = g_CMbnSinks;
    };
    return patch.Replace("free", &WatchFree);
  }
  bool SinkWasMade() const { return log.Count("\t new CMbnSinks OK") > 0; }

  TestLog log;
  SimulatedMobileBroadband service;
  ModemWaits waits;
  ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};
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
  std::vector<std::string> steps;
  for (const LogRecord& record : log.Records()) {
    if (!record.function.starts_with("CMbnSinks::") && record.file == "mbimreboot.cpp") {
      steps.push_back(record.message);
    }
  }
  EXPECT_THAT(
      steps,
      ElementsAre("RebootModemByMbimCmd ++", "\t fetched interfaceID :{4D36E972-E325-11CE-BFC1-08002BE10318}",
                  "Reboot Modem", "\t new CMbnSinks OK",
                  "\t OpenCommandSession call successful... waiting for callback",
                  "\t pMbnDeviceService = g_MbnDeviceService;", "\t 01 ", "\t 00 ", "\t 00 ", "\t 00 ",
                  "\t QuerySupportedCommands call successful, hr:0x0\n",
                  "\t g_Event_OnQuerySupportedCommandsComplete is valid", "\t ulCommandId[0] = 0\n",
                  "\t ulCommandId[1] = 0\n", "\t ulCommandId[2] = 0\n", "\t to SetCommand",
                  "\t SetCommand result, errorCode:0x0", "\t SetCommand call successful\n",
                  "\t SetCommand call successful... waiting for callback -> requestID=3\n",
                  "\t DeInitilazation()", "RebootModemByMbimCmd --"));
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
  EXPECT_THAT(LastMessage(), StartsWith("	 CoInitializeEx initialization failed, 0x"));
  EXPECT_THAT(LastMessage(), EndsWith(", RebootModemByMbimCmd --"));
}

// Every call that can fail

struct FailingCall {
  const char* name;
  const char* call;
  /// The line that tells it; empty when there is none of its own.
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
  EXPECT_THAT(Messages(), Contains(HasSubstr(GetParam().message)));
  EXPECT_EQ(service.RebootCommands(), 0);
}

TEST_P(MbimRebootFailureTest, CleansUpWhatWasMade) {
  Fail(GetParam().call);
  Reboot();
  EXPECT_EQ(service.AdvisedSinks(), 0);
  EXPECT_EQ(SinkWasMade(), GetParam().afterTheSink);
  EXPECT_EQ(log.Count("\t DeInitilazation()"), GetParam().afterTheSink ? 1 : 0);
  EXPECT_EQ(LastMessage() == "RebootModemByMbimCmd --", GetParam().afterTheSink);
}

TEST_P(MbimRebootFailureTest, TellsItAsAnError) {
  Fail(GetParam().call);
  Reboot();
  for (const LogRecord& record : log.Records()) {
    const bool isTheFailure = record.message.find(GetParam().message) != std::string::npos;
    if (isTheFailure && *GetParam().message != '\0') {
      EXPECT_EQ(record.level, "Error") << record.message;
    }
  }
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
  EXPECT_THAT(Messages(), Not(Contains(HasSubstr("SafeArrayGetLBound"))));
}

TEST_F(MbimRebootTest, NoMemoryForTheSinkIsMinusOne) {
  if (!patch.Replace("malloc", &NoMemoryForASink)) GTEST_SKIP() << "the runtime is linked in";
  EXPECT_EQ(Reboot(), static_cast<HRESULT>(-1));
  EXPECT_EQ(LastMessage(), "\t new CMbnSinks failed, RebootModemByMbimCmd --");
}

TEST_F(MbimRebootTest, EventsThatCannotBeCreatedEndItWithTheirError) {
  patch.Replace("CreateEventW", &NoEvent);
  EXPECT_EQ(Reboot(), static_cast<HRESULT>(0x80070008));
  EXPECT_EQ(log.LevelOf("\t g_CMbnSinks->Initilazation() failed"), "Error");
  EXPECT_EQ(log.Count("\t DeInitilazation()"), 1);
  EXPECT_FALSE(Asked("Advise"));
}

TEST_F(MbimRebootTest, APayloadThatCannotBeMadeEndsIt) {
  patch.Replace("SafeArrayCreate", &NoArray);
  EXPECT_EQ(Reboot(), E_OUTOFMEMORY);
  EXPECT_FALSE(Asked("SetCommand"));
}

TEST_F(MbimRebootTest, APayloadThatCannotBeFilledEndsIt) {
  FailCall("SafeArrayPutElement", 3, &PutElement);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_FALSE(Asked("SetCommand"));
}

// Interfaces

TEST_F(MbimRebootTest, NoInterfaceIsAFailureWithoutASink) {
  service.Behaviour().interfaces.clear();
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastMessage(), "\t pMbnInterface == NULL, RebootModemByMbimCmd --");
  EXPECT_FALSE(SinkWasMade());
}

TEST_F(MbimRebootTest, AModemThatIsNotInNormalModeHasNoInterface) {
  service.Behaviour().modemIsInNormalMode = [] { return false; };
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastMessage(), "\t pMbnInterface == NULL, RebootModemByMbimCmd --");
}

TEST_F(MbimRebootTest, TheLastOfSeveralInterfacesIsUsedAndNoneIsLeaked) {
  service.Behaviour().interfaces = {L"{first}", L"{second}", L"{third}"};
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(log.Count("\t fetched interfaceID :{third}"), 1);
}

TEST_F(MbimRebootTest, ALastInterfaceThatIsNullIsAFailure) {
  service.Behaviour().interfaces = {L"{first}", L""};
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastMessage(), "\t pMbnInterface == NULL, RebootModemByMbimCmd --");
}

TEST_F(MbimRebootTest, InterfacesThatAreNoArrayAreAFailure) {
  HandOutNothingFrom("GetInterfaces");
  EXPECT_EQ(Reboot(), E_INVALIDARG);
  EXPECT_EQ(LastMessage(), "\t SafeArrayGetLBound FAIL, RebootModemByMbimCmd --\n");
}

TEST_F(MbimRebootTest, InterfacesWithoutUpperBoundAreAFailure) {
  FailCall("SafeArrayGetUBound", 1, &UpperBound);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(LastMessage(), "\t SafeArrayGetUBound FAIL, RebootModemByMbimCmd --\n");
}

TEST_F(MbimRebootTest, TheFirstInterfaceThatCannotBeReadEndsIt) {
  service.Behaviour().interfaces = {L"{first}", L"{second}", L"{third}"};
  FailCall("SafeArrayGetElement", 2, &GetElement);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(LastMessage(),
            "\t SafeArrayGetElement(IMbnInterface) FAILED hr=0x8007001F, RebootModemByMbimCmd --\n");
}

TEST_F(MbimRebootTest, AnInterfaceWithoutIdIsLoggedAsEmptyAndNotFound) {
  HandOutNothingFrom("get_InterfaceID");
  EXPECT_EQ(Reboot(), kNotFound);
  EXPECT_EQ(log.Count("\t fetched interfaceID :"), 1);
}

TEST_F(MbimRebootTest, ASuccessWithoutAContextIsAFailure) {
  HandOutNothingFrom("GetDeviceServicesContext");
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_THAT(LastMessage(), HasSubstr("GetDeviceServicesContext"));
}

// Device services

class MbimRebootServicesTest : public MbimRebootTest, public testing::WithParamInterface<bool> {
 protected:
  MbimRebootServicesTest() {
    service.Behaviour().deviceServicesCarryRecordInfo = GetParam();
    EXPECT_TRUE(patch.Replace("SysFreeString", &CountFreedText));
    g_textsFreed = 0;
  }
};

TEST_P(MbimRebootServicesTest, FindsTheVendorServiceAmongOthersAndFreesEveryId) {
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(log.Count("\t Service Not found"), 0);
  // Three listed ids, the interface's id, and the id that the service was asked for by.
  EXPECT_EQ(g_textsFreed, 5);
}

TEST_P(MbimRebootServicesTest, AMissingVendorServiceIsLoggedAndThenRefused) {
  service.Behaviour().deviceServices = {L"{533FBEEB-14FE-4467-9F90-33A223E56C3F}"};
  EXPECT_EQ(Reboot(), kNotFound);
  EXPECT_EQ(log.Count("\t Service Not found"), 1);
  EXPECT_EQ(LastMessage(),
            "\t IMbnDeviceServicesContext::GetDeviceService('{0ED374CB-F835-4474-BC11-"
            "3B3FD76F5641}') failed with: 80070490");
}

TEST_P(MbimRebootServicesTest, AnIdThatIsNullShorterLongerOrInOtherCaseIsNotTheVendorService) {
  service.Behaviour().deviceServices = {L"", L"{0ED374CB", std::wstring(kVendorService) + L"}",
                                        L"{0ed374cb-f835-4474-bc11-3b3fd76f5641}"};
  EXPECT_EQ(Reboot(), kNotFound);
  EXPECT_EQ(log.Count("\t Service Not found"), 1);
}

TEST_P(MbimRebootServicesTest, AnEmptyListIsNoVendorService) {
  service.Behaviour().deviceServices.clear();
  EXPECT_EQ(Reboot(), kNotFound);
  EXPECT_EQ(log.Count("\t Service Not found"), 1);
}

INSTANTIATE_TEST_SUITE_P(RecordInfo, MbimRebootServicesTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Carried" : "Absent"; });

TEST_F(MbimRebootTest, ServicesThatAreNoArrayAreAFailure) {
  HandOutNothingFrom("EnumerateDeviceServices");
  EXPECT_EQ(Reboot(), E_INVALIDARG);
  EXPECT_EQ(LastMessage(),
            "\t SafeArrayGetLBound on allDeviceServices failed with: 80070057, RebootModemByMbimCmd --");
}

TEST_F(MbimRebootTest, ServicesWithoutLowerBoundAreAFailure) {
  FailCall("SafeArrayGetLBound", 2, &LowerBound);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(LastMessage(),
            "\t SafeArrayGetLBound on allDeviceServices failed with: 8007001f, RebootModemByMbimCmd --");
}

TEST_F(MbimRebootTest, ServicesWithoutUpperBoundAreAFailure) {
  FailCall("SafeArrayGetUBound", 2, &UpperBound);
  EXPECT_EQ(Reboot(), kFailure);
  EXPECT_EQ(LastMessage(),
            "\t SafeArrayGetUBound on allDeviceServices failed with: 8007001f, RebootModemByMbimCmd --");
}

TEST_F(MbimRebootTest, ASuccessWithoutAServiceIsAFailure) {
  HandOutNothingFrom("GetDeviceService");
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastMessage(),
            "\t IMbnDeviceServicesContext::GetDeviceService('{0ED374CB-F835-4474-BC11-"
            "3B3FD76F5641}') succeeded but (pDeviceService) is NULL!");
}

TEST_F(MbimRebootTest, ASuccessWithoutAConnectionPointIsAFailure) {
  HandOutNothingFrom("FindConnectionPoint");
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(log.Count("\t FindConnectionPoint(IID_IMbnDeviceServicesEvents,**) failed"), 1);
}

// The command session

TEST_F(MbimRebootTest, AnOpenSessionIsRefusedBeforeAnySinkIsMade) {
  service.Behaviour().commandSessionIsOpen = true;
  EXPECT_EQ(Reboot(), E_FAIL);
  EXPECT_EQ(LastMessage(), "\t Command session is open; cannot proceed, RebootModemByMbimCmd --");
  EXPECT_FALSE(SinkWasMade());
}

TEST_F(MbimRebootTest, APendingOpenIsWaitedForAndThenRefused) {
  service.Behaviour().openCommandSession.answer = E_PENDING;
  EXPECT_EQ(Reboot(), E_PENDING);
  EXPECT_EQ(log.Count("\t pMbnDeviceService = g_MbnDeviceService;"), 1);
  EXPECT_EQ(log.LevelOf("\t OpenCommandSession (FAILED(hr))"), "Error");
  EXPECT_FALSE(Asked("QuerySupportedCommands"));
}

TEST_F(MbimRebootTest, APendingOpenThatNeverCompletesStaysPending) {
  service.Behaviour().openCommandSession = {.answer = E_PENDING, .completesAfter = {}};
  waits.RunOut();
  EXPECT_EQ(Reboot(), E_PENDING);
  EXPECT_EQ(log.LevelOf("\t OpenCommandSession failed with timeOut or other issue"), "Error");
}

TEST_F(MbimRebootTest, AnOpenThatNeverCompletesKeepsItsOwnSuccessAndSendsNothing) {
  service.Behaviour().openCommandSession.completesAfter.reset();
  waits.RunOut();
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(log.Count("\t OpenCommandSession failed with timeOut or other issue"), 1);
  EXPECT_FALSE(Asked("SetCommand"));
}

// The supported commands

TEST_F(MbimRebootTest, ACommandListThatNeverComesIsATimeOutAndSendsNothing) {
  service.Behaviour().querySupportedCommands.completesAfter.reset();
  waits.onWait = [this](int number, HANDLE) {
    if (number == 2) waits.RunOut();
  };
  EXPECT_EQ(Reboot(), kTimedOut);
  EXPECT_THAT(Messages(), Contains(HasSubstr("\t QuerySupportedCommands failed with other issue, "
                                             "waitObject: 0x102, ErrorCode:0x")));
  EXPECT_FALSE(Asked("SetCommand"));
}

TEST_F(MbimRebootTest, AQueryThatFailsIsWaitedForAllTheSame) {
  Fail("QuerySupportedCommands");
  waits.onWait = [this](int number, HANDLE) {
    if (number == 2) waits.RunOut();
  };
  EXPECT_EQ(Reboot(), kTimedOut);
  EXPECT_EQ(log.Count("\t QuerySupportedCommands call successful, hr:0x8007001f\n"), 1);
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
  EXPECT_EQ(log.Count("\t g_Event_OnQuerySupportedCommandsComplete is not valid"), 1);
  EXPECT_EQ(log.Count("\t QuerySupportedCommands failed with other issue, waitObject: 0xffffffff, "
                      "ErrorCode:0x6"),
            1);
}

TEST_F(MbimRebootTest, TheCommandIsSentWhateverTheListHolds) {
  service.Behaviour().supportedCommands = {{7, 8}};
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(service.RebootCommands(), 1);
}

TEST_F(MbimRebootTest, MoreCommandsThanThereIsRoomForAreLoggedAsZero) {
  service.Behaviour().supportedCommands = std::vector<ULONG>(200, 1);
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(log.Count("\t ulCommandId[199] = 0\n"), 1);
}

TEST_F(MbimRebootTest, AnEntryThatIsTheRebootCommandIsPointedOut) {
  g_ulSupportedCommandIds[1] = 1;
  Reboot();
  EXPECT_EQ(log.Count("\t ulCommandId[1] = 1\n"), 1);
  EXPECT_EQ(log.LevelOf("\t ------- MBIM support Modem Reboot Command ----"), "Error");
}

TEST_F(MbimRebootTest, TheCountOfAnEarlierRunSurvivesACompletionWithoutList) {
  Reboot();
  service.Behaviour().supportedCommands.reset();
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(log.Count("\t ulCommandId[2] = 0\n"), 2);
}

// The command

TEST_F(MbimRebootTest, AModemThatResetsWithoutCompletingIsATimeOut) {
  service.Behaviour().setCommand.completesAfter.reset();
  service.Behaviour().onRebootCommand = [this] { waits.RunOut(); };
  EXPECT_EQ(Reboot(), kTimedOut);
  EXPECT_EQ(log.LevelOf("\t SetCommand timeout or failed with other issue"), "Error");
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
  EXPECT_EQ(log.Count("\t SetCommand result, errorCode:0x8000000a"), 1);
  EXPECT_EQ(waits.Limits().size(), 3u);
}

TEST_F(MbimRebootTest, AnyOtherSuccessIsNotWaitedFor) {
  service.Behaviour().setCommand.answer = S_FALSE;
  EXPECT_EQ(Reboot(), S_FALSE);
  EXPECT_EQ(log.Count("\t SetCommand call successful\n"), 1);
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
  EXPECT_EQ(log.LevelOf(kAbandoned), "Error");
  EXPECT_EQ(LastMessage(), "RebootModemByMbimCmd --");
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

TEST_F(MbimRebootTest, ARunThatWasGivenUpPassesOnTheCompletionThatItTook) {
  UniqueHandle openEvent;
  waits.onWait = [&](int, HANDLE event) {
    HANDLE copy = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), event, ::GetCurrentProcess(), &copy, 0, FALSE,
                      DUPLICATE_SAME_ACCESS);
    openEvent.reset(copy);
    abandoned = true;
  };
  EXPECT_EQ(Reboot(), E_ABORT);
  EXPECT_EQ(::WaitForSingleObject(openEvent.get(), 0), WAIT_OBJECT_0);
}

TEST_F(MbimRebootTest, UnloadingTheEngineGivesItsRunUp) {
  CFirmwareDownloader::GetInstance();
  const std::shared_ptr<CFirmwareDownloader> engine = CFirmwareDownloader::OfThisThread();
  ASSERT_NE(engine, nullptr);
  service.Behaviour().onCall = [](const std::string& call) {
    if (call == "OpenCommandSession") CFirmwareDownloader::Unload();
  };
  EXPECT_EQ(engine->RebootModemByMbimCmd(), E_ABORT);
  EXPECT_EQ(service.RebootCommands(), 0);
}

TEST_F(MbimRebootTest, ACompletionOfAnEarlierRequestIsNotTakenForThisOne) {
  service.Behaviour().openCommandSession.completesAfter.reset();
  service.Behaviour().onCall = [](const std::string& call) {
    // Before the session is asked for, as when the completion that an abandoned run gave up comes late.
    if (call == "Advise") ::SetEvent(g_Event_OnOpenCommandSessionComplete);
  };
  waits.RunOut();
  Reboot();
  EXPECT_EQ(log.Count("\t OpenCommandSession failed with timeOut or other issue"), 1);
}

/// An abandoned run that is still in its first wait while others come and go.
class OverlappingRebootTest : public MbimRebootTest {
 protected:
  OverlappingRebootTest() {
    // The old attempt's own wait; the new one waits as usual.
    g_modemWait = [this](HANDLE event, DWORD) {
      if (std::this_thread::get_id() != m_oldThread) return ::WaitForSingleObject(event, kPatience);
      m_oldIsWaiting.set_value();
      ::WaitForSingleObject(m_oldMayGoOn.get(), kPatience);
      return DWORD{WAIT_TIMEOUT};
    };
  }
  ~OverlappingRebootTest() override {
    if (m_old.joinable()) EndOldRun();
  }

  void StartOldRunThatIsGivenUpWhileItWaits() {
    m_old = std::thread([this] {
      m_oldThread = std::this_thread::get_id();
      m_oldResult = RebootModemThroughMobileBroadband([this] { return m_oldIsAbandoned.load(); });
    });
    m_oldIsWaiting.get_future().wait();
    m_oldIsAbandoned = true;
  }
  HRESULT EndOldRun() {
    ::SetEvent(m_oldMayGoOn.get());
    m_old.join();
    return m_oldResult;
  }

 private:
  std::thread m_old;
  std::atomic<std::thread::id> m_oldThread;
  std::atomic<bool> m_oldIsAbandoned{false};
  std::promise<void> m_oldIsWaiting;
  UniqueHandle m_oldMayGoOn{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  HRESULT m_oldResult = S_OK;
};

TEST_F(OverlappingRebootTest, ANewAttemptSucceedsWhileAnAbandonedOneStillWaits) {
  StartOldRunThatIsGivenUpWhileItWaits();
  EXPECT_EQ(Reboot(), S_OK);
  EXPECT_EQ(service.RebootCommands(), 1);
}

TEST_F(OverlappingRebootTest, TheSinkIsSharedAndTornDownByTheLastRun) {
  StartOldRunThatIsGivenUpWhileItWaits();
  Reboot();
  EXPECT_EQ(log.Count("\t new CMbnSinks OK"), 1);
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
  EXPECT_EQ(log.Count("\t new CMbnSinks OK"), 2);
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
