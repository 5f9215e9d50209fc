#include "udeiocontrol/udeiocontrol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "simulator/import_patch.h"
#include "support/device_tree.h"
#include "support/process_heap.h"
#include "support/test_log.h"
#include "unit/udeiocontrol/fake_driver.h"

using corvel::UniqueHandle;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Answer = FakeDriver::Answer;

constexpr GUID kControlInterface = {
    0xE7B2CCDC, 0x4DD8, 0x4B33, {0x88, 0xF3, 0xC0, 0x56, 0x1B, 0x94, 0x70, 0xC9}};
constexpr GUID kFlashInterface = {
    0x6568C4A1, 0xB6EE, 0x4E4B, {0xBC, 0x5F, 0xCE, 0x81, 0x9E, 0x62, 0x72, 0x13}};
constexpr DWORD kProbe = 0x220014;
constexpr DWORD kReset = 0x220020;

// Nothing of it runs when the module is unloaded.
static_assert(std::is_trivially_destructible_v<CUdeIoControl>);

class UdeIoControlTest : public testing::Test {
 protected:
  ~UdeIoControlTest() override { channel.CloseFlashDevice(); }

  std::wstring HasFlashInterface(Answer answer = Answer::AfterPending) {
    std::wstring path = driver.Offers(answer);
    tree.HasInterface(kFlashInterface, path);
    return path;
  }
  void HasFlashInterfaceAt(const std::wstring& path) { tree.HasInterface(kFlashInterface, path); }
  bool Send(DWORD code = kReset) {
    return channel.SendSyncDeviceRequest(code, nullptr, 0, nullptr, 0, nullptr);
  }
  /// The path of the device that the next request goes to.
  std::wstring OpenedPath() {
    std::wstring path;
    driver.WhileSending([&] { path = driver.PathOf(driver.Requests().back().device); });
    Send();
    return path;
  }

  TestLog log;
  DeviceTree tree;
  FakeDriver driver;
  CUdeIoControl& channel = *CUdeIoControl::GetInstance();
};

// Opening.

TEST_F(UdeIoControlTest, ASingleFlashInterfaceIsOpenedWithoutAProbe) {
  const std::wstring path = HasFlashInterface();
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_THAT(driver.TriedPaths(), ElementsAre(path));
  EXPECT_THAT(driver.Requests(), IsEmpty());
  EXPECT_THAT(log.Said(), ElementsAre("OpenFlashDevice ++", "OpenUdeDeviceFlashInterface++",
                                      "Only one device interface instance found.",
                                      "CreateFile Success, path length is " + std::to_string(path.size()),
                                      "OpenUdeDeviceFlashInterface--, bRet: 1", "OpenFlashDevice --"));
}

TEST_F(UdeIoControlTest, TheDeviceIsOpenedForOverlappedUseAndSharedWithOthers) {
  HasFlashInterface();
  channel.OpenFlashDevice();
  const FakeDriver::Opening shared{GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, false,
                                   OPEN_EXISTING, FILE_FLAG_OVERLAPPED};
  EXPECT_THAT(driver.Openings(), ElementsAre(shared));
}

TEST_F(UdeIoControlTest, TheControlInterfaceIsOpenedByItsOwnClass) {
  HasFlashInterface();
  const std::wstring path = driver.Offers(Answer::Never);
  tree.HasInterface(kControlInterface, path);
  EXPECT_TRUE(channel.OpenDevice());
  EXPECT_THAT(driver.TriedPaths(), ElementsAre(path));
  channel.CloseDevice();
  EXPECT_EQ(driver.StillOpen(), 0);
  EXPECT_THAT(
      log.Said(),
      ElementsAre("OpenDevice ++", "OpenUdeDeviceInterface++", "Only one device interface instance found.",
                  "CreateFile Success, path length is " + std::to_string(path.size()),
                  "OpenUdeDeviceInterface--, bRet: 1", "OpenDevice --", "CloseDevice ++",
                  "TearDownDeviceInterface++", "TearDownDeviceInterface--", "CloseDevice --"));
}

