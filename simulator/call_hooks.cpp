#include "simulator/call_hooks.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/handles.h"
#include "simulator/call_thunk.h"
#include "simulator/import_table.h"
#include "simulator/known_calls.h"
#include "simulator/lock.h"
#include "simulator/working_threads.h"

namespace simulator {

namespace {

using Way = CallFault::Way;

constexpr std::size_t kMostFaults = 16;
constexpr std::size_t kMostReturns = 64;
constexpr unsigned kNever = std::numeric_limits<unsigned>::max();

/// A fault as the hooks look at it, without a lock: `hook` is written last, and taken back first.
struct ArmedFault {
  std::atomic<const CallHooks::Hook*> hook{nullptr};
  unsigned before = 0;  ///< calls that came before it was armed
  Occurrence calls;
  Way way = Way::Refused;
  std::uint64_t result = 0;
  DWORD lastError = 0;
  std::chrono::milliseconds delay{0};
};

/// Where a call goes on that comes back through the hooks, and with what. A thread may have several.
struct PendingReturn {
  DWORD thread = 0;  ///< 0: unused
  void* address = nullptr;
  std::uint64_t result = 0;
  DWORD lastError = 0;
};

class PendingReturns {
 public:
  bool Push(const PendingReturn& pending) {
    const std::lock_guard lock(m_Lock);
    if (m_Count == m_Pending.size()) return false;
    m_Pending[m_Count++] = pending;
    return true;
  }
  /// The calling thread's latest one.
  PendingReturn Pop() {
    const std::lock_guard lock(m_Lock);
    std::size_t at = m_Count - 1;
    while (m_Pending[at].thread != ::GetCurrentThreadId()) --at;
    const PendingReturn found = m_Pending[at];
    std::move(m_Pending.begin() + static_cast<std::ptrdiff_t>(at) + 1,
              m_Pending.begin() + static_cast<std::ptrdiff_t>(m_Count),
              m_Pending.begin() + static_cast<std::ptrdiff_t>(at));
    --m_Count;
    return found;
  }

 private:
  Lock m_Lock;
  std::array<PendingReturn, kMostReturns> m_Pending;
  std::size_t m_Count = 0;
};
PendingReturns g_returns;

std::uint64_t FinishCall(void** returnAddress) noexcept {
  const PendingReturn pending = g_returns.Pop();
  *returnAddress = pending.address;
  if (pending.lastError != 0) ::SetLastError(pending.lastError);
  return pending.result;
}

void* ReturnThunk() {
  static void* const thunk = [] {
    ThunkPage page(1);
    void* const code = page.AddReturn(&FinishCall);
    page.Seal();
    return code;
  }();
  return thunk;
}

/// Code, and nothing else that a module may import. An entry that the system has not bound yet is none
/// either.
bool IsCode(const void* address) {
  MEMORY_BASIC_INFORMATION memory{};
  constexpr DWORD kExecutable =
      PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
  return ::VirtualQuery(address, &memory, sizeof memory) != 0 && (memory.Protect & kExecutable) != 0;
}

}  // namespace

struct CallHooks::Hook {
  std::atomic<void*> target{nullptr};
  State* state = nullptr;
  std::string name;
  const KnownCall* known = nullptr;
  bool isPlatformCall = true;
  void* thunk = nullptr;
  std::vector<void**> slots;
  std::atomic<unsigned> count{0};
};

struct CallHooks::State {
  std::deque<Hook> hooks;
  std::array<ArmedFault, kMostFaults> faults;
  std::atomic<unsigned> hits{0};
  std::atomic<unsigned> platformCalls{0};
  std::atomic<unsigned> lastPlatformCall{kNever};
  std::atomic<unsigned> exitCode{0};
  std::atomic<Observer> observer{nullptr};
  void* returnThunk = nullptr;

  Lock lock;
  Condition changed;
  unsigned liftings = 0;

