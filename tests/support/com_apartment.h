#pragma once

#include <windows.h>

#include <objbase.h>

/// Keeps COM initialised on the thread, in an apartment of its own: other threads gain nothing by it.
class ComApartment {
 public:
  ComApartment() { ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
  ~ComApartment() { ::CoUninitialize(); }
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;
};
