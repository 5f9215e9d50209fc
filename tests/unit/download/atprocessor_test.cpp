#include "download/atprocessor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "common/facts.h"
#include "download/devicepresence.h"
#include "simulator/import_patch.h"
#include "support/device_tree.h"
#include "support/lock_probe.h"
#include "support/manual_clock.h"
#include "support/test_log.h"
#include "unit/download/fake_serial_port.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char kReboot[] = "at+xlog=4\r";
constexpr wchar_t kAtDevice[] = L"USB\\VID_1D5A&PID_0AE2&MI_00\\6&1234&0&0000";
constexpr DWORD kPurgeAll = 0xF;
constexpr DWORD kPurgeAfterFailure = 0xA;
constexpr ULONGLONG kReadLimit = 5000;

/// A port of the test's own, because one that failed to open keeps its section.
class TestPort : public ATProcessor {};

std::string InFunction(const char* function, const char* text) {
  return std::string("ATProcessor::") + function + text;
}

class FindComPortTest : public testing::Test {
 protected:
  int PortNamed(const std::wstring& friendlyName) {
    tree.Has(kAtDevice, friendlyName);
    return Find();
  }
  int Find() { return port.findComPort(corvel::facts::kAtPortId); }

  TestLog log;
  DeviceTree tree;
  TestPort port;
};

TEST_F(FindComPortTest, TheNumberInTheFriendlyNameIsThePort) {
  EXPECT_EQ(PortNamed(L"Modem AT Port (COM7)"), 7);
}

TEST_F(FindComPortTest, DigitsBesidesThePortNumberRunTogetherWithIt) {
  EXPECT_EQ(PortNamed(L"5G Modem 2 (COM12)"), 5212);
}

TEST_F(FindComPortTest, ANumberTooLargeIsTheLargestInt) {
  EXPECT_EQ(PortNamed(L"Modem 1234567890 (COM12)"), std::numeric_limits<int>::max());
}

TEST_F(FindComPortTest, ANameThatFillsItsBufferIsReadToItsEnd) {
  EXPECT_EQ(PortNamed(std::wstring(458, L'x') + L"9"), 9);
  EXPECT_EQ(tree.LastNameBytes(), 920u);
}

TEST_F(FindComPortTest, ANameOfDigitsOnlyFitsTheNumber) {
  EXPECT_EQ(PortNamed(std::wstring(459, L'1')), std::numeric_limits<int>::max());
}

TEST_F(FindComPortTest, OtherCharactersThatCountAsDigitsElsewhereAreNoDigits) {
  EXPECT_EQ(PortNamed(L"Modem \x0663 \xFF14 (COM6)"), 6);
}

TEST_F(FindComPortTest, ANameWithoutDigitsGivesZero) {
  EXPECT_EQ(PortNamed(L"Modem AT Port"), 0);
}

TEST_F(FindComPortTest, ANameTooLongGivesZero) {
  EXPECT_EQ(PortNamed(std::wstring(500, L'1')), 0);
}

TEST_F(FindComPortTest, TheListIsAskedForByTheIdAndForPresentDevices) {
  PortNamed(L"Modem (COM7)");
  EXPECT_EQ(tree.LastFilter(), L"USB\\VID_1D5A&PID_0AE2&MI_00");
  EXPECT_EQ(tree.LastFlags(), 0x101u);
  EXPECT_EQ(tree.LastBufferLength(), 1024u);
}

TEST_F(FindComPortTest, OnlyTheFirstIdCounts) {
  tree.Has(kAtDevice, L"Modem (COM7)");
  tree.Has(L"USB\\VID_1D5A&PID_0AE2&MI_00\\6&5678&0&0000", L"Modem (COM8)");
  EXPECT_EQ(Find(), 7);
  EXPECT_EQ(log.LevelOf("CM_Get_Device_ID_List: USB\\VID_1D5A&PID_0AE2&MI_00\\6&1234&0&0000\n"), "Warning");
}

TEST_F(FindComPortTest, APortThatWasNeverInstalledGivesZero) {
  EXPECT_EQ(Find(), 0);
  EXPECT_EQ(tree.CallsOf("CM_Locate_DevNodeW"), 0);
}

