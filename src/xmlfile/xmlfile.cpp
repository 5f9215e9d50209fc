#include "xmlfile/xmlfile.h"

#include <array>

#include <shlwapi.h>

#include "common/dom.h"
#include "common/log.h"
#include "common/narrow.h"

using namespace corvel;

namespace QUENTA::Brevant::Interfaces::ToolkitCore {

namespace {

using Microsoft::WRL::ComPtr;

constexpr const wchar_t* kDeclarationTarget = L"xml";
constexpr const wchar_t* kDeclarationData = L"version='1.0' encoding='utf-8'";
constexpr const wchar_t* kSchemaPrefixAttribute = L"xmlns:xsi";
constexpr const wchar_t* kSchemaInstanceNamespace = L"http://www.w3.org/2001/XMLSchema-instance";
constexpr const wchar_t* kSchemaAttribute = L"xsi:noNamespaceSchemaLocation";

constexpr int kNoList = -1;

// Under whose name the look at an attribute is logged, a search's too.
constexpr char kGetAttribute[] = "QUENTA::Brevant::Interfaces::ToolkitCore::CXMLFile::GetAttributeForNode";

/// A behaviour that every document of this library switches off.
struct Behaviour {
  HRESULT (STDMETHODCALLTYPE IXMLDOMDocument::*put)(VARIANT_BOOL);
  const char* name;
};
constexpr std::array<Behaviour, 4> kBehavioursOff{{
    {&IXMLDOMDocument::put_async, "put_async"},
    {&IXMLDOMDocument::put_validateOnParse, "put_validateOnParse"},
    {&IXMLDOMDocument::put_resolveExternals, "put_resolveExternals"},
    {&IXMLDOMDocument::put_preserveWhiteSpace, "put_preserveWhiteSpace"},
}};

template <typename Interface>
void Clear(Interface** out) {
  if (out != nullptr) *out = nullptr;
}

template <typename Interface>
void HandOut(ComPtr<Interface>& object, Interface** out) {
  if (out != nullptr) *out = object.Detach();
}

/// A document that did not load, or not become what was asked for, must not be saved over a good file.
template <typename... Owners>
HRESULT Abandon(HRESULT result, Owners&... owners) {
  (owners.reset(), ...);
  return result;
}

/// The value of a node's attribute, whose name comes as the document model takes it, too: a search asks each
/// of its nodes.
HRESULT ReadAttribute(IXMLDOMNode* node, const CTString& attributeName, const OwnedBstr& name,
                      CTString& value) {
  ComPtr<IXMLDOMNamedNodeMap> attributes;
  HRESULT result = node->get_attributes(attributes.GetAddressOf());
  if (FAILED(result))
    LOG_ERROR_AS(kGetAttribute, "IXMLDOMNode::get_attributes() failed with: %x", HexOf(result));
  // Texts and comments have no map; that is no failure of the call.
  if (FAILED(result) || attributes == nullptr) return FailureOf(result);

  ComPtr<IXMLDOMNode> attribute;
  result = attributes->getNamedItem(name.Get(), attribute.GetAddressOf());
  if (FAILED(result)) {
    LOG_ERROR_AS(kGetAttribute, "IXMLDOMNamedNodeMap::getNamedItem(%s) failed with: %x",
                 Narrow(attributeName).c_str(), HexOf(result));
  }
  if (FAILED(result) || attribute == nullptr) return FailureOf(result);

  OwnedVariant nodeValue;
  result = attribute->get_nodeValue(nodeValue.Receive());
  if (FAILED(result) || !nodeValue.IsText()) {
    LOG_TRACE_AS(kGetAttribute, "Attribute Name: %s, Attribute Type: %d", Narrow(attributeName).c_str(),
                 nodeValue.Type());
    LOG_ERROR_AS(kGetAttribute, "IXMLDOMNode::get_nodeValue() failed with: %x", HexOf(result));
    return FailureOf(result);
  }
  value = nodeValue.Text();
  return S_OK;
}

VARIANT ElementType() {
  VARIANT type;
  ::VariantInit(&type);
  type.vt = VT_I4;
  type.lVal = NODE_ELEMENT;
  return type;
}

}  // namespace

XML_NAME_VALUE::XML_NAME_VALUE(const CTString& name, const CTString& text, VARENUM type) noexcept
    : m_Name(name) {
  // A value that is left alone must still be harmless: the document model reads it.
  m_Value = VARIANT{};
  m_Value.vt = static_cast<VARTYPE>(type);
  if (type == VT_BSTR) m_Value.bstrVal = NewBstr(text);
  if (type == VT_UI2) m_Value.uiVal = static_cast<USHORT>(::StrToIntW(text));
}

XML_NAME_VALUE::XML_NAME_VALUE(const CTString& name, const SYSTEMTIME& time) noexcept : m_Name(name) {
  m_Value = VARIANT{};
  m_Value.vt = VT_DATE;
  SYSTEMTIME copy = time;
  DATE date = 0;
  if (::SystemTimeToVariantTime(&copy, &date) != FALSE) m_Value.date = date;
}

// Here and not in the header, so that the library exports them whatever the compiler.
XML_NAME_VALUE::XML_NAME_VALUE(const XML_NAME_VALUE& other) noexcept = default;
XML_NAME_VALUE::XML_NAME_VALUE(XML_NAME_VALUE&& other) noexcept = default;
XML_NAME_VALUE& XML_NAME_VALUE::operator=(const XML_NAME_VALUE& other) noexcept = default;
XML_NAME_VALUE& XML_NAME_VALUE::operator=(XML_NAME_VALUE&& other) noexcept = default;
XML_NAME_VALUE::~XML_NAME_VALUE() = default;

CTString XML_NAME_VALUE::Name() const noexcept {
  return m_Name;
}

VARIANT XML_NAME_VALUE::Value() const noexcept {
  return m_Value;
}

CXMLFile::CXMLFile(const CTString& path) noexcept : m_Path(path) {}

CXMLFile::~CXMLFile() = default;

HRESULT CXMLFile::InitializeDOM() noexcept {
  m_Children.reset();
  m_Root.reset();
  m_Document.reset();
  ComPtr<IXMLDOMDocument> document;
  HRESULT result = ::CoCreateInstance(kDomDocumentClass, nullptr, kDomClassContext, kDomDocumentInterface,
                                      reinterpret_cast<void**>(document.GetAddressOf()));
  if (FAILED(result)) {
    LOG_ERROR("CoCreateInstance(IID_IXMLDOMDocument) failed with %x:", HexOf(result));
    return result;
  }
  for (const Behaviour& behaviour : kBehavioursOff) {
    result = (document.Get()->*behaviour.put)(VARIANT_FALSE);
    if (FAILED(result)) {
      LOG_ERROR("IXMLDOMDocument::%s() failed with: %x", behaviour.name, HexOf(result));
      return result;
    }
  }
  m_Document.reset(document.Detach());
  return S_OK;
}

HRESULT CXMLFile::GetRootNode(IXMLDOMElement** root) noexcept {
  Clear(root);
  if (FAILED(InitializeDOM())) return E_FAIL;

  // A file that is missing or malformed is a successful call that loaded nothing.
  const OwnedBstr path(m_Path);
  VARIANT_BOOL loaded = VARIANT_FALSE;
  HRESULT result = m_Document->load(path.AsVariant(), &loaded);
  if (FAILED(result) || loaded == VARIANT_FALSE) {
    LOG_ERROR("IXMLDOMDocument::load(%s) failed with: %x", Narrow(m_Path).c_str(), HexOf(result));
    return Abandon(E_FAIL, m_Document);
  }

  ComPtr<IXMLDOMElement> element;
  result = m_Document->get_documentElement(element.GetAddressOf());
  if (FAILED(result) || element == nullptr) {
    LOG_ERROR("IXMLDOMDocument::get_documentElement(%s) failed with: %x", Narrow(m_Path).c_str(),
              HexOf(result));
    return Abandon(FailureOf(result), m_Document);
  }

  ComPtr<IXMLDOMNodeList> children;
  result = element->get_childNodes(children.GetAddressOf());
  if (FAILED(result) || children == nullptr) {
    LOG_ERROR("IXMLDOMElement::get_childNodes(%s) failed with: %x", Narrow(m_Path).c_str(), HexOf(result));
    return Abandon(FailureOf(result), m_Document);
  }

  m_Children.reset(children.Detach());
  m_Root.reset(element.Detach());
  // Callers rely on the root being borrowed: they never release it.
  if (root != nullptr) *root = m_Root.get();
  return S_OK;
}

int CXMLFile::GetNodesCount() noexcept {
  if (m_Children == nullptr) return kNoList;
  long length = 0;
  const HRESULT result = m_Children->get_length(&length);
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMNodeList::get_length() failed with: %x", HexOf(result));
    return kNoList;
  }
  return static_cast<int>(length);
}