  void CountPlatformCall() noexcept {
    working_threads::NoteActivity();
    if (++platformCalls == lastPlatformCall) ::TerminateProcess(::GetCurrentProcess(), exitCode);
  }

  /// Until the hooks are lifted the next time.
  void Hold() noexcept {
    const working_threads::Rest rest;
    std::unique_lock held(lock);
    const unsigned before = liftings;
    changed.Wait(held, [&] { return liftings != before; });
  }

  /// Lets the call return by way of the hooks.
  bool Intercept(const ArmedFault& fault, CallFrame& frame) noexcept {
    if (!g_returns.Push({::GetCurrentThreadId(), frame.returnAddress, fault.result, fault.lastError}))
      return false;
    frame.returnAddress = returnThunk;
    return true;
  }

  Verdict Apply(const ArmedFault& fault, CallFrame& frame) noexcept {
    switch (fault.way) {
      case Way::Refused:
        frame.SetResult(fault.result);
        return Verdict::Answered;
      case Way::RefusedAfterEffect:
        Intercept(fault, frame);
        return Verdict::PassOn;
      case Way::Delayed: {
        const working_threads::Rest rest;
        ::Sleep(static_cast<DWORD>(fault.delay.count()));
        return Verdict::PassOn;
      }
      case Way::NeverReturns:
        Hold();
        return Verdict::PassOn;
    }
    return Verdict::PassOn;
  }

  const ArmedFault* FaultOf(const Hook& hook, unsigned number) const noexcept {
    for (const ArmedFault& fault : faults) {
      if (fault.hook.load(std::memory_order_acquire) != &hook) continue;
      if (fault.calls.Hits(static_cast<int>(number - fault.before))) return &fault;
    }
    return nullptr;
  }

