#include "config/elementtree.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/com_apartment.h"
#include "support/fake_dom.h"
#include "support/temporary_folder.h"
#include "xmlfile/xmlfile.h"

namespace {

using Microsoft::WRL::ComPtr;
using QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class ElementTreeTest : public testing::Test {
 protected:
  HRESULT Read(std::string_view bytes) {
    CXMLFile file(folder.Write(L"tree.xml", bytes));
    IXMLDOMElement* root = nullptr;
    EXPECT_EQ(file.GetRootNode(&root), S_OK);
    return tree.Read(root);
  }

  ComApartment com;
  TemporaryFolder folder;
  CElementTree tree;
};

TEST_F(ElementTreeTest, HoldsNamesAndTextsInTheOrderOfTheNames) {
  ASSERT_EQ(Read("<r><name>value</name><empty/><deep>a<b>c</b></deep></r>"), S_OK);
  EXPECT_THAT(tree.Entries(),
              ElementsAre(Pair(L"deep", L"ac"), Pair(L"empty", L""), Pair(L"name", L"value")));
}

TEST_F(ElementTreeTest, EveryKindOfChildCounts) {
  ASSERT_EQ(Read("<r>text<!--remark--><a>1</a></r>"), S_OK);
  EXPECT_THAT(tree.Entries(),
              ElementsAre(Pair(L"#comment", L"remark"), Pair(L"#text", L"text"), Pair(L"a", L"1")));
}

TEST_F(ElementTreeTest, OfEqualNamesTheLastCounts) {
  ASSERT_EQ(Read("<r><a>1</a><a>2</a></r>"), S_OK);
  EXPECT_THAT(tree.Entries(), ElementsAre(Pair(L"a", L"2")));
}

TEST_F(ElementTreeTest, ASecondReadForgetsTheFirst) {
  ASSERT_EQ(Read("<r><a>1</a></r>"), S_OK);
  ASSERT_EQ(Read("<r><b>2</b></r>"), S_OK);
  EXPECT_THAT(tree.Entries(), ElementsAre(Pair(L"b", L"2")));
}

TEST_F(ElementTreeTest, AnElementWithoutChildrenHoldsNothing) {
  ASSERT_EQ(Read("<r/>"), S_OK);
  EXPECT_THAT(tree.Entries(), IsEmpty());
}

TEST_F(ElementTreeTest, TextsOfAllLanguagesAreKept) {
  ASSERT_EQ(Read("<r><gr\xC3\xB6\xC3\x9F"
                 "e>\xF0\x9F\x98\x80</gr\xC3\xB6\xC3\x9F"
                 "e></r>"),
            S_OK);
  EXPECT_THAT(tree.Entries(), ElementsAre(Pair(L"gr\u00F6\u00DFe", L"\U0001F600")));
}

TEST_F(ElementTreeTest, NoElementIsAFailure) {
  EXPECT_EQ(tree.Read(nullptr), E_FAIL);
}

TEST_F(ElementTreeTest, TruthHasFourSpellings) {
  ASSERT_EQ(Read("<r><a>true</a><b>TRUE</b><c>false</c><d>FALSE</d></r>"), S_OK);
  EXPECT_TRUE(tree.GetBoolean(L"a", false));
  EXPECT_TRUE(tree.GetBoolean(L"b", false));
  EXPECT_FALSE(tree.GetBoolean(L"c", true));
  EXPECT_FALSE(tree.GetBoolean(L"d", true));
}

class DefaultTest : public ElementTreeTest, public testing::WithParamInterface<const char*> {};

TEST_P(DefaultTest, AnyOtherTextGivesTheCallersDefault) {
  ASSERT_EQ(Read(std::string("<r><a>") + GetParam() + "</a></r>"), S_OK);
  EXPECT_TRUE(tree.GetBoolean(L"a", true));
  EXPECT_FALSE(tree.GetBoolean(L"a", false));
}

INSTANTIATE_TEST_SUITE_P(Texts, DefaultTest,
                         testing::Values("True", "False", "1", "0", "yes", "", "true1", "tru"));

TEST_F(ElementTreeTest, AMissingEntryGivesTheCallersDefault) {
  EXPECT_TRUE(tree.GetBoolean(L"a", true));
  EXPECT_FALSE(tree.GetBoolean(L"a", false));
}

class FailingWalkTest : public ElementTreeTest, public testing::WithParamInterface<const char*> {};

TEST_P(FailingWalkTest, LeavesTheStoreAsItWas) {
  ASSERT_EQ(Read("<r><a>1</a></r>"), S_OK);
  FakeDom dom;
  {
    CXMLFile file(L"x.xml");
    IXMLDOMElement* root = nullptr;
    ASSERT_EQ(file.GetRootNode(&root), S_OK);
    dom.Answer(GetParam(), FakeDom::kRefused);
    EXPECT_EQ(tree.Read(root), FakeDom::kRefused);
  }
  EXPECT_THAT(tree.Entries(), ElementsAre(Pair(L"a", L"1")));
  EXPECT_EQ(dom.LivingObjects(), 0);
}

INSTANTIATE_TEST_SUITE_P(Calls, FailingWalkTest,
                         testing::Values("get_childNodes", "nextNode", "get_nodeName", "get_text"));

}  // namespace
