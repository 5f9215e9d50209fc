#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "support/flash_bench.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;

class ProgressTest : public testing::Test {
 protected:
  /// Has an image with items of so many progress steps each written, of which the library reports these
  /// percentages. @return the value of "Flash_Progress" behind each report.
  std::vector<int> Write(const std::vector<std::uint32_t>& bars,
                         const std::vector<std::vector<const char*>>& percentages) {
    const std::string image = bench.AddImage(L"modem.fls", std::vector<std::uint32_t>(bars.size(), 1));
    std::vector<int> progress;
    for (std::size_t i = 0; i < bars.size(); ++i) {
      const std::string item = FlashBench::Item(static_cast<int>(i), image);
      bench.library.bars[item] = bars[i];
      if (i >= percentages.size()) continue;
      bench.library.during["download_fls_file(7, " + item + ")"] = [this, &progress, all = percentages[i]] {
        bench.library.ReportSending();
        for (const char* percentage : all) {
          bench.library.ReportPercent(percentage);
          progress.push_back(bench.Registry(L"Flash_Progress"));
        }
      };
    }
    bench.modem.Become(FakeModem::Mode::Flash);
    EXPECT_EQ(FlashBench::Download(image), FirmwareUpdated);
    return progress;
  }

  FlashBench bench;
};

struct Vector {
  std::uint32_t bars;
  std::uint32_t allBars;
  const char* percent;
  int progress;
};

// In double precision these would all be one more.
class RoundingTest : public ProgressTest, public testing::WithParamInterface<Vector> {};

TEST_P(RoundingTest, RoundsTheShareInSinglePrecision) {
  const Vector& row = GetParam();
  EXPECT_THAT(Write({row.bars, row.allBars - row.bars}, {{row.percent}}), ElementsAre(row.progress));
}

INSTANTIATE_TEST_SUITE_P(Halves, RoundingTest,
                         testing::Values(Vector{1, 6, "15", 2}, Vector{1, 6, "27", 4}, Vector{1, 6, "51", 8},
                                         Vector{1, 12, "30", 2}));

TEST_F(ProgressTest, RoundsHalvesUp) {
  EXPECT_THAT(Write({1, 1}, {{"1", "3", "4"}}), ElementsAre(1, 2, 2));
}

TEST_F(ProgressTest, OfOneItemIsItsOwnPercentage) {
  EXPECT_THAT(Write({5}, {{"0", "45", "100"}}), ElementsAre(0, 45, 100));
}

TEST_F(ProgressTest, AddsUpOverTheItems) {
  EXPECT_THAT(Write({1, 3}, {{"0", "100"}, {"0", "50", "100"}}), ElementsAre(0, 25, 25, 63, 100));
}

TEST_F(ProgressTest, NeverDecreasesButADropMovesTheReference) {
  EXPECT_THAT(Write({1}, {{"50", "20", "60"}}), ElementsAre(50, 50, 90));
}

TEST_F(ProgressTest, NeverExceeds100ThoughTheCounterDoes) {
  EXPECT_THAT(Write({1}, {{"100", "250", "10", "60"}}), ElementsAre(100, 100, 100, 100));
  EXPECT_TRUE(bench.HasSaid("\t return m_CurrentProgress:300"));
}

TEST_F(ProgressTest, SurvivesTheHighestNumbersThereAre) {
  EXPECT_THAT(Write({1}, {{"2147483647", "-2147483648", "2147483647"}}), Each(100));
}

TEST_F(ProgressTest, TakesATextThatIsNoNumberForZero) {
  EXPECT_THAT(Write({1}, {{"abc", "", "%5"}}), Each(0));
}

TEST_F(ProgressTest, TakesTheLeadingDigitsOfAText) {
  EXPECT_THAT(Write({1}, {{"45%"}}), ElementsAre(45));
}

TEST_F(ProgressTest, TakesALeadingBlankOrPlusForNoNumber) {
  EXPECT_THAT(Write({1}, {{" 45", "+45"}}), Each(0));
}

TEST_F(ProgressTest, DoesNotClampANumberThatIsTooLarge) {
  EXPECT_THAT(Write({1}, {{"4294967296"}}), ElementsAre(0));
}

TEST_F(ProgressTest, NegativePercentageReportsNothing) {
  EXPECT_THAT(Write({1}, {{"-45", "10"}}), ElementsAre(0, 55));
}

TEST_F(ProgressTest, TellsItsCalculation) {
  Write({1, 1}, {{"50"}});
  EXPECT_THAT(bench.Said({"attempt.cpp"}),
              ElementsAre("\t downloadProgress:50, m_DownloadingFile->getNofProgressBars():1, "
                          "m_ProgressBars:2,totalProgress:25  ",
                          "\t actualProgress:25, m_LastProgressUpdate:25", "\t return m_CurrentProgress:25"));
}

TEST_F(ProgressTest, TellsNoCalculationWhileNothingIsWritten) {
  CFirmwareDownloader::GetInstance();
  bench.library.ReportSending();
  bench.library.ReportPercent("50");
  EXPECT_THAT(bench.Said({"attempt.cpp"}), ElementsAre("\t return m_CurrentProgress:0"));
}

TEST_F(ProgressTest, BeginsAnewWithANewEngine) {
  EXPECT_THAT(Write({1}, {{"57"}}), ElementsAre(57));
  CFirmwareDownloader::Unload();
  EXPECT_THAT(Write({1}, {{"1"}}), ElementsAre(1));
}

TEST_F(ProgressTest, GoesOnFromWhereItWasWithTheSameEngine) {
  EXPECT_THAT(Write({1}, {{"57"}}), ElementsAre(57));
  EXPECT_THAT(Write({1}, {{"60"}}), ElementsAre(57));
}

}  // namespace
