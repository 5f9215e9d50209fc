#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "common/handles.h"
#include "common/text.h"
#include "config/configparser.h"
#include "simulator/import_patch.h"
#include "support/host_folder.h"
#include "support/scratch_key.h"
#include "support/test_log.h"
#include "toolkit/toolkit.h"

using corvel::AnsiFromWide;
using corvel::CopyBounded;

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::Optional;
using testing::Pair;

constexpr int kUnreadable = -255;
// A sub-key that begins with a separator can be neither opened nor made.
constexpr wchar_t kImpossibleKey[] = L"\\Software";

/// The keys that the library has open, roots that it was given left out.
class OpenKeys {
 public:
  OpenKeys() {
    s_open.clear();
    s_access.clear();
    s_created.clear();
    m_Patch.Replace("RegOpenKeyExW", &Open);
    m_Patch.Replace("RegCreateKeyExW", &Create);
    m_Patch.Replace("RegCloseKey", &Close);
  }
  ~OpenKeys() {
    for (const HKEY key : s_open) ::RegCloseKey(key);
  }
  static std::size_t Count() { return s_open.size(); }
  /// The access that each key was opened with.
  static const std::vector<REGSAM>& Access() { return s_access; }
  /// The options and the access that each key was made with.
  static const std::vector<std::pair<DWORD, REGSAM>>& Created() { return s_created; }

 private:
  static LSTATUS WINAPI Open(HKEY root, const wchar_t* subKey, DWORD options, REGSAM access, HKEY* key) {
    s_access.push_back(access);
    const LSTATUS status = ::RegOpenKeyExW(root, subKey, options, access, key);
    if (status == ERROR_SUCCESS) s_open.push_back(*key);
    return status;
  }
  static LSTATUS WINAPI Create(HKEY root, const wchar_t* subKey, DWORD reserved, wchar_t* kind, DWORD options,
                               REGSAM access, SECURITY_ATTRIBUTES* security, HKEY* key, DWORD* disposition) {
    s_created.emplace_back(options, access);
    const LSTATUS status =
        ::RegCreateKeyExW(root, subKey, reserved, kind, options, access, security, key, disposition);
    if (status == ERROR_SUCCESS) s_open.push_back(*key);
    return status;
  }
  static LSTATUS WINAPI Close(HKEY key) {
    std::erase(s_open, key);
    return ::RegCloseKey(key);
  }

  static inline std::vector<HKEY> s_open;
  static inline std::vector<REGSAM> s_access;
  static inline std::vector<std::pair<DWORD, REGSAM>> s_created;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

bool IsClosed(HKEY key) {
  HKEY opened = nullptr;
  const LSTATUS status = ::RegOpenKeyExW(key, L"", 0, KEY_READ, &opened);
  if (status == ERROR_SUCCESS) ::RegCloseKey(opened);
  return status == ERROR_INVALID_HANDLE;
}

class RegistryTest : public testing::Test {
 protected:
  int Read(const wchar_t* name = L"Value") { return ToolKit::ReadRegistry(key.Root(), key.Path(), name, 0); }
  bool Write(int value) { return ToolKit::WriteRegistry(key.Root(), key.Path(), L"Value", value); }