HRESULT CXMLFile::GetChildNodesOfNode(IXMLDOMNode* node, IXMLDOMNodeList** children, long& count) noexcept {
  Clear(children);
  count = 0;
  if (node == nullptr || children == nullptr) return E_FAIL;

  ComPtr<IXMLDOMNodeList> list;
  HRESULT result = node->get_childNodes(list.GetAddressOf());
  if (FAILED(result) || list == nullptr) {
    LOG_ERROR("IXMLDOMNode::get_childNodes() failed: %x", HexOf(result));
    return FailureOf(result);
  }
  long length = 0;
  result = list->get_length(&length);
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMNodeList::get_length() failed with: %x", HexOf(result));
    return result;
  }
  count = length;
  HandOut(list, children);
  return S_OK;
}

HRESULT CXMLFile::GetNodeAtIndex(int index, IXMLDOMNode** node, IXMLDOMNodeList* list) noexcept {
  Clear(node);
  if (list == nullptr || node == nullptr) return E_FAIL;
  const HRESULT result = list->get_item(index, node);
  if (FAILED(result)) LOG_ERROR("IXMLDOMNodeList::get_item(%d) failed with: %x", index, HexOf(result));
  return result;
}

HRESULT CXMLFile::GetNameForNode(IXMLDOMNode* node, CTString& name) noexcept {
  if (node == nullptr) return E_FAIL;
  OwnedBstr nodeName;
  const HRESULT result = node->get_nodeName(nodeName.Receive());
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMNode::get_nodeName() failed with: %x", HexOf(result));
    return result;
  }
  name = nodeName.Text();
  return S_OK;
}

