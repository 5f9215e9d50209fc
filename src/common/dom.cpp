#include "common/dom.h"

#include <string>

#include <comdef.h>

namespace corvel {

using Microsoft::WRL::ComPtr;

namespace {

CTString TextOf(BSTR text) {
  return text == nullptr ? CTString() : CTString(std::wstring(text, ::SysStringLen(text)));
}

}  // namespace

BSTR NewBstr(const CTString& text) {
  BSTR copy = ::SysAllocStringLen(static_cast<const wchar_t*>(text), static_cast<unsigned>(text.GetLength()));
  if (copy == nullptr) _com_issue_error(E_OUTOFMEMORY);
  return copy;
}

CTString OwnedBstr::Text() const {
  return TextOf(m_Text);
}

VARIANT OwnedBstr::AsVariant() const {
  VARIANT value;
  ::VariantInit(&value);
  value.vt = VT_BSTR;
  value.bstrVal = m_Text;
  return value;
}

CTString OwnedVariant::Text() const {
  return TextOf(m_Value.bstrVal);
}

HRESULT CollectChildren(IXMLDOMNode* node, std::vector<ComPtr<IXMLDOMNode>>& children) {
  if (node == nullptr) return E_FAIL;
  ComPtr<IXMLDOMNodeList> list;
  HRESULT result = node->get_childNodes(list.GetAddressOf());
  if (FAILED(result) || list == nullptr) return FailureOf(result);
  for (;;) {
    ComPtr<IXMLDOMNode> child;
    result = list->nextNode(child.GetAddressOf());
    if (FAILED(result)) return result;
    if (child == nullptr) return S_OK;
    children.push_back(child);
  }
}

}  // namespace corvel