  ScratchKey key;
  TestLog log;
};

TEST_F(RegistryTest, ANumberIsReadAndLogged) {
  key.SetNumber(L"Value", 42);
  EXPECT_EQ(Read(), 42);
  EXPECT_THAT(log.Said(), ElementsAre("\t Read regedit Value successfully, data:42"));
}

TEST_F(RegistryTest, AValueInAMissingKeyReadsAsUnreadable) {
  EXPECT_EQ(Read(), kUnreadable);
  EXPECT_THAT(log.Said(), ElementsAre("\t Reg OpenKeyEx failed"));
  EXPECT_EQ(log.LevelOf("\t Reg OpenKeyEx failed"), "Trace");
}

TEST_F(RegistryTest, AMissingValueReadsAsUnreadable) {
  key.Make();
  EXPECT_EQ(Read(), kUnreadable);
  EXPECT_THAT(log.Said(), ElementsAre("\t Read regedit failed"));
  EXPECT_EQ(log.LevelOf("\t Read regedit failed"), "Trace");
}

TEST_F(RegistryTest, ATextOfFourBytesReadsAsItsBytes) {
  key.SetValue(L"Value", REG_SZ, L"1", 4);
  EXPECT_EQ(Read(), 0x31);
}

TEST_F(RegistryTest, ALongerTextIsUnreadable) {
  key.SetValue(L"Value", REG_SZ, L"12", 6);
  EXPECT_EQ(Read(), kUnreadable);
}

TEST_F(RegistryTest, A64BitNumberIsUnreadable) {
  const std::uint64_t number = 1;
  key.SetValue(L"Value", REG_QWORD, &number, sizeof number);
  EXPECT_EQ(Read(), kUnreadable);
}

TEST_F(RegistryTest, MissingBytesOfAShortValueReadAsZero) {
  key.SetValue(L"Value", REG_BINARY, "\x01", 1);
  EXPECT_EQ(Read(), 1);
}

TEST_F(RegistryTest, AnEmptyValueReadsAsZero) {
  key.SetValue(L"Value", REG_BINARY, "", 0);
  EXPECT_EQ(Read(), 0);
}

TEST_F(RegistryTest, AStoredSentinelLooksUnreadable) {
  key.SetNumber(L"Value", 0xFFFFFF01u);
  EXPECT_EQ(Read(), kUnreadable);
}

TEST_F(RegistryTest, ValueNamesAreLoggedInTheAnsiCodePage) {
  key.SetNumber(L"Sch\u00E9ma", 7);
  Read(L"Sch\u00E9ma");
  EXPECT_THAT(log.Said(),
              ElementsAre("\t Read regedit " + AnsiFromWide(L"Sch\u00E9ma") + " successfully, data:7"));
}

TEST_F(RegistryTest, AValueNameThatDoesNotFitIsCutInTheLog) {
  const std::wstring name(600, L'n');
  key.SetNumber(name.c_str(), 7);
  EXPECT_EQ(Read(name.c_str()), 7);
  EXPECT_THAT(log.Said(), ElementsAre("\t Read regedit " + std::string(511, 'n') + " successfully, data:7"));
}

TEST_F(RegistryTest, EachReadLeavesExactlyOneSubKeyOpen) {
  key.SetNumber(L"Value", 1);
  OpenKeys keys;
  for (int i = 0; i < 3; ++i) Read();
  EXPECT_EQ(keys.Count(), 3u);
}

TEST_F(RegistryTest, AReadAsksForFullAccess) {
  key.SetNumber(L"Value", 1);
  OpenKeys keys;
  Read();
  EXPECT_THAT(keys.Access(), ElementsAre(KEY_ALL_ACCESS));
}

TEST_F(RegistryTest, AWriteAsksForFullAccess) {
  key.Make();
  OpenKeys keys;
  Write(6);
  EXPECT_THAT(keys.Access(), ElementsAre(KEY_ALL_ACCESS));
  EXPECT_THAT(keys.Created(), IsEmpty());
}

TEST_F(RegistryTest, AKeyThatIsMadeOutlivesARestartOfThePc) {
  OpenKeys keys;
  Write(6);
  EXPECT_THAT(keys.Created(), ElementsAre(Pair(REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS)));
  EXPECT_THAT(keys.Access(), ElementsAre(KEY_ALL_ACCESS, KEY_ALL_ACCESS));
}

TEST_F(RegistryTest, AReadOfAMissingValueLeavesItsSubKeyOpenToo) {
  key.Make();
  OpenKeys keys;
  Read();
  EXPECT_EQ(keys.Count(), 1u);
}

TEST_F(RegistryTest, AReadClosesTheRootThatItIsGiven) {
  key.SetNumber(L"Value", 1);
  const HKEY root = key.Open();
  EXPECT_EQ(ToolKit::ReadRegistry(root, L"", L"Value", 0), 1);
  EXPECT_TRUE(IsClosed(root));
}

TEST_F(RegistryTest, AFailedReadClosesTheRootThatItIsGivenToo) {
  const HKEY root = key.Open();
  EXPECT_EQ(ToolKit::ReadRegistry(root, L"missing", L"Value", 0), kUnreadable);
  EXPECT_TRUE(IsClosed(root));
}

TEST_F(RegistryTest, WritingReplacesTheOldNumberAndLogsIt) {
  key.SetNumber(L"Value", 5);
  EXPECT_TRUE(Write(6));
  EXPECT_THAT(key.Number(L"Value"), Optional(6u));
  EXPECT_THAT(log.Said(), ElementsAre("\t Read regedit successfully, data:5"));
}

TEST_F(RegistryTest, WritingReplacesAValueOfAnotherType) {
  key.SetValue(L"Value", REG_SZ, L"long text", 20);
  EXPECT_TRUE(Write(6));
  EXPECT_THAT(key.Number(L"Value"), Optional(6u));
  EXPECT_THAT(log.Said(), IsEmpty());
}

TEST_F(RegistryTest, WritingANegativeNumberStoresItsBits) {
  EXPECT_TRUE(Write(-1));
  EXPECT_THAT(key.Number(L"Value"), Optional(0xFFFFFFFFu));
}

TEST_F(RegistryTest, WritingToAMissingKeyCreatesItAndSucceeds) {
  EXPECT_TRUE(Write(6));
  EXPECT_THAT(key.Number(L"Value"), Optional(6u));
  EXPECT_THAT(log.Said(),
              ElementsAre(MatchesRegex("\t RegOpenKeyEx failed, try to create it, GetLastError\\(\\):-?\\d+"),
                          MatchesRegex("\t RegCreateKeyEx, GetLastError\\(\\):-?\\d+")));
}

TEST_F(RegistryTest, WritingLeavesNoKeyOpen) {
  OpenKeys keys;
  Write(6);
  Write(7);
  EXPECT_EQ(keys.Count(), 0u);
}

TEST_F(RegistryTest, WritingLeavesTheRootOpen) {
  const HKEY root = key.Open();
  EXPECT_TRUE(ToolKit::WriteRegistry(root, L"", L"Value", 6));
  EXPECT_FALSE(IsClosed(root));
  ::RegCloseKey(root);
}

TEST_F(RegistryTest, WritingToAKeyThatCannotBeMadeFails) {
  EXPECT_FALSE(ToolKit::WriteRegistry(key.Root(), kImpossibleKey, L"Value", 6));
  EXPECT_THAT(
      log.Records(),
      Contains(AllOf(Field(&LogRecord::level, "Error"),
                     Field(&LogRecord::message, MatchesRegex("\t Could not find or create registry key, "
                                                             "GetLastError\\(\\):-?\\d+")))));
}

LSTATUS WINAPI RefuseToSet(HKEY, const wchar_t*, DWORD, DWORD, const BYTE*, DWORD) {
  return ERROR_ACCESS_DENIED;
}

TEST_F(RegistryTest, AValueThatCannotBeSetIsAFailure) {
  key.Make();
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("RegSetValueExW", &RefuseToSet);
  OpenKeys keys;
  EXPECT_FALSE(Write(6));
  EXPECT_EQ(log.LevelOf("\t RegSetValueEx failed, WriteRegistry --"), "Trace");
  EXPECT_EQ(keys.Count(), 0u);
}

TEST_F(RegistryTest, NoRetryTimesAreThree) {
  key.Make();
  EXPECT_EQ(ToolKit::GetFlashRetryTimes(key.Root(), key.Path()), 3);
}

TEST_F(RegistryTest, RetryTimesOfZeroAllowNoRetry) {
  key.SetNumber(L"Retry_Times", 0);
  EXPECT_EQ(ToolKit::GetFlashRetryTimes(key.Root(), key.Path()), 0);
}

TEST_F(RegistryTest, RetryTimesOfMinusOneAreHandedOnAsUnlimited) {
  key.SetNumber(L"Retry_Times", 0xFFFFFFFFu);
  EXPECT_EQ(static_cast<unsigned long>(ToolKit::GetFlashRetryTimes(key.Root(), key.Path())), 0xFFFFFFFFu);
}

TEST_F(RegistryTest, TheReadyFlagIsReadAsItIs) {
  key.SetNumber(L"Fls_Ready", 2);
  EXPECT_EQ(ToolKit::GetFlashReadyFlag(key.Root(), key.Path()), 2);
}

struct SetterCase {
  const char* name;
  void (*set)(HKEY__*, const wchar_t*, int);
  const wchar_t* value;
  const char* success;
  const char* failure;
};

class SetterTest : public RegistryTest, public testing::WithParamInterface<SetterCase> {};

TEST_P(SetterTest, WritesItsValueAndSaysSo) {
  key.Make();
  GetParam().set(key.Root(), key.Path(), 37);
  EXPECT_THAT(key.Number(GetParam().value), Optional(37u));
  EXPECT_THAT(
      log.Records(),
      ElementsAre(AllOf(Field(&LogRecord::level, "Trace"), Field(&LogRecord::file, "registryhandshake.cpp"),
                        Field(&LogRecord::function, std::string("ToolKit::") + GetParam().name),
                        Field(&LogRecord::message, GetParam().success))));
}

TEST_P(SetterTest, SaysThatItFailed) {
  GetParam().set(key.Root(), kImpossibleKey, 37);
  EXPECT_EQ(log.Count(std::string("E:") + GetParam().failure), 1);
}

INSTANTIATE_TEST_SUITE_P(Setters, SetterTest,
                         testing::Values(SetterCase{"SetFlashTimeOut", &ToolKit::SetFlashTimeOut, L"Time_Out",
                                                    "\t Flash Time_Out: 37",
                                                    "\t WriteRegistry SetFlashTimeOut failed"},
                                         SetterCase{"SetFlashProcess", &ToolKit::SetFlashProcess,
                                                    L"Flash_Progress", "\t WriteRegistry Flash_Progress: 37",
                                                    "\t WriteRegistry SetFlashProcess failed"},
                                         SetterCase{"SetFlashOnGoingFlag", &ToolKit::SetFlashOnGoingFlag,
                                                    L"Flash_OnGoing", "\t WriteRegistry Flash_OnGoing: 37",
                                                    "\t WriteRegistry SetFlashOnGoingFlag failed"},
                                         SetterCase{"SetFlashResult", &ToolKit::SetFlashResult,
                                                    L"Flash_Result", "\t WriteRegistry Flash_Result: 37",
                                                    "\t WriteRegistry SetFlashResult failed"}),
                         [](const auto& setter) { return std::string(setter.param.name); });

TEST_F(RegistryTest, TheReadyFlagIsWrittenWithoutAWord) {
  key.Make();
  ToolKit::SetFlashReadyFlag(key.Root(), key.Path(), 0);
  EXPECT_THAT(key.Number(L"Fls_Ready"), Optional(0u));
  EXPECT_THAT(log.Said(), IsEmpty());
}

TEST_F(RegistryTest, AReadyFlagThatCannotBeWrittenIsLoggedOnceAndAsATrace) {
  ToolKit::SetFlashReadyFlag(key.Root(), kImpossibleKey, 0);
  EXPECT_EQ(log.Count("\t Could not set registry value"), 1);
}

class LabelsLocationTest : public testing::Test {
 protected:
  LabelsLocationTest() { ToolKit::hMainKey = HKEY_LOCAL_MACHINE; }
  ~LabelsLocationTest() override {
    ToolKit::hMainKey = HKEY_LOCAL_MACHINE;
    ToolKit::mMainKey[0] = ToolKit::mStrKey[0] = ToolKit::mRegitstryLocation[0] = L'\0';
  }

