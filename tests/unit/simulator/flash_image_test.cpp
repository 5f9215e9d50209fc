#include "simulator/flash_image.h"

#include <gtest/gtest.h>

#include <numeric>

#include "support/temporary_folder.h"

namespace simulator {

TEST(FlashImageTest, ComesBackAsItWasWritten) {
  const TemporaryFolder folder;
  const auto path = folder.Path() / L"image.fls";
  const FlashImage image = BuildImage(ModemImagePlan());
  ASSERT_TRUE(SaveImageFile(image, path));
  const auto loaded = LoadImageFile(path);
  ASSERT_TRUE(loaded);
  EXPECT_EQ(loaded->file, image.file);
  ASSERT_EQ(loaded->items.size(), image.items.size());
  EXPECT_EQ(loaded->items.back().crc32, image.items.back().crc32);
}

TEST(FlashImageTest, DefaultImagesHaveTheirSizes) {
  const auto size = [](const ImagePlan& plan) {
    return std::accumulate(plan.items.begin(), plan.items.end(), 0u,
                           [](std::uint32_t sum, const auto& item) { return sum + item.size; });
  };
  EXPECT_EQ(size(ModemImagePlan()), 12u * 1024 * 1024);
  EXPECT_EQ(size(NvmImagePlan()), 200u * 1024);
}

TEST(FlashImageTest, SameSeedGivesSameBytesAndAnotherSeedOthers) {
  EXPECT_EQ(BuildImage(SmallImagePlan(7)).file, BuildImage(SmallImagePlan(7)).file);
  EXPECT_NE(BuildImage(SmallImagePlan(7)).file, BuildImage(SmallImagePlan(8)).file);
}

TEST(FlashImageTest, ChecksumIsTheUsualCrc32) {
  const std::string text = "123456789";
  EXPECT_EQ(Crc32({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}), 0xCBF43926u);
}

class DamagedImageTest : public testing::TestWithParam<ImageDamage> {};

TEST_P(DamagedImageTest, IsNoImage) {
  EXPECT_FALSE(ParseImage(BuildImage(NvmImagePlan(), GetParam()).file));
}

INSTANTIATE_TEST_SUITE_P(Kinds, DamagedImageTest,
                         testing::Values(ImageDamage::Magic, ImageDamage::HeaderChecksum,
                                         ImageDamage::TruncatedTable, ImageDamage::TruncatedData));

TEST(FlashImageTest, ADamagedItemIsFoundByItsOwnChecksumOnly) {
  const auto image = ParseImage(BuildImage(NvmImagePlan(), ImageDamage::ItemChecksum).file);
  ASSERT_TRUE(image);
  EXPECT_NE(Crc32(image->Bytes(image->items[0])), image->items[0].crc32);
}

TEST(FlashImageTest, AnEmptyFileIsNoImage) {
  EXPECT_FALSE(ParseImage({}));
}

}  // namespace simulator
