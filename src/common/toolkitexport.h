#pragma once

/// Marks what CorvelToolKit.dll exports. Hosts import; only the library's own build defines the macro.
#if defined(CORVEL_TOOLKIT_EXPORTS)
#define CORVEL_TOOLKIT_API __declspec(dllexport)
#else
#define CORVEL_TOOLKIT_API __declspec(dllimport)
#endif