  void Locate(const wchar_t* location) {
    CConfigParser::GetInstance()->SetConfigVar(L"[RegistryLocation]", location);
    ToolKit::GetLabelsLocation();
  }

  HostFolder host;
};

TEST_F(LabelsLocationTest, IsSplitAtTheFirstSeparator) {
  Locate(L"HKCU\\Software\\Some\\Key");
  EXPECT_STREQ(ToolKit::GetRegistryMainKey(), L"HKCU");
  EXPECT_STREQ(ToolKit::GetRegistryStrKey(), L"Software\\Some\\Key");
  EXPECT_STREQ(ToolKit::mRegitstryLocation, L"HKCU\\Software\\Some\\Key");
  EXPECT_EQ(ToolKit::GetHKEYRegistryMainKey(), HKEY_CURRENT_USER);
}

TEST_F(LabelsLocationTest, IsLogged) {
  Locate(L"HKCU\\Software\\Some");
  EXPECT_THAT(host.Said(), ElementsAre("\t get Config Var, [RegistryLocation] : HKCU\\Software\\Some",
                                       "mMainKey:HKCU", "mStrKey:Software\\Some", "hMainKey:0x80000001"));
}

TEST_F(LabelsLocationTest, IsLoggedInTheAnsiCodePage) {
  Locate(L"HKCU\\Cl\u00E9");
  EXPECT_THAT(host.Said(), Contains("mStrKey:" + AnsiFromWide(L"Cl\u00E9")));
}

TEST_F(LabelsLocationTest, WithoutASeparatorIsBothPartsAndKeepsTheRoot) {
  Locate(L"Software");
  EXPECT_STREQ(ToolKit::mMainKey, L"Software");
  EXPECT_STREQ(ToolKit::mStrKey, L"Software");
  EXPECT_EQ(ToolKit::hMainKey, HKEY_LOCAL_MACHINE);
}

TEST_F(LabelsLocationTest, OfAPrefixAloneSelectsItsRoot) {
  Locate(L"HKCU");
  EXPECT_STREQ(ToolKit::mMainKey, L"HKCU");
  EXPECT_STREQ(ToolKit::mStrKey, L"HKCU");
  EXPECT_EQ(ToolKit::hMainKey, HKEY_CURRENT_USER);
}

TEST_F(LabelsLocationTest, ThatIsEmptyGivesEmptyTextsAndKeepsTheRoot) {
  ToolKit::hMainKey = HKEY_USERS;
  Locate(L"");
  EXPECT_STREQ(ToolKit::mMainKey, L"");
  EXPECT_STREQ(ToolKit::mStrKey, L"");
  EXPECT_EQ(ToolKit::hMainKey, HKEY_USERS);
}

TEST_F(LabelsLocationTest, MayEndWithItsSeparator) {
  Locate(L"HKCU\\");
  EXPECT_STREQ(ToolKit::mMainKey, L"HKCU");
  EXPECT_STREQ(ToolKit::mStrKey, L"");
}

TEST_F(LabelsLocationTest, WithADoubleSeparatorKeepsTheSecondOne) {
  Locate(L"HKCU\\\\Software");
  EXPECT_STREQ(ToolKit::mStrKey, L"\\Software");
}

TEST_F(LabelsLocationTest, WithoutAConfigurationIsEmpty) {
  ToolKit::GetLabelsLocation();
  EXPECT_STREQ(ToolKit::mMainKey, L"");
  EXPECT_EQ(ToolKit::hMainKey, HKEY_LOCAL_MACHINE);
}

struct RootCase {
  const wchar_t* location;
  HKEY root;
};

class RootPrefixTest : public LabelsLocationTest, public testing::WithParamInterface<RootCase> {};

TEST_P(RootPrefixTest, SelectsTheRoot) {
  ToolKit::hMainKey = nullptr;
  Locate(GetParam().location);
  EXPECT_EQ(ToolKit::hMainKey, GetParam().root);
}

INSTANTIATE_TEST_SUITE_P(Known, RootPrefixTest,
                         testing::Values(RootCase{L"HKLM\\x", HKEY_LOCAL_MACHINE},
                                         RootCase{L"HKU\\x", HKEY_USERS},
                                         RootCase{L"HKCU\\x", HKEY_CURRENT_USER},
                                         RootCase{L"HKCR\\x", HKEY_CLASSES_ROOT},
                                         RootCase{L"HCC\\x", HKEY_CURRENT_CONFIG}));
INSTANTIATE_TEST_SUITE_P(UnknownOrInLowerCaseKeepsThePreviousOne, RootPrefixTest,
                         testing::Values(RootCase{L"HKCC\\x", nullptr}, RootCase{L"hklm\\x", nullptr},
                                         RootCase{L"HKLM \\x", nullptr}, RootCase{L"\\x", nullptr}));

/// The monitor at work on the scratch key. What its calls meet can be scripted; a wait on the change event
/// that would not end fails the test and raises the flag, so that the monitor ends.
class MonitorTest : public testing::Test {
 protected:
  MonitorTest() {
    s_test = this;
    ToolKit::hMainKey = key.Root();
    CopyBounded(ToolKit::mStrKey, key.Path());
    patch.Replace("CreateEventW", &CreateEventOfOneself);
    patch.Replace("RegNotifyChangeKeyValue", &Notify);
    patch.Replace("WaitForSingleObject", &Wait);
    patch.Replace("Sleep", &Pause);
    patch.Replace("CloseHandle", &Close);
    patch.Replace("RegCloseKey", &CloseKey);
  }
  ~MonitorTest() override {
    patch.Restore();
    s_test = nullptr;
    ToolKit::hMainKey = HKEY_LOCAL_MACHINE;
    std::fill(std::begin(ToolKit::mStrKey), std::end(ToolKit::mStrKey), L'\0');
  }

