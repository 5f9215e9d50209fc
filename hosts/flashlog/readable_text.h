#pragma once

#include <string>
#include <string_view>

namespace hosts::flashlog {

/// In UTF-8 and without control characters; what is not UTF-8 is taken for the system's code page.
std::string ReadableText(std::string_view text);

}  // namespace hosts::flashlog
