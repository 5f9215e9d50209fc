# The same target with clang as second compiler, on GCC's C++ library and runtime.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-toolchain.cmake)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)

file(GLOB gcc_folders /usr/lib/gcc/x86_64-w64-mingw32/*-posix)
list(GET gcc_folders 0 gcc_folder)
set(CMAKE_CXX_FLAGS_INIT
  "-isystem ${gcc_folder}/include/c++ -isystem ${gcc_folder}/include/c++/x86_64-w64-mingw32 -Wno-unused-command-line-argument")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-B${gcc_folder} -L${gcc_folder}")
endforeach()
set(CMAKE_CXX_STANDARD_LIBRARIES_INIT "-lpthread")
