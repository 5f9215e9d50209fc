#pragma once

/// Marks data of the library that its tests look at. Nothing of it leaves the library that ships: the tests
/// link one that hands out everything, and data that comes from there has to be declared as imported.
#if defined(CORVEL_TOOLKIT_EXPORTS)
#define CORVEL_INTERNAL_DATA
#else
#define CORVEL_INTERNAL_DATA __declspec(dllimport)
#endif
