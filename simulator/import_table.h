#pragma once

#include <windows.h>

#include <functional>

namespace simulator {

/// One function that a module imports by name. The texts are the module's own.
struct ImportEntry {
  const char* library;
  const char* function;
  void** slot;  ///< holds the function's address once the system has bound it
};

void VisitImports(HMODULE module, const std::function<void(const ImportEntry&)>& visit);
/// Whatever protection the slot's page has.
void WriteSlot(void** slot, void* address);

}  // namespace simulator
