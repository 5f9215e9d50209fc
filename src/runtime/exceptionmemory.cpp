// Throwing without memory, for GCC's C++ runtime as mingw-w64 links it.
//
// That runtime asks for memory twice before an exception is on its way: for the exception itself, and on each
// thread's first throw for the thread's list of caught exceptions. Where memory lacks, the first falls back
// on a pool whose lock is made on its first use, from memory; the second ends the process. So the report that
// memory lacks would fail for the lack of it.
//
// Here are the six functions of the C++ ABI (Itanium C++ ABI, part 2) that this is about, without a heap and
// without a lock: a thread's list lies in the block that the system makes for each thread and module, and an
// exception in a slot of static memory. The linker takes them instead of the runtime's own. A runtime that
// puts another function beside one of them gives a link error, not two halves.

#include <windows.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>

#if defined(__GLIBCXX__)

extern "C" {
// By the start-up code, which describes the module's block per thread to the loader.
extern ULONG _tls_index;
extern char _tls_start[];
}

namespace {

// --- What each thread knows of its exceptions ------------------------------------------------------------

// In the template of the block, between the start-up code's own marks. The loader copies it for every thread,
// those that ran before the module was loaded included, before any of them can get here.
struct CaughtExceptions {
  void* caught;
  unsigned int uncaught;
};
[[gnu::section(".tls$CRV"), gnu::used]] CaughtExceptions t_template = {};

CaughtExceptions* OfThisThread() {
  char* const* blocks = nullptr;
  // Read again each time: the system moves a thread's table of blocks when a further module comes.
  __asm__ volatile("movq %%gs:0x58, %0" : "=r"(blocks));
  return reinterpret_cast<CaughtExceptions*>(blocks[_tls_index] +
                                             (reinterpret_cast<char*>(&t_template) - &_tls_start[0]));
}

// --- The exceptions --------------------------------------------------------------------------------------

// In front of each exception the runtime keeps its notes, and finds them from the exception backwards. It
// takes 128 bytes for them; more room in front does not matter to it.
constexpr std::size_t kRoomForNotes = 256;
constexpr std::size_t kRoomForException = 256;
constexpr std::size_t kSlots = 64;

struct alignas(std::max_align_t) Slot {
  std::array<char, kRoomForNotes + kRoomForException> bytes;
};

std::array<Slot, kSlots> g_slots;
std::array<std::atomic<bool>, kSlots> g_taken;

/// A free slot; where there is none, or it would be too small, what the heap gives.
char* Take(std::size_t size) {
  if (size <= sizeof(Slot)) {
    for (std::size_t i = 0; i < kSlots; ++i) {
      if (!g_taken[i].exchange(true)) return g_slots[i].bytes.data();
    }
  }
  return static_cast<char*>(std::malloc(size));
}

void GiveBack(char* memory) {
  for (std::size_t i = 0; i < kSlots; ++i) {
    if (memory != g_slots[i].bytes.data()) continue;
    g_taken[i] = false;
    return;
  }
  std::free(memory);
}

/// @param size of what is thrown. @return its place, behind empty notes.
char* TakeForException(std::size_t size) {
  char* const memory = Take(kRoomForNotes + size);
  if (memory == nullptr) std::terminate();
  std::memset(memory, 0, kRoomForNotes);
  return memory + kRoomForNotes;
}

}  // namespace

extern "C" {

void* __cxa_get_globals() noexcept {
  return OfThisThread();
}

void* __cxa_get_globals_fast() noexcept {
  return OfThisThread();
}

void* __cxa_allocate_exception(std::size_t size) noexcept {
  return TakeForException(size);
}

void __cxa_free_exception(void* exception) noexcept {
  GiveBack(static_cast<char*>(exception) - kRoomForNotes);
}

// A dependent exception has notes alone, which begin where it does.
void* __cxa_allocate_dependent_exception() noexcept {
  return TakeForException(0) - kRoomForNotes;
}

void __cxa_free_dependent_exception(void* exception) noexcept {
  GiveBack(static_cast<char*>(exception));
}

}  // extern "C"

// The runtime's own prints the name of what nobody caught, and brings everything along that makes names
// readable: a tenth of the library, which has its own handler from its first thread on.
void __gnu_cxx::__verbose_terminate_handler() {
  std::abort();
}

#endif
