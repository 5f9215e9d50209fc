# The library's CMake package refuses what would crash later, and says why.
#
# usage: cmake -DBUILD=<build folder> -DFOLDER=<scratch folder> -DCONSUMER=<folder of consumer.cpp> -DPAGE=<docs/abi.md>
#              -DTOOLCHAIN=<file> -P refusals_test.cmake
include(${CMAKE_CURRENT_LIST_DIR}/host_of_page.cmake)
file(REMOVE_RECURSE ${FOLDER})
set(prefix ${FOLDER}/installed)
set(package ${prefix}/lib/cmake/CorvelToolKit)
foreach(component runtime development)
  execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix} --component ${component}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endforeach()

set(host ${FOLDER}/host)
write_host_of_page(${PAGE} ${CONSUMER}/consumer.cpp ${host})
set(project ${host})
# refused(NAME REASON option ...)
function(refused name reason)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -G Ninja -S ${project} -B ${FOLDER}/${name} ${ARGN}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  string(REGEX REPLACE "[ \n]+" " " output "${output}")
  string(FIND "${output}" "${reason}" place)
  if(result EQUAL 0 OR place EQUAL -1)
    message(SEND_ERROR "${name}: exit status ${result}, and it has to say '${reason}':\n${output}")
  endif()
endfunction()

refused(other_c_runtime "its C runtime is UCRT, not msvcrt"
  -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_CXX_FLAGS=-D_UCRT -DCorvelToolKit_DIR=${package})
refused(texts_of_before_cxx11 "its texts are those of before C++11"
  -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_CXX_FLAGS=-D_GLIBCXX_USE_CXX11_ABI=0 -DCorvelToolKit_DIR=${package})
refused(other_system "it makes no 64-bit code for Windows"
  -DCMAKE_CXX_COMPILER=clang++ -DCorvelToolKit_DIR=${package})

# Refused by the version file already, as a library of no other size is there. Nothing for 32 bits is installed, so
# nothing is linked.
refused(code_of_32_bits " (64bit)"
  -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_CXX_FLAGS=-m32 -DCMAKE_TRY_COMPILE_TARGET_TYPE=STATIC_LIBRARY
  -DCorvelToolKit_DIR=${package})

# Another C++ library, of which this much is asked for.
file(WRITE ${FOLDER}/other_library/string "namespace std {}\n")
refused(other_library "its C++ library is not libstdc++"
  -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} "-DCMAKE_CXX_FLAGS=-isystem ${FOLDER}/other_library"
  -DCorvelToolKit_DIR=${package})

# A host in C alone.
set(project ${FOLDER}/in_c)
file(WRITE ${project}/CMakeLists.txt
  "cmake_minimum_required(VERSION 3.25)\nproject(in_c LANGUAGES C)\nfind_package(CorvelToolKit 1.8 REQUIRED)\n")
refused(no_cxx "the project does not enable the language CXX"
  -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCorvelToolKit_DIR=${package})
set(project ${host})

# A library that Microsoft's compiler has built, as its package would be.
file(COPY ${package} DESTINATION ${FOLDER}/microsoft)
file(READ ${FOLDER}/microsoft/CorvelToolKit/CorvelToolKitConfig.cmake text)
string(REPLACE "CORVEL_BUILT_BY_MICROSOFT=0" "CORVEL_BUILT_BY_MICROSOFT=1" text "${text}")
file(WRITE ${FOLDER}/microsoft/CorvelToolKit/CorvelToolKitConfig.cmake "${text}")
refused(other_family "it is not Microsoft's"
  -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCorvelToolKit_DIR=${FOLDER}/microsoft/CorvelToolKit)

# version(WANTED SIZE_OF_POINTER EXPECTED)
function(version wanted pointer expected)
  set(PACKAGE_FIND_VERSION ${wanted})
  string(REGEX MATCH "^[0-9]+" PACKAGE_FIND_VERSION_MAJOR ${wanted})
  set(CMAKE_SIZEOF_VOID_P ${pointer})
  include(${package}/CorvelToolKitConfigVersion.cmake)
  set(answer no)
  if(PACKAGE_VERSION_COMPATIBLE AND NOT PACKAGE_VERSION_UNSUITABLE)
    set(answer yes)
  endif()
  if(NOT answer STREQUAL expected)
    message(SEND_ERROR "version ${wanted} for ${pointer} bytes: ${answer}")
  endif()
endfunction()
version(1.8 8 yes)
version(1.0 8 yes)
version(1.9 8 no)
version(2.0 8 no)
version(1.8 4 no)
