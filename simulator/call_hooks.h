#pragma once

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/known_calls.h"
#include "simulator/occurrence.h"

namespace simulator {

/// What goes wrong with calls of one function.
struct CallFault {
  enum class Way {
    Refused,             ///< fails without having done anything
    RefusedAfterEffect,  ///< does what was asked for, and tells of a failure all the same
    Undocumented,        ///< answers what is neither success nor failure, and has done nothing
    DoesNothing,         ///< tells of success without having done anything
    Delayed,             ///< is held back first
    NeverReturns         ///< is held back until somebody lets it go on
  };

  std::string function;
  Occurrence calls;  ///< counted from the arming on
  Way way = Way::Refused;
  std::optional<DWORD> error = std::nullopt;  ///< instead of the one that is known of the function
  std::chrono::milliseconds delay{0};
};

/// A call as it begins, on the thread that makes it.
struct SeenCall {
  const char* function;
  /// The four that stand in registers; one that is a floating-point number is not among them.
  std::uint64_t arguments[4];
  /// The fifth and those behind it, as many as the function has; until the observer returns.
  const std::uint64_t* stacked;
  const void* returnsTo;  ///< where it was made
};

/// Stands in front of every function that one loaded module imports, whatever its signature, and passes the
/// calls on. Counts them, and lets those fail, hang or end the process that it was told to.
///
/// What must not have anything in front of it (known_calls.h) is left alone. Any thread may call through the
/// hooks, and may still be in one of them when the object is gone; all else is one thread's.
class CallHooks {
 public:
  CallHooks();
  ~CallHooks();
  CallHooks(const CallHooks&) = delete;
  CallHooks& operator=(const CallHooks&) = delete;

  /// Puts the hooks in front of whatever the module's import table holds now. Repeat it when somebody else
  /// has replaced entries; counts and faults stay.
  void Place(HMODULE module);
  /// Gives the entries back and lets everybody go on who is held. Nothing may be replaced on top of the hooks
  /// any more.
  void Lift();

  /// Makes room for functions that the module does not import, but is given while it runs.
  void Expect(std::span<const KnownCall> calls);
  /// What to hand the module in place of one of these. Any thread.
  void* InFrontOf(std::string_view function, void* target);
  /// Puts hooks into an object's table of functions, which all objects of its class share. Any thread.
  /// @param calls by slots.
  void CoverObject(std::span<const char* const> calls, void* object);

  bool Knows(std::string_view function) const;
  /// A function that the module does not import, or of which no failure is known, gives std::runtime_error:
  /// the fault would never happen, unnoticed. No more than sixteen at a time.
  void Arm(const CallFault& fault);
  void Disarm();
  /// Calls that a fault has hit since it was armed, over all faults that are armed.
  unsigned Hits() const;
  /// Calls that should have failed and could not be made to.
  unsigned Missed() const;

  /// The threads of calls that do not return.
  std::vector<DWORD> HeldThreads() const;
  /// Lets them go on.
  void LetGo();

  void ResetCounts();
  /// Calls since then, of those functions that were called.
  std::map<std::string, int> Counts() const;
  int Count(std::string_view function) const;

  /// Calls of the system since the last reset, without those that leave no trace outside of the process.
  unsigned PlatformCalls() const;
  /// Ends the process, with no more of it running, when that many more calls of the system have begun.
  void EndProcessAt(unsigned platformCall, unsigned exitCode);

  /// Is told of every call, before it is decided about; null for nobody. Must not call anything that can
  /// fail.
  using Observer = void (*)(const SeenCall&) noexcept;
  void Observe(Observer observer);

  struct Hook;
  struct State;

 private:
  static State* TakeState();
  Hook* Find(std::string_view function) const;
  Hook& Add(std::string_view function, const KnownCall* known);

  // Outlives the object, for threads that are in a hook: it is never given back.
  State* const m_State;
};

}  // namespace simulator
