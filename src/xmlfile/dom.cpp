#include "xmlfile/dom.h"

#include <string>
#include <string_view>

#include <comdef.h>

using Microsoft::WRL::ComPtr;

namespace {

std::wstring_view View(BSTR text) {
  return text == nullptr ? std::wstring_view() : std::wstring_view(text, ::SysStringLen(text));
}

CTString TextOf(BSTR text) {
  return CTString(std::wstring(View(text)));
}

}  // namespace

BSTR NewBstr(const CTString& text) {
  BSTR copy = ::SysAllocStringLen(static_cast<const wchar_t*>(text), static_cast<unsigned>(text.GetLength()));
  if (copy == nullptr) _com_issue_error(E_OUTOFMEMORY);
  return copy;
}

CTString OwnedBstr::Text() const {
  return TextOf(m_text);
}

VARIANT OwnedBstr::AsVariant() const {
  VARIANT value;
  ::VariantInit(&value);
  value.vt = VT_BSTR;
  value.bstrVal = m_text;
  return value;
}

CTString OwnedVariant::Text() const {
  return TextOf(m_value.bstrVal);
}

bool OwnedVariant::Equals(const CTString& text) const {
  return View(m_value.bstrVal) ==
         std::wstring_view(static_cast<const wchar_t*>(text), static_cast<std::size_t>(text.GetLength()));
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
