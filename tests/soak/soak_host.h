#pragma once

#ifdef SOAK_HOST
#define SOAK_HOST_EXPORT extern "C" __declspec(dllexport)
#else
#define SOAK_HOST_EXPORT extern "C"
#endif

// The part of a command-line host that is linked with the library, in a module that comes and goes with it.

/// Prepares the library for flashes of the command line.
SOAK_HOST_EXPORT void SoakHostBegins();
/// One job, on the calling thread.
SOAK_HOST_EXPORT void SoakHostFlashes();
/// Writes a record of a writer's own, with its number.
SOAK_HOST_EXPORT void SoakHostLogs(int writer, int number);