TEST_F(UdeIoControlTest, OfTwoInstancesTheOneWhoseProbeStaysPendingIsKept) {
  const std::wstring first = HasFlashInterface(Answer::AtOnce);
  const std::wstring second = HasFlashInterface(Answer::AfterPending);
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_THAT(driver.TriedPaths(), ElementsAre(first, second));
  EXPECT_THAT(driver.Codes(), ElementsAre(kProbe, kProbe));
  EXPECT_EQ(driver.StillOpen(), 1);
  EXPECT_EQ(OpenedPath(), second);
  EXPECT_THAT(log.Said(), Contains("More than one device interface instance found.").Times(1));
  EXPECT_THAT(log.Said(), Contains("DeviceIoControl Success: ").Times(1));
}

TEST_F(UdeIoControlTest, TheProbeIsWaitedForWithoutALimitOnAnEventOfItsOwn) {
  HasFlashInterface();
  HasFlashInterface();
  channel.OpenFlashDevice();
  EXPECT_EQ(driver.EndlessWaits(), 1);
  EXPECT_THAT(driver.Events(),
              ElementsAre(FakeDriver::Event{true, CREATE_EVENT_MANUAL_RESET, EVENT_ALL_ACCESS}));
}

/// Which opening is called, and the levels of what it tells inside its loop.
struct OpeningRow {
  const char* function;
  const GUID* interfaceClass;
  bool (CUdeIoControl::*open)();
  const char* loopError;
};

class OpeningTest : public UdeIoControlTest, public testing::WithParamInterface<OpeningRow> {
 protected:
  void Has(const std::wstring& path) { tree.HasInterface(*GetParam().interfaceClass, path); }
  void Open() { (channel.*GetParam().open)(); }
  void ExpectItsName(std::size_t records) const {
    EXPECT_THAT(FunctionsOf(log.Records()), testing::Each(GetParam().function));
    EXPECT_EQ(log.Said().size(), records);
  }
};

TEST_P(OpeningTest, TellsOfEachInstanceUnderItsName) {
  Has(L"\\\\.\\pipe\\corvel-ude-nobody");
  Has(driver.Offers(Answer::AfterPending));
  Open();
  // Begin, more than one, one not opened, one opened, probe, end.
  ExpectItsName(6);
}

TEST_P(OpeningTest, TellsThatThereIsOneInstanceUnderItsName) {
  Has(driver.Offers(Answer::AfterPending));
  Open();
  ExpectItsName(4);
}

TEST_P(OpeningTest, TellsThatThereIsNoEventUnderItsName) {
  Has(driver.Offers(Answer::AfterPending));
  Has(driver.Offers(Answer::AfterPending));
  driver.RefusesEvents();
  Open();
  ExpectItsName(5);
}

TEST_P(OpeningTest, TellsOfAnEmptyListUnderItsName) {
  Open();
  ExpectItsName(3);
}

TEST_P(OpeningTest, TellsOfARefusedLengthUnderItsName) {
  tree.Refuses("CM_Get_Device_Interface_List_SizeW", CR_FAILURE);
  Open();
  ExpectItsName(3);
}

TEST_P(OpeningTest, TellsOfARefusedListUnderItsName) {
  Has(L"any");
  tree.Refuses("CM_Get_Device_Interface_ListW", CR_FAILURE);
  Open();
  ExpectItsName(3);
}

TEST_P(OpeningTest, TellsOfAnEmptyEntryUnderItsNameAndAtItsLevel) {
  Has(L"gone");
  tree.AfterTellingALength([this] { tree.LosesAllInterfaces(); });
  Open();
  ExpectItsName(4);
  EXPECT_THAT(log.Said(), Contains(std::string(GetParam().loopError) +
                                   "Error: nextInterface is NULL or len is 0 failed"));
}

TEST_P(OpeningTest, TellsOfLackOfMemoryUnderItsNameAndAtItsLevel) {
  Has(L"any");
  ProcessHeap heap;
  heap.IsFull();
  Open();
  ExpectItsName(3);
  EXPECT_THAT(log.Said(), Contains(std::string(GetParam().loopError) +
                                   "Error allocating memory for device interface list.."));
}

INSTANTIATE_TEST_SUITE_P(
    Both, OpeningTest,
    testing::Values(OpeningRow{"CUdeIoControl::OpenUdeDeviceInterface", &kControlInterface,
                               &CUdeIoControl::OpenUdeDeviceInterface, "E:"},
                    OpeningRow{"CUdeIoControl::OpenUdeDeviceFlashInterface", &kFlashInterface,
                               &CUdeIoControl::OpenUdeDeviceFlashInterface, ""}));

