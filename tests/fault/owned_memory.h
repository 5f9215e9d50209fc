#pragma once

#include <windows.h>

#include <cstddef>

#include "simulator/import_patch.h"

namespace campaign {

/// Counts what one module has allocated and not given back: of the C runtime's heap, of the process heap, of
/// automation texts and arrays. Calls still go to the system, by way of whatever stands in front of them. One
/// at a time; it must outlive the last call of the module.
class OwnedMemory {
 public:
  struct Use {
    std::size_t blocks = 0;
    std::size_t bytes = 0;
    bool operator==(const Use&) const = default;
  };

  /// To be made before anything else is put in front of the module's imports: it calls the system itself.
  explicit OwnedMemory(HMODULE module);
  OwnedMemory(const OwnedMemory&) = delete;
  OwnedMemory& operator=(const OwnedMemory&) = delete;

  /// Of what came after this object. Any thread.
  static Use Now();

 private:
  simulator::ImportPatch m_Patch;
};

}  // namespace campaign
