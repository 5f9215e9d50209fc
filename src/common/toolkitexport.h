#pragma once

// What a host needs apart from these headers
//
// Library and host each link a C++ runtime of their own, statically or not. What crosses the border between
// them are objects: the classes of the library (CTString, ToolKit, CMutex, CXMLFile, XML_NAME_VALUE), whose
// members may be inlined or copied by the host, and std::string, std::wstring and std::vector by value. One
// side makes them and the other one destroys them. So both must agree on how these objects look and on where
// their memory comes from:
//
// * The same family of compilers and its own standard library. Microsoft's, from Visual Studio 2015 on, for a
//   library that Microsoft's compiler has built; GCC or clang for mingw-w64 with libstdc++ and the same C
//   runtime (msvcrt or UCRT) for one that they have built.
// * With Microsoft's compiler a Debug host needs the Debug library and a Release host the Release one: their
//   standard types (_ITERATOR_DEBUG_LEVEL) and their heaps differ. Either may link its runtime as a library
//   or statically (/MD or /MT, /MDd or /MTd): both take their memory from the heap of the process.
// * 64-bit code, and the headers of the library's own version or an earlier one.
//
// A host of another kind starts corvel_cmdline, or talks to the service by the registry.

/// Marks what CorvelToolKit.dll exports. Hosts import; only the library's own build defines the macro.
#if defined(CORVEL_TOOLKIT_EXPORTS)
#define CORVEL_TOOLKIT_API __declspec(dllexport)
#else
#define CORVEL_TOOLKIT_API __declspec(dllimport)
#endif
