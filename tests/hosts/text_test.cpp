#include "hosts/common/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "simulator/import_patch.h"
#include "support/temporary_folder.h"
#include "tests/hosts/names_beyond_code_page.h"

namespace hosts {

using testing::IsEmpty;

namespace {

/// A volume that keeps no short names answers with the long one.
DWORD WINAPI NoShortName(const wchar_t* path, wchar_t* buffer, DWORD size) {
  const std::wstring text(path);
  if (size <= text.size()) return static_cast<DWORD>(text.size() + 1);
  text.copy(buffer, text.size());
  buffer[text.size()] = L'\0';
  return static_cast<DWORD>(text.size());
}

DWORD WINAPI RefusedShortName(const wchar_t*, wchar_t*, DWORD) {
  return 0;
}

TEST(AnsiPathTest, IsThePathItselfWhereTheCodePageHoldsIt) {
  const TemporaryFolder folder;
  EXPECT_EQ(AnsiPath(folder.Path().wstring() + L"\\", L"a.log"), folder.File(std::string("a.log")));
}

class AnsiPathBeyondTheCodePageTest : public testing::Test {
 protected:
  void SetUp() override {
    if (suffix.empty()) GTEST_SKIP() << "the system's code page holds every name";
  }

  std::wstring suffix = NameBeyondTheCodePage();
  TemporaryFolder folder{suffix};
  std::wstring path = folder.Path().wstring() + L"\\";
};

TEST_F(AnsiPathBeyondTheCodePageTest, GoesByTheFoldersShortName) {
  const std::string narrow = AnsiPath(path, L"a.log");
  ASSERT_FALSE(narrow.empty());
  std::ofstream(narrow.c_str()) << "here";
  EXPECT_EQ(folder.Content(L"a.log"), "here");
}

TEST_F(AnsiPathBeyondTheCodePageTest, IsEmptyWithoutAShortName) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("GetShortPathNameW", &NoShortName);
  EXPECT_THAT(AnsiPath(path, L"a.log"), IsEmpty());
}

TEST_F(AnsiPathBeyondTheCodePageTest, IsEmptyWhenTheVolumeDoesNotAnswer) {
  simulator::ImportPatch patch(::GetModuleHandleW(nullptr));
  patch.Replace("GetShortPathNameW", &RefusedShortName);
  EXPECT_THAT(AnsiPath(path, L"a.log"), IsEmpty());
}

TEST_F(AnsiPathBeyondTheCodePageTest, IsEmptyWhenTheFilesOwnNameDoesNotFit) {
  EXPECT_THAT(AnsiPath(path, suffix + L".log"), IsEmpty());
}

}  // namespace

}  // namespace hosts