HRESULT CXMLFile::GetTextForNode(IXMLDOMNode* node, CTString& text) noexcept {
  if (node == nullptr) return E_FAIL;
  OwnedBstr nodeText;
  const HRESULT result = node->get_text(nodeText.Receive());
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMNode::get_text() failed with: %x", HexOf(result));
    return result;
  }
  text = nodeText.Text();
  return S_OK;
}

bool CXMLFile::DoesNodeNameEquals(IXMLDOMNode* node, const CTString& name) noexcept {
  if (node == nullptr) return false;
  OwnedBstr nodeName;
  const HRESULT result = node->get_nodeName(nodeName.Receive());
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMNode::get_nodeName() failed with: %x", HexOf(result));
    return false;
  }
  return nodeName.Text().Compare(name) == 0;
}

bool CXMLFile::IsNthNodeAnElementWithName(int n, const CTString& name, IXMLDOMNode** node,
                                          IXMLDOMNodeList* list) noexcept {
  Clear(node);
  ComPtr<IXMLDOMNode> item;
  if (FAILED(GetNodeAtIndex(n, item.GetAddressOf(), list)) || item == nullptr) return false;

  DOMNodeType type = NODE_INVALID;
  const HRESULT result = item->get_nodeType(&type);
  if (FAILED(result)) LOG_ERROR("IXMLDOMNode::get_nodeType() failed with: %x", HexOf(result));
  const bool isElement = SUCCEEDED(result) && type == NODE_ELEMENT;
  const bool matches = isElement && DoesNodeNameEquals(item.Get(), name);
  HandOut(item, node);
  return matches;
}

HRESULT CXMLFile::GetAttributeForNode(IXMLDOMNode* node, const CTString& attributeName,
                                      CTString& value) noexcept {
  if (node == nullptr) return E_FAIL;
  return ReadAttribute(node, attributeName, OwnedBstr(attributeName), value);
}

HRESULT CXMLFile::FindNodeWithAttributeValue(IXMLDOMNodeList* list, const CTString& attributeName,
                                             const CTString& value, IXMLDOMNode** node) noexcept {
  Clear(node);
  if (list == nullptr || node == nullptr || attributeName.IsEmpty()) return E_FAIL;

  const OwnedBstr name(attributeName);
  CTString found;
  for (;;) {
    ComPtr<IXMLDOMNode> candidate;
    const HRESULT result = list->nextNode(candidate.GetAddressOf());
    if (FAILED(result)) {
      LOG_ERROR("IXMLDOMNodeList::nextNode() failed with: %x", HexOf(result));
      return result;
    }
    if (candidate == nullptr) return S_OK;
    if (SUCCEEDED(ReadAttribute(candidate.Get(), attributeName, name, found)) && found == value) {
      HandOut(candidate, node);
      return S_OK;
    }
  }
}