TEST_F(UdeIoControlTest, AnInstanceThatRefusesTheProbeIsSkipped) {
  HasFlashInterface(Answer::Refusal);
  const std::wstring second = HasFlashInterface();
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_EQ(OpenedPath(), second);
}

TEST_F(UdeIoControlTest, BehindTheWantedInstanceNothingIsOpened) {
  const std::wstring first = HasFlashInterface();
  HasFlashInterface();
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_THAT(driver.TriedPaths(), ElementsAre(first));
}

TEST_F(UdeIoControlTest, AnInstanceThatCannotBeOpenedIsPassedOver) {
  HasFlashInterfaceAt(L"\\\\.\\pipe\\corvel-ude-nobody");
  const std::wstring second = HasFlashInterface();
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_EQ(OpenedPath(), second);
  EXPECT_EQ(log.LevelOf("CreateFile failed: 2"), "Error");
}

TEST_F(UdeIoControlTest, WithoutAnEventForTheProbeTheFirstInstanceIsKeptUnprobed) {
  const std::wstring first = HasFlashInterface();
  HasFlashInterface();
  driver.RefusesEvents();
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_THAT(driver.TriedPaths(), ElementsAre(first));
  EXPECT_THAT(driver.Requests(), IsEmpty());
  EXPECT_EQ(driver.StillOpen(), 1);
  EXPECT_EQ(log.LevelOf("CreateEventEx failed: 1450"), "Trace");
}

TEST_F(UdeIoControlTest, APathTooLongIsCutAndNotOpened) {
  HasFlashInterfaceAt(L"\\\\.\\pipe\\" + std::wstring(400, L'x'));
  EXPECT_TRUE(channel.OpenFlashDevice());
  ASSERT_EQ(driver.TriedPaths().size(), 1u);
  EXPECT_EQ(driver.TriedPaths()[0].size(), 255u);
}

TEST_F(UdeIoControlTest, AnEmptyListFails) {
  EXPECT_FALSE(channel.OpenFlashDevice());
  EXPECT_EQ(log.LevelOf("Error - No active device interfaces found"), "Error");
  EXPECT_THAT(log.Said(), Contains("OpenUdeDeviceFlashInterface--, bRet: 0").Times(1));
  EXPECT_EQ(tree.CallsOf("CM_Get_Device_Interface_ListW"), 0);
}

TEST_F(UdeIoControlTest, AnInterfaceThatIsNoLongerPresentIsNotAskedFor) {
  tree.OnceHadInterface(kFlashInterface, L"gone");
  EXPECT_FALSE(channel.OpenFlashDevice());
  EXPECT_EQ(log.LevelOf("Error - No active device interfaces found"), "Error");
}

TEST_F(UdeIoControlTest, AnInterfaceThatIsNoLongerPresentIsNotFetched) {
  HasFlashInterface();
  tree.AfterTellingALength([this] {
    tree.LosesAllInterfaces();
    tree.OnceHadInterface(kFlashInterface, L"x");
  });
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_THAT(driver.TriedPaths(), IsEmpty());
}

TEST_F(UdeIoControlTest, ARefusedLengthFails) {
  tree.Refuses("CM_Get_Device_Interface_List_SizeW", CR_FAILURE);
  EXPECT_FALSE(channel.OpenFlashDevice());
  EXPECT_EQ(log.LevelOf("Error retrieving device interface list size: 19"), "Error");
  EXPECT_THAT(log.Said(), Contains("OpenUdeDeviceFlashInterface--, bRet: 0").Times(1));
}

TEST_F(UdeIoControlTest, AnInterfaceThatArrivesBehindTheLengthFailsWithoutAnotherTry) {
  const ProcessHeap heap;
  HasFlashInterface();
  tree.AfterTellingALength([this] { HasFlashInterface(); });
  EXPECT_FALSE(channel.OpenFlashDevice());
  EXPECT_EQ(tree.CallsOf("CM_Get_Device_Interface_ListW"), 1);
  EXPECT_EQ(log.LevelOf("Error retrieving device interface list: 26"), "Error");
  EXPECT_THAT(log.Said(), Contains("OpenUdeDeviceFlashInterface--, bRet: 0").Times(1));
  EXPECT_EQ(heap.Frees(), 1);
}

