// This program has taken in what it tests: its own exceptions go that way.

#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>
#include <vector>

#include "simulator/import_patch.h"

namespace {

constexpr DWORD kLongEnough = 30000;
constexpr DWORD kTerminated = 77;
/// More than there are slots.
constexpr int kMany = 100;

std::atomic<bool> g_refuses{false};
std::atomic<int> g_asked{0};

bool Refuses() {
  ++g_asked;
  return g_refuses;
}
// In this program these would come back here by their names.
auto* const g_malloc =
    reinterpret_cast<decltype(&std::malloc)>(::GetProcAddress(::GetModuleHandleW(L"msvcrt.dll"), "malloc"));
auto* const g_calloc =
    reinterpret_cast<decltype(&std::calloc)>(::GetProcAddress(::GetModuleHandleW(L"msvcrt.dll"), "calloc"));
auto* const g_realloc =
    reinterpret_cast<decltype(&std::realloc)>(::GetProcAddress(::GetModuleHandleW(L"msvcrt.dll"), "realloc"));
void* __cdecl Malloc(std::size_t size) {
  return Refuses() ? nullptr : g_malloc(size);
}
void* __cdecl Calloc(std::size_t count, std::size_t size) {
  return Refuses() ? nullptr : g_calloc(count, size);
}
void* __cdecl Realloc(void* memory, std::size_t size) {
  return Refuses() ? nullptr : g_realloc(memory, size);
}

class ExceptionMemoryTest : public testing::Test {
 protected:
  void SetUp() override {
    patch.Replace("malloc", &Malloc);
    patch.Replace("calloc", &Calloc);
    patch.Replace("realloc", &Realloc);
  }
  void TearDown() override { g_refuses = false; }

  /// Runs a step on a thread that the runtime has not met before. @return the thread's exit code.
  static DWORD OnAFreshThread(const std::function<void()>& step) {
    const HANDLE thread = ::CreateThread(
        nullptr, 0,
        [](void* given) -> DWORD {
          (*static_cast<const std::function<void()>*>(given))();
          return 0;
        },
        const_cast<std::function<void()>*>(&step), 0, nullptr);
    DWORD code = ~0u;
    if (::WaitForSingleObject(thread, kLongEnough) == WAIT_OBJECT_0) ::GetExitCodeThread(thread, &code);
    ::CloseHandle(thread);
    return code;
  }
  /// The same, and every allocation meanwhile fails.
  static DWORD WithoutMemory(const std::function<void()>& step) {
    g_asked = 0;
    g_refuses = true;
    const DWORD code = OnAFreshThread(step);
    g_refuses = false;
    return code;
  }

