# write_notices(FILE LICENCE FOLDER PORT...): the terms of what is linked in, as ports of vcpkg leave them in FOLDER; that
# the library's own are in LICENCE, or, where it is "", that there are none yet. Those of Debian's packages are written by
# packaging/make-packages.
function(write_notices file licence folder)
  set(text "Corvel Toolkit holds software of others, linked into its programs. Their terms follow.\n")
  if(licence STREQUAL "")
    string(APPEND text
      "Its own licence is its owner's to choose; it stands in LICENSE.txt as soon as there is one.\n")
  else()
    cmake_path(GET licence FILENAME name)
    string(APPEND text "Its own terms stand in ${name}.\n")
  endif()
  string(REPEAT "=" 100 line)
  foreach(port IN LISTS ARGN)
    if(NOT EXISTS ${folder}/${port}/copyright)
      message(FATAL_ERROR "The terms of ${port} are not in ${folder}: what is linked in may not be handed on without")
    endif()
    file(READ ${folder}/${port}/copyright terms)
    string(APPEND text "\n${line}\n${port}\n${line}\n\n${terms}")
  endforeach()
  file(WRITE ${file} "${text}")
endfunction()
