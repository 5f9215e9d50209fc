#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

#include <objbase.h>

#include "benchmarks/catch.h"
#include "benchmarks/sampler.h"
#include "common/dom.h"
#include "xmlfile/xmlfile.h"

namespace benchmarks {

namespace {

using corvel::kDomClassContext;
using corvel::kDomDocumentClass;
using corvel::kDomDocumentInterface;
using Microsoft::WRL::ComPtr;
using QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile;

constexpr int kNodes = 10'000;

/// The wrapper may add a tenth to the calls that it wraps.
constexpr double kWrapperTarget = 1.10;
constexpr char kBareCalls[] = "the same calls bare";

void Need(HRESULT result) {
  if (FAILED(result)) throw std::runtime_error("a call of the document object model failed");
}

/// A BSTR without the library.
class Text {
 public:
  explicit Text(const std::wstring& text)
      : m_Text(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}
  Text() = default;
  ~Text() { ::SysFreeString(m_Text); }
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;

  BSTR Get() const { return m_Text; }
  BSTR* Receive() { return &m_Text; }
  VARIANT AsVariant() const {
    VARIANT value{};
    value.vt = VT_BSTR;
    value.bstrVal = m_Text;
    return value;
  }

 private:
  BSTR m_Text = nullptr;
};

/// COM, a file and the texts of ten thousand elements.
class XmlBenchmark {
 public:
  XmlBenchmark() {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    for (int i = 0; i < kNodes; ++i) m_Texts.push_back(L"value of entry " + std::to_wstring(i));
    for (const std::wstring& text : m_Texts) m_Contents.emplace_back(text.c_str());
  }
  ~XmlBenchmark() {
    std::filesystem::remove(m_Path);
    ::CoUninitialize();
  }
  XmlBenchmark(const XmlBenchmark&) = delete;
  XmlBenchmark& operator=(const XmlBenchmark&) = delete;

  void WriteThroughTheLibrary() const {
    CXMLFile file(m_Path);
    ComPtr<IXMLDOMNode> root;
    Need(file.CreateRootNode(L"root", root.GetAddressOf()));
    const CTString entryName(L"entry");
    const CTString idName(L"id");
    for (const CTString& content : m_Contents) {
      ComPtr<IXMLDOMNode> entry;
      Need(file.CreateTextNode(entryName, content, root.Get(), entry.GetAddressOf()));
      Need(file.CreateAttributeForNode(idName, content, entry.Get()));
    }
    Need(file.SaveDocumentToFile());
  }

  /// The same calls on the same texts, each argument's BSTR made for its call.
  void WriteBare() const {
    const ComPtr<IXMLDOMDocument> document = NewDocument();
    const std::wstring entryName = L"entry";
    const std::wstring idName = L"id";
    VARIANT type{};
    type.vt = VT_I4;
    type.lVal = NODE_ELEMENT;

    ComPtr<IXMLDOMProcessingInstruction> declaration;
    Need(document->createProcessingInstruction(
        Text(L"xml").Get(), Text(L"version='1.0' encoding='utf-8'").Get(), declaration.GetAddressOf()));
    ComPtr<IXMLDOMNode> added;
    Need(document->appendChild(declaration.Get(), added.GetAddressOf()));
    ComPtr<IXMLDOMNode> root;
    Need(document->createNode(type, Text(L"root").Get(), nullptr, root.GetAddressOf()));
    Need(document->appendChild(root.Get(), added.ReleaseAndGetAddressOf()));
    for (const std::wstring& text : m_Texts) {
      ComPtr<IXMLDOMNode> entry;
      Need(document->createNode(type, Text(entryName).Get(), nullptr, entry.GetAddressOf()));
      Need(root->appendChild(entry.Get(), added.ReleaseAndGetAddressOf()));
      Need(entry->put_text(Text(text).Get()));
      ComPtr<IXMLDOMAttribute> id;
      Need(document->createAttribute(Text(idName).Get(), id.GetAddressOf()));
      Need(id->put_value(Text(text).AsVariant()));
      ComPtr<IXMLDOMNamedNodeMap> attributes;
      Need(entry->get_attributes(attributes.GetAddressOf()));
      Need(attributes->setNamedItem(id.Get(), added.ReleaseAndGetAddressOf()));
    }
    Need(document->save(Text(m_Path).AsVariant()));
  }

  /// Names and texts, by index.
  void ReadThroughTheLibrary() const {
    CXMLFile file(m_Path);
    IXMLDOMElement* root = nullptr;
    Need(file.GetRootNode(&root));
    ComPtr<IXMLDOMNodeList> children;
    long count = 0;
    Need(file.GetChildNodesOfNode(root, children.GetAddressOf(), count));
    CTString name;
    CTString text;
    for (int i = 0; i < static_cast<int>(count); ++i) {
      ComPtr<IXMLDOMNode> entry;
      Need(file.GetNodeAtIndex(i, entry.GetAddressOf(), children.Get()));
      Need(file.GetNameForNode(entry.Get(), name));
      Need(file.GetTextForNode(entry.Get(), text));
    }
  }