TEST_F(UdeIoControlTest, AListThatBecomesEmptyBehindTheLengthOpensNothingAndIsTrue) {
  HasFlashInterface();
  tree.AfterTellingALength([this] { tree.LosesAllInterfaces(); });
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_THAT(driver.TriedPaths(), IsEmpty());
  EXPECT_EQ(log.LevelOf("Error: nextInterface is NULL or len is 0 failed"), "Trace");
}

TEST_F(UdeIoControlTest, AnEmptyEntryIsAnErrorForTheControlInterface) {
  tree.HasInterface(kControlInterface, L"gone");
  tree.AfterTellingALength([this] { tree.LosesAllInterfaces(); });
  EXPECT_TRUE(channel.OpenDevice());
  EXPECT_EQ(log.LevelOf("Error: nextInterface is NULL or len is 0 failed"), "Error");
}

TEST_F(UdeIoControlTest, TheEndOfAListIsNoEmptyEntry) {
  HasFlashInterfaceAt(L"\\\\.\\pipe\\corvel-ude-nobody");
  channel.OpenFlashDevice();
  EXPECT_THAT(log.Said(),
              Not(Contains(testing::EndsWith("Error: nextInterface is NULL or len is 0 failed"))));
}

TEST_F(UdeIoControlTest, WithoutMemoryTheFlashInterfaceIsTrueAndNothingIsOpen) {
  ProcessHeap heap;
  heap.IsFull();
  HasFlashInterface();
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_EQ(log.LevelOf("Error allocating memory for device interface list.."), "Trace");
  EXPECT_THAT(log.Said(), Contains("OpenUdeDeviceFlashInterface--, bRet: 1").Times(1));
  EXPECT_FALSE(Send());
}

TEST_F(UdeIoControlTest, WithoutMemoryTheControlInterfaceLogsAnError) {
  ProcessHeap heap;
  heap.IsFull();
  tree.HasInterface(kControlInterface, L"any");
  EXPECT_TRUE(channel.OpenDevice());
  EXPECT_EQ(log.LevelOf("Error allocating memory for device interface list.."), "Error");
}

// The handle after an open that opened nothing.

TEST_F(UdeIoControlTest, AfterAFailedOpenARequestFindsNoDevice) {
  HasFlashInterfaceAt(L"\\\\.\\pipe\\corvel-ude-nobody");
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_FALSE(Send());
  EXPECT_EQ(driver.Requests().back().device, nullptr);
  EXPECT_EQ(log.LevelOf("SendSyncDeviceRequest--: DeviceIoControl failed: 6"), "Warning");
}

TEST_F(UdeIoControlTest, AfterOnlySkippedProbesARequestFindsNoDevice) {
  HasFlashInterface(Answer::AtOnce);
  HasFlashInterface(Answer::AtOnce);
  EXPECT_TRUE(channel.OpenFlashDevice());
  EXPECT_FALSE(Send());
  EXPECT_EQ(driver.Requests().back().device, nullptr);
  EXPECT_EQ(driver.StillOpen(), 0);
}

TEST_F(UdeIoControlTest, AFailedOpenDoesNotKeepTheDeviceOfTheOneBefore) {
  HasFlashInterface();
  channel.OpenFlashDevice();
  tree.LosesAllInterfaces();
  EXPECT_FALSE(channel.OpenFlashDevice());
  EXPECT_FALSE(Send());
  EXPECT_EQ(driver.StillOpen(), 0);
}

TEST_F(UdeIoControlTest, ASecondCloseClosesNothing) {
  HasFlashInterface();
  channel.OpenFlashDevice();
  channel.CloseFlashDevice();
  channel.CloseFlashDevice();
  EXPECT_EQ(driver.StillOpen(), 0);
  EXPECT_EQ(driver.ClosedTwice(), 0);
}

// Requests.

class RequestTest : public UdeIoControlTest {
 protected:
  void OpenWith(Answer answer) {
    HasFlashInterface(answer);
    channel.OpenFlashDevice();
  }
};