HRESULT CXMLFile::CreateAndAddPINode() noexcept {
  if (m_Document == nullptr) return E_FAIL;

  const OwnedBstr target{CTString(kDeclarationTarget)};
  const OwnedBstr data{CTString(kDeclarationData)};
  ComPtr<IXMLDOMProcessingInstruction> declaration;
  HRESULT result =
      m_Document->createProcessingInstruction(target.Get(), data.Get(), declaration.GetAddressOf());
  if (FAILED(result) || declaration == nullptr) {
    LOG_ERROR("IXMLDOMDocument::createProcessingInstruction() failed with: %x", HexOf(result));
    return FailureOf(result);
  }
  ComPtr<IXMLDOMNode> added;
  result = m_Document->appendChild(declaration.Get(), added.GetAddressOf());
  if (FAILED(result)) LOG_ERROR("IXMLDOMDocument::appendChild() failed with: %x", HexOf(result));
  return result;
}

HRESULT CXMLFile::CreateAndAddNode(const CTString& name, IXMLDOMNode** node, IXMLDOMNode* parent) noexcept {
  Clear(node);
  if (m_Document == nullptr) return E_FAIL;

  const OwnedBstr elementName(name);
  ComPtr<IXMLDOMNode> element;
  HRESULT result = m_Document->createNode(ElementType(), elementName.Get(), nullptr, element.GetAddressOf());
  if (FAILED(result) || element == nullptr) {
    LOG_ERROR("IXMLDOMDocument::createNode(%s) failed with: %x", Narrow(name).c_str(), HexOf(result));
    return FailureOf(result);
  }
  IXMLDOMNode* target = parent == nullptr ? m_Document.get() : parent;
  ComPtr<IXMLDOMNode> added;
  result = target->appendChild(element.Get(), added.GetAddressOf());
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMDocument::appendChild(%s) failed with: %x", Narrow(name).c_str(), HexOf(result));
    return result;
  }
  HandOut(element, node);
  return S_OK;
}

HRESULT CXMLFile::CreateRootNode(const CTString& name, IXMLDOMNode** node) noexcept {
  Clear(node);
  if (name.IsEmpty()) return E_FAIL;

  ComPtr<IXMLDOMNode> root;
  if (FAILED(InitializeDOM()) || FAILED(CreateAndAddPINode()) ||
      FAILED(CreateAndAddNode(name, root.GetAddressOf(), nullptr))) {
    return Abandon(E_FAIL, m_Document);
  }
  ComPtr<IXMLDOMElement> element;
  const HRESULT result =
      root->QueryInterface(kDomElementInterface, reinterpret_cast<void**>(element.GetAddressOf()));
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMNode::QueryInterface(IID_IXMLDOMElement) failed with: %x", HexOf(result));
    return Abandon(E_FAIL, m_Document);
  }
  m_Root.reset(element.Detach());
  HandOut(root, node);
  return S_OK;
}

HRESULT CXMLFile::CreateRootNode(const CTString& name, const CTString& schema, IXMLDOMNode** node) noexcept {
  Clear(node);
  if (schema.IsEmpty()) return E_FAIL;

  ComPtr<IXMLDOMNode> root;
  if (FAILED(CreateRootNode(name, root.GetAddressOf()))) return E_FAIL;
  if (FAILED(CreateAttributeForNode(kSchemaPrefixAttribute, kSchemaInstanceNamespace, root.Get())) ||
      FAILED(CreateAttributeForNode(kSchemaAttribute, schema, root.Get()))) {
    return Abandon(E_FAIL, m_Root, m_Document);
  }
  HandOut(root, node);
  return S_OK;
}