TEST_F(FindComPortTest, AnAbsentPortLocatesTheRootWhichHasNoName) {
  tree.OnceHad(kAtDevice);
  EXPECT_EQ(Find(), 0);
  EXPECT_EQ(tree.CallsOf("CM_Get_DevNode_Registry_PropertyW"), 1);
}

TEST_F(FindComPortTest, ARefusedListDoesNotBringBackTheOneBefore) {
  EXPECT_EQ(PortNamed(L"Modem (COM7)"), 7);
  tree.Refuses("CM_Get_Device_ID_ListW", CR_FAILURE);
  EXPECT_EQ(Find(), 0);
  EXPECT_EQ(tree.CallsOf("CM_Locate_DevNodeW"), 1);
}

TEST_F(FindComPortTest, ADeviceThatCannotBeLocatedGivesZero) {
  tree.Refuses("CM_Locate_DevNodeW", CR_NO_SUCH_DEVNODE);
  EXPECT_EQ(PortNamed(L"Modem (COM7)"), 0);
}

TEST_F(FindComPortTest, ANameThatCannotBeReadGivesZero) {
  tree.Refuses("CM_Get_DevNode_Registry_PropertyW", CR_NO_SUCH_VALUE);
  EXPECT_EQ(PortNamed(L"Modem (COM7)"), 0);
}

CONFIGRET WINAPI WriteABeginningAndRefuse(DEVINST, ULONG, ULONG*, void* buffer, ULONG*, ULONG) {
  std::wmemcpy(static_cast<wchar_t*>(buffer), L"Modem (COM7", 12);
  return CR_BUFFER_SMALL;
}

TEST_F(FindComPortTest, WhatARefusedNameLeftInTheBufferIsNoPort) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  patch.Replace("CM_Get_DevNode_Registry_PropertyW", &WriteABeginningAndRefuse);
  EXPECT_EQ(PortNamed(L"Modem (COM7)"), 0);
}

TEST_F(FindComPortTest, BeginAndEndAreLogged) {
  Find();
  EXPECT_THAT(log.Said(),
              ElementsAre(InFunction("findComPort", " ++\n"), InFunction("findComPort", " --\n")));
}

/// A modem with its AT function on COM7.
class AtPortTest : public testing::Test {
 protected:
  AtPortTest() { tree.Has(kAtDevice, L"Modem (COM7)"); }

  int Send(const std::string& command = kReboot) {
    return port.sendATCmd(command.data(), static_cast<std::uint32_t>(command.size()), nullptr, nullptr);
  }

  TestLog log;
  DeviceTree tree;
  ManualClock clock;
  FakeSerialPort serial{"\\\\.\\COM7"};
  TestPort port;
};

TEST_F(AtPortTest, ACommandIsWrittenAsItIsAndNothingIsRead) {
  EXPECT_EQ(Send(), 0);
  EXPECT_THAT(serial.Commands(), ElementsAre(kReboot));
  EXPECT_THAT(serial.Calls(), ElementsAre("CreateFileA", "GetCommState", "SetCommState", "GetCommState",
                                          "PurgeComm", "PurgeComm", "WriteFile"));
  EXPECT_THAT(serial.Purges(), ElementsAre(kPurgeAll, kPurgeAll));
  EXPECT_FALSE(serial.IsOpen());
}

TEST_F(AtPortTest, TheSingletonSendsAsWell) {
  EXPECT_EQ(ATProcessor::GetInstance()->sendATCmd(kReboot, 10, nullptr, nullptr), 0);
  EXPECT_EQ(ATProcessor::GetInstance(), ATProcessor::GetInstance());
  EXPECT_THAT(serial.Commands(), ElementsAre(kReboot));
}

TEST_F(AtPortTest, ThePortIsOpenedForItsUserAlone) {
  Send();
  const FakeSerialPort::Opening exclusive{GENERIC_READ | GENERIC_WRITE, 0, false, OPEN_EXISTING, 0};
  EXPECT_THAT(serial.Openings(), ElementsAre(exclusive));
}

TEST_F(AtPortTest, TheSettingsAreAskedForWithNothingButTheirLength) {
  Send();
  DCB empty{};
  empty.DCBlength = sizeof empty;
  ASSERT_EQ(serial.SettingsToFill().size(), 2u);
  EXPECT_EQ(std::memcmp(&serial.SettingsToFill()[0], &empty, sizeof empty), 0);
  EXPECT_EQ(serial.SettingsToFill()[1].DCBlength, sizeof empty);
}

