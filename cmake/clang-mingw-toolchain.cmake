# The same target with clang as second compiler, on GCC's C++ library and runtime.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-toolchain.cmake)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
# GNU's linker leaves places in the table of symbols that only its own tools pass over.
find_program(CMAKE_STRIP x86_64-w64-mingw32-strip)
find_program(CMAKE_OBJCOPY x86_64-w64-mingw32-objcopy)

file(GLOB gcc_folders /usr/lib/gcc/x86_64-w64-mingw32/*-posix)
if(NOT gcc_folders)
  message(FATAL_ERROR "No mingw-w64 GCC with POSIX threads is installed: run scripts/setup.")
endif()
list(GET gcc_folders 0 gcc_folder)
# GCC emulates thread-local variables for this target, those of its C++ library too, and compares types by a
# function of that library, which clang would define once more.
set(CMAKE_CXX_FLAGS_INIT
  "-isystem ${gcc_folder}/include/c++ -isystem ${gcc_folder}/include/c++/x86_64-w64-mingw32 -femulated-tls \
-D__GXX_TYPEINFO_EQUALITY_INLINE=0")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-B${gcc_folder} -L${gcc_folder} -static")
endforeach()

# clang does not know that GCC's C++ library stands on the thread library here. They need each other, and the
# system's libraries too.
set(CMAKE_CXX_STANDARD_LIBRARIES
  "-Wl,--start-group -lstdc++ -lgcc -lgcc_eh -lpthread -lssp -lmingw32 -lmoldname -lmingwex -lmsvcrt -lkernel32 -Wl,--end-group \
-luser32 -ladvapi32 -lshell32 -lole32 -loleaut32 -luuid"
  CACHE STRING "Libraries that every program is linked with")
