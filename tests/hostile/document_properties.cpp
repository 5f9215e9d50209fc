// XML documents: those that are well made against what they were made from, and all others as far as they are
// read.

#include <windows.h>

#include <array>
#include <string>

#include <msxml.h>

#include "config/configparser.h"
#include "hostile/property.h"
#include "simulator/import_patch.h"
#include "support/temporary_folder.h"
#include "xmlfile/xmlfile.h"

namespace hostile {

namespace {

using QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile;
using Store = CElementTree::Store;

/// A folder for one document, and COM.
class Desk {
 public:
  Desk() {
    s_desk = this;
    // A disk that others keep busy would be most of what is waited for.
    m_Patch.Replace("FlushFileBuffers", &LeaveUnflushed);
    // Enters COM as well.
    Config();
  }
  ~Desk() {
    CConfigParser::ReleaseInstance();
    s_desk = nullptr;
  }
  static std::wstring Put(std::string_view bytes) { return s_desk->m_Folder.Write(L"document.xml", bytes); }
  static std::string Content() { return s_desk->m_Folder.Content(L"document.xml"); }
  static CConfigParser& Config() { return *CConfigParser::GetInstance_CmdLine(); }

 private:
  static BOOL WINAPI LeaveUnflushed(HANDLE) { return TRUE; }

  static inline Desk* s_desk = nullptr;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
  TemporaryFolder m_Folder;
};

// --- Documents that are well made -------------------------------------------------------------------------

constexpr std::array<const char*, 6> kNames{
    "a", "Name", "_x-1.y", "long-name-long-name-long-name", "\xC3\xA9t\xC3\xA9", "A"};
/// How a letter is written, and what it is.
struct Letter {
  const char* written;
  const wchar_t* read;
};
constexpr std::array<Letter, 8> kLetters{{{"x", L"x"},
                                          {"&lt;", L"<"},
                                          {"&amp;", L"&"},
                                          {"&#65;", L"A"},
                                          {"&quot;", L"\""},
                                          {"\xC3\xA9", L"\u00E9"},
                                          {"\xF0\x9F\x93\xB6", L"\U0001F4F6"},
                                          {"]]", L"]]"}}};

std::wstring Wide(const std::string& utf8) {
  return static_cast<std::wstring>(CTString(utf8));
}

/// A document, and what its root's children say.
struct Document {
  std::string text;
  std::vector<std::pair<std::wstring, std::wstring>> children;
};

class Writer {
 public:
  explicit Writer(std::string_view input) : m_Choices(input) {}

  Document Write() {
    Document document;
    document.text = m_Choices.Flag() ? "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" : "";
    document.text += "<root>";
    for (std::size_t i = m_Choices.Below(8); i > 0; --i) {
      document.text += Blank();
      if (m_Choices.Below(6) == 0) {
        document.text += "<!--comment-->";
        document.children.emplace_back(L"#comment", L"comment");
        continue;
      }
      const std::string name = kNames[m_Choices.Below(kNames.size())];
      std::wstring read;
      document.text += Element(name, read, 0);
      document.children.emplace_back(Wide(name), read);
    }
    document.text += Blank() + "</root>\n";
    return document;
  }

 private:
  std::string Blank() {
    static constexpr std::array<const char*, 4> kBlanks{"", "\n", "\r\n  ", "\t"};
    return kBlanks[m_Choices.Below(kBlanks.size())];
  }
  std::string Text(std::wstring& read) {
    std::string written;
    for (std::size_t i = m_Choices.Below(12) + 1; i > 0; --i) {
      const Letter& letter = kLetters[m_Choices.Below(kLetters.size())];
      written += letter.written;
      read += letter.read;
    }
    return written;
  }
  std::string Element(const std::string& name, std::wstring& read, int depth) {
    std::string attributes = m_Choices.Below(4) == 0 ? " key='a&lt;b'" : "";
    std::string content;
    switch (m_Choices.Below(4)) {
      case 0:
        return "<" + name + attributes + "/>";
      case 1:
        content = Text(read);
        break;
      case 2:
        content = "<![CDATA[<&x]]>";
        read += L"<&x";
        break;
      default:
        if (depth < 60) content = Element(kNames[m_Choices.Below(kNames.size())], read, depth + 1);
    }
    return "<" + name + attributes + ">" + content + "</" + name + ">";
  }

