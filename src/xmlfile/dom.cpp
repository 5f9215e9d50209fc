#include "xmlfile/dom.h"

#include <string>

#include <comdef.h>

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
