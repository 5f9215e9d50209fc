# GoogleTest: its own CMake package where there is one, as vcpkg installs it, and otherwise built for the target
# from the sources that Debian packages.
find_package(GTest CONFIG QUIET)
if(TARGET GTest::gmock_main)
  return()
endif()

set(GOOGLETEST_SOURCES /usr/src/googletest CACHE PATH "Folder of GoogleTest's sources where there is no CMake package")
if(NOT EXISTS ${GOOGLETEST_SOURCES}/CMakeLists.txt)
  message(FATAL_ERROR
    "GoogleTest is neither a CMake package nor in ${GOOGLETEST_SOURCES}. On Windows set VCPKG_ROOT: vcpkg installs it. "
    "On Debian run scripts/setup. Or set GOOGLETEST_SOURCES to its sources, or CORVEL_BUILD_TESTS to OFF.")
endif()

set(INSTALL_GTEST OFF)
set(gtest_force_shared_crt OFF CACHE BOOL "" FORCE)
add_subdirectory(${GOOGLETEST_SOURCES} googletest EXCLUDE_FROM_ALL SYSTEM)
