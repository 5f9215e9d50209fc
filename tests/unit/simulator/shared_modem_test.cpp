#include <windows.h>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/handles.h"
#include "simulator/flash_image.h"
#include "simulator/machine.h"
#include "simulator/named_objects.h"
#include "simulator/process_identity.h"
#include "simulator/shared_data.h"
#include "simulator/virtual_modem.h"
#include "support/temporary_folder.h"

using corvel::UniqueHandle;

namespace simulator {

namespace {

/// A name that no other run of these tests has.
std::wstring NewName() {
  static int number = 0;
  return L"shared_modem_test-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++number);
}

/// A process that does nothing until it dies.
class OtherProcess {
 public:
  OtherProcess() {
    wchar_t program[MAX_PATH]{};
    ::GetModuleFileNameW(nullptr, program, MAX_PATH);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    if (!::CreateProcessW(program, nullptr, nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr, nullptr,
                          &startup, &started)) {
      throw std::runtime_error("no other process can be started");
    }
    ::CloseHandle(started.hThread);
    m_Process.reset(started.hProcess);
  }
  ~OtherProcess() { Die(); }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  ProcessIdentity Identity() const { return IdentityOf(m_Process.get()); }
  void Die() {
    ::TerminateProcess(m_Process.get(), 0);
    ::WaitForSingleObject(m_Process.get(), INFINITE);
  }

 private:
  UniqueHandle m_Process;
};

TEST(ProcessIdentityTest, TellsWhoLives) {
  EXPECT_TRUE(Lives(ThisProcess()));
  OtherProcess other;
  const ProcessIdentity identity = other.Identity();
  EXPECT_TRUE(Lives(identity));
  other.Die();
  EXPECT_FALSE(Lives(identity));
}

TEST(ProcessIdentityTest, AnIdThatWasGivenToAnotherProcessIsNotTheOneBefore) {
  const OtherProcess other;
  ProcessIdentity before = other.Identity();
  --before.begun;
  EXPECT_FALSE(Lives(before));
}

struct Numbers {
  int first = 0;
  int second = 0;
};

TEST(SharedDataTest, TheFirstOneFillsIt) {
  const std::wstring name = NewName();
  SharedData<Numbers> one(name, {1, 2});
  SharedData<Numbers> other(name, {3, 4});
  EXPECT_EQ(other.Take().second, 2);
  other.PutBack({5, 6});
  EXPECT_EQ(one.Take().first, 5);
  one.PutBack({5, 6});
}

TEST(SharedDataTest, GoesWithTheLastOne) {
  const std::wstring name = NewName();
  { const SharedData<Numbers> first(name, {1, 2}); }
  SharedData<Numbers> later(name, {3, 4});
  EXPECT_EQ(later.Take().first, 3);
  later.PutBack({});
}

TEST(SharedDataTest, WhoDiesWithItInHisHandsHasChangedNothing) {
  SharedData<Numbers> data(NewName(), {1, 2});
  std::thread([&] { data.Take(); }).join();
  const Numbers numbers = data.Take();
  data.PutBack(numbers);
  EXPECT_EQ(numbers.first, 1);
  EXPECT_EQ(numbers.second, 2);
}

TEST(SharedNamesTest, AreThoseOfAllWhoSayTheSame) {
  ShareNames(L"a pair");
  EXPECT_EQ(OwnName(L"name"), L"name-a pair");
  ShareNames({});
  EXPECT_EQ(OwnName(L"name"), L"name-" + std::to_wstring(::GetCurrentProcessId()));
}

TEST(SharedClockTest, AgreesWithOneThatBeganEarlier) {
  const std::wstring name = NewName();
  const VirtualClock first(1000, name);
  first.Pause(Milliseconds(60000));
  const Milliseconds before = first.Now();
  const VirtualClock later(1000, name);
  const Milliseconds now = later.Now();
  EXPECT_GE(now, before);
  EXPECT_LE(now, first.Now());
}

TEST(SharedClockTest, IsSteady) {
  VirtualPcOptions options;
  options.sharedBy = NewName();
  options.pace = Pace::Elastic;
  EXPECT_THROW(Machine{options}, std::invalid_argument);
}

/// One modem, driven by this process and by another one, for which this one does it.
class SharedModemTest : public testing::Test {
 protected:
  std::unique_ptr<VirtualModem> NewModem(ProcessIdentity user, ModemState initial = ModemState::FlashPort) {
    ModemTiming timing;
    timing.bootLoaderWindow = std::chrono::hours(1);
    return std::make_unique<VirtualModem>(
        m_Clock, m_Folder.Path() / "modem_flash.bin", timing, ModemFaults{}, initial,
        [](JournalEvent, const std::string&) {}, ModemSharing{m_Name, user});
  }
  std::uint32_t OpenAndBoot(VirtualModem& modem) const {
    const std::uint32_t session = modem.OpenPort();
    EXPECT_TRUE(modem.Boot(session, image.file));
    return session;
  }
  bool WriteItem(VirtualModem& modem, std::uint32_t session) const {
    const ImageItem& item = image.items[0];
    return modem.BeginItem(session, item) && modem.WriteBlock(session, image.Bytes(item)) &&
           modem.EndItem(session);
  }

