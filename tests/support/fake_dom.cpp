#include "support/fake_dom.h"

#include <windows.h>

#include <oleauto.h>

#include <cstddef>
#include <filesystem>
#include <fstream>

#include "common/dom.h"

using corvel::kDomElementInterface;

#if defined(__GNUC__)
// COM's interfaces have no destructors; the objects delete themselves where theirs is known.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

using Microsoft::WRL::ComPtr;

namespace {

/// Ends a method whose call the test has given another answer.
#define PLAY(call) \
  if (const HRESULT answer = this->m_Dom.Play(call); answer != S_OK) return answer
#define UNUSED_METHOD(...)                         \
  HRESULT STDMETHODCALLTYPE __VA_ARGS__ override { \
    return E_NOTIMPL;                              \
  }

/// Counts its references and itself; the interfaces below it are all of automation.
template <typename Interface>
class FakeObject : public Interface {
 public:
  explicit FakeObject(FakeDom& dom) : m_Dom(dom) { m_Dom.CountObject(1); }
  virtual ~FakeObject() { m_Dom.CountObject(-1); }
  FakeObject(const FakeObject&) = delete;
  FakeObject& operator=(const FakeObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override {
    *object = nullptr;
    PLAY("QueryInterface");
    if (id != kDomElementInterface) return E_NOINTERFACE;
    AddRef();
    *object = static_cast<Interface*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_References; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --m_References;
    if (left == 0) delete this;
    return left;
  }

  UNUSED_METHOD(GetTypeInfoCount(UINT*))
  UNUSED_METHOD(GetTypeInfo(UINT, LCID, ITypeInfo**))
  UNUSED_METHOD(GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*))
  UNUSED_METHOD(Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*))

 protected:
  FakeDom& m_Dom;

 private:
  ULONG m_References = 1;
};

IXMLDOMNode* NewNode(FakeDom& dom, const FakeNodeData& data);
IXMLDOMNodeList* NewList(FakeDom& dom, const std::vector<FakeNodeData>& items);
IXMLDOMNamedNodeMap* NewMap(FakeDom& dom);

template <typename Interface>
class FakeNode : public FakeObject<Interface> {
 public:
  FakeNode(FakeDom& dom, const FakeNodeData& data) : FakeObject<Interface>(dom), m_Data(data) {}

