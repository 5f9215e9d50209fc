#pragma once

#include <string>

#include "hosts/common/text.h"

namespace hosts {

/// A name that the system's code page does not hold; empty when it holds all, as UTF-8 does.
inline std::wstring NameBeyondTheCodePage() {
  for (const wchar_t* name : {L"\u4E2D", L"\u0416", L"\u00FC"}) {
    if (AnsiPath(L"", name).empty()) return name;
  }
  return {};
}

}  // namespace hosts