TEST_F(RequestTest, ARequestThatCompletesIsSent) {
  OpenWith(Answer::AfterPending);
  std::uint32_t flag = 77;
  EXPECT_TRUE(channel.SendSyncDeviceRequest(kReset, nullptr, 0, nullptr, 0, &flag));
  EXPECT_EQ(flag, 1u);
  EXPECT_THAT(driver.TimeLimits(), ElementsAre(3000u));
  EXPECT_EQ(driver.Cancels(), 0);
  EXPECT_EQ(log.LevelOf("-- GetOverlappedResult: OK, bytes transferred: 1"), "Trace");
}

TEST_F(RequestTest, ARequestHasAManualResetEventAndAWaitThatNothingInterrupts) {
  OpenWith(Answer::AfterPending);
  Send();
  EXPECT_THAT(driver.Events(),
              ElementsAre(FakeDriver::Event{true, CREATE_EVENT_MANUAL_RESET, EVENT_ALL_ACCESS}));
  EXPECT_FALSE(driver.IsAlertable());
}

class EventOfARequestTest : public RequestTest, public testing::WithParamInterface<Answer> {};

TEST_P(EventOfARequestTest, IsClosedBeforeTheEndIsTold) {
  OpenWith(GetParam());
  std::vector<std::string> toldBefore;
  driver.BeforeAnEventCloses([&] { toldBefore = log.Said(); });
  Send();
  EXPECT_THAT(toldBefore, Contains("SendSyncDeviceRequest++"));
  EXPECT_THAT(toldBefore, Not(Contains("SendSyncDeviceRequest--")));
  EXPECT_EQ(log.Said().back(), "SendSyncDeviceRequest--");
}

INSTANTIATE_TEST_SUITE_P(EveryEnd, EventOfARequestTest,
                         testing::Values(Answer::AfterPending, Answer::Never, Answer::Refusal,
                                         Answer::Failure));

TEST_F(RequestTest, AnOutputIsFilledAndTheCountIsOnlyAFlag) {
  OpenWith(Answer::AfterPending);
  std::array<char, 4> output{'a', 'b', 'c', 'd'};
  std::uint32_t flag = 77;
  EXPECT_TRUE(channel.SendSyncDeviceRequest(kReset, nullptr, 0, output.data(), output.size(), &flag));
  EXPECT_EQ(flag, 1u);
  EXPECT_THAT(output, ElementsAre('K', 'b', 'c', 'd'));
}

TEST_F(RequestTest, ARequestThatTimesOutIsCancelledAndCountsAsSent) {
  OpenWith(Answer::Never);
  std::uint32_t flag = 77;
  EXPECT_TRUE(channel.SendSyncDeviceRequest(kReset, nullptr, 0, nullptr, 0, &flag));
  EXPECT_EQ(flag, 0u);
  EXPECT_EQ(driver.Cancels(), 1);
  EXPECT_EQ(log.LevelOf("RetrieveRequest-- GetOverlappedResult failed: 258 "), "Warning");
  EXPECT_THAT(log.Said(), Not(Contains(testing::EndsWith("CancelIoEx GetLastError: 1168"))));
}

TEST_F(RequestTest, ARequestThatFailsIsCancelledAllTheSame) {
  OpenWith(Answer::Failure);
  EXPECT_TRUE(Send());
  EXPECT_EQ(driver.Cancels(), 1);
  EXPECT_EQ(log.LevelOf("RetrieveRequest-- GetOverlappedResult failed: 109 "), "Warning");
  EXPECT_EQ(log.LevelOf("CancelIoEx GetLastError: 1168"), "Warning");
}

TEST_F(RequestTest, ARefusedRequestFails) {
  OpenWith(Answer::Refusal);
  std::uint32_t flag = 77;
  EXPECT_FALSE(channel.SendSyncDeviceRequest(kReset, nullptr, 0, nullptr, 0, &flag));
  EXPECT_EQ(flag, 77u);
  EXPECT_THAT(driver.TimeLimits(), IsEmpty());
  EXPECT_EQ(log.LevelOf("SendSyncDeviceRequest--: DeviceIoControl failed: 1"), "Warning");
}

TEST_F(RequestTest, AnOutputWithoutAPlaceForTheCountFailsBeforeAnyIo) {
  OpenWith(Answer::AfterPending);
  char output = 0;
  EXPECT_FALSE(channel.SendSyncDeviceRequest(kReset, nullptr, 0, &output, 1, nullptr));
  EXPECT_FALSE(channel.SendSyncDeviceRequest(kReset, nullptr, 0, nullptr, 1, nullptr));
  EXPECT_THAT(driver.Requests(), IsEmpty());
  EXPECT_EQ(log.LevelOf("pBytesReturned is required for read operation!"), "Warning");
  EXPECT_EQ(log.Said().back(), "SendSyncDeviceRequest--");
}

