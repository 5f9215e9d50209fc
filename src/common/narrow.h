#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "common/text.h"
#include "common/tstring.h"

namespace corvel {

/// The text in UTF-8 for a log line. Works on a copy, so several threads may read the same object.
inline std::string Narrow(const CTString& text) {
  return Utf8FromWide(
      std::wstring_view(static_cast<const wchar_t*>(text), static_cast<std::size_t>(text.GetLength())));
}

}  // namespace corvel
