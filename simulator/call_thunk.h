#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>

namespace simulator {

// Machine code for the calling convention of 64-bit Windows.

/// The stack of a call as its thunk saves it.
struct CallFrame {
  std::uint64_t registers[4];  ///< the arguments, the fourth first
  void* returnAddress;

  std::uint64_t Argument(int number) const { return registers[3 - number]; }
  /// The fifth argument and those behind it, where the caller has put them: beyond the places that it keeps
  /// free for the first four.
  const std::uint64_t* StackedArguments() const {
    return reinterpret_cast<const std::uint64_t*>(&returnAddress) + 5;
  }
  /// Of a call that is not passed on.
  void SetResult(std::uint64_t result) { registers[3] = result; }
};

enum class Verdict : unsigned char { PassOn = 0, Answered = 1 };

/// What a thunk asks for each call. Keeps the thread's last error.
using DecideFunction = Verdict (*)(void* context, CallFrame* frame) noexcept;
/// What a returning call asks that was told to come back here. @return its result; `returnAddress` is where
/// it goes on.
using FinishFunction = std::uint64_t (*)(void** returnAddress) noexcept;

/// A page of code. It stays: a thread may be on its way through.
class ThunkPage {
 public:
  explicit ThunkPage(std::size_t thunks);

  /// Code that asks `decide`, and then goes on at `target` as if it had been called itself, or returns.
  void* AddCall(DecideFunction decide, void* context, const std::atomic<void*>* target);
  /// Code for a call to return to.
  void* AddReturn(FinishFunction finish);
  /// Makes it code; nothing can be added any more.
  void Seal();

 private:
  std::uint8_t* m_Code;
  std::size_t m_Size;
  std::size_t m_Used = 0;
};

}  // namespace simulator
