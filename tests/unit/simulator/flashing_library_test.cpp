#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <ostream>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "unit/simulator/simulation_test.h"

using corvel::OwnFileHandle;
using corvel::UniqueHandle;

namespace simulator {

namespace {

struct Report {
  std::int32_t status;
  std::string text;
};

std::vector<Report> g_reports;

void Remember(std::uint8_t, std::int32_t status, const char* text) {
  g_reports.push_back({status, text});
}

/// The exports by the types with which the product calls them.
struct Exports {
  std::int32_t (*bootTarget)(std::uint8_t, const char*, std::uint32_t*, char*);
  std::int32_t (*closeCommPort)(std::uint8_t, char*);
  std::int32_t (*downloadCustFile)(std::uint8_t, const char*, char*);
  std::int32_t (*downloadDffsFile)(std::uint8_t, const char*, std::uint8_t, char*);
  std::int32_t (*downloadFlsFile)(std::uint8_t, const char*, char*);
  std::int32_t (*forceTargetReset)(std::uint8_t, std::uint8_t, std::uint8_t, std::uint8_t, std::uint8_t,
                                   char*);
  std::uint8_t (*nextFreeChannel)();
  std::uint32_t (*progressBars)(std::uint8_t, const char*, std::uintptr_t);
  std::int32_t (*initCallback)(void (*)(std::uint8_t, std::int32_t, const char*), char*);
  std::int32_t (*openCommPort)(std::uint8_t, const char*, const char*, std::uint32_t, char*);
  std::int32_t (*setParameter)(std::uint8_t, std::uintptr_t, char*);
  std::int32_t (*flashTechnology)(const char*, std::uint32_t*);
  std::int32_t (*memoryClass)(const char*, std::uint32_t, std::uint32_t*);
  std::int32_t (*itemCount)(const char*, std::uint32_t*);
};

class FlashingLibraryTest : public SimulationTest {
 protected:
  ~FlashingLibraryTest() override {
    if (library != nullptr) platform.Free(library);
  }

  /// Starts with the modem in flash mode, the library loaded and an image on disk.
  void StartAndLoad(const ImagePlan& plan = SmallImagePlan(3), ImageDamage damage = ImageDamage::None) {
    options.initialState = ModemState::FlashPort;
    options.timing.bytesPerSecond = 1'000'000'000;
    Start();
    g_reports.clear();
    image = BuildImage(plan, damage);
    path = (options.folder / "image.fls").string();
    ASSERT_TRUE(SaveImageFile(image, path));
    library = platform.Load(L"Firmwareflashdownload.dll");
    ASSERT_NE(library, nullptr);
    Resolve(exports.bootTarget, "_ZEMO_DL_boot_target");
    Resolve(exports.closeCommPort, "_ZEMO_DL_close_comm_port");
    Resolve(exports.downloadCustFile, "_ZEMO_DL_download_cust_file");
    Resolve(exports.downloadDffsFile, "_ZEMO_DL_download_dffs_file");
    Resolve(exports.downloadFlsFile, "_ZEMO_DL_download_fls_file");
    Resolve(exports.forceTargetReset, "_ZEMO_DL_force_target_reset");
    Resolve(exports.nextFreeChannel, "_ZEMO_get_next_free_channel");
    Resolve(exports.progressBars, "_ZEMO_DL_dll_get_nof_progressbars");
    Resolve(exports.initCallback, "_ZEMO_DL_init_callback");
    Resolve(exports.openCommPort, "_ZEMO_DL_open_comm_port");
    Resolve(exports.setParameter, "_ZEMO_DL_set_dll_parameter");
    Resolve(exports.flashTechnology, "_ZEMO_DL_TOC_get_flash_technogy");
    Resolve(exports.memoryClass, "_ZEMO_DL_TOC_get_memory_class");
    Resolve(exports.itemCount, "_ZEMO_DL_TOC_get_nof_items");
  }
  template <typename Function>
  void Resolve(Function& function, const char* name) {
    function = reinterpret_cast<Function>(platform.Address(library, name));
  }

