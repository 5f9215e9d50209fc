#pragma once

#include <windows.h>

#include "simulator/import_patch.h"

/// Counts what the library takes from the process heap, and can refuse it. The simulator's failing
/// allocations do not tell whether each block was given back.
class ProcessHeap {
 public:
  ProcessHeap() {
    s_allocations = s_frees = 0;
    s_full = false;
    m_Patch.Replace("HeapAlloc", &Allocate);
    m_Patch.Replace("HeapFree", &Free);
  }

  void IsFull() { s_full = true; }
  int Allocations() const { return s_allocations; }
  int Frees() const { return s_frees; }

 private:
  static void* WINAPI Allocate(HANDLE heap, DWORD flags, SIZE_T bytes) {
    ++s_allocations;
    return s_full ? nullptr : ::HeapAlloc(heap, flags, bytes);
  }
  static BOOL WINAPI Free(HANDLE heap, DWORD flags, void* block) {
    ++s_frees;
    return ::HeapFree(heap, flags, block);
  }

  static inline int s_allocations = 0;
  static inline int s_frees = 0;
  static inline bool s_full = false;

  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};
