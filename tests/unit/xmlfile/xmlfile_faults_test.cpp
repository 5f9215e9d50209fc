#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "common/dom.h"
#include "support/fake_dom.h"
#include "support/test_log.h"
#include "xmlfile/xmlfile.h"

namespace {

using Microsoft::WRL::ComPtr;
using QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile;
using QUENTA::Brevant::Interfaces::ToolkitCore::XML_NAME_VALUE;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr HRESULT kRefused = FakeDom::kRefused;

std::vector<LogRecord> Errors(const TestLog& log) {
  std::vector<LogRecord> errors;
  for (const LogRecord& record : log.Records()) {
    if (record.level == "Error") errors.push_back(record);
  }
  return errors;
}

VARIANT Number(int number) {
  VARIANT value;
  ::VariantInit(&value);
  value.vt = VT_I4;
  value.lVal = number;
  return value;
}

/// A file to act on, and made-up nodes.
struct Stage {
  explicit Stage(FakeDom& dom) : node(dom.Element()), list(dom.List()), out(node.Get()) {}

  CXMLFile file{L"C:\\made-up.xml"};
  ComPtr<IXMLDOMNode> node;
  ComPtr<IXMLDOMNodeList> list;
  /// An out pointer that holds something before a call.
  IXMLDOMNode* out;
  bool outIsUsed = false;
};

/// What an operation does when one call of the document object model fails.
struct FailingCall {
  const char* name;
  const char* call;
  std::function<long(Stage&)> act;
  long result;
  const char* function;
  const char* message;
};

std::ostream& operator<<(std::ostream& out, const FailingCall& failing) {
  return out << failing.name;
}

IXMLDOMNode** Out(Stage& stage) {
  stage.outIsUsed = true;
  return &stage.out;
}

long Load(Stage& stage) {
  IXMLDOMElement* root = nullptr;
  const HRESULT result = stage.file.GetRootNode(&root);
  EXPECT_EQ(root, nullptr);
  EXPECT_EQ(stage.file.GetNodesCount(), -1);
  return result;
}

long GetChildren(Stage& stage) {
  ComPtr<IXMLDOMNodeList> children;
  long count = 99;
  const HRESULT result = stage.file.GetChildNodesOfNode(stage.node.Get(), children.GetAddressOf(), count);
  EXPECT_EQ(children.Get(), nullptr);
  EXPECT_EQ(count, 0);
  return result;
}

long GetName(Stage& stage) {
  CTString name(L"before");
  const HRESULT result = stage.file.GetNameForNode(stage.node.Get(), name);
  EXPECT_TRUE(name == L"before");
  return result;
}

long GetNodeText(Stage& stage) {
  CTString text(L"before");
  const HRESULT result = stage.file.GetTextForNode(stage.node.Get(), text);
  EXPECT_TRUE(text == L"before");
  return result;
}

long GetAttribute(Stage& stage) {
  CTString value(L"before");
  const HRESULT result = stage.file.GetAttributeForNode(stage.node.Get(), L"key", value);
  EXPECT_TRUE(value == L"before");
  return result;
}

long Count(Stage& stage) {
  EXPECT_EQ(stage.file.GetRootNode(nullptr), S_OK);
  return stage.file.GetNodesCount();
}

long IsNth(Stage& stage) {
  ComPtr<IXMLDOMNode> item;
  return stage.file.IsNthNodeAnElementWithName(0, L"first", item.GetAddressOf(), stage.list.Get());
}

const FailingCall kFailingCalls[] = {
    {"InitializeDOM_Create", "CoCreateInstance", [](Stage& stage) { return stage.file.InitializeDOM(); },
     kRefused, "InitializeDOM", "CoCreateInstance(IID_IXMLDOMDocument) failed with 8000beef:"},
    {"InitializeDOM_Async", "put_async off", [](Stage& stage) { return stage.file.InitializeDOM(); },
     kRefused, "InitializeDOM", "IXMLDOMDocument::put_async() failed with: 8000beef"},
    {"InitializeDOM_Validation", "put_validateOnParse off",
     [](Stage& stage) { return stage.file.InitializeDOM(); }, kRefused, "InitializeDOM",
     "IXMLDOMDocument::put_validateOnParse() failed with: 8000beef"},
    {"InitializeDOM_Externals", "put_resolveExternals off",
     [](Stage& stage) { return stage.file.InitializeDOM(); }, kRefused, "InitializeDOM",
     "IXMLDOMDocument::put_resolveExternals() failed with: 8000beef"},
    {"InitializeDOM_WhiteSpace", "put_preserveWhiteSpace off",
     [](Stage& stage) { return stage.file.InitializeDOM(); }, kRefused, "InitializeDOM",
     "IXMLDOMDocument::put_preserveWhiteSpace() failed with: 8000beef"},

    {"GetRootNode_Create", "CoCreateInstance", Load, E_FAIL, "InitializeDOM",
     "CoCreateInstance(IID_IXMLDOMDocument) failed with 8000beef:"},
    {"GetRootNode_Load", "load", Load, E_FAIL, "GetRootNode",
     "IXMLDOMDocument::load(C:\\made-up.xml) failed with: 8000beef"},
    {"GetRootNode_Element", "get_documentElement", Load, kRefused, "GetRootNode",
     "IXMLDOMDocument::get_documentElement(C:\\made-up.xml) failed with: 8000beef"},
    {"GetRootNode_Children", "get_childNodes", Load, kRefused, "GetRootNode",
     "IXMLDOMElement::get_childNodes(C:\\made-up.xml) failed with: 8000beef"},

    {"GetNodesCount_Length", "get_length", Count, -1, "GetNodesCount",
     "IXMLDOMNodeList::get_length() failed with: 8000beef"},
    {"GetChildNodesOfNode_Children", "get_childNodes", GetChildren, kRefused, "GetChildNodesOfNode",
     "IXMLDOMNode::get_childNodes() failed: 8000beef"},
    {"GetChildNodesOfNode_Length", "get_length", GetChildren, kRefused, "GetChildNodesOfNode",
     "IXMLDOMNodeList::get_length() failed with: 8000beef"},
    {"GetNodeAtIndex_Item", "get_item",
     [](Stage& stage) { return stage.file.GetNodeAtIndex(7, Out(stage), stage.list.Get()); }, kRefused,
     "GetNodeAtIndex", "IXMLDOMNodeList::get_item(7) failed with: 8000beef"},
    {"GetNameForNode_Name", "get_nodeName", GetName, kRefused, "GetNameForNode",
     "IXMLDOMNode::get_nodeName() failed with: 8000beef"},
    {"GetTextForNode_Text", "get_text", GetNodeText, kRefused, "GetTextForNode",
     "IXMLDOMNode::get_text() failed with: 8000beef"},
    {"DoesNodeNameEquals_Name", "get_nodeName",
     [](Stage& stage) { return long{stage.file.DoesNodeNameEquals(stage.node.Get(), L"first")}; }, false,
     "DoesNodeNameEquals", "IXMLDOMNode::get_nodeName() failed with: 8000beef"},
    {"IsNthNode_Item", "get_item", IsNth, false, "GetNodeAtIndex",
     "IXMLDOMNodeList::get_item(0) failed with: 8000beef"},
    {"IsNthNode_Type", "get_nodeType", IsNth, false, "IsNthNodeAnElementWithName",
     "IXMLDOMNode::get_nodeType() failed with: 8000beef"},
    {"IsNthNode_Name", "get_nodeName", IsNth, false, "DoesNodeNameEquals",
     "IXMLDOMNode::get_nodeName() failed with: 8000beef"},
    {"GetAttributeForNode_Attributes", "get_attributes", GetAttribute, kRefused, "GetAttributeForNode",
     "IXMLDOMNode::get_attributes() failed with: 8000beef"},
    {"GetAttributeForNode_Item", "getNamedItem", GetAttribute, kRefused, "GetAttributeForNode",
     "IXMLDOMNamedNodeMap::getNamedItem(key) failed with: 8000beef"},
    {"GetAttributeForNode_Value", "get_nodeValue", GetAttribute, kRefused, "GetAttributeForNode",
     "IXMLDOMNode::get_nodeValue() failed with: 8000beef"},
    {"FindNodeWithAttributeValue_Next", "nextNode",
     [](Stage& stage) {
       return stage.file.FindNodeWithAttributeValue(stage.list.Get(), L"key", L"attribute value", Out(stage));
     },
     kRefused, "FindNodeWithAttributeValue", "IXMLDOMNodeList::nextNode() failed with: 8000beef"},

    {"CreateAndAddPINode_Create", "createProcessingInstruction",
     [](Stage& stage) { return stage.file.CreateAndAddPINode(); }, kRefused, "CreateAndAddPINode",
     "IXMLDOMDocument::createProcessingInstruction() failed with: 8000beef"},
    {"CreateAndAddPINode_Append", "appendChild", [](Stage& stage) { return stage.file.CreateAndAddPINode(); },
     kRefused, "CreateAndAddPINode", "IXMLDOMDocument::appendChild() failed with: 8000beef"},
    {"CreateAndAddNode_Create", "createNode",
     [](Stage& stage) { return stage.file.CreateAndAddNode(L"name", Out(stage), stage.node.Get()); },
     kRefused, "CreateAndAddNode", "IXMLDOMDocument::createNode(name) failed with: 8000beef"},
    {"CreateAndAddNode_Append", "appendChild",
     [](Stage& stage) { return stage.file.CreateAndAddNode(L"name", Out(stage), stage.node.Get()); },
     kRefused, "CreateAndAddNode", "IXMLDOMDocument::appendChild(name) failed with: 8000beef"},
    {"CreateRootNode_Create", "CoCreateInstance",
     [](Stage& stage) { return stage.file.CreateRootNode(L"name", Out(stage)); }, E_FAIL, "InitializeDOM",
     "CoCreateInstance(IID_IXMLDOMDocument) failed with 8000beef:"},
    {"CreateRootNode_Declaration", "createProcessingInstruction",
     [](Stage& stage) { return stage.file.CreateRootNode(L"name", Out(stage)); }, E_FAIL,
     "CreateAndAddPINode", "IXMLDOMDocument::createProcessingInstruction() failed with: 8000beef"},
    {"CreateRootNode_Root", "createNode",
     [](Stage& stage) { return stage.file.CreateRootNode(L"name", Out(stage)); }, E_FAIL, "CreateAndAddNode",
     "IXMLDOMDocument::createNode(name) failed with: 8000beef"},
    {"CreateRootNode_Element", "QueryInterface",
     [](Stage& stage) { return stage.file.CreateRootNode(L"name", Out(stage)); }, E_FAIL, "CreateRootNode",
     "IXMLDOMNode::QueryInterface(IID_IXMLDOMElement) failed with: 8000beef"},
    {"CreateRootNodeWithSchema_Root", "createNode",
     [](Stage& stage) { return stage.file.CreateRootNode(L"name", L"a.xsd", Out(stage)); }, E_FAIL,
     "CreateAndAddNode", "IXMLDOMDocument::createNode(name) failed with: 8000beef"},
    {"CreateRootNodeWithSchema_Attribute", "createAttribute",
     [](Stage& stage) { return stage.file.CreateRootNode(L"name", L"a.xsd", Out(stage)); }, E_FAIL,
     "AddAttributeToNode", "IXMLDOMDocument::createAttribute(xmlns:xsi) failed with: 8000beef"},

    {"AddAttributeToNode_Create", "createAttribute",
     [](Stage& stage) { return stage.file.AddAttributeToNode(L"key", Number(1), stage.node.Get()); },
     kRefused, "AddAttributeToNode", "IXMLDOMDocument::createAttribute(key) failed with: 8000beef"},
    {"AddAttributeToNode_Value", "put_value",
     [](Stage& stage) { return stage.file.AddAttributeToNode(L"key", Number(1), stage.node.Get()); },
     kRefused, "AddAttributeToNode", "IXMLDOMAttribute::put_value(key) failed with: 8000beef"},
    {"AddAttributeToNode_Map", "get_attributes",
     [](Stage& stage) { return stage.file.AddAttributeToNode(L"key", Number(1), stage.node.Get()); },
     kRefused, "AddAttributeToNode", "IXMLDOMNode::get_attributes() failed with: 8000beef"},
    {"AddAttributeToNode_Add", "setNamedItem",
     [](Stage& stage) { return stage.file.AddAttributeToNode(L"key", Number(1), stage.node.Get()); },
     kRefused, "AddAttributeToNode", "IXMLDOMNamedNodeMap::setNamedItem(key) failed with: 8000beef"},
    {"CreateAttributeForNode_Create", "createAttribute",
     [](Stage& stage) { return stage.file.CreateAttributeForNode(L"key", L"value", stage.node.Get()); },
     kRefused, "AddAttributeToNode", "IXMLDOMDocument::createAttribute(key) failed with: 8000beef"},
    {"CreateAttributeNode_Element", "createNode",
     [](Stage& stage) {
       return stage.file.CreateAttributeNode(L"name", L"key", L"value", stage.node.Get(), Out(stage));
     },
     kRefused, "CreateAndAddNode", "IXMLDOMDocument::createNode(name) failed with: 8000beef"},
    {"CreateAttributeNode_Attribute", "createAttribute",
     [](Stage& stage) {
       return stage.file.CreateAttributeNode(L"name", L"key", L"value", stage.node.Get(), Out(stage));
     },
     kRefused, "AddAttributeToNode", "IXMLDOMDocument::createAttribute(key) failed with: 8000beef"},
    {"CreateNode_Create", "createNode",
     [](Stage& stage) { return stage.file.CreateNode(L"name", stage.node.Get(), Out(stage)); }, kRefused,
     "CreateAndAddNode", "IXMLDOMDocument::createNode(name) failed with: 8000beef"},
    {"CreateNodeWithValue_Create", "createNode",
     [](Stage& stage) { return stage.file.CreateNode(L"name", Number(1), stage.node.Get(), Out(stage)); },
     kRefused, "CreateAndAddNode", "IXMLDOMDocument::createNode(name) failed with: 8000beef"},
    {"CreateNodeWithValue_Value", "put_nodeTypedValue",
     [](Stage& stage) { return stage.file.CreateNode(L"name", Number(1), stage.node.Get(), Out(stage)); },
     kRefused, "CreateNode", "IXMLDOMNode::put_nodeTypedValue(name) failed with: 8000beef"},
    {"CreateTextNode_Create", "createNode",
     [](Stage& stage) { return stage.file.CreateTextNode(L"name", L"text", stage.node.Get(), Out(stage)); },
     kRefused, "CreateAndAddNode", "IXMLDOMDocument::createNode(name) failed with: 8000beef"},
    {"CreateTextNode_Text", "put_text",
     [](Stage& stage) { return stage.file.CreateTextNode(L"name", L"text", stage.node.Get(), Out(stage)); },
     kRefused, "CreateTextNode", "IXMLDOMNode::put_text(name) failed with: 8000beef"},
    {"CreateNodes_Create", "createNode",
     [](Stage& stage) {
       return stage.file.CreateNodes({{L"a", L"1", VT_UI2}, {L"b", L"2", VT_UI2}}, stage.node.Get());
     },
     E_FAIL, "CreateAndAddNode", "IXMLDOMDocument::createNode(a) failed with: 8000beef"},
    {"CreateNodes_Value", "put_nodeTypedValue",
     [](Stage& stage) {
       return stage.file.CreateNodes({{L"a", L"1", VT_UI2}, {L"b", L"2", VT_UI2}}, stage.node.Get());
     },
     E_FAIL, "CreateNode", "IXMLDOMNode::put_nodeTypedValue(a) failed with: 8000beef"},
    {"SaveDocumentToFile_Save", "save", [](Stage& stage) { return stage.file.SaveDocumentToFile(); },
     kRefused, "SaveDocumentToFile", "IXMLDOMDocument::save(C:\\made-up.xml) failed with: -2147434769"},
};

class FailingCallTest : public testing::TestWithParam<FailingCall> {};

TEST_P(FailingCallTest, GivesItsResultAndOneErrorRecordAndHoldsNothing) {
  const FailingCall& failing = GetParam();
  const TestLog log;
  FakeDom dom;
  {
    Stage stage(dom);
    ASSERT_EQ(stage.file.CreateRootNode(L"root", nullptr), S_OK);
    dom.Answer(failing.call, kRefused);
    EXPECT_EQ(failing.act(stage), failing.result);
    EXPECT_EQ(stage.out, stage.outIsUsed ? nullptr : stage.node.Get());
  }
  EXPECT_EQ(dom.LivingObjects(), 0);

  const std::vector<LogRecord> errors = Errors(log);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].message, failing.message);
  EXPECT_EQ(errors[0].function,
            std::string("QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile::") + failing.function);
  EXPECT_EQ(errors[0].file, "xmlfile.cpp");
}