 private:
  const TemporaryFolder m_Folder;
  const std::wstring m_Name = NewName();
  const VirtualClock m_Clock{1000, m_Name};

 protected:
  OtherProcess process;
  const std::unique_ptr<VirtualModem> mine = NewModem(ThisProcess());
  const std::unique_ptr<VirtualModem> others = NewModem(process.Identity());
  const FlashImage image = BuildImage(SmallImagePlan(3));
};

TEST_F(SharedModemTest, IsTheSameForBoth) {
  mine->Put(ModemState::Normal);
  EXPECT_EQ(others->State(), ModemState::Normal);
  others->ResetBaseband();
  EXPECT_EQ(mine->State(), ModemState::Restarting);
}

TEST_F(SharedModemTest, WhoeverComesLaterFindsItAsItIs) {
  mine->Put(ModemState::Dead);
  EXPECT_EQ(NewModem(ThisProcess(), ModemState::Normal)->State(), ModemState::Dead);
}

TEST_F(SharedModemTest, HasOneFlashPort) {
  const std::uint32_t session = mine->OpenPort();
  EXPECT_NE(session, 0u);
  EXPECT_EQ(others->OpenPort(), 0u);
  mine->ClosePort(session);
  EXPECT_NE(others->OpenPort(), 0u);
}

TEST_F(SharedModemTest, HasOneMemory) {
  ASSERT_TRUE(WriteItem(*mine, OpenAndBoot(*mine)));
  EXPECT_TRUE(others->CompareWith(&image, nullptr).equal);
  EXPECT_EQ(others->ItemsWritten(), 1u);
}

TEST_F(SharedModemTest, AResetByOneEndsTheSessionOfTheOther) {
  const std::uint32_t session = OpenAndBoot(*others);
  mine->ResetBaseband();
  EXPECT_FALSE(WriteItem(*others, session));
}

TEST_F(SharedModemTest, HasOneAtPort) {
  EXPECT_TRUE(others->TakeAtPort());
  EXPECT_FALSE(mine->TakeAtPort());
  others->GiveAtPortBack();
  EXPECT_TRUE(mine->TakeAtPort());
}

TEST_F(SharedModemTest, TheAtPortOfADeadProcessIsFree) {
  ASSERT_TRUE(others->TakeAtPort());
  process.Die();
  EXPECT_TRUE(mine->TakeAtPort());
}

TEST_F(SharedModemTest, TheFlashPortOfADeadProcessIsFree) {
  ASSERT_NE(others->OpenPort(), 0u);
  EXPECT_EQ(mine->State(), ModemState::ChannelOpen);
  process.Die();
  EXPECT_EQ(mine->State(), ModemState::FlashPort);
  EXPECT_NE(mine->OpenPort(), 0u);
}

TEST_F(SharedModemTest, BootedByADeadProcessItRefusesEverybodyUntilAReset) {
  const std::uint32_t session = OpenAndBoot(*others);
  ASSERT_TRUE(others->BeginItem(session, image.items[0]));
  process.Die();
  EXPECT_EQ(mine->State(), ModemState::Booted);
  EXPECT_EQ(mine->OpenPort(), 0u);
  EXPECT_FALSE(mine->ForceReset(session));
  mine->ResetBaseband();
  EXPECT_EQ(mine->ComeToRest(), ModemState::Normal);
}

TEST_F(SharedModemTest, ADeathElsewhereEndsNoSessionOfAnother) {
  const std::uint32_t session = OpenAndBoot(*mine);
  process.Die();
  EXPECT_EQ(mine->State(), ModemState::Booted);
  EXPECT_TRUE(WriteItem(*mine, session));
}

}  // namespace

}  // namespace simulator
