#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <winsock2.h>

#include <psapi.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/dom.h"
#include "common/handles.h"
#include "support/com_apartment.h"
#include "support/temporary_folder.h"
#include "support/test_log.h"
#include "support/xml_files.h"
#include "xmlfile/xmlfile.h"

using corvel::UniqueHandle;
using corvel::Utf8FromWide;

namespace {

using Microsoft::WRL::ComPtr;
using QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

/// A loaded document in the words of a test.
class Document {
 public:
  explicit Document(const std::wstring& path) : file(path) {
    result = file.GetRootNode(&root);
    if (root != nullptr) file.GetChildNodesOfNode(root, children.GetAddressOf(), count);
  }

  ComPtr<IXMLDOMNode> Child(int index) {
    ComPtr<IXMLDOMNode> node;
    file.GetNodeAtIndex(index, node.GetAddressOf(), children.Get());
    return node;
  }
  std::wstring Name(IXMLDOMNode* node) {
    CTString name;
    EXPECT_EQ(file.GetNameForNode(node, name), S_OK);
    return name;
  }
  std::wstring Text(IXMLDOMNode* node) {
    CTString text;
    EXPECT_EQ(file.GetTextForNode(node, text), S_OK);
    return text;
  }
  std::wstring Attribute(IXMLDOMNode* node, const wchar_t* name) {
    CTString value;
    EXPECT_EQ(file.GetAttributeForNode(node, name, value), S_OK);
    return value;
  }
  ComPtr<IXMLDOMNode> Find(const wchar_t* attribute, const wchar_t* value) {
    ComPtr<IXMLDOMNode> node;
    EXPECT_EQ(file.FindNodeWithAttributeValue(children.Get(), attribute, value, node.GetAddressOf()), S_OK);
    return node;
  }

  CXMLFile file;
  HRESULT result;
  IXMLDOMElement* root = nullptr;
  ComPtr<IXMLDOMNodeList> children;
  long count = -1;
};

class ReadingTest : public testing::Test {
 protected:
  Document Read(std::string_view bytes) { return Document(folder.Write(L"read.xml", bytes)); }
  static Document ReadForeign(const std::wstring& name) {
    return Document(CheckedInDocument(L"foreign/" + name));
  }

