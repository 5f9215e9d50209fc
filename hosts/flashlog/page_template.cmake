# Makes a source of the page's template, so that the program carries it and the template stays files that
# editors and browsers know.
#
# usage: cmake -DFOLDER=<of the template> -DSOURCE=<file> -P page_template.cmake

set(source "#include \"hosts/flashlog/page_template.h\"\n\nnamespace hosts::flashlog {\n\nnamespace {\n\n")
foreach(part PageHtml:page.html PageCss:page.css PageJs:page.js)
  string(REPLACE ":" ";" part ${part})
  list(GET part 0 name)
  list(GET part 1 file)
  # As numbers: a compiler need not take a text literal of more than some kilobytes.
  file(READ ${FOLDER}/${file} bytes HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND source "constexpr char k${name}[] = {${bytes}};\n")
  string(APPEND functions "std::string_view ${name}() {\n  return {k${name}, sizeof k${name}};\n}\n\n")
endforeach()
file(WRITE ${SOURCE} "${source}\n}  // namespace\n\n${functions}}  // namespace hosts::flashlog\n")