  HRESULT STDMETHODCALLTYPE get_nodeName(BSTR* name) override {
    *name = nullptr;
    PLAY("get_nodeName");
    *name = this->m_Dom.NewText(m_Data.name);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_nodeValue(VARIANT* value) override {
    PLAY("get_nodeValue");
    value->vt = this->m_Dom.ValueType();
    if (value->vt == VT_BSTR) value->bstrVal = this->m_Dom.NewText(m_Data.value);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE put_nodeValue(VARIANT) override {
    PLAY("put_nodeValue");
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_nodeType(DOMNodeType* type) override {
    PLAY("get_nodeType");
    *type = m_Data.type;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_childNodes(IXMLDOMNodeList** children) override {
    *children = nullptr;
    PLAY("get_childNodes");
    *children = NewList(this->m_Dom, m_Data.children);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_firstChild(IXMLDOMNode** child) override {
    *child = nullptr;
    PLAY("get_firstChild");
    if (m_Data.children.empty()) return S_FALSE;
    *child = NewNode(this->m_Dom, m_Data.children.front());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_attributes(IXMLDOMNamedNodeMap** attributes) override {
    *attributes = nullptr;
    PLAY("get_attributes");
    *attributes = NewMap(this->m_Dom);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE insertBefore(IXMLDOMNode* child, VARIANT, IXMLDOMNode** added) override {
    return Take("insertBefore", child, added);
  }
  HRESULT STDMETHODCALLTYPE removeChild(IXMLDOMNode* child, IXMLDOMNode** removed) override {
    return Take("removeChild", child, removed);
  }
  HRESULT STDMETHODCALLTYPE appendChild(IXMLDOMNode* child, IXMLDOMNode** added) override {
    return Take("appendChild", child, added);
  }
  HRESULT STDMETHODCALLTYPE get_text(BSTR* text) override {
    *text = nullptr;
    PLAY("get_text");
    *text = this->m_Dom.NewText(m_Data.value);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE put_text(BSTR) override {
    PLAY("put_text");
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE put_nodeTypedValue(VARIANT) override {
    PLAY("put_nodeTypedValue");
    return S_OK;
  }

  UNUSED_METHOD(get_parentNode(IXMLDOMNode**))
  UNUSED_METHOD(get_lastChild(IXMLDOMNode**))
  UNUSED_METHOD(get_previousSibling(IXMLDOMNode**))
  UNUSED_METHOD(get_nextSibling(IXMLDOMNode**))
  UNUSED_METHOD(replaceChild(IXMLDOMNode*, IXMLDOMNode*, IXMLDOMNode**))
  UNUSED_METHOD(hasChildNodes(VARIANT_BOOL*))
  UNUSED_METHOD(get_ownerDocument(IXMLDOMDocument**))
  UNUSED_METHOD(cloneNode(VARIANT_BOOL, IXMLDOMNode**))
  UNUSED_METHOD(get_nodeTypeString(BSTR*))
  UNUSED_METHOD(get_specified(VARIANT_BOOL*))
  UNUSED_METHOD(get_definition(IXMLDOMNode**))
  UNUSED_METHOD(get_nodeTypedValue(VARIANT*))
  UNUSED_METHOD(get_dataType(VARIANT*))
  UNUSED_METHOD(put_dataType(BSTR))
  UNUSED_METHOD(get_xml(BSTR*))
  UNUSED_METHOD(transformNode(IXMLDOMNode*, BSTR*))
  UNUSED_METHOD(selectNodes(BSTR, IXMLDOMNodeList**))
  UNUSED_METHOD(selectSingleNode(BSTR, IXMLDOMNode**))
  UNUSED_METHOD(get_parsed(VARIANT_BOOL*))
  UNUSED_METHOD(get_namespaceURI(BSTR*))
  UNUSED_METHOD(get_prefix(BSTR*))
  UNUSED_METHOD(get_baseName(BSTR*))
  UNUSED_METHOD(transformNodeToObject(IXMLDOMNode*, VARIANT))

 private:
  HRESULT Take(const char* call, IXMLDOMNode* child, IXMLDOMNode** out) {
    *out = nullptr;
    PLAY(call);
    child->AddRef();
    *out = child;
    return S_OK;
  }

  const FakeNodeData m_Data;
};

class FakeElement : public FakeNode<IXMLDOMElement> {
 public:
  using FakeNode::FakeNode;

  HRESULT STDMETHODCALLTYPE getAttribute(BSTR, VARIANT* value) override {
    value->vt = VT_NULL;
    PLAY("getAttribute");
    if (this->m_Dom.ValueType() == VT_BSTR) return S_FALSE;
    // A value of another type, which no text may be read from.
    value->vt = this->m_Dom.ValueType();
    value->llVal = 1;
    return S_OK;
  }
  UNUSED_METHOD(get_tagName(BSTR*))
  UNUSED_METHOD(setAttribute(BSTR, VARIANT))
  UNUSED_METHOD(removeAttribute(BSTR))
  UNUSED_METHOD(getAttributeNode(BSTR, IXMLDOMAttribute**))
  UNUSED_METHOD(setAttributeNode(IXMLDOMAttribute*, IXMLDOMAttribute**))
  UNUSED_METHOD(removeAttributeNode(IXMLDOMAttribute*, IXMLDOMAttribute**))
  UNUSED_METHOD(getElementsByTagName(BSTR, IXMLDOMNodeList**))
  UNUSED_METHOD(normalize())
};

class FakeAttribute : public FakeNode<IXMLDOMAttribute> {
 public:
  using FakeNode::FakeNode;

  HRESULT STDMETHODCALLTYPE put_value(VARIANT) override {
    PLAY("put_value");
    return S_OK;
  }
  UNUSED_METHOD(get_name(BSTR*))
  UNUSED_METHOD(get_value(VARIANT*))
};

class FakeInstruction : public FakeNode<IXMLDOMProcessingInstruction> {
 public:
  using FakeNode::FakeNode;

  UNUSED_METHOD(get_target(BSTR*))
  UNUSED_METHOD(get_data(BSTR*))
  UNUSED_METHOD(put_data(BSTR))
};

class FakeText : public FakeNode<IXMLDOMText> {
 public:
  using FakeNode::FakeNode;

  UNUSED_METHOD(get_data(BSTR*))
  UNUSED_METHOD(put_data(BSTR))
  UNUSED_METHOD(get_length(LONG*))
  UNUSED_METHOD(substringData(LONG, LONG, BSTR*))
  UNUSED_METHOD(appendData(BSTR))
  UNUSED_METHOD(insertData(LONG, BSTR))
  UNUSED_METHOD(deleteData(LONG, LONG))
  UNUSED_METHOD(replaceData(LONG, LONG, BSTR))
  UNUSED_METHOD(splitText(LONG, IXMLDOMText**))
};

class FakeList : public FakeObject<IXMLDOMNodeList> {
 public:
  FakeList(FakeDom& dom, const std::vector<FakeNodeData>& items) : FakeObject(dom), m_Items(items) {}

  HRESULT STDMETHODCALLTYPE get_item(LONG index, IXMLDOMNode** item) override {
    *item = nullptr;
    PLAY("get_item");
    return Give(static_cast<std::size_t>(index), item);
  }
  HRESULT STDMETHODCALLTYPE get_length(LONG* length) override {
    PLAY("get_length");
    *length = static_cast<LONG>(m_Items.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE nextNode(IXMLDOMNode** item) override {
    *item = nullptr;
    PLAY("nextNode");
    return Give(m_Next++, item);
  }
  UNUSED_METHOD(reset())
  UNUSED_METHOD(get__newEnum(IUnknown**))

 private:
  HRESULT Give(std::size_t index, IXMLDOMNode** item) {
    if (index >= m_Items.size()) return S_FALSE;
    *item = NewNode(m_Dom, m_Items[index]);
    return S_OK;
  }

  const std::vector<FakeNodeData> m_Items;
  std::size_t m_Next = 0;
};

class FakeMap : public FakeObject<IXMLDOMNamedNodeMap> {
 public:
  using FakeObject::FakeObject;

  HRESULT STDMETHODCALLTYPE getNamedItem(BSTR name, IXMLDOMNode** item) override {
    *item = nullptr;
    PLAY("getNamedItem");
    *item = new FakeAttribute(m_Dom, {NODE_ATTRIBUTE, name, L"attribute value", {}});
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE setNamedItem(IXMLDOMNode* item, IXMLDOMNode** added) override {
    *added = nullptr;
    PLAY("setNamedItem");
    item->AddRef();
    *added = item;
    return S_OK;
  }
  UNUSED_METHOD(removeNamedItem(BSTR, IXMLDOMNode**))
  UNUSED_METHOD(get_item(LONG, IXMLDOMNode**))
  UNUSED_METHOD(get_length(LONG*))
  UNUSED_METHOD(getQualifiedItem(BSTR, BSTR, IXMLDOMNode**))
  UNUSED_METHOD(removeQualifiedItem(BSTR, BSTR, IXMLDOMNode**))
  UNUSED_METHOD(nextNode(IXMLDOMNode**))
  UNUSED_METHOD(reset())
  UNUSED_METHOD(get__newEnum(IUnknown**))
};

class FakeDocument : public FakeNode<IXMLDOMDocument> {
 public:
  explicit FakeDocument(FakeDom& dom) : FakeNode(dom, dom.Document()) {}

  HRESULT STDMETHODCALLTYPE get_documentElement(IXMLDOMElement** element) override {
    *element = nullptr;
    PLAY("get_documentElement");
    *element = new FakeElement(m_Dom, m_Dom.Document().children.back());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE createTextNode(BSTR text, IXMLDOMText** node) override {
    *node = nullptr;
    PLAY("createTextNode");
    *node = new FakeText(m_Dom, {NODE_TEXT, L"#text", text, {}});
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE createProcessingInstruction(BSTR target, BSTR data,
                                                        IXMLDOMProcessingInstruction** node) override {
    *node = nullptr;
    PLAY("createProcessingInstruction");
    *node = new FakeInstruction(m_Dom, {NODE_PROCESSING_INSTRUCTION, target, data, {}});
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE createAttribute(BSTR name, IXMLDOMAttribute** attribute) override {
    *attribute = nullptr;
    PLAY("createAttribute");
    *attribute = new FakeAttribute(m_Dom, {NODE_ATTRIBUTE, name, L"", {}});
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE createNode(VARIANT, BSTR name, BSTR, IXMLDOMNode** node) override {
    *node = nullptr;
    PLAY("createNode");
    *node = NewNode(m_Dom, {NODE_ELEMENT, name, L"", {}});
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE load(VARIANT, VARIANT_BOOL* loaded) override {
    *loaded = VARIANT_FALSE;
    PLAY("load");
    *loaded = VARIANT_TRUE;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE save(VARIANT target) override {
    if (m_Dom.BeginsFiles()) std::ofstream(std::filesystem::path(target.bstrVal)) << "<half";
    PLAY("save");
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE put_async(VARIANT_BOOL value) override { return Put("put_async", value); }
  HRESULT STDMETHODCALLTYPE put_validateOnParse(VARIANT_BOOL value) override {
    return Put("put_validateOnParse", value);
  }
  HRESULT STDMETHODCALLTYPE put_resolveExternals(VARIANT_BOOL value) override {
    return Put("put_resolveExternals", value);
  }
  HRESULT STDMETHODCALLTYPE put_preserveWhiteSpace(VARIANT_BOOL value) override {
    return Put("put_preserveWhiteSpace", value);
  }

  UNUSED_METHOD(get_doctype(IXMLDOMDocumentType**))
  UNUSED_METHOD(get_implementation(IXMLDOMImplementation**))
  UNUSED_METHOD(putref_documentElement(IXMLDOMElement*))
  UNUSED_METHOD(createElement(BSTR, IXMLDOMElement**))
  UNUSED_METHOD(createDocumentFragment(IXMLDOMDocumentFragment**))
  UNUSED_METHOD(createComment(BSTR, IXMLDOMComment**))
  UNUSED_METHOD(createCDATASection(BSTR, IXMLDOMCDATASection**))
  UNUSED_METHOD(createEntityReference(BSTR, IXMLDOMEntityReference**))
  UNUSED_METHOD(getElementsByTagName(BSTR, IXMLDOMNodeList**))
  UNUSED_METHOD(nodeFromID(BSTR, IXMLDOMNode**))
  UNUSED_METHOD(get_readyState(LONG*))
  UNUSED_METHOD(get_parseError(IXMLDOMParseError**))
  UNUSED_METHOD(get_url(BSTR*))
  UNUSED_METHOD(get_async(VARIANT_BOOL*))
  UNUSED_METHOD(abort())
  UNUSED_METHOD(loadXML(BSTR, VARIANT_BOOL*))
  UNUSED_METHOD(get_validateOnParse(VARIANT_BOOL*))
  UNUSED_METHOD(get_resolveExternals(VARIANT_BOOL*))
  UNUSED_METHOD(get_preserveWhiteSpace(VARIANT_BOOL*))
  UNUSED_METHOD(put_onreadystatechange(VARIANT))
  UNUSED_METHOD(put_ondataavailable(VARIANT))
  UNUSED_METHOD(put_ontransformnode(VARIANT))

 private:
  HRESULT Put(const std::string& call, VARIANT_BOOL value) {
    PLAY(call + (value == VARIANT_FALSE ? " off" : " on"));
    return S_OK;
  }
};

IXMLDOMNode* NewNode(FakeDom& dom, const FakeNodeData& data) {
  if (data.type == NODE_ELEMENT) return new FakeElement(dom, data);
  if (data.type == NODE_TEXT) return new FakeText(dom, data);
  return new FakeInstruction(dom, data);
}

IXMLDOMNodeList* NewList(FakeDom& dom, const std::vector<FakeNodeData>& items) {
  return new FakeList(dom, items);
}

IXMLDOMNamedNodeMap* NewMap(FakeDom& dom) {
  return new FakeMap(dom);
}

const FakeNodeData kDeclaration{NODE_PROCESSING_INSTRUCTION, L"xml", L"version='1.0'", {}};
const FakeNodeData kBlank{NODE_TEXT, L"#text", L"\n ", {}};
const FakeNodeData kFirst{NODE_ELEMENT, L"first", L"one", {}};
const FakeNodeData kSecond{NODE_ELEMENT, L"second", L"two", {}};
const FakeNodeData kRoot{NODE_ELEMENT, L"root", L"", {kBlank, kFirst, kSecond}};

}  // namespace

FakeDom::FakeDom() : m_Document{NODE_DOCUMENT, L"#document", L"", {kDeclaration, kRoot}} {
  s_current = this;
  m_Patch.Replace("CoCreateInstance", &Create);
}

FakeDom::~FakeDom() {
  s_current = nullptr;
}

void FakeDom::FailCallNumber(int number) {
  m_CallsUntilFailure = number;
  m_HasFailed = false;
}

// Attach, as mingw-w64 has it, would add a reference.
ComPtr<IXMLDOMNode> FakeDom::Element() {
  ComPtr<IXMLDOMNode> node;
  *node.GetAddressOf() = NewNode(*this, kFirst);
  return node;
}

ComPtr<IXMLDOMNodeList> FakeDom::List() {
  ComPtr<IXMLDOMNodeList> list;
  *list.GetAddressOf() = NewList(*this, {kFirst, kSecond});
  return list;
}

BSTR FakeDom::NewText(const std::wstring& text) const {
  return m_GivesNullTexts ? nullptr : ::SysAllocString(text.c_str());
}

HRESULT FakeDom::Play(const std::string& call) {
  m_Calls.push_back(call);
  if (m_CallsUntilFailure > 0 && --m_CallsUntilFailure == 0) {
    m_HasFailed = true;
    return kRefused;
  }
  const auto answer = m_Answers.find(call);
  return answer == m_Answers.end() ? S_OK : answer->second;
}

HRESULT WINAPI FakeDom::Create(REFCLSID classId, IUnknown*, DWORD context, REFIID interfaceId,
                               void** object) {
  *object = nullptr;
  s_current->m_Creations.push_back({classId, context, interfaceId});
  const HRESULT result = s_current->Play("CoCreateInstance");
  if (result == S_OK) *object = static_cast<IXMLDOMDocument*>(new FakeDocument(*s_current));
  return result;
}