  simulator::ImportPatch patch{::GetModuleHandleW(nullptr)};
};

TEST_F(ExceptionMemoryTest, LackOfMemoryIsThrownAndCaughtWithoutMemory) {
  bool caught = false;
  EXPECT_EQ(WithoutMemory([&] {
              try {
                delete new std::array<char, 100>;
              } catch (const std::bad_alloc&) {
                caught = true;
              }
            }),
            0u);
  EXPECT_TRUE(caught);
  // By the array alone.
  EXPECT_EQ(g_asked, 1);
}

TEST_F(ExceptionMemoryTest, APlaceIsGivenBackWhenItsExceptionIsGone) {
  int caught = 0;
  EXPECT_EQ(WithoutMemory([&] {
              for (int i = 0; i < kMany; ++i) {
                try {
                  throw int{i};
                } catch (int number) {
                  caught += number == i ? 1 : 0;
                }
              }
            }),
            0u);
  EXPECT_EQ(caught, kMany);
}

/// Throws from inside of handlers, and looks from the innermost one outwards whether each still has its own.
int NestedIntact(int depth) {
  if (depth == 0) return 0;
  try {
    throw depth;
  } catch (int number) {
    const int inner = NestedIntact(depth - 1);
    return inner + (number == depth ? 1 : 0);
  }
}

TEST_F(ExceptionMemoryTest, ExceptionsWithinHandlersKeepApart) {
  constexpr int kDepth = 20;
  int intact = 0;
  EXPECT_EQ(WithoutMemory([&] { intact = NestedIntact(kDepth); }), 0u);
  EXPECT_EQ(intact, kDepth);
}

TEST_F(ExceptionMemoryTest, OneExceptionIsThrownOnceMoreFromAnotherPlaceWithoutMemory) {
  int again = 0;
  EXPECT_EQ(WithoutMemory([&] {
              std::exception_ptr kept;
              try {
                throw 5;
              } catch (...) {
                kept = std::current_exception();
              }
              try {
                std::rethrow_exception(kept);
              } catch (int number) {
                again = number;
              }
            }),
            0u);
  EXPECT_EQ(again, 5);
}

struct Counter {
  explicit Counter(int& target) : uncaught(target) {}
  ~Counter() { uncaught = std::uncaught_exceptions(); }
  int& uncaught;
};

TEST_F(ExceptionMemoryTest, EachThreadCountsItsOwnUncaughtExceptions) {
  int here = -1;
  int there = -1;
  int behind = -1;
  EXPECT_EQ(OnAFreshThread([&] {
              struct AskAnother {
                ~AskAnother() {
                  OnAFreshThread([&] { other = std::uncaught_exceptions(); });
                }
                int& other;
              };
              try {
                const AskAnother ask{there};
                const Counter counter(here);
                throw 1;
              } catch (int) {
                behind = std::uncaught_exceptions();
              }
            }),
            0u);
  EXPECT_EQ(here, 1);
  EXPECT_EQ(there, 0);
  EXPECT_EQ(behind, 0);
}

struct Filling {
  std::array<char, 256> bytes{};
};

TEST_F(ExceptionMemoryTest, WhatFillsAPlaceNeedsNoHeap) {
  bool caught = false;
  EXPECT_EQ(WithoutMemory([&] {
              try {
                throw Filling();
              } catch (const Filling&) {
                caught = true;
              }
            }),
            0u);
  EXPECT_TRUE(caught);
  EXPECT_EQ(g_asked, 0);
}

struct Large {
  std::array<int, 1000> numbers{};
};

TEST_F(ExceptionMemoryTest, WhatIsTooLargeForAPlaceIsTakenFromTheHeap) {
  int sum = 0;
  g_asked = 0;
  EXPECT_EQ(OnAFreshThread([&] {
              Large large;
              large.numbers.front() = 1;
              large.numbers.back() = 2;
              try {
                throw Large(large);
              } catch (const Large& caught) {
                sum = caught.numbers.front() + caught.numbers.back();
              }
            }),
            0u);
  EXPECT_EQ(sum, 3);
  EXPECT_EQ(g_asked, 1);
}

std::vector<std::exception_ptr> HoldMany() {
  std::vector<std::exception_ptr> held;
  held.reserve(kMany);
  for (int i = 0; i < kMany; ++i) held.push_back(std::make_exception_ptr(i));
  return held;
}

TEST_F(ExceptionMemoryTest, MoreThanThereArePlacesForAreTakenFromTheHeap) {
  const auto held = HoldMany();
  for (int i = 0; i < kMany; ++i) {
    try {
      std::rethrow_exception(held[static_cast<std::size_t>(i)]);
    } catch (int number) {
      EXPECT_EQ(number, i);
    }
  }
}

TEST_F(ExceptionMemoryTest, WithNeitherPlaceNorHeapItEndsByTheTerminateHandler) {
  const auto held = HoldMany();
  const auto before = std::set_terminate([] { ::ExitThread(kTerminated); });
  EXPECT_EQ(WithoutMemory([] {
              try {
                throw 1;
              } catch (int) {
              }
            }),
            kTerminated);
  std::set_terminate(before);
}

}  // namespace
