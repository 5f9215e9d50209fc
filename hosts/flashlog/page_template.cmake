# Makes a header of the page's template, so that the program carries it and the template stays files that
# editors and browsers know.
#
# usage: cmake -DFOLDER=<of the template> -DHEADER=<file> -P page_template.cmake

set(header "#pragma once\n\n#include <string_view>\n\nnamespace hosts::flashlog {\n\n")
foreach(part kPageHtml:page.html kPageCss:page.css kPageJs:page.js)
  string(REPLACE ":" ";" part ${part})
  list(GET part 0 name)
  list(GET part 1 file)
  # As numbers: a compiler need not take a text literal of more than some kilobytes.
  file(READ ${FOLDER}/${file} bytes HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND header "inline constexpr char ${name}Bytes[] = {${bytes}};\n"
    "inline constexpr std::string_view ${name}{${name}Bytes, sizeof ${name}Bytes};\n\n")
endforeach()
file(WRITE ${HEADER} "${header}}  // namespace hosts::flashlog\n")