  void SetFlag(DWORD value) { key.SetNumber(L"Fls_Ready", value); }
  bool Monitor() { return ToolKit::MonitorFlashReadyFlag(); }
  /// The event is not signalled: a wait on it would go on.
  bool StillWaiting() { return ::WaitForSingleObject(event, 0) == WAIT_TIMEOUT; }

  ScratchKey key;
  TestLog log;
  simulator::ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};

  std::function<void()> beforeArming = [] {};
  std::function<void()> afterArming = [] {};
  std::function<void()> whileWaiting = [] {};
  std::function<void()> whilePausing = [] {};
  bool eventFails = false;
  bool armingFails = false;
  bool waitFails = false;

  HANDLE event = nullptr;
  HKEY watchedKey = nullptr;
  int armed = 0;
  std::size_t waits = 0;
  std::vector<DWORD> limits;
  std::vector<DWORD> pauses;
  /// The last record in front of each pause.
  std::vector<std::string> toldBeforePauses;
  std::vector<std::string> closed;

 private:
  static HANDLE WINAPI CreateEventOfOneself(SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL signalled,
                                            const wchar_t* name) {
    if (name == nullptr) return ::CreateEventW(security, manualReset, signalled, name);
    EXPECT_STREQ(name, L"RegistryNotify");
    EXPECT_FALSE(manualReset);
    EXPECT_TRUE(signalled);
    if (std::exchange(s_test->eventFails, false)) return nullptr;
    // The name is known to all processes of the session; tests that run beside this one must not meet here.
    const std::wstring ownName = name + std::to_wstring(::GetCurrentProcessId());
    return s_test->event = ::CreateEventW(security, manualReset, signalled, ownName.c_str());
  }
  static LSTATUS WINAPI Notify(HKEY watched, BOOL subtree, DWORD filter, HANDLE changed, BOOL asynchronous) {
    EXPECT_TRUE(subtree);
    EXPECT_EQ(filter, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET);
    EXPECT_TRUE(asynchronous);
    ++s_test->armed;
    s_test->watchedKey = watched;
    if (std::exchange(s_test->armingFails, false)) return ERROR_ACCESS_DENIED;
    s_test->beforeArming();
    const LSTATUS status = ::RegNotifyChangeKeyValue(watched, subtree, filter, changed, asynchronous);
    s_test->afterArming();
    return status;
  }
  static DWORD WINAPI Wait(HANDLE object, DWORD milliseconds) {
    if (object != s_test->event) return ::WaitForSingleObject(object, milliseconds);
    s_test->limits.push_back(milliseconds);
    ++s_test->waits;
    s_test->whileWaiting();
    if (std::exchange(s_test->waitFails, false)) return WAIT_FAILED;
    // A wait with a limit costs no time.
    const bool endless = milliseconds == INFINITE;
    const DWORD result = ::WaitForSingleObject(object, endless ? kLongestWaitMs : 0);
    if (result != WAIT_TIMEOUT || (!endless && s_test->waits < kMostSteps)) return result;
    ADD_FAILURE() << "the monitor waits for a change that does not come";
    s_test->SetFlag(1);
    return WAIT_OBJECT_0;
  }
  static void WINAPI Pause(DWORD milliseconds) {
    s_test->pauses.push_back(milliseconds);
    const std::vector<std::string> said = s_test->log.Said();
    s_test->toldBeforePauses.push_back(said.empty() ? "" : said.back());
    s_test->closed.push_back("pause");
    if (s_test->pauses.size() > kMostSteps) GiveUp();
    s_test->whilePausing();
  }
  static BOOL WINAPI Close(HANDLE handle) {
    if (handle == s_test->event) s_test->closed.push_back("event");
    return ::CloseHandle(handle);
  }
  static LSTATUS WINAPI CloseKey(HKEY closedKey) {
    if (closedKey == s_test->watchedKey) s_test->closed.push_back("key");
    return ::RegCloseKey(closedKey);
  }

