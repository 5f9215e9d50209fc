# A package of the library's own goes before the headers of the distribution; a library that is in neither
# place is missed by a message that names both ways.
#
# usage: cmake -DMODULES=<folder of the modules> -DFOLDER=<scratch folder> -P libraries_test.cmake
file(REMOVE_RECURSE ${FOLDER})
file(WRITE ${FOLDER}/CMakeLists.txt "
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES NONE)
list(APPEND CMAKE_MODULE_PATH ${MODULES})
include(HostLibraries)
get_target_property(linked host_libraries INTERFACE_LINK_LIBRARIES)
get_target_property(folders host_libraries INTERFACE_INCLUDE_DIRECTORIES)
message(STATUS \"linked: \${linked}, folders: \${folders}\")
")
file(WRITE ${FOLDER}/packages/CLI11Config.cmake "add_library(CLI11::CLI11 INTERFACE IMPORTED)")
file(WRITE ${FOLDER}/packages/nlohmann_jsonConfig.cmake
  "add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED)")
file(WRITE ${FOLDER}/headers/CLI/CLI.hpp "")
file(WRITE ${FOLDER}/headers/nlohmann/json.hpp "")

set(no_packages -DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON -DCMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON)

# configure(NAME SUCCEEDS TEXTS text ... OPTIONS option ...)
function(configure name succeeds)
  cmake_parse_arguments(PARSE_ARGV 2 expected "" "" "TEXTS;OPTIONS")
  execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${FOLDER} -B ${FOLDER}/build-${name} ${expected_OPTIONS}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(succeeds AND NOT result EQUAL 0 OR NOT succeeds AND result EQUAL 0)
    message(SEND_ERROR "${name}: exit status ${result}\n${output}")
  endif()
  string(REGEX REPLACE "[ \n]+" " " output "${output}")
  foreach(text IN LISTS expected_TEXTS)
    string(FIND "${output}" "${text}" place)
    if(place EQUAL -1)
      message(SEND_ERROR "${name}: does not say '${text}'\n${output}")
    endif()
  endforeach()
endfunction()

configure(package TRUE
  TEXTS "linked: CLI11::CLI11" "folders: folders-NOTFOUND"
  OPTIONS -DCMAKE_PREFIX_PATH=${FOLDER}/packages -DHOST_LIBRARY_INCLUDES=${FOLDER}/headers)
configure(headers TRUE
  TEXTS "linked: linked-NOTFOUND" "folders: ${FOLDER}/build-headers/host_libraries"
  OPTIONS ${no_packages} -DHOST_LIBRARY_INCLUDES=${FOLDER}/headers)
configure(nothing FALSE
  TEXTS "CLI11 is neither a CMake package" "vcpkg" "scripts/setup" "HOST_LIBRARY_INCLUDES"
  OPTIONS ${no_packages} -DHOST_LIBRARY_INCLUDES=${FOLDER}/nowhere)
