# Header-only libraries that hosts and tools use: command lines and JSON. A cross compiler must not search
# the build machine's own include folder, so the headers are taken from there into the build folder.
set(HOST_LIBRARY_INCLUDES /usr/include CACHE PATH "Folder that holds CLI/ and nlohmann/")
foreach(library CLI nlohmann)
  if(NOT EXISTS ${HOST_LIBRARY_INCLUDES}/${library})
    message(FATAL_ERROR
      "${HOST_LIBRARY_INCLUDES}/${library} is missing: run scripts/setup, "
      "or set HOST_LIBRARY_INCLUDES to a folder that holds CLI11 and nlohmann-json.")
  endif()
  file(COPY ${HOST_LIBRARY_INCLUDES}/${library} DESTINATION ${CMAKE_BINARY_DIR}/host_libraries)
endforeach()

add_library(host_libraries INTERFACE)
target_include_directories(host_libraries SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/host_libraries)