  /// For a monitor that no flag ends: nothing but the process can.
  [[noreturn]] static void GiveUp() {
    std::fprintf(stderr, "the monitor pauses for ever\n");
    std::fflush(stderr);
    std::_Exit(EXIT_FAILURE);
  }

  static constexpr DWORD kLongestWaitMs = 10000;
  static constexpr std::size_t kMostSteps = 100;
  static inline MonitorTest* s_test = nullptr;
};

TEST_F(MonitorTest, AFlagThatIsAlreadyRaisedIsSeenAtOnce) {
  SetFlag(1);
  EXPECT_TRUE(Monitor());
  EXPECT_EQ(waits, 0u);
  EXPECT_EQ(armed, 1);
}

TEST_F(MonitorTest, ARoundIsLogged) {
  SetFlag(1);
  Monitor();
  EXPECT_THAT(
      log.Said(),
      ElementsAre("MonitorFlashReadyFlag ++", "\t WaitForSingleObject, wait registry to be changed...",
                  "\t Registry is changed", "\t Read regedit Fls_Ready successfully, data:1",
                  "\t flash flag changed to 1", "MonitorFlashReadyFlag --"));
}

TEST_F(MonitorTest, EveryRoundIsLoggedAndOnlyTheLastOneEndsTheMonitor) {
  SetFlag(0);
  whileWaiting = [this] { SetFlag(waits == 1 ? 2 : 1); };
  Monitor();
  EXPECT_THAT(
      log.Said(),
      ElementsAre("MonitorFlashReadyFlag ++", "\t WaitForSingleObject, wait registry to be changed...",
                  "\t Registry is changed", "\t Read regedit Fls_Ready successfully, data:2",
                  "\t flash flag changed to 2", "MonitorFlashReadyFlag ++",
                  "\t WaitForSingleObject, wait registry to be changed...", "\t Registry is changed",
                  "\t Read regedit Fls_Ready successfully, data:1", "\t flash flag changed to 1",
                  "MonitorFlashReadyFlag --"));
}

