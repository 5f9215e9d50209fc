#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "simulator/import_patch.h"

/// The library's memory, of which one allocation fails. The simulator's failing allocations hit a whole job
/// of the shipped library; this counts those of one call. One thread's alone; the test's own memory is not
/// touched, but objects of the library that the test makes are.
class ScarceMemory {
 public:
  ScarceMemory() {
    s_left = 0;
    m_Patch.Replace("malloc", &Allocate);
  }
  ~ScarceMemory() { s_left = 0; }
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  /// The library's `number`th allocation from now on fails, the first being 1.
  void Fail(int number) {
    s_left = number;
    s_failed = false;
  }
  /// None fails from now on.
  void Suffice() { s_left = 0; }
  bool HasFailed() const { return s_failed; }

  /// Repeats `act`, each time with the next one of its allocations failing, beginning with the `first`th.
  /// @return how many failed, which is at least one.
  template <typename Act>
  int FailEachOf(Act act, int first = 1) {
    constexpr int kMost = 1000;
    for (int number = first; number < first + kMost; ++number) {
      Fail(number);
      EXPECT_NO_THROW(act()) << "allocation " << number;
      s_left = 0;
      if (s_failed) continue;
      EXPECT_GT(number, first) << "nothing is allocated";
      return number - first;
    }
    ADD_FAILURE() << "there is no end of allocations";
    return kMost;
  }

 private:
  static void* __cdecl Allocate(std::size_t size) {
    if (s_left == 0 || --s_left > 0) return std::malloc(size);
    s_failed = true;
    return nullptr;
  }

  static inline int s_left = 0;
  static inline bool s_failed = false;
  simulator::ImportPatch m_Patch{::GetModuleHandleW(L"toolkit_internals.dll")};
};