INSTANTIATE_TEST_SUITE_P(EachCall, FailingCallTest, testing::ValuesIn(kFailingCalls),
                         [](const auto& row) { return row.param.name; });

/// An operation whose calls are to fail in turn.
struct Operation {
  const char* name;
  std::function<long(Stage&)> act;
};

std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  return out << operation.name;
}

const Operation kOperations[] = {
    {"InitializeDOM", [](Stage& stage) { return stage.file.InitializeDOM(); }},
    {"GetRootNode", [](Stage& stage) { return stage.file.GetRootNode(nullptr); }},
    {"GetChildNodesOfNode",
     [](Stage& stage) {
       ComPtr<IXMLDOMNodeList> children;
       long count = 0;
       return stage.file.GetChildNodesOfNode(stage.node.Get(), children.GetAddressOf(), count);
     }},
    {"GetNodeAtIndex",
     [](Stage& stage) { return stage.file.GetNodeAtIndex(0, Out(stage), stage.list.Get()); }},
    {"GetNameForNode",
     [](Stage& stage) {
       CTString name;
       return stage.file.GetNameForNode(stage.node.Get(), name);
     }},
    {"GetTextForNode",
     [](Stage& stage) {
       CTString text;
       return stage.file.GetTextForNode(stage.node.Get(), text);
     }},
    {"GetAttributeForNode",
     [](Stage& stage) {
       CTString value;
       return stage.file.GetAttributeForNode(stage.node.Get(), L"key", value);
     }},
    {"CreateAndAddPINode", [](Stage& stage) { return stage.file.CreateAndAddPINode(); }},
    {"CreateAndAddNode",
     [](Stage& stage) { return stage.file.CreateAndAddNode(L"name", Out(stage), stage.node.Get()); }},
    {"CreateRootNode", [](Stage& stage) { return stage.file.CreateRootNode(L"name", Out(stage)); }},
    {"CreateRootNodeWithSchema",
     [](Stage& stage) { return stage.file.CreateRootNode(L"name", L"a.xsd", Out(stage)); }},
    {"AddAttributeToNode",
     [](Stage& stage) { return stage.file.AddAttributeToNode(L"key", Number(1), stage.node.Get()); }},
    {"CreateAttributeForNode",
     [](Stage& stage) { return stage.file.CreateAttributeForNode(L"key", L"value", stage.node.Get()); }},
    {"CreateAttributeNode",
     [](Stage& stage) {
       return stage.file.CreateAttributeNode(L"name", L"key", L"value", stage.node.Get(), Out(stage));
     }},
    {"CreateNode", [](Stage& stage) { return stage.file.CreateNode(L"name", stage.node.Get(), Out(stage)); }},
    {"CreateNodeWithValue",
     [](Stage& stage) { return stage.file.CreateNode(L"name", Number(1), stage.node.Get(), Out(stage)); }},
    {"CreateTextNode",
     [](Stage& stage) { return stage.file.CreateTextNode(L"name", L"text", stage.node.Get(), Out(stage)); }},
    {"CreateNodes",
     [](Stage& stage) {
       return stage.file.CreateNodes({{L"a", L"1", VT_UI2}, {L"b", L"2", VT_UI2}}, stage.node.Get());
     }},
    {"SaveDocumentToFile", [](Stage& stage) { return stage.file.SaveDocumentToFile(); }},
};

