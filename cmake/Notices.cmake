# write_notices(FILE FOLDER PORT...): the terms of what is linked in, as ports of vcpkg leave them in FOLDER. Those of
# Debian's packages are written by packaging/make-packages.
function(write_notices file folder)
  set(text "Corvel Toolkit holds software of others, linked into its programs. Their terms follow.\n")
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
