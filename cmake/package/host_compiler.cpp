// Refused by a compiler whose objects do not look as the library's do. The CMake package shows the reason to
// whoever looks for it there.

#include <string>

#if !defined(_WIN64)
#error "CorvelToolKit: it makes no 64-bit code for Windows"
#elif CORVEL_BUILT_BY_MICROSOFT && !defined(_MSC_VER)
#error "CorvelToolKit: it is not Microsoft's"
#elif CORVEL_BUILT_BY_MICROSOFT && _MSC_VER < 1900
#error "CorvelToolKit: it is older than Visual Studio 2015"
#elif !CORVEL_BUILT_BY_MICROSOFT && !defined(__MINGW32__)
#error "CorvelToolKit: it is none for mingw-w64"
#elif !CORVEL_BUILT_BY_MICROSOFT && !defined(__GLIBCXX__)
#error "CorvelToolKit: its C++ library is not libstdc++"
#elif !CORVEL_BUILT_BY_MICROSOFT && !_GLIBCXX_USE_CXX11_ABI
#error "CorvelToolKit: its texts are those of before C++11 (_GLIBCXX_USE_CXX11_ABI=0)"
#elif !CORVEL_BUILT_BY_MICROSOFT && defined(_UCRT)
#error "CorvelToolKit: its C runtime is UCRT, not msvcrt"
#endif