TEST_F(RequestTest, WithoutAnEventNothingIsSent) {
  OpenWith(Answer::AfterPending);
  driver.RefusesEvents();
  EXPECT_FALSE(Send());
  EXPECT_THAT(driver.Requests(), IsEmpty());
  EXPECT_EQ(log.LevelOf("SendSyncDeviceRequest--: CreateEventEx failed: 1450"), "Warning");
}

TEST_F(RequestTest, WaitingForEverIsNotCancelled) {
  HasFlashInterface(Answer::Never);
  const UniqueHandle done(::CreateEventW(nullptr, TRUE, TRUE, nullptr));
  OVERLAPPED failed{};
  failed.hEvent = done.get();
  failed.Internal = 0xC000000Du;
  EXPECT_FALSE(channel.RetrieveRequest(nullptr, &failed, true));
  EXPECT_THAT(driver.TimeLimits(), ElementsAre(INFINITE));
  EXPECT_EQ(driver.Cancels(), 0);
}

/// Blocks as large as a request's memory that the heap gives away next.
std::vector<std::vector<char>> WhatTheHeapGivesNext() {
  std::vector<std::vector<char>> blocks;
  for (std::size_t size = 16; size <= 128; size += 8) {
    for (int i = 0; i < 200; ++i) blocks.emplace_back(size, 'x');
  }
  return blocks;
}

bool IsUntouched(const std::vector<char>& block) {
  for (const char byte : block) {
    if (byte != 'x') return false;
  }
  return true;
}

bool IsOnThisStack(const void* address) {
  ULONG_PTR low = 0;
  ULONG_PTR high = 0;
  ::GetCurrentThreadStackLimits(&low, &high);
  const auto place = reinterpret_cast<ULONG_PTR>(address);
  return low <= place && place < high;
}

TEST_F(RequestTest, ADriverThatCompletesLateWritesToMemoryThatIsStillTheRequests) {
  HasFlashInterface(Answer::Never);
  driver.IgnoresCancel();
  EXPECT_TRUE(channel.TriggerFlashReset());
  OVERLAPPED* const late = driver.Requests().back().overlapped;
  const auto blocks = WhatTheHeapGivesNext();

  late->Internal = 0;
  late->InternalHigh = 0x4B4B4B4B4B4B4B4B;

  EXPECT_FALSE(IsOnThisStack(late));
  EXPECT_THAT(blocks, testing::Each(testing::Truly(IsUntouched)));
}

DWORD WINAPI FailEveryWaitWithAnEnd(HANDLE handle, DWORD milliseconds) {
  if (milliseconds == INFINITE) return ::WaitForSingleObject(handle, milliseconds);
  ::SetLastError(ERROR_INVALID_HANDLE);
  return WAIT_FAILED;
}

TEST_F(RequestTest, ADriverThatCannotBeWaitedForWritesToMemoryThatIsStillTheRequests) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  HasFlashInterface(Answer::Never);
  driver.IgnoresCancel();
  patch.Replace("WaitForSingleObject", &FailEveryWaitWithAnEnd);
  EXPECT_TRUE(channel.TriggerFlashReset());
  patch.Restore();
  OVERLAPPED* const late = driver.Requests().back().overlapped;
  const auto blocks = WhatTheHeapGivesNext();

  late->InternalHigh = 0x4B4B4B4B4B4B4B4B;

  EXPECT_THAT(blocks, testing::Each(testing::Truly(IsUntouched)));
}

// The baseband reset.

class FlashResetTest : public UdeIoControlTest {};

