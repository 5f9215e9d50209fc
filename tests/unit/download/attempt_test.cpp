#include "download/attempt.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

namespace {

using corvel::Attempt;

class AttemptTest : public testing::Test {
 protected:
  std::shared_ptr<Attempt> outer = std::make_shared<Attempt>();
  std::shared_ptr<Attempt> inner = std::make_shared<Attempt>();
};

TEST_F(AttemptTest, OfAThreadIsTheInnermostOne) {
  const Attempt::ThreadScope scope(*outer);
  {
    const Attempt::ThreadScope innerScope(*inner);
    EXPECT_EQ(Attempt::OfThisThread(), inner);
  }
  EXPECT_EQ(Attempt::OfThisThread(), outer);
}

TEST_F(AttemptTest, IsNobodysBehindItsScope) {
  { const Attempt::ThreadScope scope(*outer); }
  EXPECT_EQ(Attempt::OfThisThread(), nullptr);
}

// The flashing library asks on its own threads, in the middle of its own calls of the system.
TEST_F(AttemptTest, IsLookedUpWithoutTouchingTheLastError) {
  const Attempt::ThreadScope scope(*outer);
  ::SetLastError(ERROR_SHARING_VIOLATION);
  EXPECT_EQ(Attempt::OfThisThread(), outer);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
}

TEST_F(AttemptTest, HasANumberOfItsOwn) {
  EXPECT_NE(outer->Number(), inner->Number());
}

/// Drawn before any test begins.
const std::uint64_t g_firstNumber = corvel::flash_channel::NewAttempt();

TEST(AttemptNumberTest, IsNeverTheOneThatMeansNobodyNotEvenTheFirst) {
  EXPECT_NE(g_firstNumber, 0u);
}

}  // namespace
