#pragma once

#include <windows.h>

#include "simulator/import_patch.h"

namespace simulator {

/// Lets the allocations of one module fail: of the C runtime's heap, of the process heap, of automation texts
/// and arrays, all counted together in the order in which they come, from whatever thread. One at a time;
/// must outlive the last call of the module.
class FailingAllocations {
 public:
  static constexpr unsigned kForGood = ~0u;

  explicit FailingAllocations(HMODULE module);
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  /// False when the module does not import even the process heap: nothing would ever fail.
  bool IsInPlace() const { return m_InPlace; }

  /// Begins to count again; the `first`-th allocation (from 1) and those after it fail, `count` in all.
  static void Fail(unsigned first, unsigned count);
  /// Memory is back.
  static void Restore();

  /// Allocations since `Fail`, and how many of them failed.
  static unsigned Asked();
  static unsigned Refused();

 private:
  ImportPatch m_Patch;
  bool m_InPlace = false;
};

}  // namespace simulator