TEST_F(FlashResetTest, OpensSendsAndCloses) {
  HasFlashInterface();
  EXPECT_TRUE(channel.TriggerFlashReset());
  EXPECT_THAT(driver.Codes(), ElementsAre(kReset));
  EXPECT_FALSE(driver.Requests()[0].hadBuffers);
  EXPECT_EQ(driver.StillOpen(), 0);
  EXPECT_EQ(log.Said().front(), "TriggerFlashReset ++");
  const std::vector<LogRecord> records = log.Records();
  EXPECT_EQ(FunctionOf(records, "OpenFlashDevice ++"), "CUdeIoControl::OpenFlashDevice");
  EXPECT_EQ(FunctionOf(records, "SendSyncDeviceRequest++"), "CUdeIoControl::SendSyncDeviceRequest");
  EXPECT_EQ(FunctionOf(records, "++"), "CUdeIoControl::RetrieveRequest");
  EXPECT_EQ(FunctionOf(records, "TearDownDeviceInterface++"), "CUdeIoControl::TearDownDeviceInterface");
  EXPECT_EQ(log.Said().back(), "TriggerFlashReset --");
}

TEST_F(FlashResetTest, ARequestThatNeverCompletesIsStillTrue) {
  HasFlashInterface(Answer::Never);
  EXPECT_TRUE(channel.TriggerFlashReset());
  EXPECT_THAT(driver.TimeLimits(), ElementsAre(3000u));
  EXPECT_EQ(driver.Cancels(), 1);
  EXPECT_EQ(driver.StillOpen(), 0);
}

TEST_F(FlashResetTest, WithoutAnInterfaceItFailsAndClosesNothing) {
  EXPECT_FALSE(channel.TriggerFlashReset());
  EXPECT_EQ(log.LevelOf("TriggerFlashReset--: OpenFlashDevice Failed"), "Error");
  EXPECT_EQ(log.Said().back(), "E:TriggerFlashReset--: OpenFlashDevice Failed");
  EXPECT_THAT(log.Said(), Contains("CloseFlashDevice ++").Times(0));
}

TEST_F(FlashResetTest, AnInterfaceThatCannotBeOpenedFailsAtTheRequest) {
  HasFlashInterfaceAt(L"\\\\.\\pipe\\corvel-ude-nobody");
  EXPECT_FALSE(channel.TriggerFlashReset());
  EXPECT_THAT(log.Said(), Contains("W:SendSyncDeviceRequest--: DeviceIoControl failed: 6").Times(1));
  EXPECT_EQ(log.LevelOf("TriggerFlashReset--: SendSyncDeviceRequest Failed"), "Error");
  EXPECT_EQ(log.Said().back(), "TriggerFlashReset --");
}

TEST_F(FlashResetTest, ARefusedRequestFailsAndTheDeviceIsClosed) {
  HasFlashInterface(Answer::Refusal);
  EXPECT_FALSE(channel.TriggerFlashReset());
  EXPECT_EQ(driver.StillOpen(), 0);
  EXPECT_EQ(driver.ClosedTwice(), 0);
}

// The driver may complete the probe whenever it likes.
TEST_F(FlashResetTest, IsNotSentForWhomWasGivenUpWhileTheProbeWasPending) {
  HasFlashInterface();
  HasFlashInterface();
  bool abandoned = false;
  driver.WhileSending([&] { abandoned = true; });
  EXPECT_FALSE(channel.TriggerFlashReset([&] { return abandoned; }));
  EXPECT_THAT(driver.Codes(), ElementsAre(kProbe));
  EXPECT_EQ(driver.StillOpen(), 0);
  EXPECT_EQ(log.LevelOf("Given up meanwhile, no reset is sent"), "Warning");
  EXPECT_EQ(log.Said().back(), "TriggerFlashReset --");
}

TEST_F(FlashResetTest, IsSentForWhomWasNotGivenUp) {
  HasFlashInterface();
  EXPECT_TRUE(channel.TriggerFlashReset([] { return false; }));
  EXPECT_THAT(driver.Codes(), ElementsAre(kReset));
  EXPECT_EQ(FunctionOf(log.Records(), "TriggerFlashReset ++"), "CUdeIoControl::TriggerFlashReset");
}

TEST_F(FlashResetTest, TwoAtOnceKeepTheirHandlesApart) {
  HasFlashInterface();
  bool second = false;
  driver.WhileSending([&] { std::thread([&] { second = channel.TriggerFlashReset(); }).join(); });
  EXPECT_TRUE(channel.TriggerFlashReset());
  EXPECT_TRUE(second);
  EXPECT_EQ(driver.Opened(), 2);
  EXPECT_EQ(driver.StillOpen(), 0);
  EXPECT_EQ(driver.ClosedTwice(), 0);
}

}  // namespace
