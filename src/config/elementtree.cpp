#include "config/elementtree.h"

#include <utility>
#include <vector>

using Microsoft::WRL::ComPtr;
using namespace corvel;

HRESULT CElementTree::Read(IXMLDOMElement* element) {
  std::vector<ComPtr<IXMLDOMNode>> children;
  HRESULT result = CollectChildren(element, children);
  if (FAILED(result)) return result;

  Store entries;
  for (const ComPtr<IXMLDOMNode>& child : children) {
    OwnedBstr name;
    OwnedBstr text;
    result = child->get_nodeName(name.Receive());
    if (SUCCEEDED(result)) result = child->get_text(text.Receive());
    if (FAILED(result)) return result;
    entries.insert_or_assign(name.Text(), std::wstring(text.Text()));
  }
  m_Entries = std::move(entries);
  return S_OK;
}

bool CElementTree::GetBoolean(const std::wstring& name, bool fallback) const {
  const auto entry = m_Entries.find(name);
  if (entry == m_Entries.end()) return fallback;
  if (entry->second == L"true" || entry->second == L"TRUE") return true;
  if (entry->second == L"false" || entry->second == L"FALSE") return false;
  return fallback;
}
