#pragma once

#include <map>
#include <string>

#include "common/dom.h"

/// What the children of an XML element say: a store of names and texts. One thread at a time.
class CElementTree {
 public:
  using Store = std::map<std::wstring, std::wstring>;

  /// Refills the store with each child node's name and text; of equal names the last one counts.
  /// On failure the store is unchanged.
  HRESULT Read(IXMLDOMElement* element);

  /// An entry as a truth value: "true", "TRUE", "false" and "FALSE" are understood; any other text, and a
  /// missing entry, gives the caller's default.
  bool GetBoolean(const std::wstring& name, bool fallback) const;

  const Store& Entries() const { return m_Entries; }

 private:
  Store m_Entries;
};
