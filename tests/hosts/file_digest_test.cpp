#include "hosts/common/file_digest.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "hosts/common/owners.h"
#include "support/temporary_folder.h"

namespace hosts {

namespace {

class FileDigestTest : public testing::Test {
 protected:
  FileDigest DigestOfFileWith(const std::string& bytes) const {
    return DigestOf(folder.Write(L"file", bytes));
  }

  TemporaryFolder folder;
};

TEST_F(FileDigestTest, IsTheSha256OfItsBytes) {
  const FileDigest digest = DigestOfFileWith("abc");
  EXPECT_EQ(digest.error, static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_EQ(digest.sha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(FileDigestTest, OfAnEmptyFile) {
  EXPECT_EQ(DigestOfFileWith("").sha256, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

/// A million times "a", and more than is read at once.
TEST_F(FileDigestTest, OfAFileThatIsReadInPieces) {
  EXPECT_EQ(DigestOfFileWith(std::string(1'000'000, 'a')).sha256,
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(DigestOfFileWith(std::string(3 * 1024 * 1024 + 1, '\0')).sha256,
            "5983281b51c767c831104f52c95e4075f27e6f4fa8dd0526e3929f79176a1217");
}

TEST_F(FileDigestTest, SaysWhyAFileCannotBeRead) {
  EXPECT_EQ(DigestOf(folder.File(L"missing")).error, static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  const std::wstring path = folder.Write(L"file", "abc");
  const OwnedHandle holder(
      ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_EQ(DigestOf(path).error, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
}

}  // namespace

}  // namespace hosts