/// What an operation did of whose calls only one failed.
struct Attempt {
  bool callFailed;
  long result;
  std::string call;
  std::vector<LogRecord> errors;
};

Attempt AttemptWithFailingCall(const std::function<long(Stage&)>& act, int number) {
  const TestLog log;
  FakeDom dom;
  Attempt attempt{};
  {
    Stage stage(dom);
    EXPECT_EQ(stage.file.CreateRootNode(L"root", nullptr), S_OK);
    dom.FailCallNumber(number);
    attempt.result = act(stage);
    // The failing call is the last one: the operation stops there.
    attempt.call = dom.Calls().back().substr(0, dom.Calls().back().find(' '));
    if (stage.outIsUsed && stage.out != nullptr) stage.out->Release();
  }
  EXPECT_EQ(dom.LivingObjects(), 0);
  attempt.callFailed = dom.HasFailed();
  attempt.errors = Errors(log);
  return attempt;
}

class EveryCallTest : public testing::TestWithParam<Operation> {};

TEST_P(EveryCallTest, ThatFailsEndsTheOperationWithOneErrorRecordOfItsName) {
  int number = 0;
  for (;;) {
    const Attempt attempt = AttemptWithFailingCall(GetParam().act, ++number);
    if (!attempt.callFailed) break;
    EXPECT_TRUE(attempt.result == kRefused || attempt.result == E_FAIL)
        << "call " << number << ", " << attempt.call;
    ASSERT_EQ(attempt.errors.size(), 1u) << "call " << number << ", " << attempt.call;
    EXPECT_THAT(attempt.errors[0].message, testing::HasSubstr(attempt.call));
  }
  EXPECT_GT(number, 1) << "no call was made";
}