HRESULT CXMLFile::AddAttributeToNode(const CTString& attributeName, const VARIANT& value,
                                     IXMLDOMNode* node) noexcept {
  if (attributeName.IsEmpty() || node == nullptr || m_Document == nullptr) return E_FAIL;

  const OwnedBstr name(attributeName);
  ComPtr<IXMLDOMAttribute> attribute;
  HRESULT result = m_Document->createAttribute(name.Get(), attribute.GetAddressOf());
  if (FAILED(result) || attribute == nullptr) {
    LOG_ERROR("IXMLDOMDocument::createAttribute(%s) failed with: %x", Narrow(attributeName).c_str(),
              HexOf(result));
    return FailureOf(result);
  }
  // First the value, then the map: an implementation may keep a copy of what it is given.
  result = attribute->put_value(value);
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMAttribute::put_value(%s) failed with: %x", Narrow(attributeName).c_str(),
              HexOf(result));
    return result;
  }
  ComPtr<IXMLDOMNamedNodeMap> attributes;
  result = node->get_attributes(attributes.GetAddressOf());
  if (FAILED(result) || attributes == nullptr) {
    LOG_ERROR("IXMLDOMNode::get_attributes() failed with: %x", HexOf(result));
    return FailureOf(result);
  }
  ComPtr<IXMLDOMNode> added;
  result = attributes->setNamedItem(attribute.Get(), added.GetAddressOf());
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMNamedNodeMap::setNamedItem(%s) failed with: %x", Narrow(attributeName).c_str(),
              HexOf(result));
  }
  return result;
}

HRESULT CXMLFile::CreateAttributeForNode(const CTString& name, const CTString& value,
                                         IXMLDOMNode* node) noexcept {
  const OwnedBstr text(value);
  return AddAttributeToNode(name, text.AsVariant(), node);
}

HRESULT CXMLFile::CreateAttributeNode(const CTString& elementName, const CTString& attributeName,
                                      const CTString& attributeValue, IXMLDOMNode* parent,
                                      IXMLDOMNode** node) noexcept {
  Clear(node);
  ComPtr<IXMLDOMNode> element;
  HRESULT result = CreateAndAddNode(elementName, element.GetAddressOf(), parent);
  if (SUCCEEDED(result)) result = CreateAttributeForNode(attributeName, attributeValue, element.Get());
  if (SUCCEEDED(result)) HandOut(element, node);
  return result;
}

HRESULT CXMLFile::CreateNode(const CTString& name, IXMLDOMNode* parent, IXMLDOMNode** node) noexcept {
  return CreateAndAddNode(name, node, parent);
}

HRESULT CXMLFile::CreateNode(const CTString& name, const VARIANT& value, IXMLDOMNode* parent,
                             IXMLDOMNode** node) noexcept {
  Clear(node);
  ComPtr<IXMLDOMNode> element;
  HRESULT result = CreateAndAddNode(name, element.GetAddressOf(), parent);
  if (FAILED(result)) return result;
  result = element->put_nodeTypedValue(value);
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMNode::put_nodeTypedValue(%s) failed with: %x", Narrow(name).c_str(), HexOf(result));
    return result;
  }
  HandOut(element, node);
  return S_OK;
}

HRESULT CXMLFile::CreateTextNode(const CTString& name, const CTString& text, IXMLDOMNode* parent,
                                 IXMLDOMNode** node) noexcept {
  Clear(node);
  ComPtr<IXMLDOMNode> element;
  HRESULT result = CreateAndAddNode(name, element.GetAddressOf(), parent);
  if (FAILED(result)) return result;
  const OwnedBstr content(text);
  result = element->put_text(content.Get());
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMNode::put_text(%s) failed with: %x", Narrow(name).c_str(), HexOf(result));
    return result;
  }
  HandOut(element, node);
  return S_OK;
}

HRESULT CXMLFile::CreateNodes(const std::vector<XML_NAME_VALUE>& nodes, IXMLDOMNode* parent) noexcept {
  for (const XML_NAME_VALUE& node : nodes) {
    if (FAILED(CreateNode(node.Name(), node.Value(), parent, nullptr))) return E_FAIL;
  }
  return S_OK;
}

HRESULT CXMLFile::SaveDocumentToFile() noexcept {
  if (m_Document == nullptr) return E_FAIL;
  const OwnedBstr path(m_Path);
  const HRESULT result = m_Document->save(path.AsVariant());
  if (FAILED(result)) {
    LOG_ERROR("IXMLDOMDocument::save(%s) failed with: %d", Narrow(m_Path).c_str(), static_cast<int>(result));
  }
  return result;
}

}  // namespace QUENTA::Brevant::Interfaces::ToolkitCore
