# GoogleTest, built for the target from the sources that the distribution packages.
set(GOOGLETEST_SOURCES /usr/src/googletest CACHE PATH "Folder of GoogleTest's sources")
if(NOT EXISTS ${GOOGLETEST_SOURCES}/CMakeLists.txt)
  message(FATAL_ERROR
    "GoogleTest's sources are not in ${GOOGLETEST_SOURCES}: run scripts/setup, "
    "or set GOOGLETEST_SOURCES to a copy of them.")
endif()

set(INSTALL_GTEST OFF)
set(gtest_force_shared_crt OFF CACHE BOOL "" FORCE)
add_subdirectory(${GOOGLETEST_SOURCES} googletest EXCLUDE_FROM_ALL SYSTEM)