  std::int32_t Open() {
    channel = exports.nextFreeChannel();
    const std::wstring wide = Interfaces(kSerialClass).back();
    const std::string port = std::filesystem::path(wide).string();
    return exports.openCommPort(channel, port.c_str(), port.c_str(), 921600, status.data());
  }
  std::int32_t Boot() {
    std::uint32_t word = 0;
    return exports.bootTarget(channel, path.c_str(), &word, status.data());
  }
  void OpenAndBoot() {
    ASSERT_EQ(exports.initCallback(&Remember, status.data()), 0);
    ASSERT_EQ(Open(), 0) << status.data();
    ASSERT_EQ(Boot(), 0) << status.data();
  }
  /// Opens the image so that nobody else can.
  UniqueHandle OpenAlone() const {
    return OwnFileHandle(::CreateFileA(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  }
  std::string Name(std::size_t index) const { return "|" + std::to_string(index) + "|" + path; }
  std::int32_t Download(std::size_t index) {
    const std::string name = Name(index);
    switch (image.items.at(index).memoryClass) {
      case 1:
      case 4:
        return exports.downloadFlsFile(channel, name.c_str(), status.data());
      case 11:
        return exports.downloadDffsFile(channel, name.c_str(), 1, status.data());
      case 12:
        return exports.downloadDffsFile(channel, name.c_str(), 2, status.data());
      case 14:
        return exports.downloadDffsFile(channel, name.c_str(), 4, status.data());
      default:
        return exports.downloadCustFile(channel, name.c_str(), status.data());
    }
  }
  std::vector<std::string> Texts(std::int32_t ofStatus) const {
    std::vector<std::string> texts;
    for (const auto& report : g_reports) {
      if (report.status == ofStatus) texts.push_back(report.text);
    }
    return texts;
  }

  HMODULE library = nullptr;
  Exports exports{};
  FlashImage image;
  std::string path;
  std::uint8_t channel = 0;
  std::array<char, 512> status{};
};

TEST_F(FlashingLibraryTest, WritesMemoryEqualToTheImages) {
  StartAndLoad(ModemImagePlan());
  OpenAndBoot();
  for (std::size_t i = 0; i < image.items.size(); ++i) ASSERT_EQ(Download(i), 0) << i << status.data();
  ASSERT_EQ(exports.forceTargetReset(channel, 1, 16, 17, 0, status.data()), 0);
  const auto comparison = pc->Modem().CompareWith(&image, nullptr);
  EXPECT_TRUE(comparison.equal) << comparison.difference;
  EXPECT_EQ(comparison.bytes, 12u * 1024 * 1024);
  EXPECT_TRUE(Reaches(ModemState::Normal));
}

TEST_F(FlashingLibraryTest, AnswersTheTableOfContents) {
  StartAndLoad(ModemImagePlan());
  std::uint32_t value = 0;
  EXPECT_EQ(exports.itemCount(path.c_str(), &value), 0);
  EXPECT_EQ(value, 9u);
  EXPECT_EQ(exports.memoryClass(path.c_str(), 7, &value), 0);
  EXPECT_EQ(value, 14u);
  EXPECT_EQ(exports.flashTechnology(path.c_str(), &value), 0);
  EXPECT_EQ(value, 1u);
  EXPECT_NE(exports.memoryClass(path.c_str(), 9, &value), 0);
  EXPECT_EQ(exports.progressBars(0, Name(2).c_str(), 0), 29u);
}

TEST_F(FlashingLibraryTest, TellsPercentagesWhileItSends) {
  StartAndLoad(SmallImagePlan(3, 256 * 1024));
  OpenAndBoot();
  ASSERT_EQ(Download(0), 0);
  EXPECT_EQ(Texts(2), (std::vector<std::string>{"25", "50", "75", "100"}));
  EXPECT_THAT(Texts(4), testing::Contains("  - Sending data. (RAW mode)"));
}

/// What whoever watches the blocks of an item is told, and finds in the memory at that moment.
struct SeenBlock {
  std::uint32_t told;
  std::uint32_t inMemory;
  bool isOnSendersThread;
  bool operator==(const SeenBlock&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const SeenBlock& block) {
  return stream << block.told << " told, " << block.inMemory << " in memory, on the "
                << (block.isOnSendersThread ? "sender's thread" : "wrong thread");
}

/// How many bytes of an item are in a memory that was erased before; more than it has when something else is.
std::uint32_t BytesThere(const std::vector<std::uint8_t>& memory, const FlashImage& image) {
  const ImageItem& item = image.items.at(0);
  const auto stored = std::span(memory).subspan(item.flashOffset, item.size);
  const auto [here, there] = std::ranges::mismatch(stored, image.Bytes(item));
  const bool isErasedBehind = std::all_of(here, stored.end(), [](std::uint8_t byte) { return byte == 0xFF; });
  return isErasedBehind ? static_cast<std::uint32_t>(here - stored.begin()) : item.size + 1;
}

TEST_F(FlashingLibraryTest, SendsBlocksOfTheSizeThatTheModemTakesAndTheModemTellsOfEach) {
  StartAndLoad(SmallImagePlan(3, 2500));
  ASSERT_EQ(pc->Modem().BlockSize(), VirtualModem::kUsualBlockSize);
  std::vector<SeenBlock> seen;
  pc->Modem().TakeInBlocks(1000, [&, sender = std::this_thread::get_id()](std::uint32_t written) {
    seen.push_back({written, BytesThere(pc->Modem().Memory(), image), std::this_thread::get_id() == sender});
  });
  OpenAndBoot();
  ASSERT_EQ(Download(0), 0) << status.data();
  EXPECT_THAT(seen, testing::ElementsAre(SeenBlock{1000, 1000, true}, SeenBlock{2000, 2000, true},
                                         SeenBlock{2500, 2500, true}));
}

TEST_F(FlashingLibraryTest, TheLastBlockIsWholeWhenTheItemDividesByItsSize) {
  StartAndLoad(SmallImagePlan(3, 2000));
  std::vector<std::uint32_t> seen;
  pc->Modem().TakeInBlocks(1000, [&](std::uint32_t written) { seen.push_back(written); });
  OpenAndBoot();
  ASSERT_EQ(Download(0), 0) << status.data();
  EXPECT_THAT(seen, testing::ElementsAre(1000u, 2000u));
}

TEST_F(FlashingLibraryTest, OfABlockThatTheModemRefusesNobodyIsTold) {
  StartAndLoad(SmallImagePlan(3, 2000));
  std::vector<std::uint32_t> seen;
  pc->Modem().TakeInBlocks(1000, [&](std::uint32_t written) {
    seen.push_back(written);
    pc->Modem().ResetBaseband();
  });
  OpenAndBoot();
  EXPECT_NE(Download(0), 0);
  EXPECT_THAT(seen, testing::ElementsAre(1000u));
}

TEST_F(FlashingLibraryTest, RefusesAnItemWhoseChecksumIsWrong) {
  StartAndLoad(SmallImagePlan(3), ImageDamage::ItemChecksum);
  OpenAndBoot();
  EXPECT_NE(Download(0), 0);
  EXPECT_STREQ(status.data(), "wrong checksum");
}

TEST_F(FlashingLibraryTest, RefusesWritingBeforeBoot) {
  StartAndLoad();
  ASSERT_EQ(Open(), 0);
  EXPECT_NE(Download(0), 0);
}

TEST_F(FlashingLibraryTest, RefusesAnItemThroughTheWrongExport) {
  StartAndLoad();
  OpenAndBoot();
  EXPECT_NE(exports.downloadFlsFile(channel, Name(0).c_str(), status.data()), 0);
}

TEST_F(FlashingLibraryTest, RefusesAPortThatIsNotTheModems) {
  StartAndLoad();
  channel = exports.nextFreeChannel();
  EXPECT_NE(exports.openCommPort(channel, "COM1", "COM1", 921600, status.data()), 0);
}

TEST_F(FlashingLibraryTest, AnImageThatItCannotOpenHasNoItems) {
  StartAndLoad();
  const UniqueHandle lock = OpenAlone();
  ASSERT_NE(lock, nullptr);
  std::uint32_t value = 0;
  EXPECT_NE(exports.itemCount(path.c_str(), &value), 0);
}

TEST_F(FlashingLibraryTest, UnloadingClosesThePort) {
  StartAndLoad();
  ASSERT_EQ(Open(), 0);
  ASSERT_EQ(pc->Modem().State(), ModemState::ChannelOpen);
  platform.Free(library);
  library = nullptr;
  EXPECT_EQ(pc->Modem().State(), ModemState::FlashPort);
}

TEST_F(FlashingLibraryTest, BootIsRefusedAsOftenAsToldTo) {
  options.faults.library.calls = {BootTargetRefused(Occurrence::Times(1))};
  StartAndLoad();
  ASSERT_EQ(Open(), 0);
  EXPECT_EQ(Boot(), 1);
  EXPECT_EQ(Boot(), 0);
  EXPECT_EQ(pc->BootAttempts(), 2);
}

TEST_F(FlashingLibraryTest, TheChosenItemIsRefused) {
  options.faults.library.calls = {ItemRefused(1, Occurrence::Times(1))};
  ImagePlan plan = SmallImagePlan(3, 1024);
  plan.items.push_back({MemoryClass::Cust, 1024, 0xF00000});
  StartAndLoad(plan);
  OpenAndBoot();
  EXPECT_EQ(Download(0), 0);
  EXPECT_EQ(Download(1), 1);
  EXPECT_EQ(Download(1), 0);
}

TEST_F(FlashingLibraryTest, TheChosenParameterIsRefused) {
  options.faults.library.calls = {ParameterRefused(19)};
  StartAndLoad();
  EXPECT_EQ(exports.setParameter(18, 1, status.data()), 0);
  EXPECT_EQ(exports.setParameter(19, 0, status.data()), 1);
}

TEST_F(FlashingLibraryTest, ItemsMayHaveNoProgressBars) {
  options.faults.library.calls = {NoProgressBars()};
  StartAndLoad();
  EXPECT_EQ(exports.progressBars(0, Name(0).c_str(), 0), 0u);
}

TEST_F(FlashingLibraryTest, QueriesOfTheTableFail) {
  options.faults.library.calls = {TocQueryFails("memory_class")};
  StartAndLoad();
  std::uint32_t value = 0;
  EXPECT_EQ(exports.memoryClass(path.c_str(), 0, &value), 1);
  EXPECT_EQ(exports.itemCount(path.c_str(), &value), 0);
}

TEST_F(FlashingLibraryTest, TheForcedResetIsRefused) {
  options.faults.library.calls = {ForcedResetRefused()};
  StartAndLoad();
  OpenAndBoot();
  EXPECT_EQ(exports.forceTargetReset(channel, 1, 16, 17, 0, status.data()), 1);
  EXPECT_EQ(pc->Modem().State(), ModemState::Booted);
}

TEST_F(FlashingLibraryTest, RegistrationAnswersWhatItIsToldTo) {
  options.faults.library.calls = {CallbackRegistrationAnswers(2)};
  StartAndLoad();
  EXPECT_EQ(exports.initCallback(&Remember, status.data()), 2);
}

TEST_F(FlashingLibraryTest, ACallOutlastsTheAttemptAndKeepsTheImageLocked) {
  options.faults.library.calls = {OutlastsAttempt("_ZEMO_DL_boot_target", 1)};
  StartAndLoad();
  ASSERT_EQ(Open(), 0);
  std::int32_t result = -1;
  std::thread worker([&] { result = Boot(); });
  while (pc->BootAttempts() == 0) ::Sleep(1);
  const UniqueHandle imageFile = OpenAlone();
  EXPECT_EQ(imageFile, nullptr) << "the hanging call lets others open the image";
  const UniqueHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  platform.Wait(event.get(), 130000);
  worker.join();
  EXPECT_EQ(result, 0);
}

TEST_F(FlashingLibraryTest, TheLibraryIsMissing) {
  options.faults.library.missing = true;
  Start();
  EXPECT_EQ(platform.Load(L"C:\\somewhere\\Firmwareflashdownload.dll"), nullptr);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
}

TEST_F(FlashingLibraryTest, AnExportIsMissing) {
  options.faults.library.missingExports = {"_ZEMO_DL_boot_target"};
  StartAndLoad();
  EXPECT_EQ(exports.bootTarget, nullptr);
  EXPECT_NE(exports.closeCommPort, nullptr);
  EXPECT_EQ(platform.Address(library, "ZEMO_DL_boot_target"), nullptr);
}

TEST_F(FlashingLibraryTest, ExportsLackTheirUnderscore) {
  options.faults.library.exportsWithoutUnderscore = true;
  StartAndLoad();
  EXPECT_EQ(exports.bootTarget, nullptr);
  EXPECT_NE(platform.Address(library, "ZEMO_DL_boot_target"), nullptr);
}

struct OddProgress {
  const char* name;
  ProgressStyle style;
  std::vector<std::string> texts;
};

class OddProgressTest : public FlashingLibraryTest, public testing::WithParamInterface<OddProgress> {};

TEST_P(OddProgressTest, TellsTheseTexts) {
  options.faults.library.progress = GetParam().style;
  StartAndLoad();
  OpenAndBoot();
  ASSERT_EQ(Download(0), 0);
  EXPECT_EQ(Texts(2), GetParam().texts);
}

INSTANTIATE_TEST_SUITE_P(
    Styles, OddProgressTest,
    testing::Values(
        OddProgress{"NonNumeric", ProgressStyle::NonNumeric, {"abc", "4x", "", "+45", " 45", "100"}},
        OddProgress{"Falling", ProgressStyle::Falling, {"0", "60", "30", "100", "20", "100"}},
        OddProgress{"PastHundred", ProgressStyle::PastHundred, {"250"}},
        OddProgress{"BeforeRawMode", ProgressStyle::BeforeRawMode, {"10", "50", "90", "100"}}),
    [](const auto& style) { return std::string(style.param.name); });

TEST_F(FlashingLibraryTest, BeforeRawModeTheAnnouncementComesLast) {
  options.faults.library.progress = ProgressStyle::BeforeRawMode;
  StartAndLoad();
  OpenAndBoot();
  ASSERT_EQ(Download(0), 0);
  const auto announced = std::ranges::find(g_reports, "  - Sending data. (RAW mode)", &Report::text);
  ASSERT_NE(announced, g_reports.end());
  EXPECT_EQ(std::ranges::find(announced, g_reports.end(), 2, &Report::status), g_reports.end());
}

}  // namespace

}  // namespace simulator
