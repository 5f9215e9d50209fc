# Compile and link settings that every target of the project shares.

add_library(corvel_settings INTERFACE)

target_compile_definitions(corvel_settings INTERFACE
  UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN
  WINVER=0x0A00 _WIN32_WINNT=0x0A00
  CORVEL_VERSION="${PROJECT_VERSION}")

if(MSVC)
  target_compile_options(corvel_settings INTERFACE
    /W4 /WX /permissive- /utf-8 /Zc:__cplusplus /EHsc /GS /guard:cf)
  target_compile_definitions(corvel_settings INTERFACE _CRT_SECURE_NO_WARNINGS)
  target_link_options(corvel_settings INTERFACE
    /NXCOMPAT /DYNAMICBASE /HIGHENTROPYVA /guard:cf)
else()
  target_compile_options(corvel_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
    -Woverloaded-virtual -Wcast-qual -Werror -fstack-protector-strong
    # Handlers are handed over as the platform's untyped function pointers.
    -Wno-cast-function-type
    # GCC 12 takes "literal" + std::string for an overlapping copy once it is inlined.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
    # Folders and libraries of GCC's runtime, of which each step uses only some.
    $<$<CXX_COMPILER_ID:Clang>:-Wno-unused-command-line-argument>)
  target_compile_definitions(corvel_settings INTERFACE __USE_MINGW_ANSI_STDIO=0)
  target_link_options(corvel_settings INTERFACE
    -static -fstack-protector-strong -Wl,--nxcompat -Wl,--dynamicbase -Wl,--high-entropy-va
    # As with MSVC, data of another library has to be declared as imported.
    -Wl,--disable-auto-import)
endif()

if(CORVEL_CHECKED)
  target_compile_definitions(corvel_settings INTERFACE _GLIBCXX_ASSERTIONS)
  target_compile_options(corvel_settings INTERFACE
    -fsanitize=undefined -fsanitize-undefined-trap-on-error)
endif()

# The C++ runtime is linked in, so that the library needs nothing beside it.
set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>")