TEST_F(AtPortTest, OnlySevenSettingsChange) {
  DCB settings{};
  settings.DCBlength = sizeof settings;
  settings.BaudRate = 9600;
  settings.fBinary = 1;
  settings.fParity = 1;
  settings.fOutxCtsFlow = 1;
  settings.fInX = 1;
  settings.XonLim = 11;
  settings.XoffLim = 12;
  settings.ByteSize = 7;
  settings.Parity = EVENPARITY;
  settings.StopBits = TWOSTOPBITS;
  settings.XonChar = settings.XoffChar = 0x11;
  serial.HasSettings(settings);
  Send();

  settings.BaudRate = 115200;
  settings.ByteSize = 8;
  settings.Parity = NOPARITY;
  settings.StopBits = ONESTOPBIT;
  settings.fDtrControl = DTR_CONTROL_ENABLE;
  settings.fRtsControl = RTS_CONTROL_ENABLE;
  settings.fOutX = TRUE;
  EXPECT_EQ(std::memcmp(&serial.Settings(), &settings, sizeof settings), 0);
}

TEST_F(AtPortTest, EachByteIsLoggedPaddedWithABlank) {
  Send("a\r\xFF");
  EXPECT_THAT(log.Said(), Contains("W:send command 0x61\n"));
  EXPECT_THAT(log.Said(), Contains("W:send command 0x d\n"));
  EXPECT_EQ(log.LevelOf("send command 0xff\n"), "Warning");
}

TEST_F(AtPortTest, TheStepsAreLogged) {
  Send("a");
  EXPECT_THAT(
      log.Said(),
      ElementsAre(InFunction("sendATCmd", " ++\n"), InFunction("findComPort", " ++\n"),
                  std::string("W:CM_Get_Device_ID_List: USB\\VID_1D5A&PID_0AE2&MI_00\\6&1234&0&0000\n"),
                  InFunction("findComPort", " --\n"), InFunction("sendATCmd", " find port:7\n"),
                  "W:send command 0x61\n", "E:" + InFunction("writeCmd", " write at command success\n"),
                  InFunction("sendATCmd", " --\n")));
}

TEST_F(AtPortTest, AMissingPortIsTriedAsCom0) {
  tree.LosesAllDevices();
  EXPECT_EQ(Send(), -1);
  EXPECT_THAT(serial.FileNames(), ElementsAre("\\\\.\\COM0"));
  EXPECT_EQ(log.LevelOf("openPort failed\n"), "Error");
  EXPECT_EQ(log.Said().back(), "E:openPort failed\n");
}

TEST_F(AtPortTest, AFailedWriteIsToldWithItsOwnErrorAndThePortIsClosed) {
  serial.Fails("WriteFile");
  EXPECT_EQ(Send(), -1);
  EXPECT_THAT(serial.Purges(), ElementsAre(kPurgeAll, kPurgeAll, kPurgeAfterFailure));
  EXPECT_EQ(log.LevelOf(InFunction("writeCmd", " write at command failed with error 0x1f\n")), "Error");
  EXPECT_EQ(log.LevelOf("writeCmd failed\n"), "Error");
  EXPECT_FALSE(serial.IsOpen());
}

TEST_F(AtPortTest, AWriteCutShortByTheDriverCounts) {
  serial.CutsWritesTo(0);
  EXPECT_EQ(Send(), 0);
}

TEST_F(AtPortTest, WritingToAPortThatIsNotOpenFails) {
  EXPECT_FALSE(port.writeCmd("at\r", 3));
  EXPECT_THAT(log.Said(), ElementsAre("E:" + InFunction("writeCmd", " comm is not opened\n")));
  EXPECT_THAT(serial.Calls(), IsEmpty());
}

TEST_F(AtPortTest, AReplyIsReadWhenItIsAskedFor) {
  serial.Answers("\r\nOK\r\n");
  char reply[16]{};
  std::uint32_t length = sizeof reply;
  EXPECT_EQ(port.sendATCmd("at\r", 3, reply, &length), 0);
  EXPECT_EQ(std::string(reply, length), "\r\nOK\r\n");
  EXPECT_FALSE(serial.IsOpen());
}

