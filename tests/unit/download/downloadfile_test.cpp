#include "download/downloadfile.h"

#include <gtest/gtest.h>

using corvel::FindMemoryClass;
using corvel::MemoryClass;

namespace {

struct Row {
  std::uint32_t code;
  const char* name;
  int order;
};

class MemoryClassTest : public testing::TestWithParam<Row> {};

TEST_P(MemoryClassTest, HasItsNameAndOrder) {
  const MemoryClass& found = FindMemoryClass(GetParam().code);
  EXPECT_EQ(found.code, GetParam().code);
  EXPECT_STREQ(found.name, GetParam().name);
  EXPECT_EQ(found.downloadOrder, GetParam().order);
}

INSTANTIATE_TEST_SUITE_P(
    AllCodes, MemoryClassTest,
    testing::Values(Row{0, "Binary", 3}, Row{1, "PSI", 1}, Row{2, "SLB", 2}, Row{3, "EBL", 3},
                    Row{4, "Code", 5}, Row{5, "Cust", 10}, Row{6, "Dynamic EEP", 6}, Row{7, "Static EEP", 7},
                    Row{8, "Swap Block", 12}, Row{9, "SEC Block", 13}, Row{10, "Excep Log", 14},
                    Row{11, "Static FFS", 10}, Row{12, "Dynamic FFS", 9}, Row{13, "DSP", 8},
                    Row{14, "Root Disk", 15}, Row{15, "Cust Disk", 16}, Row{16, "User Disk", 250},
                    Row{17, "HEX Extract", 251}, Row{18, "Text", 252}, Row{19, "Certificate", 4}),
    [](const auto& row) { return "Code" + std::to_string(row.param.code); });

TEST(MemoryClassLookupTest, TakesCode20ForACertificate) {
  const MemoryClass& found = FindMemoryClass(20);
  EXPECT_EQ(found.code, 19u);
  EXPECT_STREQ(found.name, "Certificate");
  EXPECT_EQ(found.downloadOrder, 4);
}

TEST(MemoryClassLookupTest, TakesAnUnknownCodeForACertificate) {
  EXPECT_STREQ(FindMemoryClass(21).name, "Certificate");
  EXPECT_STREQ(FindMemoryClass(0xFFFFFFFF).name, "Certificate");
}

TEST(DownloadFileTest, ItemZeroIsNamedBarZeroBarPath) {
  EXPECT_EQ(CDownloadFile(2, 1, "C:\\a.fls", nullptr, 0).GetTocName(), "|0|C:\\a.fls");
}

TEST(DownloadFileTest, AnItemIsNamedByItsIndexInDecimal) {
  EXPECT_EQ(CDownloadFile(2, 1, "C:\\a.fls", nullptr, 12).GetTocName(), "|12|C:\\a.fls");
}

TEST(DownloadFileTest, KeepsWhatItWasMadeOf) {
  const CDownloadFile first(2, 1, "a", nullptr, 0);
  const CDownloadFile item(3, 4, "C:\\a.fls", &first, 1);
  EXPECT_EQ(item.GetFlashTechnology(), 3u);
  EXPECT_EQ(item.GetMemoryClass().code, 4u);
  EXPECT_EQ(item.GetFilePath(), "C:\\a.fls");
  EXPECT_EQ(item.GetFirstItem(), &first);
  EXPECT_EQ(item.getNofProgressBars, 0u);
}

}  // namespace
