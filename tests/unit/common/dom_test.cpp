#include "common/dom.h"

#include <gtest/gtest.h>

#include <string>

using corvel::OwnedBstr;
using corvel::OwnedVariant;

namespace {

const std::wstring kWithNul(L"be\0hind", 7);

TEST(OwnedBstrTest, KeepsWhatStandsBehindANul) {
  const OwnedBstr text{CTString(kWithNul)};
  EXPECT_EQ(std::wstring(text.Text()), kWithNul);
}

TEST(OwnedBstrTest, WithoutATextIsEmpty) {
  EXPECT_TRUE(OwnedBstr().Text().IsEmpty());
}

TEST(OwnedVariantTest, KeepsWhatStandsBehindANul) {
  OwnedVariant value;
  VARIANT* const received = value.Receive();
  received->vt = VT_BSTR;
  received->bstrVal = corvel::NewBstr(CTString(kWithNul));
  ASSERT_TRUE(value.IsText());
  EXPECT_EQ(std::wstring(value.Text()), kWithNul);
}

}  // namespace
