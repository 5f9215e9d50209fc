# Links TARGET with a header-only library: by the library's own CMake package where there is one, as vcpkg
# installs it, and otherwise by the headers of the Debian package. A cross compiler must not search the build
# machine's own include folder, so those are taken from there into the build folder.
#
# link_library_from_package(TARGET PACKAGE name TARGET imported HEADERS folder FOLDER_VARIABLE variable)
function(link_library_from_package target)
  cmake_parse_arguments(PARSE_ARGV 1 library "" "PACKAGE;TARGET;HEADERS;FOLDER_VARIABLE" "")
  find_package(${library_PACKAGE} CONFIG QUIET)
  if(TARGET ${library_TARGET})
    target_link_libraries(${target} INTERFACE ${library_TARGET})
    return()
  endif()

  set(${library_FOLDER_VARIABLE} /usr/include CACHE PATH "Folder of headers where there is no CMake package of them")
  set(from ${${library_FOLDER_VARIABLE}}/${library_HEADERS})
  if(NOT EXISTS ${from})
    message(FATAL_ERROR
      "${library_PACKAGE} is neither a CMake package nor in ${from}. On Windows set VCPKG_ROOT: vcpkg installs it. "
      "On Debian run scripts/setup. Or set ${library_FOLDER_VARIABLE} to the folder that holds ${library_HEADERS}/.")
  endif()
  file(COPY ${from} DESTINATION ${CMAKE_BINARY_DIR}/host_libraries)
  target_include_directories(${target} SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/host_libraries)
endfunction()