TEST_F(MonitorTest, AFlagRaisedWhileItWaitsEndsTheWait) {
  SetFlag(0);
  whileWaiting = [this] { SetFlag(1); };
  EXPECT_TRUE(Monitor());
  EXPECT_EQ(waits, 1u);
}

TEST_F(MonitorTest, AFlagRaisedBetweenArmingAndLookingIsSeenAtOnce) {
  SetFlag(0);
  afterArming = [this] { SetFlag(1); };
  EXPECT_TRUE(Monitor());
  EXPECT_EQ(armed, 1);
  EXPECT_EQ(waits, 0u);
}

TEST_F(MonitorTest, AFlagRaisedBetweenTwoRoundsIsNotLost) {
  SetFlag(0);
  whileWaiting = [this] { key.SetNumber(L"Other", 1); };
  beforeArming = [this] {
    if (armed == 2) SetFlag(1);
  };
  EXPECT_TRUE(Monitor());
  EXPECT_EQ(armed, 2);
  EXPECT_EQ(waits, 1u);
}

TEST_F(MonitorTest, ANumberOtherThanOneKeepsItWaiting) {
  SetFlag(2);
  bool waited = false;
  whileWaiting = [&] {
    waited = StillWaiting();
    SetFlag(1);
  };
  EXPECT_TRUE(Monitor());
  EXPECT_TRUE(waited);
  EXPECT_EQ(waits, 1u);
}

TEST_F(MonitorTest, AMissingFlagKeepsItWaiting) {
  key.Make();
  bool waited = false;
  whileWaiting = [&] {
    waited = StillWaiting();
    SetFlag(1);
  };
  EXPECT_TRUE(Monitor());
  EXPECT_TRUE(waited);
}

TEST_F(MonitorTest, OtherChangesCostOneRoundEachAndNoSpinning) {
  SetFlag(0);
  whileWaiting = [this] {
    EXPECT_TRUE(StillWaiting());
    if (waits <= 5) {
      key.SetNumber(L"Other", static_cast<DWORD>(waits));
    } else {
      SetFlag(1);
    }
  };
  EXPECT_TRUE(Monitor());
  EXPECT_EQ(waits, 6u);
  EXPECT_EQ(armed, 6);
  EXPECT_THAT(pauses, IsEmpty());
}