TEST_F(AtPortTest, NoReplyIsReadWithoutRoomForIt) {
  serial.Answers("OK");
  char reply[4]{};
  std::uint32_t length = 0;
  EXPECT_EQ(port.sendATCmd("at\r", 3, reply, &length), 0);
  EXPECT_THAT(serial.Calls(), Not(Contains("ClearCommError")));
}

/// How often the library entered and left critical sections.
class SectionCount {
 public:
  SectionCount() {
    s_entered = s_left = 0;
    m_Patch.Replace("EnterCriticalSection", &Enter);
    m_Patch.Replace("LeaveCriticalSection", &Leave);
  }
  int StillOwned() const { return s_entered - s_left; }

 private:
  static void WINAPI Enter(CRITICAL_SECTION* section) {
    ++s_entered;
    ::EnterCriticalSection(section);
  }
  static void WINAPI Leave(CRITICAL_SECTION* section) {
    ++s_left;
    ::LeaveCriticalSection(section);
  }

  static inline std::atomic<int> s_entered{0};
  static inline std::atomic<int> s_left{0};

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

class FailedOpenTest : public AtPortTest {
 protected:
  SectionCount sections;
};

TEST_F(FailedOpenTest, AnOpenThatSucceedsLeavesTheSection) {
  Send();
  EXPECT_EQ(sections.StillOwned(), 0);
}

TEST_F(FailedOpenTest, ARefusedPortKeepsTheSectionOwned) {
  serial.Fails("CreateFileA");
  EXPECT_EQ(Send(), -1);
  EXPECT_EQ(sections.StillOwned(), 1);
  EXPECT_EQ(log.Said().back(), "E:openPort failed\n");
}

TEST_F(FailedOpenTest, TheOwnerOfTheSectionMayTryAgain) {
  serial.Fails("CreateFileA");
  EXPECT_EQ(Send(), -1);
  EXPECT_EQ(Send(), 0);
  EXPECT_EQ(sections.StillOwned(), 1);
}

struct ConfigurationStep {
  const char* call;
  int time;
};

class FailedConfigurationTest : public FailedOpenTest, public testing::WithParamInterface<ConfigurationStep> {
 protected:
  FailedConfigurationTest() { serial.Fails(GetParam().call, GetParam().time); }
};

TEST_P(FailedConfigurationTest, KeepsTheSectionOwnedAndThePortOpen) {
  EXPECT_EQ(Send(), -1);
  EXPECT_EQ(sections.StillOwned(), 1);
  EXPECT_TRUE(serial.IsOpen());
  EXPECT_EQ(log.LevelOf("openPort failed\n"), "Error");
}

TEST_P(FailedConfigurationTest, MakesEveryLaterOpenFailAndClosesNothing) {
  Send();
  EXPECT_EQ(Send(), -1);
  EXPECT_EQ(Send(), -1);
  EXPECT_EQ(serial.TimesClosed(), 0);
  EXPECT_THAT(serial.Commands(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Steps, FailedConfigurationTest,
                         testing::Values(ConfigurationStep{"GetCommState", 1},
                                         ConfigurationStep{"SetCommState", 1},
                                         ConfigurationStep{"GetCommState", 2}));

// --- The section -----------------------------------------------------------------------------------------

class SectionTest : public AtPortTest {
 protected:
  SectionTest() { port.openPort("\\\\.\\COM7"); }
  void Read() {
    char reply[2]{};
    std::uint32_t length = sizeof reply;
    port.readResponse(reply, &length);
  }
  void Write() { port.writeCmd("at\r", 3); }

  LockProbe locks;
};

TEST_F(SectionTest, AWriteWaitsForAnotherOne) {
  EXPECT_TRUE(locks.Excludes([this] { Write(); }, [this] { Write(); }));
}

TEST_F(SectionTest, AWriteWaitsForARead) {
  serial.Answers("OK");
  EXPECT_TRUE(locks.Excludes([this] { Read(); }, [this] { Write(); }));
}

TEST_F(SectionTest, AReadWaitsForAWrite) {
  serial.Answers("OK");
  EXPECT_TRUE(locks.Excludes([this] { Write(); }, [this] { Read(); }));
}

TEST_F(SectionTest, AWriteWaitsForAnOpen) {
  port.closePort();
  EXPECT_TRUE(locks.Excludes([this] { port.openPort("\\\\.\\COM7"); }, [this] { Write(); }));
}

TEST_F(SectionTest, AnOpenWaitsForAWrite) {
  EXPECT_TRUE(locks.Excludes([this] { Write(); },
                             [this] {
                               port.closePort();
                               port.openPort("\\\\.\\COM7");
                             }));
}

/// Sends one command while another one is sent.
class ExchangeTest : public AtPortTest {
 protected:
  int Send(const std::function<bool()>& isAbandoned) {
    return port.sendATCmd(kReboot, 10, nullptr, nullptr, isAbandoned);
  }
};

TEST_F(ExchangeTest, NothingIsWrittenForWhomWasGivenUpWhileThePortOpened) {
  const auto opened = [this] { return !serial.Openings().empty(); };
  EXPECT_EQ(Send(opened), -1);
  EXPECT_THAT(serial.Commands(), IsEmpty());
  EXPECT_EQ(serial.TimesClosed(), 1);
  EXPECT_EQ(log.LevelOf("Given up meanwhile, nothing is written\n"), "Warning");
  EXPECT_EQ(log.Said().back(), InFunction("sendATCmd", " --\n"));
  EXPECT_THAT(FunctionsOf(log.Records()), Contains("ATProcessor::sendATCmd"));
}

// A failed open would keep the section from everybody for good.
TEST_F(ExchangeTest, ThePortIsNotOpenedForWhomWasGivenUpBefore) {
  EXPECT_EQ(Send([] { return true; }), -1);
  EXPECT_THAT(serial.Openings(), IsEmpty());
  EXPECT_EQ(serial.TimesClosed(), 0);
}

// Between the write, which leaves the section, and the close.
TEST_F(ExchangeTest, AnotherOneWaitsUntilThePortIsClosed) {
  LockProbe locks;
  EXPECT_TRUE(
      locks.Excludes([this] { AtPortTest::Send("first"); }, [this] { AtPortTest::Send("second"); }, 2));
  EXPECT_THAT(serial.Commands(), ElementsAre("first", "second"));
  EXPECT_EQ(serial.TimesClosed(), 2);
  EXPECT_FALSE(serial.IsOpen());
}

/// Reading from the opened port, with a buffer of 64 bytes unless told otherwise.
class ReadResponseTest : public AtPortTest {
 protected:
  ReadResponseTest() { port.openPort("\\\\.\\COM7"); }

  std::string Read(std::uint32_t room = 64) {
    std::string reply(room, '?');
    EXPECT_EQ(port.readResponse(reply.data(), &room), 0);
    return reply.substr(0, room);
  }
};

TEST_F(ReadResponseTest, OkEndsTheReadBehindItsBatch) {
  serial.Answers("OK\r\n");
  serial.Answers("more");
  EXPECT_EQ(Read(), "OK\r\n");
  EXPECT_EQ(log.LevelOf(InFunction("readResponse", ": g_breakFromRead = true OK\n")), "Warning");
  EXPECT_EQ(serial.BytesUnread(), 4);
}

TEST_F(ReadResponseTest, ErrorEndsTheReadBehindItsBatch) {
  serial.Answers("ERROR\r\n");
  serial.Answers("more");
  EXPECT_EQ(Read(), "ERROR\r\n");
  EXPECT_THAT(log.Said(),
              Contains("W:" + InFunction("readResponse", ": g_breakFromRead = true ERROR\n")).Times(1));
}

TEST_F(ReadResponseTest, AnyThreeRsOfABatchEndTheRead) {
  serial.Answers("\r\n+CRRR");
  serial.Answers("more");
  EXPECT_EQ(Read(), "\r\n+CRRR");
}

TEST_F(ReadResponseTest, LowerCaseDoesNotEndTheRead) {
  serial.Answers("ok error");
  EXPECT_EQ(Read(), "ok error");
  EXPECT_EQ(clock.Passed(), kReadLimit);
}

TEST_F(ReadResponseTest, ABatchThatBeginsWithKIsNoOk) {
  serial.Answers("K\r\n");
  EXPECT_EQ(Read(), "K\r\n");
  EXPECT_EQ(clock.Passed(), kReadLimit);
}

TEST_F(ReadResponseTest, AKThatDoesNotFollowAnOIsNoOk) {
  serial.Answers("O K");
  EXPECT_EQ(Read(), "O K");
  EXPECT_EQ(clock.Passed(), kReadLimit);
}

TEST_F(ReadResponseTest, AnOkSplitBetweenBatchesRunsIntoTheTimeLimit) {
  serial.Answers("\r\nO");
  serial.Answers("K\r\n");
  EXPECT_EQ(Read(), "\r\nOK\r\n");
  EXPECT_EQ(clock.Passed(), kReadLimit);
}

TEST_F(ReadResponseTest, RsOfTwoBatchesDoNotAddUp) {
  serial.Answers("ERR");
  serial.Answers("OR");
  EXPECT_EQ(Read(), "ERROR");
  EXPECT_EQ(clock.Passed(), kReadLimit);
}

TEST_F(ReadResponseTest, ASilentModemCostsFiveSeconds) {
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(clock.Passed(), kReadLimit);
}

TEST_F(ReadResponseTest, AReplyThatNeverEndsStopsWithWhatArrived) {
  serial.Answers("partial");
  EXPECT_EQ(Read(), "partial");
  EXPECT_EQ(clock.Passed(), kReadLimit);
}

TEST_F(ReadResponseTest, TheTimeLimitThreadAloneEndsTheRead) {
  clock.StopsTicking();
  EXPECT_EQ(Read(), "");
  EXPECT_GE(clock.Passed(), kReadLimit);
}

TEST_F(ReadResponseTest, WithoutTheTimeLimitThreadTheReadStillEnds) {
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  const auto refuse =
      +[](SECURITY_ATTRIBUTES*, SIZE_T, LPTHREAD_START_ROUTINE, void*, DWORD, DWORD*) WINAPI -> HANDLE {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  };
  patch.Replace("CreateThread", refuse);
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(clock.Passed(), kReadLimit);
}

TEST_F(ReadResponseTest, ATimeLimitThreadOfAnEarlierReadLeavesALaterOneAlone) {
  serial.Answers("OK");
  Read();
  clock.Advance(4000);
  Read();
  EXPECT_EQ(clock.Passed(), 4000 + kReadLimit);
}

TEST_F(ReadResponseTest, AReadThatWaitedTooLongForTheSectionReadsNothing) {
  static ManualClock* theClock = nullptr;
  theClock = &clock;
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  const auto enterLate = +[](CRITICAL_SECTION* section) WINAPI {
    theClock->Advance(kReadLimit);
    ::EnterCriticalSection(section);
  };
  patch.Replace("EnterCriticalSection", enterLate);
  serial.Answers("OK");
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(serial.BytesUnread(), 2);
}

TEST_F(ReadResponseTest, AFullBufferEndsTheReadInTheMiddleOfABatch) {
  serial.Answers("0123456789");
  EXPECT_EQ(Read(4), "0123");
  EXPECT_EQ(serial.BytesUnread(), 6);
  EXPECT_EQ(clock.Passed(), 0u);
}

TEST_F(ReadResponseTest, ABufferWithoutRoomReadsNothing) {
  serial.Answers("OK");
  EXPECT_EQ(Read(0), "");
  EXPECT_EQ(serial.BytesUnread(), 2);
}

TEST_F(ReadResponseTest, AFailedReadPurgesThePortAndGoesOn) {
  serial.Answers("OK\r\n");
  serial.Fails("ReadFile");
  EXPECT_EQ(Read(), "OK\r");
  EXPECT_EQ(serial.Purges().back(), kPurgeAfterFailure);
}

TEST_F(ReadResponseTest, AReadWithoutAByteIsSkipped) {
  serial.Answers(std::string("A") + FakeSerialPort::kNoByte + "OK");
  EXPECT_EQ(Read(), "AOK");
}

TEST_F(ReadResponseTest, AQueueThatCannotBeAskedIsTakenForEmpty) {
  serial.Answers("OK");
  serial.Fails("ClearCommError");
  EXPECT_EQ(Read(), "OK");
  EXPECT_EQ(clock.Passed(), 10u);
}

TEST_F(ReadResponseTest, EachRecordBelongsToTheRead) {
  serial.Answers("OK");
  Read();
  serial.Answers("RRR");
  Read();
  std::vector<LogRecord> records = log.Records();
  EXPECT_THAT(FunctionsOf(records), testing::Each("ATProcessor::readResponse"));
  EXPECT_EQ(records.size(), 6u);
}

TEST_F(ReadResponseTest, TheTimeLimitThreadHasTheDefaultStack) {
  static std::vector<SIZE_T> askedSizes;
  askedSizes.clear();
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  const auto note = +[](SECURITY_ATTRIBUTES* security, SIZE_T size, LPTHREAD_START_ROUTINE start,
                        void* parameter, DWORD flags, DWORD* id) WINAPI {
    askedSizes.push_back(size);
    return ::CreateThread(security, size, start, parameter, flags, id);
  };
  patch.Replace("CreateThread", note);
  serial.Answers("OK");
  Read();
  EXPECT_THAT(askedSizes, ElementsAre(0u));
}

/// Whatever ends a read, the section is free after it.
class SectionAfterReadTest : public ReadResponseTest {
 protected:
  SectionCount sections;
};

TEST_F(SectionAfterReadTest, IsLeftBehindAReply) {
  serial.Answers("OK");
  Read();
  EXPECT_EQ(sections.StillOwned(), 0);
}

TEST_F(SectionAfterReadTest, IsLeftBehindAFullBuffer) {
  serial.Answers("0123");
  Read(2);
  EXPECT_EQ(sections.StillOwned(), 0);
}

TEST_F(SectionAfterReadTest, IsLeftBehindTheTimeLimit) {
  Read();
  EXPECT_EQ(sections.StillOwned(), 0);
}

TEST_F(SectionAfterReadTest, IsLeftByAReadThatCameTooLate) {
  static ManualClock* theClock = nullptr;
  theClock = &clock;
  static int owned;
  owned = 0;
  simulator::ImportPatch patch(::GetModuleHandleW(L"toolkit_internals.dll"));
  const auto enterLate = +[](CRITICAL_SECTION* section) WINAPI {
    theClock->Advance(kReadLimit);
    ::EnterCriticalSection(section);
    ++owned;
  };
  const auto leave = +[](CRITICAL_SECTION* section) WINAPI {
    --owned;
    ::LeaveCriticalSection(section);
  };
  patch.Replace("EnterCriticalSection", enterLate);
  patch.Replace("LeaveCriticalSection", leave);
  EXPECT_EQ(Read(), "");
  EXPECT_EQ(owned, 0);
}

class VerifyTest : public ReadResponseTest {};

TEST_F(VerifyTest, AGoodReplyIsStillAFailure) {
  serial.Answers("OK\r\n");
  EXPECT_FALSE(port.verifyATExcutable());
  EXPECT_EQ(log.LevelOf(InFunction("verifyATExcutable", " response length:4\n")), "Warning");
  EXPECT_EQ(log.LevelOf(InFunction("verifyATExcutable", " response is:       OK\r\n\n")), "Warning");
  EXPECT_EQ(log.LevelOf(InFunction("verifyATExcutable", " response[2] is: 0x d\n")), "Warning");
  EXPECT_EQ(log.Said().back(), InFunction("verifyATExcutable", " -- failed\n"));
}

TEST_F(VerifyTest, TheTerminatingZeroIsSent) {
  serial.Answers("OK");
  port.verifyATExcutable();
  EXPECT_THAT(serial.Commands(), ElementsAre(std::string("at\r\0", 4)));
}

TEST_F(VerifyTest, BytesFromEightyAreTwoDigits) {
  serial.Answers("OK\x80");
  port.verifyATExcutable();
  EXPECT_THAT(log.Said(),
              Contains("W:" + InFunction("verifyATExcutable", " response[2] is: 0x80\n")).Times(1));
}

TEST_F(VerifyTest, AReplyThatFillsTheBufferIsPrintedToItsEnd) {
  serial.Answers(std::string(300, 'x'));
  port.verifyATExcutable();
  EXPECT_THAT(log.Said(),
              Contains("W:" + InFunction("verifyATExcutable", " response length:256\n")).Times(1));
  EXPECT_THAT(log.Said(), Contains("W:" + InFunction("verifyATExcutable", " response is: ") +
                                   std::string(256, 'x') + "\n")
                              .Times(1));
}

TEST_F(VerifyTest, AClosedPortFails) {
  port.closePort();
  EXPECT_FALSE(port.verifyATExcutable());
  EXPECT_EQ(log.Said().back(), InFunction("verifyATExcutable", " -- failed\n"));
  EXPECT_THAT(serial.Calls(), Not(Contains("ClearCommError")));
}

}  // namespace