  static Verdict Decide(void* context, CallFrame* frame) noexcept {
    Hook& hook = *static_cast<Hook*>(context);
    State& state = *hook.state;
    DWORD lastError = ::GetLastError();
    const unsigned number = ++hook.count;
    if (const Observer observer = state.observer) {
      observer({hook.name.c_str(),
                {frame->Argument(0), frame->Argument(1), frame->Argument(2), frame->Argument(3)}});
    }
    if (hook.isPlatformCall) state.CountPlatformCall();
    Verdict verdict = Verdict::PassOn;
    if (const ArmedFault* const fault = state.FaultOf(hook, number)) {
      ++state.hits;
      verdict = state.Apply(*fault, *frame);
      if (verdict == Verdict::Answered && fault->lastError != 0) lastError = fault->lastError;
    }
    ::SetLastError(lastError);
    return verdict;
  }
};

namespace {

std::atomic<CallHooks::State*> g_free{nullptr};

}  // namespace

CallHooks::CallHooks() : m_State(TakeState()) {
  m_State->returnThunk = ReturnThunk();
}

CallHooks::~CallHooks() {
  Disarm();
  Observe(nullptr);
  EndProcessAt(kNever, 0);
  Lift();
  g_free = m_State;
}

/// That of the hooks before, once they are gone: whoever puts hooks in front of one module after the other
/// does not grow. A thread that is still in it goes on to the same function.
CallHooks::State* CallHooks::TakeState() {
  State* const former = g_free.exchange(nullptr);
  if (former == nullptr) return new State;
  for (Hook& hook : former->hooks) hook.count = 0;
  former->platformCalls = 0;
  return former;
}

void CallHooks::Place(HMODULE module) {
  struct Entry {
    Hook* hook;
    void** slot;
  };
  std::vector<Entry> entries;
  std::vector<Hook*> without;
  VisitImports(module, [&](const ImportEntry& import) {
    if (InspectsItsCaller(import.function) || !IsCode(*import.slot)) return;
    Hook* hook = Find(import.function);
    if (hook == nullptr) {
      hook = &m_State->hooks.emplace_back();
      hook->state = m_State;
      hook->name = import.function;
      hook->known = FindKnownCall(import.function);
      hook->isPlatformCall = hook->known == nullptr || hook->known->kind == KnownCall::Kind::Platform;
      without.push_back(hook);
    }
    entries.push_back({hook, import.slot});
  });
  if (!without.empty()) {
    ThunkPage page(without.size());
    for (Hook* hook : without) hook->thunk = page.AddCall(&State::Decide, hook, &hook->target);
    page.Seal();
  }
  for (const auto& [hook, slot] : entries) {
    if (*slot == hook->thunk) continue;
    hook->target = *slot;
    if (std::ranges::find(hook->slots, slot) == hook->slots.end()) hook->slots.push_back(slot);
    WriteSlot(slot, hook->thunk);
  }
}

void CallHooks::Lift() {
  for (Hook& hook : m_State->hooks) {
    for (void** const slot : hook.slots) {
      if (*slot == hook.thunk) WriteSlot(slot, hook.target);
    }
    hook.slots.clear();
  }
  {
    const std::lock_guard lock(m_State->lock);
    ++m_State->liftings;
  }
  m_State->changed.NotifyAll();
}

CallHooks::Hook* CallHooks::Find(std::string_view function) const {
  const auto found = std::ranges::find(m_State->hooks, function, &Hook::name);
  return found == m_State->hooks.end() ? nullptr : &*found;
}

bool CallHooks::Knows(std::string_view function) const {
  const Hook* const hook = Find(function);
  return hook != nullptr && !hook->slots.empty();
}

void CallHooks::Arm(const CallFault& fault) {
  const Hook* const hook = Find(fault.function);
  if (!Knows(fault.function))
    throw std::runtime_error("a fault names " + fault.function + ", which is not imported");
  const KnownCall* const known = hook->known;
  const bool hasToFail = fault.way == Way::Refused || fault.way == Way::RefusedAfterEffect;
  if (hasToFail && (known == nullptr || !known->CanFail()))
    throw std::runtime_error("nobody has described how " + fault.function + " fails");
  const auto unused =
      std::ranges::find(m_State->faults, nullptr, [](const ArmedFault& each) { return each.hook.load(); });
  if (unused == m_State->faults.end()) throw std::runtime_error("too many faults at a time");

  unused->before = hook->count;
  unused->calls = fault.calls;
  unused->way = fault.way;
  unused->delay = fault.delay;
  if (hasToFail) {
    const bool byResult = known->tells == KnownCall::Tells::ByResult;
    unused->result = byResult ? fault.error.value_or(static_cast<DWORD>(known->result)) : known->result;
    unused->lastError = byResult ? 0 : fault.error.value_or(known->lastError);
  }
  unused->hook.store(hook, std::memory_order_release);
}

void CallHooks::Disarm() {
  for (ArmedFault& fault : m_State->faults) fault.hook = nullptr;
  m_State->hits = 0;
}

unsigned CallHooks::Hits() const {
  return m_State->hits;
}

void CallHooks::ResetCounts() {
  for (Hook& hook : m_State->hooks) {
    // Faults count from their arming, whatever is asked here.
    const unsigned before = hook.count.exchange(0);
    for (ArmedFault& fault : m_State->faults) {
      if (fault.hook == &hook) fault.before -= before;
    }
  }
  m_State->platformCalls = 0;
}

std::map<std::string, int> CallHooks::Counts() const {
  std::map<std::string, int> counts;
  for (const Hook& hook : m_State->hooks) {
    if (hook.count != 0) counts[hook.name] = static_cast<int>(hook.count);
  }
  return counts;
}

int CallHooks::Count(std::string_view function) const {
  const Hook* const hook = Find(function);
  return hook == nullptr ? 0 : static_cast<int>(hook->count);
}

unsigned CallHooks::PlatformCalls() const {
  return m_State->platformCalls;
}

void CallHooks::EndProcessAt(unsigned platformCall, unsigned exitCode) {
  m_State->exitCode = exitCode;
  m_State->lastPlatformCall = platformCall;
}

void CallHooks::Observe(Observer observer) {
  m_State->observer = observer;
}

}  // namespace simulator