/// Hosts keep the event open while they serve: it outlives the rounds, and none of them makes it signalled
/// anew.
class MonitorBesideAHostTest : public MonitorTest {
 protected:
  corvel::UniqueHandle held{::CreateEventW(
      nullptr, FALSE, TRUE, (L"RegistryNotify" + std::to_wstring(::GetCurrentProcessId())).c_str())};
};

TEST_F(MonitorBesideAHostTest, OtherChangesCostOneRoundEachAndNoSpinning) {
  SetFlag(0);
  whileWaiting = [this] {
    EXPECT_TRUE(StillWaiting());
    SetFlag(waits < 4 ? 10 + static_cast<DWORD>(waits) : 1);
  };
  EXPECT_TRUE(Monitor());
  EXPECT_EQ(waits, 4u);
  EXPECT_EQ(armed, 4);
}

TEST_F(MonitorBesideAHostTest, AFlagRaisedBetweenTwoRoundsIsNotLost) {
  SetFlag(0);
  whileWaiting = [this] { key.SetNumber(L"Other", 1); };
  beforeArming = [this] {
    if (armed == 2) SetFlag(1);
  };
  EXPECT_TRUE(Monitor());
  EXPECT_EQ(armed, 2);
  EXPECT_EQ(waits, 1u);
}

TEST_F(MonitorTest, AChangeBelowTheKeyEndsTheWaitToo) {
  SetFlag(0);
  whileWaiting = [this] {
    if (waits > 1) return SetFlag(1);
    HKEY below = nullptr;
    const HKEY opened = key.Open();
    ::RegCreateKeyExW(opened, L"Below", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &below, nullptr);
    ::RegCloseKey(below);
    ::RegCloseKey(opened);
  };
  EXPECT_TRUE(Monitor());
  EXPECT_EQ(waits, 2u);
}

TEST_F(MonitorTest, EachRoundClosesTheEventFirstAndThenTheKey) {
  SetFlag(0);
  whileWaiting = [this] { SetFlag(waits == 1 ? 2 : 1); };
  Monitor();
  EXPECT_THAT(closed, ElementsAre("event", "key", "event", "key"));
}

TEST_F(MonitorTest, EachRoundLeavesExactlyTheKeyOfItsReadOpen) {
  SetFlag(0);
  whileWaiting = [this] { SetFlag(waits == 1 ? 2 : 1); };
  OpenKeys keys;
  Monitor();
  EXPECT_EQ(keys.Count(), 2u);
}

TEST_F(MonitorTest, AnEventThatCannotBeMadeIsTriedAgainAfterFiveSeconds) {
  SetFlag(1);
  eventFails = true;
  EXPECT_TRUE(Monitor());
  EXPECT_THAT(pauses, ElementsAre(5000u));
  EXPECT_THAT(toldBeforePauses, ElementsAre("E:\t CreateEvent FAIL, monitor again after 5s"));
}

TEST_F(MonitorTest, AKeyThatCannotBeOpenedIsTriedAgainAfterFiveSecondsWithoutTheEvent) {
  whilePausing = [this] { SetFlag(1); };
  EXPECT_TRUE(Monitor());
  EXPECT_THAT(pauses, ElementsAre(5000u));
  EXPECT_THAT(toldBeforePauses, ElementsAre("E:\t RegOpenKeyEx FAIL, monitor again after 5s"));
  EXPECT_THAT(closed, ElementsAre("event", "pause", "event", "key"));
}

TEST_F(MonitorTest, ANotificationThatCannotBeArmedIsTriedAgainAfterFiveSecondsWithEventAndKeyClosed) {
  SetFlag(1);
  armingFails = true;
  EXPECT_TRUE(Monitor());
  EXPECT_THAT(pauses, ElementsAre(5000u));
  EXPECT_THAT(toldBeforePauses, ElementsAre("E:\t RegNotifyChangeKeyValue FAIL, monitor again after 5s"));
  EXPECT_THAT(closed, ElementsAre("event", "key", "pause", "event", "key"));
}

TEST_F(MonitorTest, AWaitThatFailsIsNotTakenForAChangeButTheFlagIsRead) {
  SetFlag(0);
  waitFails = true;
  whileWaiting = [this] { SetFlag(1); };
  EXPECT_TRUE(Monitor());
  EXPECT_THAT(log.Said(), Not(Contains("\t Registry is changed")));
  EXPECT_THAT(log.Said(), Contains("\t flash flag changed to 1"));
}

TEST_F(MonitorTest, AKeyThatIsDeletedAndMadeAgainIsWatchedAnew) {
  SetFlag(0);
  whileWaiting = [this] {
    if (waits == 2) return SetFlag(1);
    key.Delete();
    SetFlag(0);
    // The system signals a deletion; not every implementation of it does.
    ::SetEvent(event);
  };
  EXPECT_TRUE(Monitor());
  EXPECT_EQ(waits, 2u);
}