  void ReadBare() const {
    const ComPtr<IXMLDOMDocument> document = Load();
    const ComPtr<IXMLDOMNodeList> children = ChildrenOfRoot(document);
    long count = 0;
    Need(children->get_length(&count));
    for (long i = 0; i < count; ++i) {
      ComPtr<IXMLDOMNode> entry;
      Need(children->get_item(i, entry.GetAddressOf()));
      Text name;
      Text text;
      Need(entry->get_nodeName(name.Receive()));
      Need(entry->get_text(text.Receive()));
    }
  }

  /// The last element, by its attribute.
  void SearchThroughTheLibrary() const {
    CXMLFile file(m_Path);
    IXMLDOMElement* root = nullptr;
    Need(file.GetRootNode(&root));
    ComPtr<IXMLDOMNodeList> children;
    long count = 0;
    Need(file.GetChildNodesOfNode(root, children.GetAddressOf(), count));
    ComPtr<IXMLDOMNode> found;
    Need(file.FindNodeWithAttributeValue(children.Get(), L"id", m_Contents.back(), found.GetAddressOf()));
    if (found == nullptr) throw std::runtime_error("the element was not found");
  }

  void SearchBare() const {
    const ComPtr<IXMLDOMDocument> document = Load();
    const ComPtr<IXMLDOMNodeList> children = ChildrenOfRoot(document);
    const Text idName(L"id");
    for (;;) {
      ComPtr<IXMLDOMNode> entry;
      Need(children->nextNode(entry.GetAddressOf()));
      if (entry == nullptr) throw std::runtime_error("the element was not found");
      ComPtr<IXMLDOMNamedNodeMap> attributes;
      Need(entry->get_attributes(attributes.GetAddressOf()));
      ComPtr<IXMLDOMNode> id;
      Need(attributes->getNamedItem(idName.Get(), id.GetAddressOf()));
      VARIANT value{};
      Need(id->get_nodeValue(&value));
      const bool isLast = m_Texts.back() == value.bstrVal;
      ::VariantClear(&value);
      if (isLast) return;
    }
  }

 private:
  static ComPtr<IXMLDOMDocument> NewDocument() {
    ComPtr<IXMLDOMDocument> document;
    Need(::CoCreateInstance(kDomDocumentClass, nullptr, kDomClassContext, kDomDocumentInterface,
                            reinterpret_cast<void**>(document.GetAddressOf())));
    Need(document->put_async(VARIANT_FALSE));
    Need(document->put_validateOnParse(VARIANT_FALSE));
    Need(document->put_resolveExternals(VARIANT_FALSE));
    Need(document->put_preserveWhiteSpace(VARIANT_FALSE));
    return document;
  }

  ComPtr<IXMLDOMDocument> Load() const {
    ComPtr<IXMLDOMDocument> document = NewDocument();
    VARIANT_BOOL loaded = VARIANT_FALSE;
    Need(document->load(Text(m_Path).AsVariant(), &loaded));
    if (loaded == VARIANT_FALSE) throw std::runtime_error("the document did not load");
    return document;
  }

  static ComPtr<IXMLDOMNodeList> ChildrenOfRoot(const ComPtr<IXMLDOMDocument>& document) {
    ComPtr<IXMLDOMElement> root;
    ComPtr<IXMLDOMNodeList> children;
    Need(document->get_documentElement(root.GetAddressOf()));
    Need(root->get_childNodes(children.GetAddressOf()));
    return children;
  }

  std::wstring m_Path = (std::filesystem::temp_directory_path() /
                         (L"corvel-benchmark-" + std::to_wstring(::GetCurrentProcessId()) + L".xml"))
                            .wstring();
  // The same for either side, each in its own kind of text.
  std::vector<std::wstring> m_Texts;
  std::vector<CTString> m_Contents;
};

}  // namespace

TEST_CASE("XML documents of 10,000 nodes", "[xmlfile]") {
  const XmlBenchmark xml;
  // What is read and searched, also when the row that writes is not asked for.
  xml.WriteThroughTheLibrary();
  Compare(
      {"xml: write 10,000 nodes", kBareCalls, kWrapperTarget}, [&] { xml.WriteThroughTheLibrary(); },
      [&] { xml.WriteBare(); });
  Compare(
      {"xml: read 10,000 nodes", kBareCalls, kWrapperTarget}, [&] { xml.ReadThroughTheLibrary(); },
      [&] { xml.ReadBare(); });
  Compare(
      {"xml: search 10,000 nodes", kBareCalls, kWrapperTarget}, [&] { xml.SearchThroughTheLibrary(); },
      [&] { xml.SearchBare(); });
}

}  // namespace benchmarks