  ComApartment com;
  TemporaryFolder folder;
  TestLog log;
};

// What others wrote.

TEST_F(ReadingTest, NamesAndAttributesKeepTheirNamespacePrefixes) {
  Document document = ReadForeign(L"namespaces.xml");
  EXPECT_EQ(document.Name(document.root), L"a:catalog");
  EXPECT_EQ(document.Attribute(document.root, L"b:version"), L"7");
  const ComPtr<IXMLDOMNode> second = document.Find(L"b:id", L"3");
  EXPECT_EQ(document.Name(second.Get()), L"b:item");
  EXPECT_EQ(document.Text(second.Get()), L"second");
}

TEST_F(ReadingTest, AnAttributeWithAPrefixIsNotTheOneWithout) {
  Document document = ReadForeign(L"namespaces.xml");
  const ComPtr<IXMLDOMNode> first = document.Child(0);
  EXPECT_EQ(document.Attribute(first.Get(), L"b:id"), L"1");
  EXPECT_EQ(document.Attribute(first.Get(), L"id"), L"2");
}

TEST_F(ReadingTest, CdataIsText) {
  Document document = ReadForeign(L"cdata.xml");
  EXPECT_EQ(document.Text(document.Child(0).Get()), L"<&>");
  EXPECT_EQ(document.Text(document.Child(1).Get()), L"one two three");
}

TEST_F(ReadingTest, InternalEntitiesAndCharacterReferencesAreResolved) {
  Document document = ReadForeign(L"entities.xml");
  EXPECT_EQ(document.Text(document.Child(0).Get()), L"[value]");
  EXPECT_EQ(document.Text(document.Child(1).Get()), L"\u00E4\u20AC\U0001F600");
  EXPECT_EQ(document.Text(document.Child(2).Get()), L"<&>\"'");
  EXPECT_EQ(document.Attribute(document.root, L"key"), L"<value>");
}

TEST_F(ReadingTest, CommentsTextsAndInstructionsAreChildrenButNoElements) {
  Document document = ReadForeign(L"comments.xml");
  EXPECT_EQ(document.count, 6);
  EXPECT_EQ(document.file.GetNodesCount(), 6);
  ComPtr<IXMLDOMNode> node;
  EXPECT_FALSE(
      document.file.IsNthNodeAnElementWithName(0, L"#comment", node.GetAddressOf(), document.children.Get()));
  EXPECT_NE(node.Get(), nullptr) << "the item is handed out whatever it is";
}

TEST_F(ReadingTest, ASearchPassesOverCommentsTextsAndInstructions) {
  Document document = ReadForeign(L"comments.xml");
  EXPECT_EQ(document.Name(document.Find(L"id", L"2").Get()), L"b");
  EXPECT_THAT(log.Said(), IsEmpty());
}

class EncodingTest : public ReadingTest, public testing::WithParamInterface<const wchar_t*> {};

TEST_P(EncodingTest, Utf8IsReadWithAndWithoutItsMark) {
  Document document = ReadForeign(GetParam());
  EXPECT_EQ(document.Text(document.root), L"\u00E4\u20AC\U0001F600");
}

INSTANTIATE_TEST_SUITE_P(Marks, EncodingTest, testing::Values(L"utf8.xml", L"utf8_mark.xml"));

class ByteOrderTest : public ReadingTest, public testing::WithParamInterface<bool> {};

TEST_P(ByteOrderTest, Utf16IsReadInBothByteOrders) {
  const bool bigEndian = GetParam();
  Document document = Read(
      Utf16Bytes(L"<?xml version=\"1.0\" encoding=\"UTF-16\"?><r>\u00E4\u20AC\U0001F600</r>", bigEndian));
  EXPECT_EQ(document.Text(document.root), L"\u00E4\u20AC\U0001F600");
}

INSTANTIATE_TEST_SUITE_P(Orders, ByteOrderTest, testing::Bool());

TEST_F(ReadingTest, ADeclaredSingleByteEncodingIsFollowed) {
  Document document = ReadForeign(L"latin1.xml");
  EXPECT_EQ(document.Text(document.root), L"\u00E4");
}

TEST_F(ReadingTest, AMillionNodesAreReadAndSearched) {
  std::string bytes = "<r>";
  for (int i = 1; i < 1'000'000; ++i) bytes += "<n/>";
  Document document = Read(bytes + "<last id='1'/></r>");
  EXPECT_EQ(document.result, S_OK);
  EXPECT_EQ(document.file.GetNodesCount(), 1'000'000);
  EXPECT_EQ(document.Name(document.Find(L"id", L"1").Get()), L"last");
}

TEST_F(ReadingTest, TwoHundredLevelsAreRead) {
  std::string bytes;
  for (int i = 0; i < 200; ++i) bytes += "<a>";
  bytes += "bottom";
  for (int i = 0; i < 200; ++i) bytes += "</a>";
  Document document = Read(bytes);
  EXPECT_EQ(document.Text(document.root), L"bottom");
}

TEST_F(ReadingTest, WhiteSpaceBetweenElementsIsNotRead) {
  Document document = Read("<r>\r\n  <a/>\r\n  <b/>\r\n</r>");
  EXPECT_EQ(document.file.GetNodesCount(), 2);
}

// Lookups.

TEST_F(ReadingTest, WithoutADocumentThereAreMinusOneNodes) {
  CXMLFile file(L"x.xml");
  EXPECT_EQ(file.GetNodesCount(), -1);
}

TEST_F(ReadingTest, AnIndexOutsideTheListIsNoFailureAndGivesNoNode) {
  Document document = Read("<r><a/></r>");
  IXMLDOMNode* node = document.root;
  EXPECT_EQ(document.file.GetNodeAtIndex(1, &node, document.children.Get()), S_FALSE);
  EXPECT_EQ(node, nullptr);
  node = document.root;
  EXPECT_EQ(document.file.GetNodeAtIndex(-1, &node, document.children.Get()), S_FALSE);
  EXPECT_EQ(node, nullptr);
  EXPECT_FALSE(document.file.IsNthNodeAnElementWithName(1, L"a", &node, document.children.Get()));
  EXPECT_EQ(node, nullptr);
  EXPECT_THAT(log.Said(), IsEmpty());
}

TEST_F(ReadingTest, TheNthNodeIsComparedByItsWholeName) {
  Document document = Read("<r><a/><A/><ab/></r>");
  const auto isA = [&](int n) {
    return document.file.IsNthNodeAnElementWithName(n, L"a", nullptr, document.children.Get());
  };
  EXPECT_TRUE(isA(0));
  EXPECT_FALSE(isA(1));
  EXPECT_FALSE(isA(2));
  EXPECT_TRUE(document.file.DoesNodeNameEquals(document.root, L"r"));
  EXPECT_FALSE(document.file.DoesNodeNameEquals(document.root, L"R"));
}

TEST_F(ReadingTest, TheTextOfANodeIsThatOfItsDescendants) {
  Document document = Read("<r><a>one</a><b>two<c>three</c></b></r>");
  EXPECT_THAT(document.Text(document.root), testing::StrEq(L"onetwothree"));
}

TEST_F(ReadingTest, AMissingAttributeIsAFailureWithoutRecord) {
  Document document = Read("<r key='value'/>");
  CTString value(L"before");
  EXPECT_EQ(document.file.GetAttributeForNode(document.root, L"other", value), E_FAIL);
  EXPECT_TRUE(value == L"before");
  EXPECT_THAT(log.Said(), IsEmpty());
}

TEST_F(ReadingTest, NoAttributeHasAnEmptyName) {
  Document document = Read("<r key='value'/>");
  CTString value;
  EXPECT_TRUE(FAILED(document.file.GetAttributeForNode(document.root, L"", value)));
}

TEST_F(ReadingTest, ATextHasNoAttributes) {
  Document document = Read("<r>text</r>");
  CTString value;
  EXPECT_EQ(document.file.GetAttributeForNode(document.Child(0).Get(), L"key", value), E_FAIL);
  EXPECT_THAT(log.Said(), IsEmpty());
}

TEST_F(ReadingTest, ASearchWithoutMatchSucceedsWithoutNode) {
  Document document = Read("<r><a id='1'/><b/></r>");
  IXMLDOMNode* node = document.root;
  EXPECT_EQ(document.file.FindNodeWithAttributeValue(document.children.Get(), L"id", L"2", &node), S_OK);
  EXPECT_EQ(node, nullptr);
}

TEST_F(ReadingTest, ASearchGoesOnBehindTheLastMatch) {
  Document document = Read("<r><a id='1'/><b id='1'/></r>");
  EXPECT_EQ(document.Name(document.Find(L"id", L"1").Get()), L"a");
  EXPECT_EQ(document.Name(document.Find(L"id", L"1").Get()), L"b");
  EXPECT_EQ(document.Find(L"id", L"1").Get(), nullptr);
}

TEST_F(ReadingTest, ASearchForAnEmptyValueFindsIt) {
  Document document = Read("<r><a id='1'/><b id=''/></r>");
  EXPECT_EQ(document.Name(document.Find(L"id", L"").Get()), L"b");
}

TEST_F(ReadingTest, ASearchForAnEmptyValuePassesOverNodesWithoutTheAttribute) {
  Document document = Read("<r>text<a key='1'/><b id=''/></r>");
  EXPECT_EQ(document.Name(document.Find(L"id", L"").Get()), L"b");
}

// A second document in the same object.

TEST_F(ReadingTest, ASecondLoadReplacesTheFirst) {
  Document document = Read("<r><a/><b/></r>");
  folder.Write(L"read.xml", "<r><a/></r>");
  ASSERT_EQ(document.file.GetRootNode(nullptr), S_OK);
  EXPECT_EQ(document.file.GetNodesCount(), 1);
}

TEST_F(ReadingTest, AFailedSecondLoadLeavesNothingOfTheFirst) {
  Document document = Read("<r><a/><b/></r>");
  folder.Write(L"read.xml", "<r>");
  EXPECT_EQ(document.file.GetRootNode(nullptr), E_FAIL);
  EXPECT_EQ(document.file.GetNodesCount(), -1);
}

TEST_F(ReadingTest, ANewRootLeavesNothingOfALoadedDocument) {
  Document document = Read("<r><a/><b/></r>");
  ASSERT_EQ(document.file.CreateRootNode(L"root", nullptr), S_OK);
  EXPECT_EQ(document.file.GetNodesCount(), -1);
}

TEST_F(ReadingTest, ALoadedDocumentCanBeChangedAndSaved) {
  Document document = Read("<r><a/></r>");
  ASSERT_EQ(document.file.CreateTextNode(L"b", L"new", document.root, nullptr), S_OK);
  ASSERT_EQ(document.file.SaveDocumentToFile(), S_OK);
  EXPECT_THAT(ReadBytes(folder.File(L"read.xml")), HasSubstr("<r><a/><b>new</b></r>"));
}

// What cannot be read.

struct BadDocument {
  const char* name;
  std::string bytes;
};

class BadDocumentTest : public ReadingTest, public testing::WithParamInterface<BadDocument> {};

TEST_P(BadDocumentTest, IsAFailureThatTheLogTells) {
  const Document document = Read(GetParam().bytes);
  EXPECT_EQ(document.result, E_FAIL);
  EXPECT_EQ(document.root, nullptr);
  // The call itself succeeds with 1: it is the document that did not load.
  EXPECT_EQ(
      log.LevelOf("IXMLDOMDocument::load(" + Utf8FromWide(folder.File(L"read.xml")) + ") failed with: 1"),
      "Error");
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, BadDocumentTest,
    testing::Values(BadDocument{"Empty", ""}, BadDocument{"WhiteSpace", " \r\n"},
                    BadDocument{"NotXml", "[TraceLevel]=1\r\n"},
                    BadDocument{"DeclarationOnly", "<?xml version='1.0'?>"},
                    BadDocument{"Truncated", "<?xml version='1.0'?><r><a>te"},
                    BadDocument{"TruncatedInATag", "<r><a hre"}, BadDocument{"WrongEndTag", "<r><a></r>"},
                    BadDocument{"TwoRoots", "<r/><r/>"}, BadDocument{"BareAmpersand", "<r>a & b</r>"},
                    BadDocument{"AttributeTwice", "<r a='1' a='2'/>"},
                    BadDocument{"UndeclaredEntity", "<r>&nobody;</r>"},
                    BadDocument{"NulByte", std::string("<r>a\0b</r>", 10)},
                    BadDocument{"InvalidUtf8", "<?xml version='1.0' encoding='UTF-8'?><r>\xFF\xFE\xE4</r>"},
                    BadDocument{"UnknownEncoding", "<?xml version='1.0' encoding='x-none'?><r/>"},
                    BadDocument{"WrongEncodingDeclared", "<?xml version='1.0' encoding='UTF-16'?><r/>"},
                    BadDocument{"HalfAUtf16Unit", std::string("\xFF\xFE<\0r\0/\0>", 9)}),
    [](const auto& row) { return row.param.name; });

TEST_F(ReadingTest, AMissingFileIsAFailureThatTheLogTells) {
  const std::wstring path = folder.File(L"missing.xml");
  EXPECT_EQ(Document(path).result, E_FAIL);
  EXPECT_THAT(log.Said(), Each(StartsWith("E:IXMLDOMDocument::load(" + Utf8FromWide(path) + ")")));
  EXPECT_EQ(log.Records().size(), 1u);
}

TEST_F(ReadingTest, AFolderIsNoDocument) {
  EXPECT_EQ(Document(folder.Path().wstring()).result, E_FAIL);
}

TEST_F(ReadingTest, AnEmptyPathIsNoDocument) {
  EXPECT_EQ(Document(L"").result, E_FAIL);
}

TEST_F(ReadingTest, AFileThatAnotherProgramHoldsIsAFailure) {
  const std::wstring path = folder.Write(L"held.xml", "<r/>");
  const UniqueHandle held(::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_EQ(Document(path).result, E_FAIL);
}

// What must not be fetched, and must not grow.

TEST_F(ReadingTest, AnExternalEntityIsNotFetchedFromTheDisk) {
  folder.Write(L"secret.txt", "secret");
  Document document = Read("<!DOCTYPE r [<!ENTITY e SYSTEM 'secret.txt'>]><r>[&e;]</r>");
  ASSERT_EQ(document.result, S_OK);
  EXPECT_THAT(Utf8FromWide(document.Text(document.root)), Not(HasSubstr("secret")));
}

/// A server that answers nobody, but knows whether somebody knocked.
class Doorbell {
 public:
  Doorbell() {
    WSADATA data;
    ::WSAStartup(MAKEWORD(2, 2), &data);
    m_Socket = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int size = sizeof address;
    if (::bind(m_Socket, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(m_Socket, 1) != 0) {
      throw std::runtime_error("there is no port to listen at");
    }
    ::getsockname(m_Socket, reinterpret_cast<sockaddr*>(&address), &size);
    m_Address = address;
  }
  ~Doorbell() {
    ::closesocket(m_Socket);
    ::WSACleanup();
  }
  Doorbell(const Doorbell&) = delete;
  Doorbell& operator=(const Doorbell&) = delete;

  std::string Url() const {
    return "http://127.0.0.1:" + std::to_string(ntohs(m_Address.sin_port)) + "/document";
  }
  void Ring() const {
    const SOCKET visitor = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_EQ(::connect(visitor, reinterpret_cast<const sockaddr*>(&m_Address), sizeof m_Address), 0);
    ::closesocket(visitor);
  }
  bool Rang() const {
    WSAPOLLFD waiting{m_Socket, POLLRDNORM, 0};
    return ::WSAPoll(&waiting, 1, 0) == 1;
  }

 private:
  SOCKET m_Socket;
  sockaddr_in m_Address{};
};

TEST_F(ReadingTest, ExternalEntitiesAndDefinitionsAreNotFetchedFromTheNetwork) {
  const Doorbell door;
  Read("<!DOCTYPE r SYSTEM '" + door.Url() + "' [<!ENTITY e SYSTEM '" + door.Url() + "'>]><r>&e;</r>");
  EXPECT_FALSE(door.Rang());
  door.Ring();
  EXPECT_TRUE(door.Rang()) << "the check itself must be able to fail";
}

std::size_t PeakMemory() {
  PROCESS_MEMORY_COUNTERS counters{};
  ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters);
  return counters.PeakWorkingSetSize;
}

/// A document of a kilobyte that stands for several gigabytes.
std::string BillionLaughs() {
  std::string definitions = "<!ENTITY e0 'laugh'>";
  for (int level = 1; level < 10; ++level) {
    const std::string below = "&e" + std::to_string(level - 1) + ";";
    definitions += "<!ENTITY e" + std::to_string(level) + " '";
    for (int i = 0; i < 10; ++i) definitions += below;
    definitions += "'>";
  }
  return "<!DOCTYPE r [" + definitions + "]><r>&e9;</r>";
}

bool LaughsAreRefusedInLittleMemory() {
  constexpr std::size_t kBound = 64ULL * 1024 * 1024;
  const ComApartment com;
  const TemporaryFolder folder;
  const std::size_t before = PeakMemory();
  const Document document(folder.Write(L"laughs.xml", BillionLaughs()));
  return document.result == E_FAIL && PeakMemory() - before < kBound;
}

// In a process of its own: the peak of this one may be high already.
TEST(XmlMemoryDeathTest, ABillionLaughsAreRefusedInLittleMemory) {
  EXPECT_EXIT(std::_Exit(LaughsAreRefusedInLittleMemory() ? 0 : 1), testing::ExitedWithCode(0), "");
}

// Threads without COM.

TEST_F(ReadingTest, WithoutComThereIsNoDocument) {
  const std::wstring path = folder.Write(L"good.xml", "<r/>");
  HRESULT initialized = S_OK;
  HRESULT loaded = S_OK;
  HRESULT created = S_OK;
  std::thread([&] {
    CXMLFile file(path);
    initialized = file.InitializeDOM();
    loaded = file.GetRootNode(nullptr);
    created = file.CreateRootNode(L"root", nullptr);
  }).join();
  EXPECT_EQ(initialized, CO_E_NOTINITIALIZED);
  EXPECT_EQ(loaded, E_FAIL);
  EXPECT_EQ(created, E_FAIL);
  EXPECT_THAT(log.Said(), Each("E:CoCreateInstance(IID_IXMLDOMDocument) failed with 800401f0:"));
  EXPECT_EQ(log.Records().size(), 3u);
}

}  // namespace