INSTANTIATE_TEST_SUITE_P(OfEachOperation, EveryCallTest, testing::ValuesIn(kOperations),
                         [](const auto& row) { return row.param.name; });

class FakeDomTest : public testing::Test {
 protected:
  TestLog log;
  FakeDom dom;
};

TEST_F(FakeDomTest, DocumentsAreOfTheRequiredClassInterfaceAndContext) {
  CXMLFile file(L"x.xml");
  ASSERT_EQ(file.InitializeDOM(), S_OK);
  ASSERT_EQ(dom.Creations().size(), 1u);
  const CLSID classId{0x2933BF90, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
  const IID interfaceId{0x2933BF81, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
  EXPECT_TRUE(dom.Creations()[0].classId == classId);
  EXPECT_TRUE(dom.Creations()[0].interfaceId == interfaceId);
  EXPECT_EQ(dom.Creations()[0].context, 23u);
}

TEST_F(FakeDomTest, InitializeSwitchesOffFourBehaviours) {
  CXMLFile file(L"x.xml");
  ASSERT_EQ(file.InitializeDOM(), S_OK);
  EXPECT_THAT(dom.Calls(), ElementsAre("CoCreateInstance", "put_async off", "put_validateOnParse off",
                                       "put_resolveExternals off", "put_preserveWhiteSpace off"));
}

TEST_F(FakeDomTest, TheRootOfALoadedDocumentIsBorrowed) {
  IXMLDOMElement* root = nullptr;
  {
    CXMLFile file(L"x.xml");
    ASSERT_EQ(file.GetRootNode(&root), S_OK);
    EXPECT_NE(root, nullptr);
  }
  // Nobody released the root, and still nothing is left.
  EXPECT_EQ(dom.LivingObjects(), 0);
}

TEST_F(FakeDomTest, TheRootOfANewDocumentBelongsToTheCaller) {
  ComPtr<IXMLDOMNode> root;
  {
    CXMLFile file(L"x.xml");
    ASSERT_EQ(file.CreateRootNode(L"root", root.GetAddressOf()), S_OK);
  }
  EXPECT_EQ(dom.LivingObjects(), 1);
  root.Reset();
  EXPECT_EQ(dom.LivingObjects(), 0);
}

TEST_F(FakeDomTest, NodesAndListsHandedOutBelongToTheCaller) {
  ComPtr<IXMLDOMNodeList> children;
  ComPtr<IXMLDOMNode> node;
  long count = 0;
  {
    CXMLFile file(L"x.xml");
    IXMLDOMElement* root = nullptr;
    ASSERT_EQ(file.GetRootNode(&root), S_OK);
    ASSERT_EQ(file.GetChildNodesOfNode(root, children.GetAddressOf(), count), S_OK);
    ASSERT_EQ(file.GetNodeAtIndex(1, node.GetAddressOf(), children.Get()), S_OK);
  }
  EXPECT_EQ(dom.LivingObjects(), 2);
}

TEST_F(FakeDomTest, NodesThatNobodyWantsAreReleased) {
  {
    CXMLFile file(L"x.xml");
    ASSERT_EQ(file.CreateRootNode(L"root", L"a.xsd", nullptr), S_OK);
    ASSERT_EQ(file.CreateNode(L"a", nullptr, nullptr), S_OK);
    ASSERT_EQ(file.CreateNode(L"a", Number(1), nullptr, nullptr), S_OK);
    ASSERT_EQ(file.CreateTextNode(L"a", L"t", nullptr, nullptr), S_OK);
    ASSERT_EQ(file.CreateAttributeNode(L"a", L"k", L"v", nullptr, nullptr), S_OK);
    ASSERT_EQ(file.CreateNodes({{L"a", L"1", VT_UI2}}, nullptr), S_OK);
    ComPtr<IXMLDOMNodeList> list = dom.List();
    ASSERT_TRUE(file.IsNthNodeAnElementWithName(0, L"first", nullptr, list.Get()));
  }
  EXPECT_EQ(dom.LivingObjects(), 0);
}

TEST_F(FakeDomTest, FindReleasesTheNodesThatDoNotMatch) {
  {
    CXMLFile file(L"x.xml");
    ComPtr<IXMLDOMNodeList> list = dom.List();
    ComPtr<IXMLDOMNode> node = dom.Element();
    EXPECT_EQ(file.FindNodeWithAttributeValue(list.Get(), L"key", L"another", node.ReleaseAndGetAddressOf()),
              S_OK);
    EXPECT_EQ(node.Get(), nullptr);
  }
  EXPECT_EQ(dom.LivingObjects(), 0);
}

TEST_F(FakeDomTest, FindSkipsNodesWhoseAttributeCannotBeRead) {
  CXMLFile file(L"x.xml");
  ComPtr<IXMLDOMNodeList> list = dom.List();
  ComPtr<IXMLDOMNode> node;
  dom.Answer("get_attributes", kRefused);
  EXPECT_EQ(file.FindNodeWithAttributeValue(list.Get(), L"key", L"v", node.GetAddressOf()), S_OK);
  EXPECT_EQ(node.Get(), nullptr);
  EXPECT_EQ(Errors(log).size(), 2u);
}

TEST_F(FakeDomTest, NullTextsAreEmptyTexts) {
  CXMLFile file(L"x.xml");
  const ComPtr<IXMLDOMNode> node = dom.Element();
  dom.GiveNullTexts();
  CTString name(L"before");
  CTString text(L"before");
  CTString value(L"before");
  EXPECT_EQ(file.GetNameForNode(node.Get(), name), S_OK);
  EXPECT_EQ(file.GetTextForNode(node.Get(), text), S_OK);
  EXPECT_EQ(file.GetAttributeForNode(node.Get(), L"key", value), S_OK);
  EXPECT_TRUE(name.IsEmpty());
  EXPECT_TRUE(text.IsEmpty());
  EXPECT_TRUE(value.IsEmpty());
  EXPECT_TRUE(file.DoesNodeNameEquals(node.Get(), L""));
}

TEST_F(FakeDomTest, ALoadThatLoadsNothingIsAFailureThatLogsTheCallsOwnResult) {
  CXMLFile file(L"x.xml");
  dom.Answer("load", S_FALSE);
  EXPECT_EQ(file.GetRootNode(nullptr), E_FAIL);
  EXPECT_EQ(log.LevelOf("IXMLDOMDocument::load(x.xml) failed with: 1"), "Error");
}

TEST_F(FakeDomTest, ADocumentWithoutElementIsAFailure) {
  CXMLFile file(L"x.xml");
  dom.Answer("get_documentElement", S_FALSE);
  EXPECT_EQ(file.GetRootNode(nullptr), E_FAIL);
  EXPECT_EQ(log.LevelOf("IXMLDOMDocument::get_documentElement(x.xml) failed with: 1"), "Error");
}

TEST_F(FakeDomTest, AnAttributeValueThatIsNotTextIsAFailureAlthoughTheCallSucceeded) {
  CXMLFile file(L"x.xml");
  dom.GiveValuesOfType(VT_NULL);
  CTString value(L"before");
  EXPECT_EQ(file.GetAttributeForNode(dom.Element().Get(), L"key", value), E_FAIL);
  EXPECT_TRUE(value == L"before");
  EXPECT_EQ(log.LevelOf("Attribute Name: key, Attribute Type: 1"), "Trace");
  EXPECT_EQ(log.LevelOf("IXMLDOMNode::get_nodeValue() failed with: 0"), "Error");
}

TEST_F(FakeDomTest, TheTypeOfAnAttributeThatCannotBeReadIsEmpty) {
  CXMLFile file(L"x.xml");
  dom.Answer("get_nodeValue", kRefused);
  CTString value;
  EXPECT_EQ(file.GetAttributeForNode(dom.Element().Get(), L"key", value), kRefused);
  EXPECT_EQ(log.LevelOf("Attribute Name: key, Attribute Type: 0"), "Trace");
}

TEST_F(FakeDomTest, ANodeWithoutAttributesIsNoFailedCall) {
  CXMLFile file(L"x.xml");
  dom.Answer("get_attributes", S_FALSE);
  CTString value;
  EXPECT_EQ(file.GetAttributeForNode(dom.Element().Get(), L"key", value), E_FAIL);
  EXPECT_THAT(Errors(log), IsEmpty());
}

TEST_F(FakeDomTest, AFailedOperationLeavesNoObjectBehind) {
  {
    CXMLFile file(L"x.xml");
    dom.Answer("setNamedItem", kRefused);
    EXPECT_EQ(file.CreateRootNode(L"root", L"a.xsd", nullptr), E_FAIL);
    EXPECT_EQ(dom.LivingObjects(), 0) << "the document is dropped at once";
  }
  EXPECT_EQ(dom.LivingObjects(), 0);
}

TEST_F(FakeDomTest, AFailedLoadHandsOutNoRoot) {
  CXMLFile file(L"x.xml");
  IXMLDOMElement* root = nullptr;
  ASSERT_EQ(file.GetRootNode(&root), S_OK);
  ASSERT_NE(root, nullptr);
  dom.Answer("load", kRefused);
  EXPECT_EQ(file.GetRootNode(&root), E_FAIL);
  EXPECT_EQ(root, nullptr);
}

TEST_F(FakeDomTest, AFailedLoadLetsTheFormerDocumentGoWhole) {
  CXMLFile file(L"x.xml");
  ASSERT_EQ(file.GetRootNode(nullptr), S_OK);
  dom.Answer("load", kRefused);
  EXPECT_EQ(file.GetRootNode(nullptr), E_FAIL);
  EXPECT_EQ(dom.LivingObjects(), 0);
}

TEST_F(FakeDomTest, ADocumentThatCouldNotBeBuiltIsNeverSaved) {
  CXMLFile file(L"x.xml");
  dom.Answer("setNamedItem", kRefused);
  EXPECT_EQ(file.CreateRootNode(L"root", L"a.xsd", nullptr), E_FAIL);
  EXPECT_EQ(file.SaveDocumentToFile(), E_FAIL);
  EXPECT_THAT(dom.Calls(), testing::Not(testing::Contains("save")));
}

class RefusedRootTest : public FakeDomTest, public testing::WithParamInterface<const char*> {};

TEST_P(RefusedRootTest, DropsTheDocumentAtOnce) {
  CXMLFile file(L"x.xml");
  dom.Answer(GetParam(), kRefused);
  EXPECT_EQ(file.CreateRootNode(L"root", nullptr), E_FAIL);
  EXPECT_EQ(dom.LivingObjects(), 0);
  EXPECT_EQ(file.SaveDocumentToFile(), E_FAIL);
  EXPECT_THAT(dom.Calls(), testing::Not(testing::Contains("save")));
}

INSTANTIATE_TEST_SUITE_P(By, RefusedRootTest,
                         testing::Values("createProcessingInstruction", "createNode", "QueryInterface"),
                         [](const auto& call) { return std::string(call.param); });

TEST_F(FakeDomTest, WithoutAListTheNodeAtAnIndexIsNone) {
  CXMLFile file(L"x.xml");
  const ComPtr<IXMLDOMNode> element = dom.Element();
  IXMLDOMNode* node = element.Get();
  EXPECT_EQ(file.GetNodeAtIndex(0, &node, nullptr), E_FAIL);
  EXPECT_EQ(node, nullptr);
}

TEST_F(FakeDomTest, CreateNodesStopsAtTheFirstFailure) {
  CXMLFile file(L"x.xml");
  ASSERT_EQ(file.CreateRootNode(L"root", nullptr), S_OK);
  dom.Answer("put_nodeTypedValue", kRefused);
  EXPECT_EQ(file.CreateNodes({{L"a", L"1", VT_UI2}, {L"b", L"2", VT_UI2}}, nullptr), E_FAIL);
  EXPECT_EQ(std::count(dom.Calls().begin(), dom.Calls().end(), "put_nodeTypedValue"), 1);
}

TEST_F(FakeDomTest, AnEmptyNameOrSchemaIsRefusedBeforeTheFormerDocumentGoes) {
  CXMLFile file(L"x.xml");
  ASSERT_EQ(file.CreateRootNode(L"root", nullptr), S_OK);
  const std::size_t calls = dom.Calls().size();
  EXPECT_EQ(file.CreateRootNode(L"", nullptr), E_FAIL);
  EXPECT_EQ(file.CreateRootNode(L"", L"a.xsd", nullptr), E_FAIL);
  EXPECT_EQ(file.CreateRootNode(L"root", L"", nullptr), E_FAIL);
  EXPECT_EQ(dom.Calls().size(), calls);
  EXPECT_EQ(file.SaveDocumentToFile(), S_OK);
}

}  // namespace
