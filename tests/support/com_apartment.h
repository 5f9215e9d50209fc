#pragma once

#include <windows.h>

#include <objbase.h>

/// Keeps COM initialised on the thread, in an apartment of its own: other threads gain nothing by it.
/// The simulator's service enters the apartment that all threads share, on a thread of its own.
class ComApartment {
 public:
  ComApartment() { ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
  ~ComApartment() { ::CoUninitialize(); }
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;
};
