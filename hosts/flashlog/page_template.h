#pragma once

#include <string_view>

namespace hosts::flashlog {

// The files of the folder page, which the build makes part of the program.
std::string_view PageHtml();
std::string_view PageCss();
std::string_view PageJs();

}  // namespace hosts::flashlog
