// Copies of chosen images, where one that was ended by force has left a draft that may only be read.

#include "hosts/cmdline/image_copies.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hosts/common/file_digest.h"
#include "simulator/import_patch.h"
#include "support/temporary_folder.h"

namespace hosts {

namespace {

bool MayOnlyBeRead(const wchar_t* path) {
  const DWORD attributes = ::GetFileAttributesW(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY) != 0;
}

BOOL Copy(const wchar_t* from, const wchar_t* to) {
  // Past this program's imports, which are replaced.
  static const auto copyFile = reinterpret_cast<decltype(&::CopyFileW)>(
      ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "CopyFileW"));
  return copyFile(from, to, FALSE);
}

/// The system's own answer, whoever asks: some of its likenesses let administrators write over anything.
BOOL WINAPI CopyUnlessProtected(LPCWSTR from, LPCWSTR to, BOOL) {
  if (!MayOnlyBeRead(to)) return Copy(from, to);
  ::SetLastError(ERROR_ACCESS_DENIED);
  return FALSE;
}

BOOL WINAPI BreakOffCopy(LPCWSTR from, LPCWSTR to, BOOL) {
  Copy(from, to);
  ::SetFileAttributesW(to, FILE_ATTRIBUTE_READONLY);
  ::SetLastError(ERROR_DISK_FULL);
  return FALSE;
}

class ImageCopiesTest : public testing::Test {
 protected:
  void SetUp() override {
    folder.Write(L"brought.fls", "an image");
    image = {.file = {folder.File(std::wstring(L"brought.fls")), 8},
             .sha256 = DigestOf(folder.File(std::wstring(L"brought.fls"))).sha256};
    ASSERT_TRUE(::CreateDirectoryW(target.c_str(), nullptr));
  }

  TemporaryFolder folder;
  std::wstring target = folder.File(std::wstring(L"configured"));
  std::wstring draft = target + L"\\brought.fls.copying";
  ChosenImage image;
  simulator::ImportPatch patch{::GetModuleHandleW(nullptr)};
};

TEST_F(ImageCopiesTest, WriteOverADraftThatMayOnlyBeRead) {
  ASSERT_TRUE(Copy(image.file.path.c_str(), draft.c_str()));
  ASSERT_TRUE(::SetFileAttributesW(draft.c_str(), FILE_ATTRIBUTE_READONLY));
  patch.Replace("CopyFileW", &CopyUnlessProtected);
  ImageCopies copies;
  const auto error = copies.Make({image}, target);
  EXPECT_FALSE(error) << error->message;
  EXPECT_EQ(DigestOf(target + L"\\brought.fls").sha256, image.sha256);
}

TEST_F(ImageCopiesTest, LeaveNoDraftThatMayOnlyBeRead) {
  patch.Replace("CopyFileW", &BreakOffCopy);
  {
    ImageCopies copies;
    EXPECT_TRUE(copies.Make({image}, target));
    EXPECT_TRUE(MayOnlyBeRead(draft.c_str()));
  }
  EXPECT_EQ(::GetFileAttributesW(draft.c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(ImageCopiesTest, TakeBackADraftThatMayOnlyBeRead) {
  patch.Replace("CopyFileW", &BreakOffCopy);
  ImageCopies copies;
  EXPECT_TRUE(copies.Make({image}, target));
  EXPECT_TRUE(copies.TakeBack().empty());
  EXPECT_EQ(::GetFileAttributesW(draft.c_str()), INVALID_FILE_ATTRIBUTES);
}

}  // namespace

}  // namespace hosts
