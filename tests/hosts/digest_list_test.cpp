#include "hosts/cmdline/digest_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "hosts/common/text.h"
#include "support/temporary_folder.h"

namespace hosts {

using testing::EndsWith;
using testing::IsEmpty;

namespace {

const std::string kOne(64, '1');
const std::string kTwo(64, '2');

class DigestListTest : public testing::Test {
 protected:
  DigestList ListOf(const std::string& content) const {
    return DigestList::Read(ToUtf8(folder.Write(L"digests", content)));
  }
  std::string ProblemOf(const std::string& content) const { return ListOf(content).Problem(); }

  TemporaryFolder folder;
};

TEST_F(DigestListTest, KnowsFilesByTheirNamesInAnyFolderAndCase) {
  const DigestList list = ListOf(kOne + "  modem.fls\n" + kTwo + "  build/out/NVM.fls\n");
  EXPECT_THAT(list.Problem(), IsEmpty());
  EXPECT_EQ(list.DigestOf(L"C:\\firmware\\Modem.FLS"), kOne);
  EXPECT_EQ(list.DigestOf(L"C:\\firmware\\nvm.fls"), kTwo);
  EXPECT_THAT(list.DigestOf(L"C:\\firmware\\other.fls"), IsEmpty());
  EXPECT_THAT(list.DigestOf(L"C:\\firmware\\xmodem.fls"), IsEmpty());
}

TEST_F(DigestListTest, TakesBinaryModeLinesOfWindowsAndDigestsInCapitals) {
  EXPECT_EQ(ListOf(std::string(64, 'A') + " *modem.fls\r\n\r\n").DigestOf(L"modem.fls"),
            std::string(64, 'a'));
}

TEST_F(DigestListTest, TakesAMarkOfUtf8AndNamesBeyondAscii) {
  EXPECT_EQ(ListOf("\xEF\xBB\xBF" + kOne +
                   "  m\xC3\xB6"
                   "dem.fls")
                .DigestOf(L"m\u00F6dem.fls"),
            kOne);
}

TEST_F(DigestListTest, TakesNamesWhoseBackslashesAreDoubled) {
  EXPECT_EQ(ListOf("\\" + kOne + " *C:\\\\new\\\\modem.fls\n").DigestOf(L"modem.fls"), kOne);
}

TEST_F(DigestListTest, TakesANameThatItHasTwiceOnlyWithOneDigest) {
  EXPECT_THAT(ProblemOf(kOne + "  a/modem.fls\n" + kOne + "  b/modem.fls\n"), IsEmpty());
  EXPECT_THAT(ProblemOf(kOne + "  a/modem.fls\n" + kTwo + "  b/Modem.fls\n"),
              EndsWith("digests, line 2: another digest for Modem.fls than before"));
}

TEST_F(DigestListTest, RefusesWhatIsNoLineOfSha256sum) {
  const std::string lines[] = {"modem.fls",
                               kOne,
                               kOne + "  ",
                               kOne + " modem.fls",
                               kOne + "-*modem.fls",
                               std::string(63, '1') + "  modem.fls",
                               std::string(63, '1') + "g  modem.fls",
                               "SHA256 (modem.fls) = " + kOne,
                               std::string("\xFF\xFE") + "1"};
  for (const std::string& line : lines) {
    std::string list = kOne + "  nvm.fls\n";
    list.append(line).append("\n");
    EXPECT_THAT(ProblemOf(list), EndsWith("digests, line 2: no line as sha256sum writes it")) << line;
  }
}

TEST_F(DigestListTest, RefusesAnEmptyListAndOneThatIsNotThere) {
  EXPECT_THAT(ProblemOf(""), EndsWith("digests holds no digest"));
  EXPECT_THAT(ProblemOf("\r\n\r\n"), EndsWith("digests holds no digest"));
  EXPECT_THAT(DigestList::Read(ToUtf8(folder.File(L"missing"))).Problem(),
              EndsWith("missing cannot be read"));
  EXPECT_THAT(DigestList::Read(ToUtf8(folder.Path().wstring())).Problem(), EndsWith(" cannot be read"));
}

}  // namespace

}  // namespace hosts
