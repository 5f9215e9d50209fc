#include "simulator/virtual_modem.h"

#include <gtest/gtest.h>

#include <string_view>

#include "unit/simulator/simulation_test.h"

using corvel::UniqueHandle;

namespace simulator {

namespace {

std::span<const std::uint8_t> Bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

class VirtualModemTest : public SimulationTest {
 protected:
  /// Brings the modem to where items can be written. @return the session.
  std::uint32_t OpenAndBoot() {
    const std::uint32_t session = pc->Modem().OpenPort();
    EXPECT_TRUE(pc->Modem().Boot(session, image.file));
    return session;
  }
  bool WriteFirstItem(std::uint32_t session, const FlashImage& source) {
    const ImageItem& item = source.items[0];
    return pc->Modem().BeginItem(session, item) && pc->Modem().WriteBlock(session, source.Bytes(item)) &&
           pc->Modem().EndItem(session);
  }
  std::vector<std::string> Events(JournalEvent event) {
    std::vector<std::string> details;
    for (const auto& entry : pc->Journal()) {
      if (entry.event == event) details.push_back(entry.detail);
    }
    return details;
  }

  FlashImage image = BuildImage(SmallImagePlan(3));
};

TEST_F(VirtualModemTest, GoesThroughFlashModeAndBack) {
  Start();
  pc->Modem().HearAtBytes(Bytes("at+xlog=4\r"));
  ASSERT_TRUE(Reaches(ModemState::FlashPort));
  const auto session = OpenAndBoot();
  ASSERT_TRUE(WriteFirstItem(session, image));
  ASSERT_TRUE(pc->Modem().ForceReset(session));
  ASSERT_TRUE(Reaches(ModemState::Normal));
  EXPECT_EQ(Events(JournalEvent::StateChanged),
            (std::vector<std::string>{"leaving", "restarting", "flash port", "channel open", "booted",
                                      "writing", "booted", "returning", "normal"}));
}

TEST_F(VirtualModemTest, PutIntoAStateItKnowsNobodyAnyMore) {
  options.initialState = ModemState::FlashPort;
  Start();
  const auto session = OpenAndBoot();
  pc->Modem().Put(ModemState::FlashPort);
  EXPECT_FALSE(pc->Modem().ForceReset(session));
  EXPECT_NE(pc->Modem().OpenPort(), 0u);
}

/// The file that tells of the modem when the process is gone.
class KeptModemStateTest : public VirtualModemTest {
 protected:
  void Begin(ModemState initial) {
    options.initialState = initial;
    Start();
    pc->Modem().KeepStateIn(file);
  }
  std::filesystem::path file = options.folder / "modem_state.txt";
};

TEST_F(KeptModemStateTest, WithoutAFileItIsNormal) {
  EXPECT_EQ(VirtualModem::StateLeftIn(file), ModemState::Normal);
}

TEST_F(KeptModemStateTest, FromTheFirstMomentOn) {
  Begin(ModemState::FlashPort);
  EXPECT_EQ(VirtualModem::StateLeftIn(file), ModemState::FlashPort);
}

TEST_F(KeptModemStateTest, OnceItWasToldToItGoesIntoFlashMode) {
  Begin(ModemState::Normal);
  pc->Modem().HearAtBytes(Bytes("at+xlog=4\r"));
  EXPECT_EQ(VirtualModem::StateLeftIn(file), ModemState::FlashPort);
}

TEST_F(KeptModemStateTest, AwayUntilAResetItStaysAway) {
  Begin(ModemState::Restarting);
  EXPECT_EQ(VirtualModem::StateLeftIn(file), ModemState::Restarting);
}

TEST_F(KeptModemStateTest, BehindAResetAloneItComesBack) {
  Begin(ModemState::Booted);
  pc->Modem().ResetBaseband();
  EXPECT_EQ(VirtualModem::StateLeftIn(file), ModemState::Normal);
}

TEST_F(KeptModemStateTest, AnOpenPortIsOpenForOthersAgain) {
  Begin(ModemState::FlashPort);
  ASSERT_NE(pc->Modem().OpenPort(), 0u);
  EXPECT_EQ(VirtualModem::StateLeftIn(file), ModemState::FlashPort);
}

TEST_F(KeptModemStateTest, BootedItRefusesOthersInTheMiddleOfAnItemToo) {
  Begin(ModemState::FlashPort);
  const auto session = OpenAndBoot();
  EXPECT_EQ(VirtualModem::StateLeftIn(file), ModemState::Booted);
  ASSERT_TRUE(pc->Modem().BeginItem(session, image.items[0]));
  EXPECT_EQ(VirtualModem::StateLeftIn(file), ModemState::Booted);
}

TEST_F(KeptModemStateTest, OnItsWayBackItArrives) {
  Begin(ModemState::FlashPort);
  ASSERT_TRUE(pc->Modem().ForceReset(OpenAndBoot()));
  EXPECT_EQ(VirtualModem::StateLeftIn(file), ModemState::Normal);
}

TEST_F(VirtualModemTest, MemoryEqualsTheImageThatWasWritten) {
  options.initialState = ModemState::FlashPort;
  Start();
  EXPECT_FALSE(pc->Modem().CompareWith(&image, nullptr).equal);
  ASSERT_TRUE(WriteFirstItem(OpenAndBoot(), image));
  const auto comparison = pc->Modem().CompareWith(&image, nullptr);
  EXPECT_TRUE(comparison.equal) << comparison.difference;
  EXPECT_EQ(comparison.bytes, 64u * 1024);
}

TEST_F(VirtualModemTest, ComparisonNamesTheFirstDifference) {
  options.initialState = ModemState::FlashPort;
  Start();
  ASSERT_TRUE(WriteFirstItem(OpenAndBoot(), image));
  image.file[image.items[0].dataOffset + 5] ^= 1;
  EXPECT_EQ(pc->Modem().CompareWith(&image, nullptr).difference, "class 5 differs at 0xe00005");
}

TEST_F(VirtualModemTest, IsErasedUntilSomethingIsWritten) {
  options.initialState = ModemState::FlashPort;
  Start();
  EXPECT_TRUE(pc->Modem().IsErased());
  ASSERT_TRUE(WriteFirstItem(OpenAndBoot(), image));
  EXPECT_FALSE(pc->Modem().IsErased());
}

TEST_F(VirtualModemTest, LeftAloneBehindABasebandResetItComesBack) {
  Start();
  pc->Modem().ResetBaseband();
  EXPECT_EQ(pc->Modem().ComeToRest(), ModemState::Normal);
  EXPECT_EQ(Events(JournalEvent::StateChanged),
            (std::vector<std::string>{"restarting", "flash port", "returning", "normal"}));
}

TEST_F(VirtualModemTest, LeftAloneAfterARebootCommandItStaysInFlashMode) {
  Start();
  pc->Modem().HearAtBytes(Bytes("at+xlog=4\r"));
  EXPECT_EQ(pc->Modem().ComeToRest(), ModemState::FlashPort);
}

TEST_F(VirtualModemTest, LeftAloneWithItsPortOpenItStaysAsItIs) {
  options.initialState = ModemState::FlashPort;
  Start();
  OpenAndBoot();
  EXPECT_EQ(pc->Modem().ComeToRest(), ModemState::Booted);
}

TEST_F(VirtualModemTest, ComparingWithNothingIsNoProof) {
  Start();
  EXPECT_FALSE(pc->Modem().CompareWith(nullptr, nullptr).equal);
}

TEST_F(VirtualModemTest, OfAnNvmImageBesideAModemImageOnlyTheFirstItemCounts) {
  options.initialState = ModemState::FlashPort;
  Start();
  ImagePlan twoItems = SmallImagePlan(4, 1024, 0xF00000);
  twoItems.items.push_back({MemoryClass::Cust, 1024, 0xF10000});
  const FlashImage nvm = BuildImage(twoItems);
  const auto session = OpenAndBoot();
  ASSERT_TRUE(WriteFirstItem(session, image));
  ASSERT_TRUE(WriteFirstItem(session, nvm));
  EXPECT_TRUE(pc->Modem().CompareWith(&image, &nvm).equal);
  EXPECT_FALSE(pc->Modem().CompareWith(nullptr, &nvm).equal);
}

TEST_F(VirtualModemTest, RefusesWritingBeforeBoot) {
  options.initialState = ModemState::FlashPort;
  Start();
  const auto session = pc->Modem().OpenPort();
  EXPECT_FALSE(pc->Modem().BeginItem(session, image.items[0]));
  EXPECT_EQ(Events(JournalEvent::ItemRefused).back(), "written before boot");
}

TEST_F(VirtualModemTest, RefusesAnItemWithAWrongChecksum) {
  options.initialState = ModemState::FlashPort;
  Start();
  const FlashImage damaged = BuildImage(SmallImagePlan(3), ImageDamage::ItemChecksum);
  EXPECT_FALSE(WriteFirstItem(OpenAndBoot(), damaged));
  EXPECT_EQ(pc->Modem().ItemsWritten(), 0u);
}

TEST_F(VirtualModemTest, RefusesADamagedBootFile) {
  options.initialState = ModemState::FlashPort;
  Start();
  const auto session = pc->Modem().OpenPort();
  EXPECT_FALSE(pc->Modem().Boot(session, BuildImage(SmallImagePlan(3), ImageDamage::HeaderChecksum).file));
}

TEST_F(VirtualModemTest, RefusesASecondOpenOfItsPort) {
  options.initialState = ModemState::FlashPort;
  Start();
  EXPECT_NE(pc->Modem().OpenPort(), 0u);
  EXPECT_EQ(pc->Modem().OpenPort(), 0u);
}

TEST_F(VirtualModemTest, RefusesTheOldSessionAfterABasebandReset) {
  options.initialState = ModemState::FlashPort;
  Start();
  const auto session = OpenAndBoot();
  pc->Modem().ResetBaseband();
  EXPECT_FALSE(WriteFirstItem(session, image));
  EXPECT_FALSE(pc->Modem().ForceReset(session));
}

TEST_F(VirtualModemTest, StartsNormallyWhenNobodyUsesTheBootLoaderAfterABasebandReset) {
  options.timing.bootLoaderWindow = Milliseconds(10000);
  Start();
  pc->Modem().ResetBaseband();
  ASSERT_TRUE(Reaches(ModemState::Normal));
  EXPECT_EQ(Events(JournalEvent::StateChanged),
            (std::vector<std::string>{"restarting", "flash port", "returning", "normal"}));
}

TEST_F(VirtualModemTest, StaysInFlashModeWhenItWasToldTo) {
  Start();
  EXPECT_TRUE(pc->Modem().RebootByMbim());
  ASSERT_TRUE(Reaches(ModemState::FlashPort));
  pc->Clock().Pause(Milliseconds(60000));
  EXPECT_EQ(pc->Modem().State(), ModemState::FlashPort);
}

TEST_F(VirtualModemTest, TakesNoRebootCommandInFlashMode) {
  options.initialState = ModemState::FlashPort;
  Start();
  EXPECT_FALSE(pc->Modem().RebootByMbim());
}

TEST_F(VirtualModemTest, TakesTheAtCommandOnlyWhole) {
  options.timing.leaving = std::chrono::hours(1);
  Start();
  pc->Modem().HearAtBytes(Bytes("at+xlog=4"));
  EXPECT_EQ(pc->Modem().State(), ModemState::Normal);
  EXPECT_EQ(pc->Modem().HearAtBytes(Bytes("\r")), "\r\nOK\r\n");
  EXPECT_EQ(pc->Modem().State(), ModemState::Leaving);
}

TEST_F(VirtualModemTest, AFlashPortThatIsMissingOnceComesAfterAReset) {
  options.faults.modem.flashPortMissing = Occurrence::Times(1);
  Start();
  pc->Modem().RebootByMbim();
  EXPECT_FALSE(Reaches(ModemState::FlashPort));
  pc->Modem().ResetBaseband();
  EXPECT_TRUE(Reaches(ModemState::FlashPort));
}

class ModemReturnTest : public VirtualModemTest {
 protected:
  void FlashAndReset() {
    options.initialState = ModemState::FlashPort;
    Start();
    const auto session = OpenAndBoot();
    ASSERT_TRUE(WriteFirstItem(session, image));
    ASSERT_TRUE(pc->Modem().ForceReset(session));
  }
};

TEST_F(ModemReturnTest, ComesBackLate) {
  options.faults.modem.returnDelay = Milliseconds(200000);
  FlashAndReset();
  const auto before = pc->Clock().Now();
  EXPECT_TRUE(Reaches(ModemState::Normal, std::chrono::hours(10)));
  EXPECT_GE((pc->Clock().Now() - before).count(), 100000);
}

TEST_F(ModemReturnTest, ComesBackWhenTheProductGaveUpWaiting) {
  options.faults.modem.returnsAtLastCheck = true;
  FlashAndReset();
  EXPECT_FALSE(Reaches(ModemState::Normal));
  const UniqueHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  platform.Wait(event.get(), 23000);
  EXPECT_EQ(pc->Modem().State(), ModemState::Normal);
}

TEST_F(ModemReturnTest, ComesBackAfterSoManyResets) {
  options.faults.modem.returnsAfterResets = 2;
  FlashAndReset();
  pc->Modem().ResetBaseband();
  EXPECT_FALSE(Reaches(ModemState::Normal));
  pc->Modem().ResetBaseband();
  EXPECT_TRUE(Reaches(ModemState::Normal));
}

TEST_F(ModemReturnTest, NeverComesBack) {
  options.faults.modem.neverReturns = true;
  FlashAndReset();
  pc->Modem().ResetBaseband();
  EXPECT_FALSE(Reaches(ModemState::Normal));
}

}  // namespace

}  // namespace simulator