TEST_F(MonitorTest, AValueOtherThanOneIsWaitedUponWithoutLimitAndWithoutARecord) {
  SetFlag(0);
  whileWaiting = [this] { SetFlag(1); };
  Monitor();
  EXPECT_THAT(limits, ElementsAre(INFINITE));
  EXPECT_THAT(log.Said(), Contains("\t flash flag changed to 1").Times(1));
}

TEST_F(MonitorTest, AMissingFlagIsWaitedUponWithoutLimit) {
  key.Make();
  whileWaiting = [this] { SetFlag(1); };
  Monitor();
  EXPECT_THAT(limits, ElementsAre(INFINITE));
}

TEST_F(MonitorTest, TheKeyIsWatchedWithTheRightToBeNotifiedAlone) {
  SetFlag(1);
  OpenKeys keys;
  Monitor();
  // The watch, the look, the read.
  EXPECT_THAT(keys.Access(), ElementsAre(KEY_NOTIFY, KEY_ALL_ACCESS, KEY_ALL_ACCESS));
}

/// A key that cannot be opened with full access, or whose values cannot be queried, for some times.
class UnreadableFlagTest : public MonitorTest {
 protected:
  UnreadableFlagTest() {
    s_opensRefused = s_queriesRefused = 0;
    s_queryError = ERROR_ACCESS_DENIED;
    m_Access.Replace("RegOpenKeyExW", &Open);
    m_Access.Replace("RegQueryValueExW", &Query);
  }

  static inline int s_opensRefused = 0;
  static inline int s_queriesRefused = 0;
  static inline LSTATUS s_queryError = ERROR_ACCESS_DENIED;

 private:
  static LSTATUS WINAPI Open(HKEY root, const wchar_t* subKey, DWORD options, REGSAM access, HKEY* opened) {
    if (access == KEY_ALL_ACCESS && s_opensRefused > 0) {
      --s_opensRefused;
      return ERROR_ACCESS_DENIED;
    }
    return ::RegOpenKeyExW(root, subKey, options, access, opened);
  }
  static LSTATUS WINAPI Query(HKEY opened, const wchar_t* name, DWORD* reserved, DWORD* type, BYTE* data,
                              DWORD* size) {
    if (s_queriesRefused > 0) {
      --s_queriesRefused;
      return s_queryError;
    }
    return ::RegQueryValueExW(opened, name, reserved, type, data, size);
  }

  simulator::ImportPatch m_Access{::GetModuleHandleW(L"toolkit_internals.dll")};
};

// Nobody changes the key again: who asked for the flash has done so.
TEST_F(UnreadableFlagTest, ARaisedFlagWhoseKeyCannotBeOpenedIsLookedAtAgainEveryFiveSeconds) {
  SetFlag(1);
  s_opensRefused = 3;
  EXPECT_TRUE(Monitor());
  EXPECT_THAT(limits, ElementsAre(5000u, 5000u, 5000u));
  EXPECT_EQ(armed, 1);
}

TEST_F(UnreadableFlagTest, ARaisedFlagThatCannotBeQueriedIsLookedAtAgainEveryFiveSeconds) {
  SetFlag(1);
  s_queriesRefused = 2;
  EXPECT_TRUE(Monitor());
  EXPECT_THAT(limits, ElementsAre(5000u, 5000u));
}

TEST_F(UnreadableFlagTest, ARequestIsNotLostWhenTheReadBehindTheChangeAndTheNextLookFail) {
  SetFlag(0);
  whileWaiting = [this] {
    if (waits > 1) return;
    SetFlag(1);
    s_opensRefused = 2;
  };
  EXPECT_TRUE(Monitor());
  EXPECT_THAT(limits, ElementsAre(INFINITE, 5000u));
}

TEST_F(UnreadableFlagTest, ALookThatIsRepeatedIsNotLogged) {
  SetFlag(1);
  s_opensRefused = 3;
  Monitor();
  EXPECT_THAT(
      log.Said(),
      ElementsAre("MonitorFlashReadyFlag ++", "\t WaitForSingleObject, wait registry to be changed...",
                  "\t Registry is changed", "\t Read regedit Fls_Ready successfully, data:1",
                  "\t flash flag changed to 1", "MonitorFlashReadyFlag --"));
}

TEST_F(UnreadableFlagTest, AChangeEndsTheWaitBetweenTwoLooks) {
  SetFlag(0);
  s_opensRefused = 1;
  whileWaiting = [this] { SetFlag(1); };
  EXPECT_TRUE(Monitor());
  EXPECT_THAT(limits, ElementsAre(5000u));
}

TEST_F(UnreadableFlagTest, ALookThatSucceedsAndFindsNoRequestWaitsWithoutLimitAgain) {
  SetFlag(0);
  s_opensRefused = 2;
  whileWaiting = [this] {
    if (waits == 3) SetFlag(1);
  };
  EXPECT_TRUE(Monitor());
  EXPECT_THAT(limits, ElementsAre(5000u, 5000u, INFINITE));
}

}  // namespace
