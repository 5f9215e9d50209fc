#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "simulator/import_patch.h"
#include "support/scratch_key.h"
#include "support/test_log.h"
#include "toolkit/toolkit.h"

namespace {

using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::StrEq;

HKEY g_askedRoot = nullptr;
std::string g_askedKey;
REGSAM g_askedAccess = 0;
std::string g_scratchKey;

LSTATUS WINAPI OpenScratchKeyInstead(HKEY root, const char* subKey, DWORD options, REGSAM access, HKEY* key) {
  g_askedRoot = root;
  g_askedKey = subKey;
  g_askedAccess = access;
  return ::RegOpenKeyExA(ScratchKey::Root(), g_scratchKey.c_str(), options, access, key);
}

class ModemBranchTest : public testing::Test {
 protected:
  ModemBranchTest() { buffer.fill('#'); }

  void DriverIsCalled(const std::string& name) { StoreText(name.c_str(), name.size() + 1); }
  void StoreText(const char* bytes, std::size_t count) {
    const HKEY opened = key.Open();
    ::RegSetValueExA(opened, "DisplayName", 0, REG_SZ, reinterpret_cast<const BYTE*>(bytes),
                     static_cast<DWORD>(count));
    ::RegCloseKey(opened);
  }
  int Check() {
    return ToolKit::CheckModemBranch(ScratchKey::Root(), key.NarrowPath().c_str(), "DisplayName",
                                     buffer.data());
  }
  /// The branch detection reads the scratch key in place of the driver's.
  void RedirectDriverKey() {
    g_scratchKey = key.NarrowPath();
    patch.Replace("RegOpenKeyExA", &OpenScratchKeyInstead);
  }

  ScratchKey key;
  TestLog log;
  std::array<char, 1024> buffer;
  simulator::ImportPatch patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};

TEST_F(ModemBranchTest, ANameThatHolds4850IsTheNewerBranch) {
  DriverIsCalled("UDE driver M.2 4850 x64");
  EXPECT_EQ(Check(), 1);
  EXPECT_THAT(buffer.data(), StrEq("UDE driver M.2 4850 x64"));
}

TEST_F(ModemBranchTest, AnyOtherNameIsTheOlderBranch) {
  DriverIsCalled("UDE driver M.2 4630");
  EXPECT_EQ(Check(), 0);
}

TEST_F(ModemBranchTest, ReadingTheNameIsLogged) {
  DriverIsCalled("4630");
  Check();
  EXPECT_THAT(log.Said(), ElementsAre("ToolKit::CheckModemBranch ++\n",
                                      "ToolKit::CheckModemBranch: Read regedit successfully, data: 4630\n",
                                      "ToolKit::CheckModemBranch --\n"));
}

TEST_F(ModemBranchTest, AMissingKeyIsTheOlderBranch) {
  EXPECT_EQ(Check(), 0);
  EXPECT_THAT(buffer.data(), StrEq(""));
  EXPECT_THAT(log.Said(), ElementsAre("ToolKit::CheckModemBranch ++\n", "ToolKit::CheckModemBranch --\n"));
}

TEST_F(ModemBranchTest, AMissingValueIsTheOlderBranch) {
  key.Make();
  EXPECT_EQ(Check(), 0);
  EXPECT_THAT(buffer.data(), StrEq(""));
}

TEST_F(ModemBranchTest, ANameThatFillsTheBufferWithItsTerminatorIsReadWhole) {
  const std::string name = std::string(1019, 'x') + "4850";
  DriverIsCalled(name);
  EXPECT_EQ(Check(), 1);
  EXPECT_THAT(buffer.data(), StrEq(name));
}

TEST_F(ModemBranchTest, ANameOfTheBuffersSizeWithoutTerminatorEndsInsideTheBuffer) {
  // One more letter follows: a terminator there would be stored as well.
  StoreText(std::string(1025, 'x').c_str(), 1024);
  EXPECT_EQ(Check(), 0);
  EXPECT_THAT(buffer.data(), StrEq(std::string(1023, 'x')));
}

TEST_F(ModemBranchTest, ANameOneByteLongerThanTheBufferIsNotRead) {
  DriverIsCalled(std::string(1020, 'x') + "4850");
  EXPECT_EQ(Check(), 0);
  EXPECT_THAT(buffer.data(), StrEq(""));
}

TEST_F(ModemBranchTest, ANameLongerThanTheBufferIsNotRead) {
  DriverIsCalled("4850" + std::string(2000, 'x'));
  EXPECT_EQ(Check(), 0);
  EXPECT_THAT(buffer.data(), StrEq(""));
}

TEST_F(ModemBranchTest, DetectionReadsTheDisplayNameOfTheDriversService) {
  RedirectDriverKey();
  DriverIsCalled("4850");
  EXPECT_EQ(ToolKit::GetModemBranch(), 1);
  EXPECT_EQ(g_askedRoot, HKEY_LOCAL_MACHINE);
  EXPECT_EQ(g_askedAccess, static_cast<REGSAM>(KEY_READ));
  EXPECT_EQ(g_askedKey, "SYSTEM\\CurrentControlSet\\Services\\UDE");
  EXPECT_THAT(log.Said(), testing::Contains("\t ToolKit::GetModemBranch: Working on M.2 4850 branch\n"));
}

TEST_F(ModemBranchTest, TheBasebandResetIsUsedOnTheNewerBranch) {
  RedirectDriverKey();
  DriverIsCalled("4850");
  ToolKit::g_bIsFiveBranch = false;
  ToolKit::GetModemBranch();
  EXPECT_TRUE(ToolKit::g_bIsFiveBranch);
}

TEST_F(ModemBranchTest, TheBasebandResetIsUsedOnTheOlderBranchToo) {
  RedirectDriverKey();
  DriverIsCalled("4630");
  ToolKit::g_bIsFiveBranch = false;
  EXPECT_EQ(ToolKit::GetModemBranch(), 1);
  EXPECT_TRUE(ToolKit::g_bIsFiveBranch);
  EXPECT_THAT(log.Said(),
              IsSupersetOf({"\t ToolKit::GetModemBranch: Working on M.2 4630 branch\n",
                            "\t ToolKit::GetModemBranch: Arvo hardcode to support BBRST for all branch\n"}));
}

}  // namespace