  Choices m_Choices;
};

std::string MakeDecisions(Random& random) {
  return random.Bytes(random.Size(300));
}

void CheckReading(const std::wstring& path, const Document& document) {
  CXMLFile file{CTString(path)};
  IXMLDOMElement* root = nullptr;
  ExpectEqual("reading", file.GetRootNode(&root), S_OK);
  ExpectEqual("the number of children", file.GetNodesCount(), static_cast<int>(document.children.size()));
  IXMLDOMNodeList* children = nullptr;
  long count = 0;
  ExpectEqual("the children", file.GetChildNodesOfNode(root, &children, count), S_OK);
  for (std::size_t i = 0; i < document.children.size(); ++i) {
    IXMLDOMNode* node = nullptr;
    CTString name;
    CTString text;
    ExpectEqual("a child", file.GetNodeAtIndex(static_cast<int>(i), &node, children), S_OK);
    ExpectEqual("the name's reading", file.GetNameForNode(node, name), S_OK);
    ExpectEqual("the text's reading", file.GetTextForNode(node, text), S_OK);
    node->Release();
    ExpectEqual("the name", static_cast<std::wstring>(name), document.children[i].first);
    ExpectEqual("the text", static_cast<std::wstring>(text), document.children[i].second);
  }
  children->Release();
}

void ExpectResources(const Store& expected) {
  const Store& got = Desk::Config().Resources().Entries();
  ExpectEqual("the number of resources", got.size(), expected.size());
  for (const auto& [name, text] : expected) {
    const auto found = got.find(name);
    Expect(found != got.end(), "a resource is missing: " + Shown(name));
    ExpectEqual("a resource", found->second, text);
  }
}

void CheckDocument(std::string_view input) {
  const Document document = Writer(input).Write();
  Store expected;
  for (const auto& [name, text] : document.children) expected[name] = text;
  const std::wstring path = Desk::Put(document.text);
  CheckReading(path, document);
  Expect(Desk::Config().LoadResource(path.c_str()), "it is not loaded: " + Quoted(document.text));
  ExpectResources(expected);

  // A saved document says the same, and saving it again changes nothing.
  Expect(Desk::Config().SaveConfig(path.c_str()), "it is not saved: " + Quoted(document.text));
  const std::string saved = Desk::Content();
  Expect(Desk::Config().LoadResource(path.c_str()), "it is not loaded again: " + Quoted(saved));
  ExpectResources(expected);
  Expect(Desk::Config().SaveConfig(path.c_str()), "it is not saved again: " + Quoted(saved));
  ExpectEqual("what was saved twice", Desk::Content(), saved);
}

// --- All others -------------------------------------------------------------------------------------------

std::string MakeXml(Random& random) {
  std::string text = Writer(MakeDecisions(random)).Write().text;
  for (std::size_t i = random.Below(4); i > 0; --i) {
    const std::string thing = random.Pick<std::string>(
        {"<", ">", "&", "&x;", "&#0;", "&#xD800;", "]]>", "<!--", "--", "<?pi x?>", "\xFF",
         "<!DOCTYPE root [<!ENTITY e 'x'>]>", "<!DOCTYPE root SYSTEM 'nowhere.dtd'>", "&e;",
         "xml:space='preserve'", "xmlns='u'", "<p:q/>", std::string(1, '\0')});
    text.insert(random.Below(text.size() + 1), thing);
  }
  if (random.OneIn(20)) text = std::string(random.Below(300), '<') + text;
  if (random.OneIn(20)) {
    text = "<root>";
    const std::size_t depth = random.Below(200);
    for (std::size_t i = 0; i < depth; ++i) text += "<a>";
    for (std::size_t i = 0; i < depth; ++i) text += "</a>";
    text += "</root>";
  }
  return text;
}

/// A document that is refused stays as it is, and so does what is known of the one before. One that is taken
/// says the same when it was saved.
void CheckXml(std::string_view input) {
  const std::wstring path = Desk::Put(input);
  const Store before = Desk::Config().Resources().Entries();
  const bool isLoaded = Desk::Config().LoadResource(path.c_str());
  if (!isLoaded) ExpectResources(before);
  const Store read = Desk::Config().Resources().Entries();
  if (!Desk::Config().SaveConfig(path.c_str())) return ExpectEqual("the file", Desk::Content(), input);
  Expect(isLoaded, "a document is saved that is not loaded");
  const std::string saved = Desk::Content();
  Expect(Desk::Config().LoadResource(path.c_str()), "it is not loaded again: " + Quoted(saved));
  ExpectResources(read);
}

}  // namespace

std::vector<Property> DocumentProperties() {
  const auto desk = [] { return std::shared_ptr<void>(std::make_shared<Desk>()); };
  return {{"document", 1000, &MakeDecisions, &CheckDocument, desk}, {"xml", 1000, &MakeXml, &CheckXml, desk}};
}

}  // namespace hostile
